// Tests (to be written): batch
