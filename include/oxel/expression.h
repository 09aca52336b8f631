// OxelExpression: one parsed formula with its variable names and aliases.
#ifndef OXEL_EXPRESSION_H
#define OXEL_EXPRESSION_H

#include <oxel/core.h>
#include <oxel/support.h>

class OxelProgram;

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
    int varIndex(const char* name);
    const char* varName(unsigned int index) const;
    int numVars();
    int numInternalVars();
    int isVarNeeded(const char* name) const;

    /// Parses text: 1 on success; 0 otherwise, and the expression then evaluates to 0.
    int initFromString(const char* text);
    /// Evaluates with values[i] for variable i (numVars() slots); failures set a zero err.
    double eval(KxDArray<double>& values, int& err);
    void setDefaultExpression();
    void clear();
    void copyVarNames(OxelExpression& other);

    /// The current tree, owned by this expression (never null).
    Oxel* root() const { return root_; }
    /// Why the last initFromString failed; empty after a success.
    const char* lastError() const { return lastError_.c_str(); }

    /// Derivative by a variable or alias, not simplified; null where none exists. The
    /// derivative and the simplified copies below are new expressions owned by the caller.
    OxelExpression* derivative(const char* var);
    /// One simplification pass.
    OxelExpression* simplified() const;
    /// Repeats the simplification pass until the printed text stops changing.
    OxelExpression* simplifiedFully() const;

    /// Evaluates many points at once: row r holds its variable values at rows[r * stride]
    /// (stride >= numVars()); results[r] and errors[r] receive what eval() would give for that
    /// row, bit for bit, when the rows are evaluated in order (each error code starts at 0).
    /// The tree is compiled once into a flat program and kept until the expression changes.
    /// Returns 0, or -1 when stride < numVars() or an argument is null.
    int evalBatch(const double* rows, int numRows, int stride, double* results, int* errors);
    /// The same with one array per variable: columns[i][r] is variable i in row r, for every
    /// i < numVars(); a null column reads as 0.0 (handy for internal variables). Returns 0, or
    /// -1 when columns, results or errors is null or numRows < 0.
    int evalBatchColumns(const double* const* columns, int numRows, double* results,
                         int* errors);

private:
    OxelExpression* withSameNames(Oxel* tree) const;
    void dropProgram();

    Oxel* root_;
    KxDArray<KxString> names_;
    KxHashTable<KxString, KxString> aliases_;
    int numInternal_;
    KxString lastError_;
    OxelProgram* program_;  // compiled form of root_ for evalBatch, built on first use
};

#endif
