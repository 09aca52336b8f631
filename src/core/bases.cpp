// OxUnary and OxBinary: the child protocol for one- and two-operand nodes.
#include <cstdio>
#include <cstring>

#include <oxel/core.h>

OxUnary::OxUnary(Oxel* operand) : arg_(operand) {}

// Operands go without recursion, so a chain of any length can be deleted.
OxUnary::~OxUnary()
{
    oxelDestroy(arg_);
}

int OxUnary::getNumChildren() { return 1; }
Oxel* OxUnary::getChild(int i) { return i == 0 ? arg_ : nullptr; }

void OxUnary::setChild(int i, Oxel* child)
{
    if (i == 0)
        arg_ = child;
}

int OxUnary::count()
{
    return static_cast<int>(std::strlen(symbol())) + arg_->count() + 2;
}

int OxUnary::print(char* buf)
{
    int n = std::sprintf(buf, "%s(", symbol());
    n += arg_->print(buf + n);
    buf[n++] = ')';
    buf[n] = '\0';
    return n;
}

OxBinary::OxBinary(Oxel* left, Oxel* right) : left_(left), right_(right) {}

OxBinary::~OxBinary()
{
    oxelDestroy(left_);
    oxelDestroy(right_);
}

int OxBinary::getNumChildren() { return 2; }

Oxel* OxBinary::getChild(int i)
{
    if (i == 0)
        return left_;
    if (i == 1)
        return right_;
    return nullptr;
}

void OxBinary::setChild(int i, Oxel* child)
{
    if (i == 0)
        left_ = child;
    else if (i == 1)
        right_ = child;
}
