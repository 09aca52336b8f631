// Tests (to be written): deep
