// Tests (to be written): core
