// Every concrete node class: leaves, random sources, dependent variables, operators, functions.
#ifndef OXEL_NODES_H
#define OXEL_NODES_H

#include <cstdint>

#include <oxel/core.h>
#include <oxel/support.h>

// ---------------------------------------------------------------- leaves

// A numeric constant.
class OXEL_API OxZahl : public Oxel {
public:
    explicit OxZahl(double v);
    double value(double* vars, int& err) const override;
    Oxel* diff(const char* var) override;
    Oxel* dup() override;
    ~OxZahl() override;
    int identify() override;
    const char* symbol() override;
    int count() override;
    int print(char* buf) override;
    int vconstant() override;
    int pconstant(const char* var) override;
    int operator==(Oxel& other) override;

    double number() const { return val_; }

private:
    double val_;
    char* text_;  // formatted on every symbol() call, grown for huge magnitudes
    int textCap_;
};

// A slot of the value vector; bound to an expression it is an assignment.
class OXEL_API OxVar : public Oxel {
public:
    OxVar(int index, const char* name);
    OxVar(int index, const char* name, Oxel* bound);
    double value(double* vars, int& err) const override;
    Oxel* diff(const char* var) override;
    Oxel* dup() override;
    ~OxVar() override;
    int getNumChildren() override;
    Oxel* getChild(int i) override;
    void setChild(int i, Oxel* child) override;
    int identify() override;
    const char* symbol() override;
    int count() override;
    int print(char* buf) override;
    int vconstant() override;
    int pconstant(const char* var) override;
    int operator==(Oxel& other) override;
    Oxel* doSimplify() override;

    int index() const { return index_; }
    const KxString& name() const { return name_; }
    Oxel* bound() const { return bound_; }

private:
    int index_;
    KxString name_;
    Oxel* bound_;
};

// ---------------------------------------------------------------- random sources

// Minimal-standard generator with shuffle table and polar Box-Muller on top of it.
// Callers other than OxGauss must hold OxGauss::m_mutex around them.
OXEL_API float ran1(int64_t* state);
OXEL_API float gasdev(int64_t* state);
extern OXEL_API int64_t idum;

// Uniform deviate on [0, 1] from the C library's rand().
class OXEL_API OxRand : public Oxel {
public:
    OxRand() {}
    double value(double* vars, int& err) const override;
    Oxel* diff(const char* var) override;
    Oxel* dup() override;
    ~OxRand() override;
    int identify() override;
    const char* symbol() override;
    int count() override;
    int print(char* buf) override;
    int vconstant() override;
    int pconstant(const char* var) override;
};

// Normal deviate (mean 0, variance 1) from gasdev().
class OXEL_API OxGauss : public Oxel {
public:
    OxGauss() {}
    double value(double* vars, int& err) const override;
    Oxel* dup() override;
    ~OxGauss() override;
    int identify() override;
    const char* symbol() override;

    static KxMutex m_mutex;
};

// ---------------------------------------------------------------- dependent variables

typedef double (*OxDepVarCallback)(const void* userData, int component, int nDiff,
                                   const int* diffDims, const double* args);

// Host-side description of an external data source; the host owns and deletes it.
class OXEL_API OxDepVarnode {
public:
    OxDepVarnode(const char* name, OxDepVarCallback callback, void* userData);
    ~OxDepVarnode();
    OxDepVarnode(const OxDepVarnode&) = delete;
    OxDepVarnode& operator=(const OxDepVarnode&) = delete;

    void setUp(int nDims, int nDataVar, int nDiffLevels, char** defaultVarNames,
               int* defaultVarIndices);
    const char* getName() const { return name_; }
    int getNDims() const { return nDims_; }
    int getNDataVar() const { return nDataVar_; }
    int getNDiffLevels() const { return nDiffLevels_; }
    void* getMyData() const { return userData_; }
    bool hasDefaultVars() const { return defaultNames_ != nullptr && defaultIndices_ != nullptr; }
    const char* getVar(int i, int& index) const;
    double value(int component, int nDiff, const int* diffDims, const double* args) const;
    void ref() { ++refCount_; }
    void unref() { --refCount_; }
    int refCount() const { return refCount_; }

private:
    char* name_;
    int nDims_;
    int nDataVar_;
    int nDiffLevels_;
    KxString* defaultNames_;
    int* defaultIndices_;
    void* userData_;
    OxDepVarCallback callback_;
    int refCount_;
};

