// Tests (to be written): operators
