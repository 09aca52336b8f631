/* Out-of-tree C host built against an installed liboxel: parse, evaluate, differentiate. */
#include <stdio.h>
#include <string.h>

#include <oxel/oxel_c.h>

int main(void)
{
    oxel_expr* e = oxel_expr_new();
    oxel_expr* d;
    double v[1] = { 3.0 };
    double value, slope;
    int err = 0;
    char* text;
    if (oxel_expr_add_var(e, "x") != 0 || !oxel_expr_parse(e, "x*x + 1")) {
        fprintf(stderr, "c consumer: parse failed: %s\n", oxel_expr_error(e));
        return 1;
    }
    d = oxel_expr_derivative(e, "x");
    if (!d) {
        fprintf(stderr, "c consumer: no derivative\n");
        return 1;
    }
    value = oxel_expr_eval(e, v, &err);
    slope = oxel_expr_eval(d, v, &err);
    /* x*x + 1 at 3 is 10, its slope there 6. */
    if (value != 10 || slope != 6 || err != 0) {
        fprintf(stderr, "c consumer: got %g and %g (%s)\n", value, slope, oxel_error_message(err));
        return 1;
    }
    text = oxel_expr_print(d);
    printf("c consumer: ok (%s)\n", text ? text : "?");
    oxel_free(text);
    oxel_expr_free(d);
    oxel_expr_free(e);
    return 0;
}
