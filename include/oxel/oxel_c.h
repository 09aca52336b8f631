/* Plain C interface to liboxel: an opaque expression handle and functions on it. */
#ifndef OXEL_OXEL_C_H
#define OXEL_OXEL_C_H

#include <oxel/export.h>
#include <oxel/messages.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @file oxel_c.h
 * C99 interface to liboxel for hosts written in C or any language with a C foreign-function
 * interface. Every function accepts a null handle and answers it with its failure value, and
 * so it does a freed handle as long as no new handle has taken its place (a freed handle's
 * memory is kept for the next new one); no C++ exception ever leaves these functions. One
 * handle must not be used from two threads at once; different handles may.
 */

/** Opaque handle of one formula with its variable names and aliases. */
typedef struct oxel_expr oxel_expr;

/** A new expression with no variables that evaluates to 0; NULL when memory runs out. */
OXEL_API oxel_expr* oxel_expr_new(void);
/** Destroys an expression; NULL and an already freed handle are ignored. */
OXEL_API void oxel_expr_free(oxel_expr* expr);
/** Declares a variable and returns its index in the value vector (the existing index when the
 *  name or an alias of it is already declared); -1 for a name that formula text cannot use as
 *  a variable (NULL, empty, not a letter or '_' followed by letters, digits and '_', or a
 *  function name or keyword such as "sin" or "pow"). */
OXEL_API int oxel_expr_add_var(oxel_expr* expr, const char* name);
/** Lets formula text write @p alias for the declared variable @p var. Returns 0, or -1 when
 *  either name is not a valid variable name or @p var is not a declared variable. */
OXEL_API int oxel_expr_add_alias(oxel_expr* expr, const char* var, const char* alias);
/** Parses formula text: 1 on success, 0 otherwise (the expression then evaluates to 0 and
 *  oxel_expr_error() tells why; an empty or NULL text is "the formula is empty"). The text is
 *  not modified. */
OXEL_API int oxel_expr_parse(oxel_expr* expr, const char* text);
/** The message of the last failed parse; "" after a success. Owned by the expression and valid
 *  until the next parse or oxel_expr_free(). */
OXEL_API const char* oxel_expr_error(const oxel_expr* expr);
/** Where the last parse failed: the byte offset in its text of the token it stopped at, or of
 *  the end of the text; -1 after a success (and for a NULL handle). */
OXEL_API int oxel_expr_error_offset(const oxel_expr* expr);
/** Number of slots the value vector needs: declared variables first, then the variables that
 *  the formula assigns. Changes with every successful parse. */
OXEL_API int oxel_expr_num_vars(const oxel_expr* expr);
/** Evaluates with @p values (oxel_expr_num_vars() doubles, indexed by variable index; assigned
 *  variables receive their results there). A failure stores its code in @p *err if that is
 *  still 0; set it to 0 first. @p err may be NULL. NULL @p values while the expression has
 *  variables, and a NULL or freed handle, give 0 and code 666 (illegal argument). */
OXEL_API double oxel_expr_eval(oxel_expr* expr, double* values, int* err);
/** Evaluates @p n rows: row r holds its values at rows[r * stride] (stride >= num_vars).
 *  results[r] and errors[r] receive what oxel_expr_eval() gives for that row, bit for bit.
 *  Returns 0, or -1 on invalid arguments. */
OXEL_API int oxel_expr_eval_batch(
    oxel_expr* expr, const double* rows, int n, int stride, double* results, int* errors);
/** A new expression for the partial derivative by @p var (a variable or an alias), not
 *  simplified; NULL where none can be formed. Free it with oxel_expr_free(). */
OXEL_API oxel_expr* oxel_expr_derivative(oxel_expr* expr, const char* var);
/** The partial derivative for numerical use (OxelExpression::partial): as
 *  oxel_expr_derivative(), except that a sub-tree independent of @p var differentiates to
 *  exactly 0 and is not evaluated. NULL for an unknown name, a node without a derivative
 *  rule that depends on @p var, no derivative, or beyond the node budget; oxel_last_refusal()
 *  then says why. Free it with oxel_expr_free(). */
