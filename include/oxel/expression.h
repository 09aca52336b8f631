// OxelExpression: one parsed formula with its variable names and aliases.
#ifndef OXEL_EXPRESSION_H
#define OXEL_EXPRESSION_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <oxel/core.h>
#include <oxel/support.h>

class OxelProgram;
class OxelPointProgram;
class OxelGradient;
namespace oxd {
class Graph;
}

namespace oxel_detail {
// Whether eval may run machine code (see oxelSetNativeCode). Not for hosts: it lives here only
// so that eval's fast path can be inlined into the caller.
extern OXEL_API std::atomic<bool> nativeCodeOn;
}  // namespace oxel_detail

/// One formula with its variables: declare names (addVar, addVarAlias), parse (initFromString),
/// then evaluate (eval, evalBatch), differentiate (derivative) or simplify (simplified).
class OXEL_API OxelExpression {
public:
    OxelExpression();
    ~OxelExpression();
    OxelExpression(const OxelExpression&) = delete;
    OxelExpression& operator=(const OxelExpression&) = delete;

    /// Declares a variable; returns its index in the value vector (-1 for a null or empty name).
    int addVar(const char* name);
    void addVarAlias(const char* varName, const char* alias);
    int varIndex(const char* name) const;
    const char* varName(unsigned int index) const;
    int numVars() const;
    int numInternalVars() const;
    int isVarNeeded(const char* name) const;

    /// Parses text: 1 on success; 0 otherwise, and the expression then evaluates to 0.
    int initFromString(const char* text);
    /// Evaluates with values[i] for variable i (numVars() slots); failures set a zero err.
    double eval(KxDArray<double>& values, int& err) const
    {
        return eval(values.data(), values.length(), err);
    }
    /// The same over count values (count >= numVars(); a shorter or null array sets
    /// OX_ERR_ILLEGAL_ARGUMENT and gives 0). Assignments write back into values.
    double eval(double* values, int count, int& err) const
    {
        // Inline, so that once the formula runs as machine code, a whole vector with no code
        // set yet costs the caller one load and one call; everything else is out of line.
        double (*f)(double*, int*) = native_.load(std::memory_order_acquire);
        if (OXEL_LIKELY(f && count >= names_.length() && values && err == 0
                        && oxel_detail::nativeCodeOn.load(std::memory_order_relaxed)))
            return f(values, &err);
        return evalSlow(values, count, err);
    }
    void setDefaultExpression();
    void clear();
    void copyVarNames(OxelExpression& other);

    /// The current tree, owned by this expression (never null). It is for reading: eval() and
    /// evalBatch() run a program compiled from it, so a host that wants another tree builds it
    /// and hands it over with setRoot().
    Oxel* root() const { return root_; }
    /// Replaces the tree (taking ownership; null installs the default expression) and
    /// recompiles. The tree may use the variable slots 0 .. numVars()-1.
    void setRoot(Oxel* tree);
    /// Why the last initFromString failed ("the formula is empty" for a null or empty text);
    /// empty after a success.
    const char* lastError() const { return lastError_.c_str(); }
    /// Where the last initFromString stopped: the byte offset in its text (counted from the start
    /// of the whole text, across ';' statements) of the token the parse failed at, or of the end
    /// of the text; -1 after a success. initFromString reads statements of any length whole.
    int lastErrorOffset() const { return lastErrorOffset_; }
    /// A readable explanation of the last failure, for people (oxelParseHint); empty after a
    /// success and where there is nothing to add to lastError().
    const char* lastErrorHint() const { return lastErrorHint_.c_str(); }
    /// The tree as formula text that reads back to the same values (oxelToFormula).
    KxString toFormula() const;