// One component of a dependent variable, taken at argument sub-trees, possibly differentiated.
class OXEL_API OxDepVar : public Oxel {
public:
    OxDepVar(OxDepVarnode* node, int component, int nDiff = 0, const int* diffDims = nullptr,
             Oxel** children = nullptr);
    double value(double* vars, int& err) const override;
    Oxel* diff(const char* var) override;
    Oxel* dup() override;
    ~OxDepVar() override;
    int getNumChildren() override;
    Oxel* getChild(int i) override;
    void setChild(int i, Oxel* child) override;
    int identify() override;
    const char* symbol() override;
    int count() override;
    int print(char* buf) override;
    int operator==(Oxel& other) override;
    Oxel* doSimplify() override;

    OxDepVarnode* node() const { return node_; }
    int component() const { return component_; }
    int nDiff() const { return nDiff_; }
    const int* diffDims() const { return diffDims_; }

    // Argument vectors up to this size live on the stack during evaluation.
    static const int kInlineArgs = 16;

private:
    OxDepVarnode* node_;
    int component_;
    int numChildren_;
    Oxel** children_;
    int nDiff_;
    int* diffDims_;
};

// ---------------------------------------------------------------- sequence

// Two statements in order; its value is that of the last present child.
class OXEL_API OxBranch : public Oxel {
public:
    OxBranch(Oxel* first, Oxel* second);
    double value(double* vars, int& err) const override;
    Oxel* diff(const char* var) override;
    Oxel* dup() override;
    ~OxBranch() override;
    int priority() override;
    int getNumChildren() override;
    Oxel* getChild(int i) override;
    void setChild(int i, Oxel* child) override;
    int identify() override;
    const char* symbol() override;
    int operator==(Oxel& other) override;
    Oxel* doSimplify() override;

private:
    Oxel* first_;
    Oxel* second_;
};

// ---------------------------------------------------------------- node tables
// One row per class: class name, identify code, priority, symbol (functions add more).

// Arithmetic operators (guards in the evaluation kernels).
#define OXEL_ARITHMETIC_OPERATORS(X) \
    X(OxPlus, 257, 1, "+")           \
    X(OxMinus, 258, 1, "-")          \
    X(OxMal, 515, 2, "*")            \
    X(OxDurch, 516, 2, "/")          \
    X(OxModulo, 517, 4, "%")         \
    X(OxHoch, 1029, 4, "^")

// Bitwise and shift operators on 32-bit integers.
#define OXEL_BITWISE_OPERATORS(X)   \
    X(OxBitOr, 34080, 1, "|")       \
    X(OxBitAnd, 34081, 1, "&")      \
    X(OxBitXOr, 34082, 1, "^")      \
    X(OxShiftLeft, 34083, 1, "<<")  \
    X(OxShiftRight, 34084, 1, ">>")

// Truth-valued nodes with two operands; they keep identify, priority and symbol of Oxel.
#define OXEL_LOGIC_OPERATORS(X) \
    X(OxLess)                   \
    X(OxGreater)                \
    X(OxLessEqual)              \
    X(OxGreaterEqual)           \
    X(OxEqual)                  \
    X(OxAnd)                    \
    X(OxOr)

// The functions of the language. Each row: class, identify code, priority, symbol (what
// symbol() and print() write), the name the formula language spells it with (also what
// oxelToFormula writes), its grammar token, and its C spelling for oxelToC: a <math.h>
// function taking the same arguments, or (with a parenthesis) a pattern in which A and B stand
// for the operands. The tokens of the functions that exist today are fixed; a function added
// later takes KW_FUNCTION1 or KW_FUNCTION2 by its argument count.
// Beside its row a function needs only its kernel oxk::eval_<Class> (src/nodes/kernels.h) and
// its derivative rule <Class>::diff (src/algebra/derivatives_functions.cpp).

