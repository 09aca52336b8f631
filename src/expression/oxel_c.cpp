// The C interface: thin wrappers around OxelExpression that catch every exception.
#include <oxel/oxel_c.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <oxel/oxel.h>

// Holds the expression by pointer: derivative() and simplified() hand out new heap objects.
struct oxel_expr {
    explicit oxel_expr(OxelExpression* e)
        : expr(e)
    {
    }
    std::unique_ptr<OxelExpression> expr;
};

struct oxel_grad {
    std::unique_ptr<OxelGradient> grad;
};

namespace {

// Runs f, answering any exception with the given failure value.
template <class R, class F> R guarded(R failure, F f)
{
    try {
        return f();
    } catch (...) {
        return failure;
    }
}

// Wraps an expression the library made; it is released if the handle cannot be allocated.
oxel_expr* adopt(OxelExpression* made)
{
    std::unique_ptr<OxelExpression> owned(made);
    if (!owned)
        return nullptr;
    oxel_expr* h = new oxel_expr(owned.get());
    owned.release();
    return h;
}

} // namespace

extern "C" {

oxel_expr* oxel_expr_new(void)
{
    return guarded<oxel_expr*>(nullptr, [] { return adopt(new OxelExpression); });
}

void oxel_expr_free(oxel_expr* expr)
{
    guarded(0, [expr] {
        delete expr;
        return 0;
    });
}

int oxel_expr_add_var(oxel_expr* expr, const char* name)
{
    if (!expr)
        return -1;
    return guarded(-1, [expr, name] { return expr->expr->addVar(name); });
}

int oxel_expr_add_alias(oxel_expr* expr, const char* var, const char* alias)
{
    if (!expr)
        return -1;
    return guarded(-1, [expr, var, alias] {
        expr->expr->addVarAlias(var, alias);
        return 0;
    });
}

int oxel_expr_parse(oxel_expr* expr, const char* text)
{
    if (!expr)
        return 0;
    return guarded(0, [expr, text] { return expr->expr->initFromString(text); });
}

const char* oxel_expr_error(const oxel_expr* expr)
{
    if (!expr)
        return "";
    return expr->expr->lastError();
}

int oxel_expr_num_vars(const oxel_expr* expr)
{
    if (!expr)
        return 0;
    return expr->expr->numVars();
}

double oxel_expr_eval(oxel_expr* expr, double* values, int* err)
{
    if (!expr)
        return 0.0;
    return guarded(0.0, [expr, values, err] {
        const int n = expr->expr->numVars();
        // A missing array is answered with 0 and no error code, as the C interface always did.
        if (n > 0 && !values)
            return 0.0;
        int local = 0;
        return expr->expr->eval(values, n, err ? *err : local);
    });
}

int oxel_expr_eval_batch(
    oxel_expr* expr, const double* rows, int n, int stride, double* results, int* errors)
{
    if (!expr || n < 0)
        return -1;
    return guarded(-1, [=] { return expr->expr->evalBatch(rows, n, stride, results, errors); });
}

oxel_expr* oxel_expr_derivative(oxel_expr* expr, const char* var)
{
    if (!expr || !var)
        return nullptr;
    return guarded<oxel_expr*>(nullptr, [expr, var] { return adopt(expr->expr->derivative(var)); });
}

oxel_expr* oxel_expr_simplified(const oxel_expr* expr)
{
    if (!expr)
        return nullptr;
    return guarded<oxel_expr*>(nullptr, [expr] { return adopt(expr->expr->simplified()); });
}

// A malloc()ed copy of s.
static char* copied(const char* s, size_t n)
{
    char* out = static_cast<char*>(std::malloc(n + 1));
    if (out)
        std::memcpy(out, s, n + 1);
    return out;
}

char* oxel_expr_print(const oxel_expr* expr)
{
    if (!expr)
        return nullptr;
    return guarded<char*>(nullptr, [expr] {
        std::string s = oxelToString(expr->expr->root());
        return copied(s.c_str(), s.size());
    });
}

char* oxel_expr_to_c_function(const oxel_expr* expr, const char* name)
{
    if (!expr || !name)
        return nullptr;
    return guarded<char*>(nullptr, [=]() -> char* {
        KxString s = expr->expr->toCFunction(name);
        return s.length() ? copied(s.c_str(), static_cast<size_t>(s.length())) : nullptr;
    });
}

oxel_grad* oxel_expr_gradient(oxel_expr* expr, const char* const* names, int count, int order)
{
    if (!expr || count < 0 || (count > 0 && !names))
        return nullptr;
    return guarded<oxel_grad*>(nullptr, [=]() -> oxel_grad* {
        std::vector<std::string> list;
        for (int i = 0; i < count; ++i) {
            if (!names[i])
                return nullptr;
            list.emplace_back(names[i]);
        }
        std::unique_ptr<OxelGradient> g = expr->expr->gradient(list, order);
        return g ? new oxel_grad{std::move(g)} : nullptr;
    });
}

int oxel_grad_outputs(const oxel_grad* grad)
{
    return grad ? grad->grad->numOutputs() : 0;
}

void oxel_grad_eval(const oxel_grad* grad, const double* values, double* out, int* codes)
{
    if (grad)
        grad->grad->eval(values, out, codes);
}

int oxel_grad_eval_columns(const oxel_grad* grad, const double* const* columns, int n,
                           double* const* out, int* const* codes)
{
    if (!grad)
        return -1;
    return guarded(-1, [=] { return grad->grad->evalBatchColumns(columns, n, out, codes); });
}

void oxel_grad_free(oxel_grad* grad)
{
    delete grad;
}

void oxel_free(void* p)
{
    std::free(p);
}

const char* oxel_error_message(int code)
{
    return vOxError(code);
}

} // extern "C"
