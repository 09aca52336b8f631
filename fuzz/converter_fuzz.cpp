// libFuzzer target: OxConverter::strToOxel with variables, aliases and dependent variables.
#include <cstdint>
#include <cstdio>

#include "fuzz_common.h"

namespace {

struct Source {
    int nDims;
    int nDataVar;
    int nDiffLevels;
};

// Checks that the tree hands the callback only what the descriptor promised.
double sourceCallback(const void* userData, int component, int nDiff, const int* diffDims,
                      const double* args)
{
    const Source* s = static_cast<const Source*>(userData);
    FUZZ_CHECK(component >= 0 && component < s->nDataVar);
    FUZZ_CHECK(nDiff >= 0 && nDiff <= s->nDiffLevels);
    double sum = component + 0.25 * nDiff;
    for (int j = 0; j < nDiff; ++j) {
        FUZZ_CHECK(diffDims[j] >= 0 && diffDims[j] < s->nDims);
        sum += diffDims[j];
    }
    for (int i = 0; i < s->nDims; ++i)
        sum += args[i] * (i + 1);
    return sum;
}

Source twoDims{2, 3, 2};
Source oneDim{1, 1, 1};
Source noDefaults{3, 2, 1};
OxDepVarnode* sources[4];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    oxfuzz::keepReportChannel();
    // The lexer echoes unknown characters and diff() reports missing rules on stdout.
    if (!std::freopen("/dev/null", "w", stdout))
        return 0;
    char x[] = "x", y[] = "y", z[] = "z";
    char* names2[] = {x, y};
    int idx2[] = {0, 1};
    char* names1[] = {z};
    int idx1[] = {2};
    sources[0] = new OxDepVarnode("f", sourceCallback, &twoDims);
    sources[0]->setUp(2, 3, 2, names2, idx2);
    sources[1] = new OxDepVarnode("g", sourceCallback, &oneDim);
    sources[1]->setUp(1, 1, 1, names1, idx1);
    sources[2] = new OxDepVarnode("h", sourceCallback, &noDefaults);
    sources[2]->setUp(3, 2, 1, nullptr, nullptr);
    // Never set up: its name must scan as an ordinary unknown name.
    sources[3] = new OxDepVarnode("u", sourceCallback, &oneDim);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<char> text = oxfuzz::writableText(data, size);
    if (oxfuzz::callsBesselOfOrder(text))
        return 0;
    const std::vector<char> original = text;

    KxDArray<KxString> names;
    names.append("x");
    names.append("y");
    names.append("z");
    KxHashTable<KxString, KxString> aliases(KxString(""));
    aliases.insert("speed", "x");
    // An alias whose target is not declared leaves the dependent variable "h" reachable.
    aliases.insert("h", "nosuch");

    Oxel* tree = OxConverter::strToOxel(text.data(), names, &aliases, 4, sources);

    // Only ';' may have been overwritten (with NUL), and only on failure.
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != original[i])
            FUZZ_CHECK(tree == nullptr && original[i] == ';' && text[i] == '\0');
    }
    FUZZ_CHECK(names.length() >= 3);
    FUZZ_CHECK(tree != nullptr || OxConverter::lastError().length() > 0);
    if (!tree) {
        OxelExpression probe;
        FUZZ_CHECK(oxfuzz::recoverLexer(probe));
        return 0;
    }

    oxfuzz::exerciseTree(tree, names.length());
    if (oxelNodeCount(tree) <= oxfuzz::kMaxNodesForDiff) {
        for (const char* var : {"x", "y", "z", "nosuch"}) {
            Oxel* d = oxelDerivative(tree, var);
            if (!d)
                continue;
            if (oxelNodeCount(d) <= 20 * oxfuzz::kMaxNodesForDiff)
                oxfuzz::exerciseTree(d, names.length());
            oxelDestroy(d);
        }
    }
    oxelDestroy(tree);
    return 0;
}