OXEL_API oxel_expr* oxel_expr_partial(oxel_expr* expr, const char* var);
/** oxel_expr_partial()'s derivative written as statements over its shared parts
 *  (OxelExpression::partialStatements): a line "t1 = ...;" per part used more than once,
 *  then the result; with @p normalized nonzero each statement in its normal form. Parsed with
 *  the same variables, the text gives that derivative's values and codes, in time and size
 *  about linear in the formula's where the tree would grow faster. A malloc()ed string to
 *  release with oxel_free(); NULL where none can be formed, oxel_last_refusal() then says
 *  why. */
OXEL_API char* oxel_expr_derivative_statements(const oxel_expr* expr, const char* var,
                                               int normalized);
/** Why the last oxel_expr_partial(), oxel_expr_derivative_statements() or
 *  oxel_expr_gradient() of this thread gave NULL; "" after a success. Valid until this
 *  thread's next such call. */
OXEL_API const char* oxel_last_refusal(void);
/** The node budget of derivatives, gradients and normal forms (oxelSetNodeBudget); @p n <= 0
 *  restores the default. */
OXEL_API void oxel_set_node_budget(long n);
OXEL_API long oxel_node_budget(void);
/** A new, simplified expression with the same variables; free it with oxel_expr_free(). */
OXEL_API oxel_expr* oxel_expr_simplified(const oxel_expr* expr);
/** The library's printed form of the expression's tree, a malloc()ed string to release with
 *  oxel_free(); NULL on failure. */
OXEL_API char* oxel_expr_print(const oxel_expr* expr);
/** The expression as a complete C99 function "double name(double x, ...) { ... }" of its
 *  declared variables in their order (oxelToCFunction()), a malloc()ed string to release with
 *  oxel_free(); NULL where it has no C form or name is no C identifier or is reserved. */
OXEL_API char* oxel_expr_to_c_function(const oxel_expr* expr, const char* name);
/** Releases memory handed out by this interface (oxel_expr_print(), ...). */
OXEL_API void oxel_free(void* p);
/** Opaque handle of a value with its partial derivatives, evaluated together. */
typedef struct oxel_grad oxel_grad;

/** The value of @p expr with its derivatives by @p names[0 .. count) (variables or aliases):
 *  @p order 1 gives 1 + count outputs (the value, then each first derivative), order 2 adds
 *  the second derivatives (i, j), i <= j, row by row. Each output and code is what
 *  oxel_expr_eval() gives on the value or the oxel_expr_partial() expression (the code
 *  starting at 0). NULL for an unknown name, an order other than 1 or 2, or where a
 *  derivative cannot be formed; oxel_last_refusal() then says why. The handle does not
 *  depend on @p expr afterwards; free it with oxel_grad_free(). */
OXEL_API oxel_grad* oxel_expr_gradient(oxel_expr* expr, const char* const* names, int count,
                                       int order);
/** Number of outputs; 0 for NULL. */
OXEL_API int oxel_grad_outputs(const oxel_grad* grad);
/** One point: @p values as for oxel_expr_eval() (not written); out[k] and codes[k] receive
 *  output k. */
OXEL_API void oxel_grad_eval(const oxel_grad* grad, const double* values, double* out,
                             int* codes);
/** @p n points, one array per variable (columns[i][r]; a NULL column reads as 0): out[k][r] and
 *  codes[k][r]. Returns 0, or -1 on invalid arguments. */
OXEL_API int oxel_grad_eval_columns(const oxel_grad* grad, const double* const* columns, int n,
                                    double* const* out, int* const* codes);
/** Destroys a gradient; NULL is ignored. */
OXEL_API void oxel_grad_free(oxel_grad* grad);

/** Text of an evaluation error code ("Unknown" for codes the library does not know). */
OXEL_API const char* oxel_error_message(int code);

/** Sends every message of the library (kinds OXEL_MESSAGE_... in oxel/messages.h: parse
 *  errors, ignored characters, missing derivative rules) to @p handler instead of standard
 *  output and error; NULL restores that output. Process-wide; see oxelSetMessageHandler. */
OXEL_API void oxel_set_message_handler(OxelMessageHandler handler, void* user_data);

#ifdef __cplusplus
}
#endif

#endif
