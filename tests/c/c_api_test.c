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

/* A null handle gets each function's failure value. */
static void test_null_handle(void)
{
    int err = 0;
    CHECK(oxel_expr_add_var(NULL, "x") == -1);
    CHECK(oxel_expr_add_alias(NULL, "x", "t") == -1);
    CHECK(oxel_expr_parse(NULL, "x") == 0);
    CHECK(strcmp(oxel_expr_error(NULL), "") == 0);
    CHECK(oxel_expr_num_vars(NULL) == 0);
    CHECK(oxel_expr_eval(NULL, NULL, &err) == 0.0 && err == 0);
    CHECK(oxel_expr_eval_batch(NULL, NULL, 0, 0, NULL, NULL) == -1);
    CHECK(oxel_expr_derivative(NULL, "x") == NULL);
    CHECK(oxel_expr_simplified(NULL) == NULL);
    CHECK(oxel_expr_print(NULL) == NULL);
    CHECK(oxel_expr_to_c_function(NULL, "f") == NULL);
    oxel_expr_free(NULL);
    oxel_free(NULL);
}

int main(void)
{
    test_eval_and_batch();
    test_codes_and_assignments();
    test_derivative_simplify_print();
    test_null_handle();
    if (failures)
        fprintf(stderr, "%d check(s) failed\n", failures);
    else
        printf("C interface: all checks passed\n");
    return failures ? 1 : 0;
}
