/* Grammar of the formula language: one statement's tokens to one expression tree. */
%code requires {
#include <oxel/nodes.h>
}

%code {
#include <cstdlib>
#include <string>

#include "core/derivative.h"
#include "nodes/words.h"
#include "parser/converter.h"

Oxel* yyOxel = nullptr;

/* Nesting is bounded by the parser's stack: a level takes at most 16 entries (the last argument
   of a dependent variable with six), so texts nested up to the limit always fit. */
#define YYMAXDEPTH (16 * OXEL_MAX_DEPTH + 16)
#define YYINITDEPTH 200

static Oxel* plainVar(int index)
{
    return new OxVar(index, (*OxConverter_yyVarNames)[index].c_str());
}
}

%define api.prefix {OxConverter_yy}
%define parse.error custom
/* The expected-token lists of the messages depend on these two staying as they are. */
%define parse.lac none
%define lr.default-reduction most

%union {
    double x;
    int i;
    OxDepVarnode* d;
    char* s;
    Oxel* o;
}

/* Token codes follow this order: named tokens first, then the operators as the precedence
   levels introduce them. */
%token <s> ID
%token <x> NUM
%token <i> VAR
%token <d> DEPVAR
%token PG MaG MiG GG PP MM
/* A keyword's value is its index in the word table (nodes/words.h). */
%token <i> KW_GAUSS KW_RAND KW_ABS KW_LN KW_SQR KW_SIN KW_COS KW_TAN KW_ACOS KW_ASIN KW_ATAN
%token <i> KW_DIFF KW_EXP KW_ERF KW_ERFC KW_POW
%token <s> COMPILED_EXPR
%token <i> KW_ACOSH KW_ASINH KW_ATAN2 KW_ATANH KW_CBRT KW_CEIL KW_CPSIGN KW_COSH KW_DREM
%token <i> KW_EXPM1 KW_FLOOR KW_FMOD KW_GAMMA KW_HYPOT KW_J0 KW_J1 KW_JN KW_LOG10 KW_LOG1P
%token <i> KW_LOGB KW_RINT KW_SINH KW_TANH KW_TRUNC KW_Y0 KW_Y1 KW_YN KW_MAX KW_MIN KW_SGN

/* Unusual on purpose: '%' binds like '+', the bitwise operators bind tighter than '*',
   the logical operators share one level. */
%left LOR LAND
%nonassoc '<' '>' EQ NE GE LE
%left '-' '+' ';' '%'
%left '*' '/'
%left SHIFT_RIGHT SHIFT_LEFT BIT_XOR BIT_AND BIT_OR
%precedence '!' NEG
%left '^'

/* Functions added after the keywords above: the table gives them these tokens by their
   argument count. They come after every other symbol (hence the characters that the rules
   would otherwise introduce first), so the order of the messages' expected tokens stays. */
%token '[' ']' '(' ')' ',' '='
%token <i> KW_FUNCTION1 KW_FUNCTION2

%type <o> exp
%type <i> unary binary

/* Nodes and brace texts abandoned by a failed parse are released. */
%destructor { oxelDestroy($$); } <o>
%destructor { std::free($$); } COMPILED_EXPR

/* Assignments have no precedence: their right side extends as far as it can (shift). */
%expect 38

%%

input:
    exp                                 { yyOxel = $1; }
;

