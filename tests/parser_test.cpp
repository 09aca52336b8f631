// Tests (to be written): parser
