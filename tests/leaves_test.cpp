// Tests (to be written): leaves