// One-argument functions (priority 3).
#define OXEL_UNARY_FUNCTIONS(X)                                                                 \
    X(OxSinus, 34054, 3, "sin", "sin", KW_SIN, "sin")                                           \
    X(OxCosinus, 34055, 3, "cos", "cos", KW_COS, "cos")                                         \
    X(OxTangens, 34056, 3, "tan", "tan", KW_TAN, "tan")                                         \
    X(OxSqroot, 34057, 3, "sqr", "sqrt", KW_SQR, "sqrt")                                        \
    X(OxLn, 34058, 3, "OxLn", "ln", KW_LN, "log")                                               \
    X(OxArctan, 34061, 3, "atan", "atan", KW_ATAN, "atan")                                      \
    X(OxArcsin, 34062, 3, "asin", "asin", KW_ASIN, "asin")                                      \
    X(OxArccos, 34063, 3, "acos", "acos", KW_ACOS, "acos")                                      \
    X(OxExp, 34064, 3, "exp", "exp", KW_EXP, "exp")                                             \
    X(OxErf, 34065, 3, "erf", "erf", KW_ERF, "erf")                                             \
    X(OxErfc, 34066, 3, "erfc", "erfc", KW_ERFC, "erfc")                                        \
    X(OxBetrag, 0, 3, "abs", "abs", KW_ABS, "fabs")                                             \
    X(OxArccosh, 34085, 3, "acosh", "acosh", KW_ACOSH, "acosh")                                 \
    X(OxArcsinh, 34086, 3, "asinh", "asinh", KW_ASINH, "asinh")                                 \
    X(OxArctanh, 34088, 3, "atanh", "atanh", KW_ATANH, "atanh")                                 \
    X(OxCbroot, 34089, 3, "cbrt", "cbrt", KW_CBRT, "cbrt")                                      \
    X(OxCeil, 34090, 3, "ceil", "ceil", KW_CEIL, "ceil")                                        \
    X(OxCosh, 34092, 3, "cosh", "cosh", KW_COSH, "cosh")                                        \
    X(OxExpm1, 34094, 3, "expm1", "expm1", KW_EXPM1, "expm1")                                   \
    X(OxFloor, 34095, 3, "floor", "floor", KW_FLOOR, "floor")                                   \
    X(OxJ0, 34099, 3, "j0", "j0", KW_J0, "j0")                                                  \
    X(OxJ1, 34100, 3, "j1", "j1", KW_J1, "j1")                                                  \
    X(OxLog10, 34102, 3, "log10", "log10", KW_LOG10, "log10")                                   \
    X(OxRint, 34105, 3, "rint", "rint", KW_RINT, "rint")                                        \
    X(OxSinh, 34106, 3, "sinh", "sinh", KW_SINH, "sinh")                                        \
    X(OxTanh, 34107, 3, "tanh", "tanh", KW_TANH, "tanh")                                        \
    X(OxTrunc, 34108, 3, "trunc", "trunc", KW_TRUNC, "trunc")                                   \
    X(OxY0, 34109, 3, "y0", "y0", KW_Y0, "y0")                                                  \
    X(OxY1, 34110, 3, "y1", "y1", KW_Y1, "y1")                                                  \
    X(OxSgn, 34114, 3, "sgn", "sgn", KW_SGN, "(A > 0 ? 1.0 : A < 0 ? -1.0 : 0.0)")

// Two-argument functions (priority 3; printed infix by the generic print).
#define OXEL_BINARY_FUNCTIONS(X)                                                                \
    X(OxArctan2, 34087, 3, "atan2", "atan2", KW_ATAN2, "atan2")                                 \
    X(OxCopysign, 34091, 3, "copysign", "copysign", KW_CPSIGN, "copysign")                      \
    X(OxDrem, 34093, 3, "drem", "drem", KW_DREM, "remainder")                                   \
    X(OxFmod, 34096, 3, "fmod", "fmod", KW_FMOD, "fmod")                                        \
    X(OxHypot, 34098, 3, "hypot", "hypot", KW_HYPOT, "(double)hypotf((float)A, (float)B)")      \
    X(OxJn, 34101, 3, "jn", "jn", KW_JN, "jn((int)rint(A), B)")                                 \
    X(OxYn, 34111, 3, "yn", "yn", KW_YN, "yn((int)rint(A), B)")                                 \
    X(OxMax, 34112, 3, "max", "max", KW_MAX, "(A > B ? A : B)")                                 \
    X(OxMin, 34113, 3, "min", "min", KW_MIN, "(A < B ? A : B)")

