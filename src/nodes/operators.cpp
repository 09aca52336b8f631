// Arithmetic, bitwise and shift operators: evaluation frame, copies, symbols, equality.
#include <oxel/nodes.h>

#include "nodes/frames.h"

#define OXEL_SYMBOL(Cls, code, prio, sym) \
    const char* Cls::symbol() { return sym; }

#define OXEL_OPERATOR(Cls, code, prio, sym) OXEL_BINARY_COMMON(Cls)

OXEL_ARITHMETIC_OPERATORS(OXEL_OPERATOR)
OXEL_BITWISE_OPERATORS(OXEL_OPERATOR)
OXEL_BITWISE_OPERATORS(OXEL_SYMBOL)

OXEL_BINARY_VALUE(OxPlus)
OXEL_BINARY_VALUE(OxMinus)
OXEL_BINARY_VALUE(OxMal)
OXEL_BINARY_VALUE(OxModulo)
OXEL_BINARY_VALUE(OxHoch)
OXEL_BINARY_VALUE(OxBitOr)
OXEL_BINARY_VALUE(OxBitAnd)
OXEL_BINARY_VALUE(OxBitXOr)
OXEL_BINARY_VALUE(OxShiftLeft)
OXEL_BINARY_VALUE(OxShiftRight)

// The divisor is evaluated first so that its failure is the one reported.
double OxDurch::value(double* vars, int& err) const
{
    int e2 = 0;
    double b = right_->value(vars, err);
    double a = left_->value(vars, e2);
    if (err == 0)
        err = e2;
    return oxk::eval_OxDurch(a, b, err);
}

const char* OxPlus::symbol() { return "+"; }
const char* OxMinus::symbol() { return "-"; }
const char* OxMal::symbol() { return "*"; }

const char* OxDurch::symbol()
{
    static const char* sym = "/";
    return sym;
}

const char* OxModulo::symbol() { return "%"; }
const char* OxHoch::symbol() { return "^"; }

namespace {

// Sums and products compare their operands deeply and in either order.
int commutativeEqual(Oxel& self, Oxel& other)
{
    if (self.identify() != other.identify())
        return 0;
    Oxel* l = self.getChild(0);
    Oxel* r = self.getChild(1);
    Oxel* ol = other.getChild(0);
    Oxel* orr = other.getChild(1);
    if (*l == *ol && *r == *orr)
        return 1;
    return *l == *orr && *r == *ol;
}

}  // namespace

int OxPlus::operator==(Oxel& other) { return commutativeEqual(*this, other); }
int OxMal::operator==(Oxel& other) { return commutativeEqual(*this, other); }
