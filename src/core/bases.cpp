// OxUnary and OxBinary: the child protocol for one- and two-operand nodes.
#include <cstdio>
#include <cstring>

#include <oxel/core.h>

OxUnary::OxUnary(Oxel* operand) : arg_(operand) {}

OxUnary::~OxUnary()
{
    if (arg_)
        delete arg_;
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
    if (left_)
        delete left_;
    if (right_)
        delete right_;
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
