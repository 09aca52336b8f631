// Test helpers: a leaf that fails on demand, node factories, one-call evaluation, bit equality,
// parsing over x, y, z, nested texts, scoped handlers and budgets, the kept fuzz inputs, and the
// shared random formulas and harness.
#ifndef OXEL_TESTS_NODE_PROBE_H
#define OXEL_TESTS_NODE_PROBE_H

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
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

// Bit equality where NaN payloads and signs count as well.
inline bool bitsEqual(double a, double b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Declares the first numVars of x, y, z and parses a writable copy (the parser writes into it).
inline int parseXyz(OxelExpression& e, const std::string& text, int numVars = 3)
{
    for (const char* name : {"x", "y", "z"})
        if (numVars-- > 0)
            e.addVar(name);
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    return e.initFromString(buf.data());
}

// From batch_test.cpp: random formulas of the whole language ("a" is read once assigned, shared
// a subtree that recurs), and the differential harness of an expression against its tree walk
// over rows of the given stride ("" when eval() and evalBatch() agree with it everywhere).
std::string randomFormula(std::mt19937& rng, int depth, bool assigned,
                          const std::string* shared = nullptr);
inline void noReset() {}
std::string exprMismatch(OxelExpression& e, const std::vector<double>& rows, int stride,
                         void (*reset)() = noReset);

// s written n times over.
inline std::string repeat(const std::string& s, long n)
{
    std::string out;
    out.reserve(s.size() * static_cast<size_t>(n));
    for (long i = 0; i < n; ++i)
        out += s;
    return out;
}

// n opening texts, the inner text and n closings: ", 2)" after "pow(", ")" after anything else.
inline std::string nest(const std::string& open, const std::string& inner, long n)
{
    return repeat(open, n) + inner + repeat(open == "pow(" ? ", 2)" : ")", n);
}

// A fresh expression of text over the first numVars of x, y, z; null where it does not parse.
inline std::unique_ptr<OxelExpression> parsedXyz(const std::string& text, int numVars = 3)
{
    std::unique_ptr<OxelExpression> e(new OxelExpression);
    return parseXyz(*e, text, numVars) == 1 ? std::move(e) : nullptr;
}

// x, y and the alias w of y.
inline void declareXyw(OxelExpression& e)
{
    e.addVar("x");
    e.addVar("y");
    e.addVarAlias("y", "w");
}

// Counts the library's messages into *count while it lives, printing none.
struct CountMessages {
    explicit CountMessages(int* count)
    {
        oxelSetMessageHandler([](int, const char*, void* n) { ++*static_cast<int*>(n); }, count);
    }
    ~CountMessages() { oxelSetMessageHandler(nullptr, nullptr); }
};

// A node budget for a scope.
struct Budget {
    explicit Budget(long n) : saved(oxelNodeBudget()) { oxelSetNodeBudget(n); }
    ~Budget() { oxelSetNodeBudget(saved); }
    long saved;
};

// eval() at the leading values, every further slot 0; the code starts at 0.
inline double evalAt(const OxelExpression& e, std::vector<double> values, int& err)
{
    values.resize(std::max(values.size(), static_cast<size_t>(e.numVars())), 0.0);
    err = 0;
    return e.eval(values.data(), static_cast<int>(values.size()), err);
}

// The non-empty files under fuzz/<dir>, each up to its first NUL as the targets read them.
inline std::vector<std::string> fuzzTexts(const std::string& dir)
{
    const std::string here = __FILE__;
    const std::string path = here.substr(0, here.find_last_of('/') + 1) + "../fuzz/" + dir;
    std::vector<std::string> texts;
    DIR* d = opendir(path.c_str());
    while (dirent* ent = d ? readdir(d) : nullptr) {
        std::ifstream in(path + ent->d_name, std::ios::binary);
        std::stringstream raw;
        if (ent->d_name[0] != '.' && (raw << in.rdbuf()))
            texts.push_back(raw.str().c_str());
    }
    if (d)
        closedir(d);
    return texts;
}

#endif
