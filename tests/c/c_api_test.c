/* Tests of the C interface, compiled as C99: results against the C library, batch against eval. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <oxel/oxel_c.h>

static int failures = 0;

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);               \
            ++failures;                                                                            \
        }                                                                                          \
    } while (0)

static int same_bits(double a, double b)
{
    return memcmp(&a, &b, sizeof a) == 0;
}

/* Formulas next to the same computation written in C; arithmetic and libm calls give the same
   bits both ways (every function against libm is in the C++ suite). */
static double f_trig(double x, double y)
{
    return sin(x) * y + 1;
}
static double f_ratio(double x, double y)
{
    return x / y - y;
}

static const struct {
    const char* text;
    double (*native)(double, double);
} formulas[] = {
    { "sin(x)*y + 1", f_trig },
    { "x/y - speed", f_ratio }, /* speed is an alias of y */
};

static const double points[] = { 0.0, 1.0, -1.0, 0.5, 2.5, -3.25, 1e-3, 7.0 };
#define NPOINTS ((int)(sizeof points / sizeof points[0]))

static oxel_expr* make(const char* text)
{
    oxel_expr* e = oxel_expr_new();
    CHECK(oxel_expr_add_var(e, "x") == 0);
    CHECK(oxel_expr_add_var(e, "y") == 1);
    CHECK(oxel_expr_add_alias(e, "y", "speed") == 0);
    CHECK(oxel_expr_add_var(e, "speed") == 1); /* the alias names y: no new variable */
    if (!oxel_expr_parse(e, text))
        fprintf(stderr, "parse of '%s' failed: %s\n", text, oxel_expr_error(e));
    return e;
}

/* Every formula at every point: eval equals the C computation; a batch over the grid (with a
   stride wider than needed) gives eval's bits and codes row by row. */
static void test_eval_and_batch(void)
{
    size_t k;
    for (k = 0; k < sizeof formulas / sizeof formulas[0]; ++k) {
        oxel_expr* e = make(formulas[k].text);
        double rows[NPOINTS * NPOINTS * 3], results[NPOINTS * NPOINTS], alone[NPOINTS * NPOINTS];
        int errors[NPOINTS * NPOINTS], codes[NPOINTS * NPOINTS];
        int i, j, n = 0;
        CHECK(oxel_expr_num_vars(e) == 2);
        for (i = 0; i < NPOINTS; ++i)
            for (j = 0; j < NPOINTS; ++j, ++n) {
                double v[2];
                v[0] = points[i];
                v[1] = points[j];
                rows[n * 3] = v[0];
                rows[n * 3 + 1] = v[1];
                rows[n * 3 + 2] = 99.0;
                codes[n] = 0;
                alone[n] = oxel_expr_eval(e, v, &codes[n]);
                if (codes[n] == 0
                    && !same_bits(alone[n], formulas[k].native(points[i], points[j]))) {
                    fprintf(stderr, "%s at (%g, %g): %.17g\n", formulas[k].text, points[i],
                        points[j], alone[n]);
                    ++failures;
                }
            }
        CHECK(oxel_expr_eval_batch(e, rows, n, 3, results, errors) == 0);
        for (i = 0; i < n; ++i)
            CHECK(same_bits(results[i], alone[i]) && errors[i] == codes[i]);
        CHECK(oxel_expr_eval_batch(e, rows, n, 1, results, errors) == -1); /* stride too small */
        oxel_expr_free(e);
    }
}

/* Errors and assignments travel through the C types. */
static void test_codes_and_assignments(void)
{
    oxel_expr* e = make("ln(x) + y");
    double v[3] = { 0.0, 1.0, 0.0 };
    int err = 0;
    oxel_expr_eval(e, v, &err);
    CHECK(err == 11 && strcmp(oxel_error_message(err), "Illegal log argument") == 0);
    oxel_expr_eval(e, v, NULL); /* a null code pointer is allowed */

    CHECK(oxel_expr_parse(e, "a = x*2; a + y") == 1);
    CHECK(oxel_expr_num_vars(e) == 3);
    v[0] = 1.5;
    v[1] = 0.25;
    err = 0;
    CHECK(oxel_expr_eval(e, v, &err) == 3.25 && v[2] == 3.0 && err == 0);

    CHECK(oxel_expr_parse(e, "x + * y") == 0);
    CHECK(strlen(oxel_expr_error(e)) > 0);
    CHECK(oxel_expr_num_vars(e) == 2);
    CHECK(oxel_expr_eval(e, v, &err) == 0.0);
    err = 0; /* a missing array, as with the C++ pointer form */
    CHECK(oxel_expr_eval(e, NULL, &err) == 0.0 && err == 666);
    oxel_expr_free(e);
}

