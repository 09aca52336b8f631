// Tests (to be written): expression