exp:
    NUM                                 { $$ = new OxZahl($1); }
  | VAR                                 { $$ = plainVar($1); }
  | DEPVAR                              {
        if ($1->getNDataVar() < 1 || !$1->hasDefaultVars()) {
            OxConverter_yyerror("dependant variable has no data or has no default arguments");
            YYABORT;
        }
        $$ = new OxDepVar($1, 0);
    }
  | DEPVAR '[' NUM ']'                  {
        int component = OxConverter_component($3);
        if (component >= $1->getNDataVar() || !$1->hasDefaultVars()) {
            OxConverter_yyerror(
                "dependant variable doesn't have enough components or has no default arguments");
            YYABORT;
        }
        $$ = new OxDepVar($1, component);
    }
  | DEPVAR '[' NUM ']' '(' ')'          {
        $$ = DEPVAR_CHECK_RETURN_OR_ERROR(1, $1, $3, nullptr);
        if (!$$) YYABORT;
    }
  | DEPVAR '[' NUM ']' '(' exp ')'      {
        Oxel* args[] = {$6};
        $$ = DEPVAR_CHECK_RETURN_OR_ERROR(1, $1, $3, args);
        if (!$$) YYABORT;
    }
  | DEPVAR '[' NUM ']' '(' exp ',' exp ')' {
        Oxel* args[] = {$6, $8};
        $$ = DEPVAR_CHECK_RETURN_OR_ERROR(2, $1, $3, args);
        if (!$$) YYABORT;
    }
  | DEPVAR '[' NUM ']' '(' exp ',' exp ',' exp ')' {
        Oxel* args[] = {$6, $8, $10};
        $$ = DEPVAR_CHECK_RETURN_OR_ERROR(3, $1, $3, args);
        if (!$$) YYABORT;
    }
  | DEPVAR '[' NUM ']' '(' exp ',' exp ',' exp ',' exp ')' {
        Oxel* args[] = {$6, $8, $10, $12};
        $$ = DEPVAR_CHECK_RETURN_OR_ERROR(4, $1, $3, args);
        if (!$$) YYABORT;
    }
  | DEPVAR '[' NUM ']' '(' exp ',' exp ',' exp ',' exp ',' exp ')' {
        Oxel* args[] = {$6, $8, $10, $12, $14};
        $$ = DEPVAR_CHECK_RETURN_OR_ERROR(5, $1, $3, args);
        if (!$$) YYABORT;
    }
  | DEPVAR '[' NUM ']' '(' exp ',' exp ',' exp ',' exp ',' exp ',' exp ')' {
        Oxel* args[] = {$6, $8, $10, $12, $14, $16};
        $$ = DEPVAR_CHECK_RETURN_OR_ERROR(6, $1, $3, args);
        if (!$$) YYABORT;
    }
  | KW_DIFF '(' exp ',' VAR ')'         {
        /* An aborting action releases its own operands: the parser does not. */
        bool tooLarge = false;
        $$ = oxd::boundedDiff($3, (*OxConverter_yyVarNames)[$5].c_str(),
                              oxd::maxDerivativeNodes(), &tooLarge);
        if (!$$) {
            OxConverter_yyerror(tooLarge ? "derivative larger than the node budget" : "no sufficient differentiability");
            oxelDestroy($3);
            YYABORT;
        }
        /* The argument is not part of the result; nothing else refers to it. */
        oxelDestroy($3);
    }
  | unary '(' exp ')'                   { $$ = oxw::kWords[$1].make1($3); }
  | binary '(' exp ',' exp ')'          { $$ = oxw::kWords[$1].make2($3, $5); }
  | KW_GAUSS '(' ')'                    { $$ = new OxGauss(); }
  | KW_RAND '(' ')'                     { $$ = new OxRand(); }
  | KW_POW '(' exp ',' exp ')'          { $$ = new OxHoch($3, $5); }
  | ID '=' exp                          { $$ = NEW_ASSIGNMENT($1, $3); }
  | VAR '=' exp                         { $$ = ASSIGNMENT($1, $3); }
  | exp '<' exp                         { $$ = new OxLess($1, $3); }
  | exp '>' exp                         { $$ = new OxGreater($1, $3); }
  | exp LE exp                          { $$ = new OxLessEqual($1, $3); }
  | exp GE exp                          { $$ = new OxGreaterEqual($1, $3); }
  | exp '+' exp                         { $$ = new OxPlus($1, $3); }
  | exp '-' exp                         { $$ = new OxMinus($1, $3); }
  | exp '*' exp                         { $$ = new OxMal($1, $3); }
  | exp '^' exp                         { $$ = new OxHoch($1, $3); }
  | exp '/' exp                         { $$ = new OxDurch($1, $3); }
  | exp '%' exp                         { $$ = new OxModulo($1, $3); }
  | exp EQ exp                          { $$ = new OxEqual($1, $3); }
  | exp NE exp                          { $$ = new OxNot(new OxEqual($1, $3)); }
  | exp LAND exp                        { $$ = new OxAnd($1, $3); }
  | exp LOR exp                         { $$ = new OxOr($1, $3); }
  | '!' exp                             { $$ = new OxNot($2); }
  | '-' exp %prec NEG                   { $$ = new OxMal(new OxZahl(-1.0), $2); }
  | '(' exp ')'                         { $$ = $2; }
  | exp BIT_OR exp                      { $$ = new OxBitOr($1, $3); }
  | exp BIT_AND exp                     { $$ = new OxBitAnd($1, $3); }
  | exp BIT_XOR exp                     { $$ = new OxBitXOr($1, $3); }
  | exp SHIFT_LEFT exp                  { $$ = new OxShiftLeft($1, $3); }
  | exp SHIFT_RIGHT exp                 { $$ = new OxShiftRight($1, $3); }
;

/* The function keywords by argument count; each carries its word, which builds the node. */
unary:
    KW_ABS | KW_LN | KW_SQR | KW_SIN | KW_COS | KW_TAN | KW_ACOS | KW_ASIN | KW_ATAN | KW_EXP
  | KW_ERF | KW_ERFC | KW_ACOSH | KW_ASINH | KW_ATANH | KW_CBRT | KW_CEIL | KW_COSH | KW_EXPM1
  | KW_FLOOR | KW_J0 | KW_J1 | KW_LOG10 | KW_RINT | KW_SINH | KW_TANH | KW_TRUNC | KW_Y0 | KW_Y1
  | KW_SGN | KW_FUNCTION1
;

binary:
    KW_ATAN2 | KW_CPSIGN | KW_DREM | KW_FMOD | KW_HYPOT | KW_JN | KW_YN | KW_MAX | KW_MIN
  | KW_FUNCTION2
;

%%

// Messages in the classic verbose form: "$end" and "$undefined" for the special symbols,
// at most four expected tokens, and the plain text for a state without an action row.
static const char* symbolName(yysymbol_kind_t kind)
{
    if (kind == YYSYMBOL_YYEOF)
        return "$end";
    if (kind == YYSYMBOL_YYUNDEF)
        return "$undefined";
    return yysymbol_name(kind);
}

static int yyreport_syntax_error(const yypcontext_t* ctx)
{
    int row = yypact[+*ctx->yyssp];
    if (yypact_value_is_default(row) || row > YYLAST) {
        OxConverter_yyerror("syntax error");
        return 0;
    }
    std::string msg = "syntax error, unexpected ";
    msg += symbolName(yypcontext_token(ctx));
    yysymbol_kind_t expected[4];
    int n = yypcontext_expected_tokens(ctx, expected, 4);
    for (int i = 0; i < n; ++i) {
        msg += i == 0 ? ", expecting " : " or ";
        msg += symbolName(expected[i]);
    }
    OxConverter_yyerror(msg.c_str());
    return 0;
}
