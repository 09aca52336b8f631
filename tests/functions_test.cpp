// Tests (to be written): functions
