// Helpers shared by the fuzz targets: hard checks, value vectors, bounded tree exercise.
#ifndef OXEL_FUZZ_COMMON_H
#define OXEL_FUZZ_COMMON_H

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include <oxel/oxel.h>

namespace oxfuzz {

// Where failed properties are reported. libFuzzer may close stderr for the code under test
// (-close_fd_mask=2) to silence parse messages, so each target keeps a copy taken at start.
inline int& reportFd()
{
    static int fd = 2;
    return fd;
}

inline void keepReportChannel()
{
    int fd = dup(2);
    if (fd >= 0)
        reportFd() = fd;
}

}  // namespace oxfuzz

// A failed property is a finding: report it and abort so libFuzzer keeps the input.
#define FUZZ_CHECK(cond)                                                                   \
    do {                                                                                   \
        if (!(cond)) {                                                                     \
            dprintf(oxfuzz::reportFd(), "%s:%d: property failed: %s\n", __FILE__, __LINE__, \
                    #cond);                                                                \
            std::abort();                                                                  \
        }                                                                                  \
    } while (0)

namespace oxfuzz {

// Derivatives of large trees can grow quadratically (product and chain rules); past this
// size the targets skip them so that one input cannot stall the run.
const long kMaxNodesForDiff = 400;
// Simplification copies every sub-tree once per level above it, so its cost grows with
// depth times size; past this product the targets skip it.
const long kMaxDepthTimesNodesForSimplify = 1000000;
// The node interface's recursions (value, count, dup, ==, ...) run on the caller's stack when
// called on a node directly; deeper trees are exercised through the library's entry points
// only (tests/deep_test.cpp goes deeper).
const long kMaxDepthForDirectCalls = 10000;

// jn and yn cost time linear in their order (up to 2^31, about ten seconds a call); inputs
// that call them are skipped so that a huge order cannot pass for a hang.
inline bool callsBesselOfOrder(const std::vector<char>& text)
{
    std::string s(text.data());
    return s.find("jn") != std::string::npos || s.find("yn") != std::string::npos;
}

// The text of the input up to its first NUL, in writable memory (the parser writes into it).
inline std::vector<char> writableText(const uint8_t* data, size_t size)
{
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    return text;
}

// Deterministic values for n slots, mixing signs and magnitudes.
inline std::vector<double> sampleValues(int n, double seed)
{
    std::vector<double> v(static_cast<size_t>(n > 0 ? n : 1));
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = seed * (1.0 + static_cast<double>(i)) * (i % 2 ? -0.75 : 1.5);
    return v;
}

// True when some node of the tree satisfies pred (walked without recursion).
template <class Pred>
inline bool anyNode(Oxel* root, Pred pred)
{
    std::vector<Oxel*> stack{root};
    while (!stack.empty()) {
        Oxel* n = stack.back();
        stack.pop_back();
        if (!n)
            continue;
        if (pred(n))
            return true;
        int kids = n->getNumChildren();
        for (int i = 0; i <= kids; ++i)  // one past the count: a branch may skip its first slot
            stack.push_back(n->getChild(i));
    }
    return false;
}

// True when some variable in the tree is bound to an expression (an assignment): copies
// drop those expressions by design, so they neither count nor evaluate like the original.
inline bool hasAssignment(Oxel* root)
{
    return anyNode(root, [](Oxel* n) { return n->identify() == 12 && n->getNumChildren() > 0; });
}

// Whatever the text before left open (a brace block, say), the next text parses afresh.
inline bool recoverLexer(OxelExpression& probe)
{
    return probe.initFromString(std::vector<char>{'0', '\0'}.data()) == 1;
}

inline bool sameNumber(double a, double b)
{
    return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

// True when the tree holds a source of fresh values each evaluation (rand(), gauss()).
inline bool drawsRandom(Oxel* root)
{
    return anyNode(root, [](Oxel* n) { return n->identify() == 34059 || n->identify() == 34060; });
}

// Everything a host does with a tree that it does not own: evaluate, print, count, copy,
// compare, simplify. numVars is the number of value slots the tree may touch.
inline void exerciseTree(Oxel* root, int numVars)
{
    if (!root)
        return;
    if (oxelDepth(root) > kMaxDepthForDirectCalls) {
        (void)oxelToString(root);
        return;
    }
    std::vector<double> vals = sampleValues(numVars, 0.5);
    int err = 0;
    double v1 = root->value(vals.data(), err);
    (void)vOxError(err);

    std::string text = oxelToString(root);
    FUZZ_CHECK(text.size() == std::strlen(text.c_str()));
    long nodes = oxelNodeCount(root);
    long depth = oxelDepth(root);
    FUZZ_CHECK(nodes >= depth && depth >= 1);
    (void)root->count();
    (void)root->vconstant();
    (void)root->pconstant("x");

    Oxel* copy = root->dup();
    FUZZ_CHECK(copy != nullptr);
    FUZZ_CHECK(oxelToString(copy) == text);
    bool assigns = hasAssignment(root);
    FUZZ_CHECK(assigns || oxelNodeCount(copy) == nodes);
    (void)(*copy == *root);
    if (!assigns && !drawsRandom(root)) {
        // A copy evaluates to the same bits from the same starting values.
        std::vector<double> vals2 = sampleValues(numVars, 0.5);
        int err2 = 0;
        double v2 = copy->value(vals2.data(), err2);
        FUZZ_CHECK(sameNumber(v1, v2));
    }
    oxelDestroy(copy);

    if (depth * nodes > kMaxDepthTimesNodesForSimplify)
        return;
    Oxel* simple = root->simplify();
    if (simple) {
        (void)oxelToString(simple);
        std::vector<double> vals3 = sampleValues(numVars, -2.0);
        int err3 = 0;
        (void)simple->value(vals3.data(), err3);
        oxelDestroy(simple);
    }
}

}  // namespace oxfuzz

#endif
