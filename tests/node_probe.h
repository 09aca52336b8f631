// Test helpers: a leaf that fails on demand, node factories, one-call evaluation, bit equality.
#ifndef OXEL_TESTS_NODE_PROBE_H
#define OXEL_TESTS_NODE_PROBE_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include <oxel/oxel.h>

// A constant that fails like a child would: it records its code only into a clean code.
class Probe : public Oxel {
public:
    Probe(double v, int code) : v_(v), code_(code) {}
    double value(double*, int& err) const override
    {
        if (err == 0)
            err = code_;
        return v_;
    }
    Oxel* dup() override { return new Probe(v_, code_); }

private:
    double v_;
    int code_;
};

typedef Oxel* (*Make1)(Oxel*);
typedef Oxel* (*Make2)(Oxel*, Oxel*);
template <class Cls>
Oxel* make1(Oxel* a) { return new Cls(a); }
template <class Cls>
Oxel* make2(Oxel* a, Oxel* b) { return new Cls(a, b); }

inline Oxel* N(double v) { return new OxZahl(v); }
inline Oxel* V(const char* name, int index = 0) { return new OxVar(index, name); }

// Evaluates and destroys a tree; the error code starts at `err`.
inline double evalTree(Oxel* tree, int& err, double* vars = nullptr)
{
    double v = tree->value(vars, err);
    delete tree;
    return v;
}

// A copy of the node; the node itself is destroyed.
inline Oxel* copyOf(Oxel* node)
{
    Oxel* copy = node->dup();
    delete node;
    return copy;
}

// Bit-for-bit, so that signed zeros count; any NaN matches any NaN.
inline ::testing::AssertionResult sameBits(double expected, double actual)
{
    if ((std::isnan(expected) && std::isnan(actual)) ||
        std::memcmp(&expected, &actual, sizeof expected) == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << expected << ", got " << actual;
}

#endif
