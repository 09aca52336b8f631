// libFuzzer target: formula text through OxelExpression: parse, evaluate, print, simplify, differentiate.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    oxfuzz::keepReportChannel();
    // The lexer echoes unknown characters and diff() reports missing rules on stdout.
    if (!std::freopen("/dev/null", "w", stdout))
        return 0;
    return 0;
}

// eval() at sample values; the code goes to err where given.
static double evalExpression(OxelExpression& e, double seed, int* err = nullptr)
{
    KxDArray<double> vals;
    vals.setLength(e.numVars());
    std::vector<double> init = oxfuzz::sampleValues(e.numVars(), seed);
    for (int i = 0; i < e.numVars(); ++i)
        vals[i] = init[static_cast<size_t>(i)];
    int code = 0;
    const double v = e.eval(vals, code);
    if (err)
        *err = code;
    return v;
}

// The tree written as a formula parses back, over the same names, to the same values and codes.
// Very deep trees are left out: their text may need more parser stack than the original had.
static void checkReadBack(OxelExpression& e)
{
    if (oxfuzz::drawsRandom(e.root()) || oxelDepth(e.root()) > 1000)
        return;
    KxString formula = e.toFormula();
    FUZZ_CHECK(formula.length() > 0);
    OxelExpression back;
    for (int i = 0; i < e.numVars(); ++i)
        back.addVar(e.varName(static_cast<unsigned>(i)));
    // A text that ends inside braces must not disturb the next parse.
    FUZZ_CHECK(oxfuzz::recoverLexer(back));
    FUZZ_CHECK(back.initFromString(formula.c_str()) == 1);
    FUZZ_CHECK(back.numVars() == e.numVars());
    for (double seed : {0.5, -3.0}) {
        int ea = 0, eb = 0;
        double a = evalExpression(e, seed, &ea), b = evalExpression(back, seed, &eb);
        FUZZ_CHECK(std::memcmp(&a, &b, sizeof a) == 0 && ea == eb);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<char> text = oxfuzz::writableText(data, size);
    if (oxfuzz::callsBesselOfOrder(text))
        return 0;

    OxelExpression e;
    FUZZ_CHECK(e.addVar("x") == 0);
    FUZZ_CHECK(e.addVar("y") == 1);
    FUZZ_CHECK(e.addVar("z") == 2);
    e.addVarAlias("x", "speed");

    int ok = e.initFromString(text.data());
    FUZZ_CHECK(e.root() != nullptr);
    if (!ok) {
        // A refused text leaves the default expression and no internal variables.
        FUZZ_CHECK(e.numInternalVars() == 0);
        FUZZ_CHECK(e.numVars() == 3);
        KxDArray<double> vals;
        vals.setLength(3);
        int err = 0;
        FUZZ_CHECK(e.eval(vals, err) == 0.0 && err == 0);
        FUZZ_CHECK(oxfuzz::recoverLexer(e));
        return 0;
    }
    FUZZ_CHECK(e.numVars() == 3 + e.numInternalVars());
    evalExpression(e, 0.5);
    checkReadBack(e);
    oxfuzz::exerciseTree(e.root(), e.numVars());

    bool cheap = oxelDepth(e.root()) * oxelNodeCount(e.root()) <=
                 oxfuzz::kMaxDepthTimesNodesForSimplify;
    OxelExpression* s = cheap ? e.simplified() : nullptr;
    if (s) {
        evalExpression(*s, 1.25);
        (void)oxelToString(s->root());
        delete s;
    }

    if (oxelNodeCount(e.root()) <= oxfuzz::kMaxNodesForDiff) {
        for (const char* var : {"x", "y", "z", "speed", "nosuch"}) {
            OxelExpression* d = e.derivative(var);
            if (!d)
                continue;
            FUZZ_CHECK(d->root() != nullptr);
            evalExpression(*d, -0.5);
            (void)oxelToString(d->root());
            if (oxelNodeCount(d->root()) <= 20 * oxfuzz::kMaxNodesForDiff) {
                Oxel* ds = d->root()->simplify();
                if (ds) {
                    (void)oxelToString(ds);
                    oxelDestroy(ds);
                }
            }
            delete d;
        }
    }

    // Re-parsing drops the internal variables of the previous text.
    FUZZ_CHECK(oxfuzz::recoverLexer(e));
    FUZZ_CHECK(e.numInternalVars() == 0 && e.numVars() == 3);
    return 0;
}
