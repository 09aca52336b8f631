// Test helpers: a leaf that reports a chosen error code, and tree evaluation in one call.
#ifndef OXEL_TESTS_NODE_PROBE_H
#define OXEL_TESTS_NODE_PROBE_H

#include <string>

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

// Evaluates and destroys a tree; the error code starts at `err`.
inline double evalTree(Oxel* tree, int& err, double* vars = nullptr)
{
    double v = tree->value(vars, err);
    delete tree;
    return v;
}

inline std::string printed(Oxel* tree)
{
    std::string s = oxelToString(tree);
    delete tree;
    return s;
}

#endif
