// Tests (to be written): algebra
