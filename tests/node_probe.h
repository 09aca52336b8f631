// Test helpers: a leaf that fails on demand, node factories, one-call evaluation, bit equality.
#ifndef OXEL_TESTS_NODE_PROBE_H
#define OXEL_TESTS_NODE_PROBE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <oxel/oxel.h>

// A constant that fails like a child would: it records its code only into a clean code.
class Probe : public Oxel {
public:
    Probe(double v, int code) : v_(v), code_(code) {}
    double value(double*, int& err) const override { if (!err) err = code_; return v_; }
    Oxel* dup() override { return new Probe(v_, code_); }

private:
    double v_;
    int code_;
};

using Make1 = Oxel* (*)(Oxel*);
using Make2 = Oxel* (*)(Oxel*, Oxel*);
template <class Cls> Oxel* op1(Oxel* a) { return new Cls(a); }
template <class Cls> Oxel* op2(Oxel* a, Oxel* b) { return new Cls(a, b); }
inline Oxel* N(double v) { return new OxZahl(v); }
inline Oxel* V(const char* name, int index = 0) { return new OxVar(index, name); }

// The library's functions of arity arguments in table order, without those in except.
inline std::vector<std::string> functionNames(int arity, std::vector<std::string> except = {})
{
    std::vector<std::string> names;
    for (const char* const* f = oxelFunctionNames(arity); *f; ++f)
        if (std::find(except.begin(), except.end(), *f) == except.end())
            names.push_back(*f);
    return names;
}

// Evaluates and destroys a tree; the error code starts at `err`.
inline double evalTree(Oxel* tree, int& err, double* vars = nullptr)
{
    double v = tree->value(vars, err);
    delete tree;
    return v;
}

// Bit-for-bit, so that signed zeros count; any NaN matches any NaN.
inline ::testing::AssertionResult sameBits(double expected, double actual)
{
    if ((std::isnan(expected) && std::isnan(actual)) || !std::memcmp(&expected, &actual, 8))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << expected << ", got " << actual;
}

#endif