// The slots each table-driven class overrides, in the order of the node interface.
#define OXEL_NODE_SLOTS(Cls, code, prio)                    \
public:                                                     \
    double value(double* vars, int& err) const override;    \
    Oxel* diff(const char* var) override;                   \
    Oxel* dup() override;                                   \
    ~Cls() override;                                        \
    int priority() override { return prio; }                \
    int identify() override { return code; }                \
    const char* symbol() override;

// Operators add the slots that OXEL_<Class>_EXTRA names; functions add none.
#define OXEL_DECLARE_BINARY_CLASS(Cls, code, prio, extra)      \
    class OXEL_API Cls : public OxBinary {                      \
    public:                                                     \
        Cls(Oxel* left, Oxel* right) : OxBinary(left, right) {} \
        OXEL_NODE_SLOTS(Cls, code, prio)                        \
        extra                                                   \
    };
#define OXEL_DECLARE_BINARY(Cls, code, prio, sym) \
    OXEL_DECLARE_BINARY_CLASS(Cls, code, prio, OXEL_##Cls##_EXTRA)
#define OXEL_DECLARE_BINARY_FUNCTION(Cls, code, prio, ...) \
    OXEL_DECLARE_BINARY_CLASS(Cls, code, prio, )

#define OXEL_DECLARE_UNARY(Cls, code, prio, ...)            \
    class OXEL_API Cls : public OxUnary {                   \
    public:                                                 \
        explicit Cls(Oxel* arg) : OxUnary(arg) {}           \
        OXEL_NODE_SLOTS(Cls, code, prio)                    \
    };

// Classes with their own equality or simplification rules.
#define OXEL_COMMUTATIVE_EQUALITY int operator==(Oxel& other) override;
#define OXEL_OWN_SIMPLIFY Oxel* doSimplify() override;
#define OXEL_OxPlus_EXTRA OXEL_COMMUTATIVE_EQUALITY OXEL_OWN_SIMPLIFY
#define OXEL_OxMinus_EXTRA OXEL_OWN_SIMPLIFY
#define OXEL_OxMal_EXTRA OXEL_COMMUTATIVE_EQUALITY OXEL_OWN_SIMPLIFY
#define OXEL_OxDurch_EXTRA OXEL_OWN_SIMPLIFY
#define OXEL_OxModulo_EXTRA
#define OXEL_OxHoch_EXTRA
#define OXEL_OxBitOr_EXTRA
#define OXEL_OxBitAnd_EXTRA
#define OXEL_OxBitXOr_EXTRA
#define OXEL_OxShiftLeft_EXTRA
#define OXEL_OxShiftRight_EXTRA

OXEL_ARITHMETIC_OPERATORS(OXEL_DECLARE_BINARY)
OXEL_BITWISE_OPERATORS(OXEL_DECLARE_BINARY)
OXEL_BINARY_FUNCTIONS(OXEL_DECLARE_BINARY_FUNCTION)
OXEL_UNARY_FUNCTIONS(OXEL_DECLARE_UNARY)

// Comparison and logic nodes override only value, dup and the destructor.
#define OXEL_DECLARE_LOGIC(Cls)                                 \
    class OXEL_API Cls : public OxBinary {                      \
    public:                                                     \
        Cls(Oxel* left, Oxel* right) : OxBinary(left, right) {} \
        double value(double* vars, int& err) const override;    \
        Oxel* dup() override;                                   \
        ~Cls() override;                                        \
    };

OXEL_LOGIC_OPERATORS(OXEL_DECLARE_LOGIC)

// Logical negation: one operand, otherwise the defaults of Oxel.
class OXEL_API OxNot : public OxUnary {
public:
    explicit OxNot(Oxel* arg) : OxUnary(arg) {}
    double value(double* vars, int& err) const override;
    Oxel* dup() override;
    ~OxNot() override;
};

#endif