/* Derivatives against the analytic slope, simplification against the unsimplified values. */
static void test_derivative_simplify_print(void)
{
    oxel_expr* e = make("x*x*speed + 3*x*1");
    oxel_expr *d = oxel_expr_derivative(e, "x"), *s = oxel_expr_simplified(e);
    int i, j;
    char* text;
    CHECK(d != NULL && s != NULL);
    for (i = 0; i < NPOINTS && d && s; ++i)
        for (j = 0; j < NPOINTS; ++j) {
            double v[2];
            int err = 0;
            v[0] = points[i];
            v[1] = points[j];
            CHECK(oxel_expr_eval(d, v, &err) == 2 * points[i] * points[j] + 3);
            CHECK(same_bits(oxel_expr_eval(s, v, &err), oxel_expr_eval(e, v, &err)));
        }
    oxel_expr_free(d);
    oxel_expr_free(s);

    CHECK(oxel_expr_parse(e, "x % 2") == 1);
    CHECK(oxel_expr_derivative(e, "x") == NULL);

    CHECK(oxel_expr_parse(e, "2+3*x*1") == 1);
    s = oxel_expr_simplified(e);
    text = oxel_expr_print(s);
    CHECK(text != NULL && strcmp(text, "2+3*x") == 0);
    oxel_free(text);
    /* the declared variables are the parameters; sin is reserved in C */
    text = oxel_expr_to_c_function(s, "f");
    CHECK(text != NULL &&
          strcmp(text, "double f(double x, double y)\n{\n    return 2.0 + 3.0 * x;\n}\n") == 0);
    oxel_free(text);
    CHECK(oxel_expr_to_c_function(s, "sin") == NULL);
    oxel_expr_free(s);
    oxel_expr_free(e);
}

/* Derivative statements read back to the partial derivative's bits; refusals say why. */
static void test_derivative_statements(void)
{
    oxel_expr* e = make("exp(exp(speed * x)) / (1 + x*x)");
    oxel_expr* d = oxel_expr_partial(e, "x");
    int normalized, i;
    for (normalized = 0; normalized < 2; ++normalized) {
        char* text = oxel_expr_derivative_statements(e, "x", normalized);
        oxel_expr* back = make(text ? text : "");
        CHECK(text != NULL && strchr(text, ';') != NULL && strcmp(oxel_last_refusal(), "") == 0);
        /* the statements' names are variables of their own: a slot each */
        CHECK(oxel_expr_num_vars(back) > 2 && oxel_expr_num_vars(back) <= 16);
        for (i = 0; i < NPOINTS && text && d && oxel_expr_num_vars(back) <= 16; ++i) {
            double v[16] = { 0 }, want, got;
            int err = 0, code = 0;
            v[0] = points[i] / 4;
            v[1] = points[(i + 3) % NPOINTS] / 4;
            want = oxel_expr_eval(d, v, &err);
            got = oxel_expr_eval(back, v, &code);
            CHECK(normalized ? got == want || fabs(got - want) <= 1e-9 * fabs(want)
                             : same_bits(got, want));
            CHECK(code == err);
        }
        oxel_free(text);
        oxel_expr_free(back);
    }
    CHECK(oxel_expr_derivative_statements(e, "q", 0) == NULL && strlen(oxel_last_refusal()) > 0);
    CHECK(oxel_expr_derivative_statements(e, NULL, 0) == NULL);
    oxel_expr_free(d);
    oxel_expr_free(e);
}

/* Every function on a handle that is not a live expression: its failure value, no crash. */
static void check_dead_handle(oxel_expr* e, oxel_grad* g)
{
    const char* names[1];
    double v[1] = { 1.0 }, out[2];
    int err = 0, codes[2] = { -7, -7 };
    names[0] = "x";
    CHECK(oxel_expr_add_var(e, "x") == -1);
    CHECK(oxel_expr_add_alias(e, "x", "t") == -1);
    CHECK(oxel_expr_parse(e, "x") == 0);
    CHECK(strcmp(oxel_expr_error(e), "") == 0 && oxel_expr_error_offset(e) == -1);
    CHECK(oxel_expr_num_vars(e) == 0);
    CHECK(oxel_expr_eval(e, v, &err) == 0.0 && err == 666);
    CHECK(oxel_expr_eval_batch(e, v, 1, 1, out, codes) == -1);
    CHECK(oxel_expr_derivative(e, "x") == NULL && oxel_expr_simplified(e) == NULL);
    CHECK(oxel_expr_print(e) == NULL && oxel_expr_gradient(e, names, 1, 1) == NULL);
    CHECK(oxel_expr_to_c_function(e, "f") == NULL);
    CHECK(oxel_expr_derivative_statements(e, "x", 0) == NULL);
    CHECK(oxel_grad_outputs(g) == 0);
    oxel_grad_eval(g, v, out, codes);
    CHECK(codes[0] == -7 && oxel_grad_eval_columns(g, NULL, 0, NULL, NULL) == -1);
    oxel_expr_free(e); /* a second free is ignored */
    oxel_grad_free(g);
}

