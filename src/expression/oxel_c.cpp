// The C interface: thin wrappers around OxelExpression that catch every exception.
#include <oxel/oxel_c.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "support/fork.h"

// Words that mark a live handle; freeing clears them, so that a freed handle is recognised.
constexpr unsigned kLiveExpr = 0x6f78656cu, kLiveGrad = 0x67726164u;

// Holds the expression by pointer: derivative() and simplified() hand out new heap objects.
struct oxel_expr {
    unsigned magic = 0;
    std::unique_ptr<OxelExpression> expr;
    bool live() const { return magic == kLiveExpr; }
};

struct oxel_grad {
    unsigned magic = 0;
    std::unique_ptr<OxelGradient> grad;
    bool live() const { return magic == kLiveGrad; }
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

template <class H> bool live(const H* h)
{
    return h && h->live();
}

// Freed handles wait here for the next new one instead of going back to the allocator, so a
// call with a freed handle reads its cleared word in memory that is still ours, not memory
// that may belong to anything by then. There are never more than the most handles alive at
// once. The lists are never destroyed: a handle may be freed during exit.
template <class H> struct Shells {
    std::mutex lock;
    std::vector<H*> spare;

    static Shells& get()
    {
        static Shells* s = new Shells;
        return *s;
    }
    static H* take(unsigned magic)
    {
        Shells& s = get();
        H* h = nullptr;
        {
            std::lock_guard<std::mutex> hold(s.lock);
            if (!s.spare.empty()) {
                h = s.spare.back();
                s.spare.pop_back();
            }
        }
        if (!h)
            h = new H;
        h->magic = magic;
        return h;
    }
    // Clears the handle, then keeps its memory (or releases it when the list cannot grow).
    template <class Owned> static void give(H* h, Owned& owned)
    {
        h->magic = 0;
        owned.reset();
        Shells& s = get();
        try {
            std::lock_guard<std::mutex> hold(s.lock);
            s.spare.push_back(h);
        } catch (...) {
            delete h;
        }
    }
};

// Both lists exist from load on, and their locks are held across fork().
const bool handlesForkSafe = oxelForkLock(kForkLeaf, Shells<oxel_expr>::get().lock) &&
                             oxelForkLock(kForkLeaf, Shells<oxel_grad>::get().lock);

// Wraps an expression the library made; it is released if the handle cannot be allocated.
oxel_expr* adopt(OxelExpression* made)
{
    std::unique_ptr<OxelExpression> owned(made);
    if (!owned)
        return nullptr;
    oxel_expr* h = Shells<oxel_expr>::take(kLiveExpr);
    h->expr = std::move(owned);
    return h;
}

// Why this thread's last partial or gradient was refused.
thread_local std::string refusal;

} // namespace

