// Tests of the leaves: number text, random sources and dependent variables.
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "node_probe.h"

TEST(OxZahl, TextBeyondFortyCharactersAndUnderAnyLocale)
{
    // Beyond the 40 characters of the usual buffer the text still matches "%.10f".
    for (double v : {1e28, -1e25, -1.7976931348623157e308}) {
        char ref[400];
        std::snprintf(ref, sizeof ref, "%.10f", std::fabs(v));
        std::string digits(ref, std::strlen(ref) - 11);  // every fractional digit is zero
        OxZahl z(v);
        EXPECT_EQ(v < 0 ? "(-" + digits + ")" : digits, z.symbol());
        EXPECT_EQ(static_cast<int>(std::strlen(z.symbol())), z.count());
    }
    if (std::setlocale(LC_ALL, "de_DE.UTF-8")) {  // a comma locale must not leak into the text
        std::string text = OxZahl(2.5).symbol();
        std::setlocale(LC_ALL, "C");
        EXPECT_EQ("2.5", text);
    }
}

// Park-Miller by plain modular arithmetic, independent of Schrage's decomposition.
static int64_t parkMiller(int64_t x, int steps)
{
    for (int i = 0; i < steps; ++i)
        x = x * 16807 % 2147483647;
    return x;
}

// Initialisation spends 40 steps (8 warm-up, 32 table), then each call takes one.
TEST(Random, Ran1StateIsTheMinimalStandardSequence)
{
    ASSERT_EQ(1043618065, parkMiller(1, 10000));  // the published check value
    const struct { int64_t start, seed; int calls; } rows[] = {
        {-1, 1, 9960},                             // the initial state
        {-5, 5, 3}, {-2147483646, 2147483646, 1},  // non-positive: reseeded with the magnitude
        {0, 1, 2},                                 // zero becomes 1
    };
    std::lock_guard<KxMutex> lock(OxGauss::m_mutex);
    for (const auto& r : rows) {
        int64_t state = r.start;
        float hi = 0.0f;
        for (int i = 0; i < r.calls; ++i) {
            float u = ran1(&state);
            ASSERT_TRUE(u >= 0.0f && u <= 0.9999998807907104f) << u;
            hi = std::max(hi, u);
        }
        EXPECT_EQ(parkMiller(r.seed, 40 + r.calls), state) << r.start;
        EXPECT_TRUE(r.calls < 1000 || hi > 0.99f);  // the whole interval is reached
    }
}

// A pair is u2*fac, then u1*fac of one accepted point; recompute it from ran1 itself.
TEST(Random, GasdevServesBothDeviatesOfAPair)
{
    std::lock_guard<KxMutex> lock(OxGauss::m_mutex);
    int64_t state = -1, before;
    do {  // until a call serves a cached deviate: then the next one draws
        before = state;
        gasdev(&state);
    } while (state != before);
    state = -1;
    float first = gasdev(&state);
    int64_t afterFirst = state;
    float second = gasdev(&state);
    EXPECT_EQ(afterFirst, state);  // no ran1 call for the second deviate
    int64_t ref = -1;
    float u1, u2, rsq;
    do {
        u1 = 2.0f * ran1(&ref) - 1.0f;
        u2 = 2.0f * ran1(&ref) - 1.0f;
        rsq = u1 * u1 + u2 * u2;
    } while (rsq >= 1.0f || rsq == 0.0f);
    float fac = static_cast<float>(std::sqrt(-2.0 * std::log(static_cast<double>(rsq)) / rsq));
    EXPECT_EQ(u2 * fac, first);
    EXPECT_EQ(u1 * fac, second);
}

struct Call {
    int calls = 0;
    std::vector<int> dims;
    std::vector<double> args;
};

// f(u, v) = 10u + v + 100*component, recording what it was asked for.
static double recorder(const void* user, int comp, int nDiff, const int* dims, const double* args)
{
    Call* c = static_cast<Call*>(const_cast<void*>(user));
    ++c->calls;
    c->dims.assign(dims, dims + nDiff);
    c->args.assign(args, args + 2);
    return 10 * args[0] + args[1] + 100 * comp;
}

TEST(OxDepVar, DefaultsCallbackAndErrors)
{
    Call call;
    OxDepVarnode src("field", recorder, &call);
    EXPECT_EQ(-1, src.getNDims());
    char n0[] = "u", n1[] = "v";
    char* names[] = {n0, n1};
    int indices[] = {1, 0}, index = 0;
    src.setUp(2, 3, 2, names, indices);
    EXPECT_TRUE(src.getVar(2, index) == nullptr && index == -1);
    double vars[] = {7.0, 2.0};
    int err = 0;
    {
        OxDepVar d(&src, 1);  // default arguments: u = slot 1, v = slot 0
        EXPECT_EQ(1, src.refCount());
        EXPECT_EQ(10 * 2.0 + 7.0 + 100, d.value(vars, err));
        EXPECT_EQ((std::vector<double>{2.0, 7.0}), call.args);
    }
    EXPECT_EQ(0, src.refCount());

    // Failing arguments still reach the callback; the first failing one is reported.
    int dims[] = {1, 0};
    Oxel* kids[] = {new Probe(1.0, 11), new Probe(2.0, 8)};
    OxDepVar d(&src, 0, 2, dims, kids);
    EXPECT_EQ(12.0, d.value(vars, err));
    EXPECT_TRUE(err == 11 && call.calls == 2 && call.dims == (std::vector<int>{1, 0}));

    src.setUp(-1, 9, 9, nullptr, nullptr);  // unconfigures; the other counts stay
    EXPECT_TRUE(src.getNDims() == -1 && src.getNDataVar() == 3 && src.getNDiffLevels() == 2);
    EXPECT_FALSE(src.hasDefaultVars());
    EXPECT_EQ(0.0, OxDepVarnode("g", nullptr, nullptr).value(0, 0, nullptr, vars));  // no callback
}
