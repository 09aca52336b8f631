// OxelExpression (to be written)