/* A null handle, and handles already freed, get each function's failure value. */
static void test_dead_handles(void)
{
    oxel_expr* e = make("x + 1");
    const char* names[1];
    oxel_grad* g;
    names[0] = "x";
    g = oxel_expr_gradient(e, names, 1, 1);
    CHECK(g != NULL && oxel_grad_outputs(g) == 2);
    oxel_grad_free(g);
    oxel_expr_free(e);
    check_dead_handle(NULL, NULL);
    check_dead_handle(e, g);
    oxel_free(NULL);
}

/* Names that formula text could not use are refused; an alias needs a declared variable. */
static void test_names_and_aliases(void)
{
    static const char* const refused[] = { "", "a b", "1x", "sin", "pow", "diff", "gamma",
        "x+y", "x;", "x{" };
    oxel_expr* e = oxel_expr_new();
    size_t k;
    CHECK(oxel_expr_add_var(e, "x") == 0 && oxel_expr_add_var(e, "sinx") == 1);
    CHECK(oxel_expr_add_var(e, "_") == 2 && oxel_expr_add_var(e, NULL) == -1);
    for (k = 0; k < sizeof refused / sizeof refused[0]; ++k) {
        CHECK(oxel_expr_add_var(e, refused[k]) == -1);
        CHECK(oxel_expr_add_alias(e, "x", refused[k]) == -1);
    }
    CHECK(oxel_expr_add_alias(e, "x", NULL) == -1 && oxel_expr_add_alias(e, NULL, "t") == -1);
    CHECK(oxel_expr_add_alias(e, "q", "t") == -1); /* q is not declared */
    CHECK(oxel_expr_add_alias(e, "x", "t") == 0);
    CHECK(oxel_expr_add_alias(e, "t", "u") == -1); /* t is an alias, not a variable */
    CHECK(oxel_expr_parse(e, "t * 2") == 1 && oxel_expr_num_vars(e) == 3);
    oxel_expr_free(e);
}

struct seen {
    int count, kind;
    char text[200];
};

static void on_message(int kind, const char* text, void* data)
{
    struct seen* s = (struct seen*)data;
    ++s->count;
    s->kind = kind;
    strncpy(s->text, text, sizeof s->text - 1);
}

/* Messages reach the C handler; the offset points at the token the parse stopped at. */
static void test_messages_and_offsets(void)
{
    struct seen s;
    oxel_expr* e = make("x");
    memset(&s, 0, sizeof s);
    oxel_set_message_handler(on_message, &s);
    CHECK(oxel_expr_parse(e, "x + * y") == 0);
    CHECK(s.count == 1 && s.kind == OXEL_MESSAGE_PARSE_ERROR);
    CHECK(strcmp(s.text, oxel_expr_error(e)) == 0 && oxel_expr_error_offset(e) == 4);
    CHECK(oxel_expr_parse(e, "x @") == 1);
    CHECK(s.count == 2 && s.kind == OXEL_MESSAGE_IGNORED_CHARACTER && strstr(s.text, "offset 2"));
    CHECK(oxel_expr_error_offset(e) == -1 && strcmp(oxel_expr_error(e), "") == 0);
    oxel_set_message_handler(NULL, NULL);
    CHECK(oxel_expr_parse(e, "") == 0 && oxel_expr_error_offset(e) == 0);
    CHECK(strcmp(oxel_expr_error(e), "the formula is empty") == 0);
    CHECK(oxel_expr_parse(e, NULL) == 0 && strcmp(oxel_expr_error(e), "the formula is empty") == 0);
    oxel_expr_free(e);
}

int main(void)
{
    test_eval_and_batch();
    test_codes_and_assignments();
    test_derivative_simplify_print();
    test_derivative_statements();
    test_dead_handles();
    test_names_and_aliases();
    test_messages_and_offsets();
    if (failures)
        fprintf(stderr, "%d check(s) failed\n", failures);
    else
        printf("C interface: all checks passed\n");
    return failures ? 1 : 0;
}
