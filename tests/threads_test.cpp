// Tests (to be written): threads
