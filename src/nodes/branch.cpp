// OxBranch: two statements evaluated in order, worth the value of the last one.
#include <oxel/nodes.h>

OxBranch::OxBranch(Oxel* first, Oxel* second) : first_(first), second_(second) {}

// Earlier statements run first so that their assignments are seen by later ones.
double OxBranch::value(double* vars, int& err) const
{
    double result = 0.0;
    if (first_)
        result = first_->value(vars, err);
    if (second_) {
        int e2 = 0;
        result = second_->value(vars, e2);
        if (err == 0)
            err = e2;
    }
    return result;
}

Oxel* OxBranch::dup()
{
    Oxel* a = first_ ? first_->dup() : nullptr;
    Oxel* b = second_ ? second_->dup() : nullptr;
    return new OxBranch(a, b);
}

OxBranch::~OxBranch()
{
    oxelDestroy(first_);
    oxelDestroy(second_);
}

int OxBranch::priority() { return 1; }
int OxBranch::getNumChildren() { return (first_ ? 1 : 0) + (second_ ? 1 : 0); }

Oxel* OxBranch::getChild(int i)
{
    if (i == 0)
        return first_;
    if (i == 1)
        return second_;
    return nullptr;
}

void OxBranch::setChild(int i, Oxel* child)
{
    if (i == 0)
        first_ = child;
    else if (i == 1)
        second_ = child;
}

int OxBranch::identify() { return 21; }
const char* OxBranch::symbol() { return "B"; }

namespace {

int same(Oxel* a, Oxel* b)
{
    if (!a || !b)
        return a == b;
    return *a == *b;
}

}  // namespace

// Statements compare in either order: "a; b" equals "b; a".
int OxBranch::operator==(Oxel& other)
{
    if (identify() != other.identify())
        return 0;
    Oxel* of = other.getChild(0);
    Oxel* os = other.getChild(1);
    if (same(first_, of) && same(second_, os))
        return 1;
    return same(first_, os) && same(second_, of);
}