    /// Derivative by a variable or alias, not simplified; null where none exists. The
    /// derivative and the simplified copies below are new expressions owned by the caller.
    OxelExpression* derivative(const char* var) const;
    /// The partial derivative for numerical use (gradients, optimisers, the normal form of a
    /// derivative): the tree of derivative(), except that every sub-tree that does not depend
    /// on var (no occurrence of it, of an assigned name that depends on it, or of a dependent
    /// variable's argument that does) differentiates to exactly +0 and is not evaluated for
    /// it. Where a sub-tree depends on var, its values and codes are derivative()'s. Null,
    /// with the reason in *why when given, for a name that is neither a variable nor an alias,
    /// for a node without a derivative rule that depends on var (a comparison, logic,
    /// gauss(); nothing is printed), where no derivative exists, and beyond the node budget.
    OxelExpression* partial(const char* var, std::string* why = nullptr) const;
    /// derivative()'s tree and partial()'s written as statements over their shared parts, for
    /// derivatives too large as trees (a nested chain's grows with the square of its depth):
    /// a line "t1 = exp(x);" per part, then the result; each part used more than once (or
    /// nested deeply) assigned once to a fresh name (t and a number, skipping every variable,
    /// alias and assigned name of this expression). Parsed with the same variables, the text
    /// gives the tree's value and error code at every point (bits included), in time and size
    /// about linear in the formula's. With normalized, each statement is in its normal form
    /// (normalized()), the other parts' names standing as variables: parts are simplified one
    /// by one, terms are not combined across them. A formula with assignments, statements,
    /// random sources or dependent variables is written as its tree. Empty, with the reason in
    /// *why when given, where derivative() or partial() refuses for another reason than size,
    /// and where even the shared parts exceed the node budget.
    KxString derivativeStatements(const char* var, std::string* why = nullptr) const;
    KxString partialStatements(const char* var, bool normalized = false,
                               std::string* why = nullptr) const;
    /// One simplification pass.
    OxelExpression* simplified() const;
    /// Repeats the simplification pass until the printed text stops changing.
    OxelExpression* simplifiedFully() const;
    /// The same function in a normal form (oxelNormalized): equal mathematically, not bit for bit.
    OxelExpression* normalized() const;
    /// The tree as a C99 expression (oxelToC) and as LaTeX (oxelToLatex); empty where they fail.
    KxString toC() const;
    KxString toLatex() const;
    /// The tree as a C function of the declared variables, in their order (oxelToCFunction).
    KxString toCFunction(const char* name) const;

    /// Evaluates many points at once: row r holds its variable values at rows[r * stride]
    /// (stride >= numVars()); results[r] and errors[r] receive what eval() would give for that
    /// row, bit for bit, when the rows are evaluated in order (each error code starts at 0).
    /// The tree is compiled once into a flat program and kept until the expression changes.
    /// Large batches are split across worker threads (see oxelSetBatchThreads), except for
    /// formulas with random sources or dependent variables, which run in row order.
    /// Returns 0, or -1 when stride < numVars() or an argument is null.
    int evalBatch(const double* rows, int numRows, int stride, double* results,
                  int* errors) const;
    /// The same with one array per variable: columns[i][r] is variable i in row r, for every
    /// i < numVars(); a null column reads as 0.0 (handy for internal variables). Returns 0, or
    /// -1 when columns, results or errors is null or numRows < 0. With errorsZeroed the caller
    /// promises that errors holds zeros already: rows without a failure are then not written,
    /// so a freshly zero-mapped array (calloc, numpy.zeros) costs no page touches there.
    int evalBatchColumns(const double* const* columns, int numRows, double* results,
                         int* errors, bool errorsZeroed = false) const;

