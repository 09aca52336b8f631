// Tests of the native code behind eval: the generator takes the whole language and refuses
// oversized programs, switching it off changes no bit, and its arena gives back what it takes.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "node_probe.h"
#include "program/native/native.h"
#include "program/program.h"

namespace {

// The generator is expected to take every formula: the build has it and the environment does
// not switch it off.
bool nativeExpected()
{
#ifdef OXEL_TEST_NATIVE
    const char* v = std::getenv("OXEL_JIT");
    return !(v && std::strcmp(v, "0") == 0);
#else
    return false;
#endif
}

// eval() and evalBatch() against the tree walk at special points (y at -x / 3): value bits,
// code and the slots they leave.
std::string evalMismatch(OxelExpression& e)
{
    const double points[] = {0.5, -0.0, NAN, INFINITY, -INFINITY, 1e-320, 1e308, -3.0, 710.0};
    std::vector<double> rows;
    for (double x : points)
        for (int i = 0; i < e.numVars(); ++i)
            rows.push_back(i == 1 ? -x / 3 : x);
    return exprMismatch(e, rows, e.numVars());
}

// A balanced sum of n distinct products: about 2n steps, shallow enough to lower.
Oxel* wideSum(int first, int n)
{
    if (n == 1)
        return new OxMal(new OxVar(0, "x"), new OxZahl(first + 0.5));
    return new OxPlus(wideSum(first, n / 2), wideSum(first + n / 2, n - n / 2));
}

}  // namespace

// Random formulas of the whole language, calls included, compile; a program above the step
// limit stays in the interpreter with the tree's results.
TEST(NativeCode, CompilesTheLanguageAndRefusesOversizedPrograms)
{
    const int expected = nativeExpected() ? 1 : 0;
    std::mt19937 rng(77);
    std::vector<std::string> texts = {"rand() * x + gauss()", "a = x; x = y; y = a; x - y",
                                      "ln(x) + sqrt(-1) / 0"};
    for (int i = 0; i < 300; ++i)
        texts.push_back("a = " + randomFormula(rng, 2, false, nullptr) + "; " +
                        randomFormula(rng, 5, true, nullptr));
    // Forty values alive at once: more than the registers, so values are spilled and
    // reloaded, also around the out-of-line guards.
    std::string pressure, sum = "0";
    for (int i = 1; i <= 40; ++i) {
        pressure += "v" + std::to_string(i) + " = x / " + std::to_string(i) + " + y * z; ";
        sum = "(" + sum + (i % 2 ? " + v" : " * v") + std::to_string(i) + ")";
    }
    texts.push_back(pressure + sum);
    for (const std::string& text : texts) {
        std::unique_ptr<OxelExpression> e = parsedXyz(text);
        if (!e)
            continue;
        EXPECT_EQ(oxelNativeCompile(e->root(), e->numVars()), expected) << text;
    }
    std::unique_ptr<OxelExpression> wide = parsedXyz(texts.back());
    ASSERT_TRUE(wide);
    EXPECT_EQ(evalMismatch(*wide), "");
    std::unique_ptr<OxelExpression> e = parsedXyz("0");
    e->setRoot(wideSum(0, oxn::kMaxSteps));
    EXPECT_GT(oxelProgramSteps(e->root(), e->numVars()), oxn::kMaxSteps);
    EXPECT_EQ(oxelNativeCompile(e->root(), e->numVars()), 0);
    EXPECT_EQ(evalMismatch(*e), "");
}

// A compiled expression gives the same bits with native code switched off and on again.
TEST(NativeCode, SwitchingOffKeepsEveryBit)
{
    for (const char* text : {"a = x / y; a * a - max(z, a) + (x < y)", "sqrt(x) + exp(y) * z"}) {
        std::unique_ptr<OxelExpression> e = parsedXyz(text);
        ASSERT_TRUE(e) << text;
        for (bool on : {true, false, true}) {
            oxelSetNativeCode(on);
            EXPECT_EQ(evalMismatch(*e), "") << text << (on ? " native" : " interpreted");
        }
    }
}

// Thousands of programs fill several chunks of executable memory, run correctly from any of
// them, and give all but one chunk back when their expressions die.
TEST(NativeCode, ArenaGivesBackEveryProgram)
{
    const int before = oxelNativeArenaChunks();
    std::vector<std::unique_ptr<OxelExpression>> alive;
    std::string text = "x";
    for (int i = 0; i < 1500; ++i) {
        text = "(" + text + ") * y + sin(z) - " + std::to_string(i);
        if (text.size() > 400)
            text = "x / " + std::to_string(i);
        alive.push_back(parsedXyz(text));
        ASSERT_TRUE(alive.back()) << text;
        ASSERT_EQ(evalMismatch(*alive.back()), "") << text;  // the first call compiles
    }
    if (nativeExpected()) {
        EXPECT_GT(oxelNativeArenaChunks(), 1);
    }
    for (size_t i = 0; i < alive.size(); i += 2)  // holes everywhere, then the rest
        alive[i].reset();
    for (size_t i = 1; i < alive.size(); i += 2)
        EXPECT_EQ(evalMismatch(*alive[i]), "");
    alive.clear();
    EXPECT_LE(oxelNativeArenaChunks(), std::max(before, 1));
}
