/* Grammar of the formula language (placeholder). */
%code { int OxConverter_yylex(); int OxConverter_yyerror(const char*) { return 1; } }
%define api.prefix {OxConverter_yy}
%%
input: %empty ;
%%
