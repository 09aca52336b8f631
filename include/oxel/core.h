// The abstract expression node, its one- and two-operand bases, and the error codes.
#ifndef OXEL_CORE_H
#define OXEL_CORE_H

#include <string>

#include <oxel/export.h>

/// Text of an evaluation error code; "Unknown" for codes outside the table.
OXEL_API const char* vOxError(int code);

/// Process-wide last error for hosts that want one; the library never touches it.
extern OXEL_API int OxError;

/// Evaluation error codes that nodes raise.
enum OxErrorCode {
    OX_ERR_DIVISION_BY_ZERO = 8,
    OX_ERR_OVERFLOW = 9,
    OX_ERR_UNDERFLOW = 10,
    OX_ERR_ILLEGAL_LOG = 11,
    OX_ERR_RADICAND_NEGATIVE = 12,
    OX_ERR_ARCUS_RANGE = 14,
    OX_ERR_ILLEGAL_ARGUMENT = 666
};

/// An expression node. The order of the virtual functions is part of the design; keep it.
class OXEL_API Oxel {
public:
    Oxel() {}
    Oxel(const Oxel&) = delete;
    Oxel& operator=(const Oxel&) = delete;

    virtual double value(double* vars, int& err) const = 0;
    virtual Oxel* diff(const char* var);
    virtual Oxel* dup() = 0;
    virtual ~Oxel();
    virtual int priority();
    virtual int getNumChildren();
    virtual Oxel* getChild(int i);
    virtual void setChild(int i, Oxel* child);
    virtual int identify();
    virtual const char* symbol();
    virtual int count();
    virtual int print(char* buf);
    virtual int vconstant();
    virtual int pconstant(const char* var);
    virtual int operator==(Oxel& other);
    virtual Oxel* doSimplify();

    /// Constant sub-trees fold to one number; everything else goes to doSimplify().
    Oxel* simplify();
};

/// Node with one owned operand (one-argument functions and logical negation).
class OXEL_API OxUnary : public Oxel {
public:
    explicit OxUnary(Oxel* operand);
    ~OxUnary() override;
    int getNumChildren() override;
    Oxel* getChild(int i) override;
    void setChild(int i, Oxel* child) override;
    int count() override;
    int print(char* buf) override;

protected:
    Oxel* arg_;
};

/// Node with two owned operands: child 0 is the left, child 1 the right operand.
class OXEL_API OxBinary : public Oxel {
public:
    OxBinary(Oxel* left, Oxel* right);
    ~OxBinary() override;
    int getNumChildren() override;
    Oxel* getChild(int i) override;
    void setChild(int i, Oxel* child) override;

protected:
    Oxel* left_;
    Oxel* right_;
};

/// Bounded printing: the exact text of print(), in a buffer that is sized from the tree.
OXEL_API std::string oxelToString(Oxel* node);

/// Number of nodes and nesting depth of a tree, walked without recursion.
OXEL_API long oxelNodeCount(Oxel* node);
OXEL_API long oxelDepth(Oxel* node);

/// diff() with a size budget: rules that copy a derivative (expm1, atan2) double it per level of
/// nesting, so a short text can ask for more nodes than memory holds. Returns null when the
/// tree has no derivative or the derivative would need more nodes than the node budget
/// (OxelExpression::derivative and diff() in formula text use it; Oxel::diff has no bound).
OXEL_API Oxel* oxelDerivative(Oxel* tree, const char* var);

/// The node budget, process-wide: the most nodes that one derivative, one gradient (all its
/// outputs together) or one normal form (beyond one term per node of its tree) may build,
/// counted while they are built; beyond it they refuse (null) instead of taking memory and
/// time. Default oxelDefaultNodeBudget (about half a gigabyte and ten seconds at most for a
/// derivative that just fits, with its normal form); n <= 0 restores it.
OXEL_API void oxelSetNodeBudget(long n);
OXEL_API long oxelNodeBudget();
const long oxelDefaultNodeBudget = 1000000;

/// Destroys a tree of any depth without recursion (plain delete recurses once per level).
OXEL_API void oxelDestroy(Oxel* node);

#endif