extern "C" {

oxel_expr* oxel_expr_new(void)
{
    return guarded<oxel_expr*>(nullptr, [] { return adopt(new OxelExpression); });
}

void oxel_expr_free(oxel_expr* expr)
{
    if (live(expr))
        Shells<oxel_expr>::give(expr, expr->expr);
}

int oxel_expr_add_var(oxel_expr* expr, const char* name)
{
    if (!live(expr) || !oxelIsVariableName(name))
        return -1;
    return guarded(-1, [expr, name] { return expr->expr->addVar(name); });
}

int oxel_expr_add_alias(oxel_expr* expr, const char* var, const char* alias)
{
    if (!live(expr) || !oxelIsVariableName(var) || !oxelIsVariableName(alias))
        return -1;
    return guarded(-1, [expr, var, alias] {
        // The target must be a declared variable itself: the formula resolves one alias level.
        OxelExpression& e = *expr->expr;
        const int index = e.varIndex(var);
        if (index < 0 || index >= e.numVars() - e.numInternalVars()
            || std::strcmp(e.varName(static_cast<unsigned>(index)), var) != 0)
            return -1;
        e.addVarAlias(var, alias);
        return 0;
    });
}

int oxel_expr_parse(oxel_expr* expr, const char* text)
{
    if (!live(expr))
        return 0;
    return guarded(0, [expr, text] { return expr->expr->initFromString(text); });
}

const char* oxel_expr_error(const oxel_expr* expr)
{
    if (!live(expr))
        return "";
    return expr->expr->lastError();
}

int oxel_expr_error_offset(const oxel_expr* expr)
{
    if (!live(expr))
        return -1;
    return expr->expr->lastErrorOffset();
}

int oxel_expr_num_vars(const oxel_expr* expr)
{
    if (!live(expr))
        return 0;
    return expr->expr->numVars();
}

double oxel_expr_eval(oxel_expr* expr, double* values, int* err)
{
    int local = 0;
    int& code = err ? *err : local;
    if (!live(expr)) {
        if (code == 0)
            code = OX_ERR_ILLEGAL_ARGUMENT;
        return 0.0;
    }
    return guarded(0.0, [&] { return expr->expr->eval(values, expr->expr->numVars(), code); });
}

int oxel_expr_eval_batch(
    oxel_expr* expr, const double* rows, int n, int stride, double* results, int* errors)
{
    if (!live(expr) || n < 0)
        return -1;
    return guarded(-1, [=] { return expr->expr->evalBatch(rows, n, stride, results, errors); });
}

oxel_expr* oxel_expr_derivative(oxel_expr* expr, const char* var)
{
    if (!live(expr) || !var)
        return nullptr;
    return guarded<oxel_expr*>(nullptr, [expr, var] { return adopt(expr->expr->derivative(var)); });
}

oxel_expr* oxel_expr_partial(oxel_expr* expr, const char* var)
{
    refusal = !live(expr) ? "no expression" : !var ? "no variable name" : "";
    if (!live(expr) || !var)
        return nullptr;
    return guarded<oxel_expr*>(nullptr, [expr, var] {
        return adopt(expr->expr->partial(var, &refusal));
    });
}

const char* oxel_last_refusal(void)
{
    return refusal.c_str();
}

void oxel_set_node_budget(long n)
{
    oxelSetNodeBudget(n);
}

long oxel_node_budget(void)
{
    return oxelNodeBudget();
}

oxel_expr* oxel_expr_simplified(const oxel_expr* expr)
{
    if (!live(expr))
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
    if (!live(expr))
        return nullptr;
    return guarded<char*>(nullptr, [expr] {
        std::string s = oxelToString(expr->expr->root());
        return copied(s.c_str(), s.size());
    });
}

char* oxel_expr_to_c_function(const oxel_expr* expr, const char* name)
{
    if (!live(expr) || !name)
        return nullptr;
    return guarded<char*>(nullptr, [=]() -> char* {
        KxString s = expr->expr->toCFunction(name);
        return s.length() ? copied(s.c_str(), static_cast<size_t>(s.length())) : nullptr;
    });
}

char* oxel_expr_derivative_statements(const oxel_expr* expr, const char* var, int normalized)
{
    refusal = !live(expr) ? "no expression" : !var ? "no variable name" : "";
    if (!live(expr) || !var)
        return nullptr;
    return guarded<char*>(nullptr, [=]() -> char* {
        KxString s = expr->expr->partialStatements(var, normalized != 0, &refusal);
        return s.length() ? copied(s.c_str(), static_cast<size_t>(s.length())) : nullptr;
    });
}

oxel_grad* oxel_expr_gradient(oxel_expr* expr, const char* const* names, int count, int order)
{
    refusal = "invalid arguments";
    if (!live(expr) || count < 0 || (count > 0 && !names))
        return nullptr;
    return guarded<oxel_grad*>(nullptr, [=]() -> oxel_grad* {
        std::vector<std::string> list;
        for (int i = 0; i < count; ++i) {
            if (!names[i])
                return nullptr;
            list.emplace_back(names[i]);
        }
        refusal.clear();
        std::unique_ptr<OxelGradient> g = expr->expr->gradient(list, order, &refusal);
        if (!g)
            return nullptr;
        oxel_grad* h = Shells<oxel_grad>::take(kLiveGrad);
        h->grad = std::move(g);
        return h;
    });
}

int oxel_grad_outputs(const oxel_grad* grad)
{
    return live(grad) ? grad->grad->numOutputs() : 0;
}

void oxel_grad_eval(const oxel_grad* grad, const double* values, double* out, int* codes)
{
    if (live(grad))
        grad->grad->eval(values, out, codes);
}

int oxel_grad_eval_columns(const oxel_grad* grad, const double* const* columns, int n,
                           double* const* out, int* const* codes)
{
    if (!live(grad))
        return -1;
    return guarded(-1, [=] { return grad->grad->evalBatchColumns(columns, n, out, codes); });
}

void oxel_grad_free(oxel_grad* grad)
{
    if (live(grad))
        Shells<oxel_grad>::give(grad, grad->grad);
}

void oxel_free(void* p)
{
    std::free(p);
}

const char* oxel_error_message(int code)
{
    return vOxError(code);
}

void oxel_set_message_handler(OxelMessageHandler handler, void* user_data)
{
    oxelSetMessageHandler(handler, user_data);
}

} // extern "C"
