// OxShared: a leaf that stands for a node of a shared derivative graph (src/algebra/dag.cpp).
#ifndef OXEL_CORE_SHARED_H
#define OXEL_CORE_SHARED_H

#include <typeinfo>

#include <oxel/core.h>

namespace oxd {
struct Cell;
}

// Stands for the tree that its cell's node spells out, whose compound operands are themselves
// stand-ins: derivative rules run on such one-level nodes answer every question about an
// operand (constancy, value, copy, derivative) from its cell, so a chain's derivatives share
// their sub-trees instead of copying them. The lowering (src/program/lower.cpp) reads the cell's
// node in its place, once per program, which gives the steps of the whole tree it stands for.
class OxShared : public Oxel {
public:
    explicit OxShared(oxd::Cell* cell) : cell_(cell) {}
    double value(double* vars, int& err) const override;
    Oxel* diff(const char* var) override;
    Oxel* dup() override;
    int vconstant() override;
    int pconstant(const char* var) override;

    // The node this stands for (its cell's), or null when n is no stand-in.
    static Oxel* target(const Oxel* n)
    {
        return n && typeid(*n) == typeid(OxShared) ? static_cast<const OxShared*>(n)->node()
                                                   : nullptr;
    }
    Oxel* node() const;
    oxd::Cell* cell() const { return cell_; }

private:
    oxd::Cell* cell_;
};

#endif