    /// The value with its derivatives by names (variables or aliases), evaluated together:
    /// order 1 gives the value and the gradient, order 2 adds the upper triangle of the
    /// Hessian (see OxelGradient). Null for an unknown name, an order other than 1 or 2, and
    /// where partial() of a requested name (or of such a partial) gives null; every output
    /// together within the node budget. *why (when given) then says why.
    std::unique_ptr<OxelGradient> gradient(const std::vector<std::string>& names, int order,
                                           std::string* why);
    std::unique_ptr<OxelGradient> gradient(const std::vector<std::string>& names, int order = 1)
    {
        return gradient(names, order, nullptr);
    }

private:
    OxelExpression* withSameNames(Oxel* tree) const;
    OxelExpression* partialWithin(const char* var, long* nodes, std::string* why) const;
    KxString statementsOf(const char* var, bool partialForm, bool normalized,
                          std::string* why) const;
    std::unique_ptr<oxd::Graph> sharedPartials(std::vector<std::unique_ptr<OxelExpression>>& exprs,
                                               const std::vector<std::string>& names,
                                               int order) const;
    void installTree(Oxel* tree);
    void dropProgram();
    OxelProgram* batchProgram() const;
    OxelPointProgram* pointProgram() const;
    double evalSlow(double* values, int count, int& err) const;

    Oxel* root_;
    KxDArray<KxString> names_;
    // Hashed first positions of the declared names, so that many names stay cheap to look up.
    std::vector<int> nameIndex_;
    KxHashTable<KxString, KxString> aliases_;
    int numInternal_;
    KxString lastError_;
    int lastErrorOffset_;
    KxString lastErrorHint_;
    // Compiled forms of root_, each built on first use by whichever thread gets there first
    // (the others discard theirs), so that threads may share one expression.
    mutable std::atomic<OxelPointProgram*> point_;
    mutable std::atomic<OxelProgram*> program_;
    // The point program's machine code once it is published: eval() calls it directly.
    mutable std::atomic<double (*)(double*, int*)> native_;
};

/// A value and its partial derivatives run as one program whose equal steps are computed
/// once. Outputs: the value; d/d names[k] for each k; for order 2 then entry (i, j), i <= j,
/// of the Hessian row by row (the derivative by names[i], then by names[j]). Each output and
/// its code are what eval() gives on the expression, on partial(names[k]) and on
/// partial(names[i])->partial(names[j]), with the code starting at 0 and the values
/// copied for each; the caller's values are never written. A point where anything fails is
/// evaluated again output by output, so dependent-variable callbacks must give the same
/// result however often they are called (the shared program calls each distinct variable,
/// component, derivative marks and arguments once per point); random sources draw afresh
/// for every output that contains them. Safe to share between threads.
class OXEL_API OxelGradient {
public:
    ~OxelGradient();
    OxelGradient(const OxelGradient&) = delete;
    OxelGradient& operator=(const OxelGradient&) = delete;
    /// 1 + n for order 1; 1 + n + n(n+1)/2 for order 2.
    int numOutputs() const;
    /// values[i] is variable i (as for eval); out[k] and codes[k] receive output k.
    void eval(const double* values, double* out, int* codes) const;
    /// Columns as for evalBatchColumns; out[k][r] and codes[k][r]. Returns 0, or -1 on bad
    /// arguments (a null pointer, numRows < 0).
    int evalBatchColumns(const double* const* columns, int numRows, double* const* out,
                         int* const* codes) const;

private:
    friend class OxelExpression;
    struct Impl;
    explicit OxelGradient(Impl* impl);
    Impl* impl_;
};

/// Worker threads that evalBatch and evalBatchColumns may use for one large batch, process-wide
/// (the calling thread counts as one). 0 restores the default: the number of cores, at most 8;
/// 1 keeps every batch on the calling thread. Results are the same bits whatever the count.
OXEL_API void oxelSetBatchThreads(int n);
OXEL_API int oxelBatchThreads();

/// Whether eval (and the row-by-row batches) may run formulas as native machine code, once a
/// formula has been evaluated often enough; on by default where the processor and the system
/// allow it, and never when the environment has OXEL_JIT=0. Results are the same bits either way.
OXEL_API void oxelSetNativeCode(bool on);

#endif
