// Thread-safety tests: concurrent parsing, evaluation, random draws, derivatives, simplification.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <oxel/oxel.h>

#include "node_probe.h"

namespace {

const int kThreads = 8;

// Runs body(t) on kThreads threads at once, waits for all, and returns each thread's faults.
std::vector<int> runThreads(const std::function<int(int)>& body)
{
    std::vector<int> faults(kThreads, 0);
    std::vector<std::thread> pool;
    for (int t = 0; t < kThreads; ++t)
        pool.emplace_back([&, t] { faults[t] = body(t); });
    for (auto& th : pool)
        th.join();
    return faults;
}
const std::vector<int> kNoFaults(kThreads, 0);

// The parser writes into its text, so every parse gets a private copy.
int parseInto(OxelExpression& e, const std::string& text)
{
    declareXyw(e);
    return parseXyz(e, text, 0);
}

struct Formula {
    const char* text;
    bool smooth;  // has a true derivative in x
};
// {formula over x, y and the alias w, differentiable}; the values and slopes themselves are
// checked against the C library and central differences in functions_test and algebra_test.
const Formula kFormulas[] = {
    {"x + y", true}, {"sin(x) * cos(y)", true}, {"pow(x, 2) - w", true},  // alias lookup
    {"exp(x / 4) + sqrt(abs(y))", true}, {"tanh(x) * cosh(w)", true}, {"erf(x) + erfc(x)", true},
    {"t = x * y; t + t", false}, {"a = x; b = a + 1; b * b", false},  // assignment slots
    {"atan2(y, x) + hypot(x, y)", true}, {"max(x, w) - min(x, w)", true},  // two arguments
    {"(x < w) + (x >= w) * 2", false}, {"floor(x * 10) / 10 + ceil(w)", false},
};
const size_t kRows = sizeof kFormulas / sizeof kFormulas[0];

// Everything a host does with one formula: printed, simplified and derivative texts, value at
// (0.7, -1.3) and slope at (0.3, 0.8) to the bit; "" when a step fails.
std::string workOn(const Formula& f)
{
    OxelExpression e;
    if (parseInto(e, f.text) != 1)
        return "";
    std::unique_ptr<OxelExpression> s(e.simplified()), d(f.smooth ? e.derivative("x") : nullptr);
    int err = 0, derr = 0;
    const double value = evalAt(e, {0.7, -1.3}, err);
    const double slope = d ? evalAt(*d, {0.3, 0.8}, derr) : 0.0;
    char bits[64];
    std::snprintf(bits, sizeof bits, " | %a | %a", value, slope);
    if (!s || (f.smooth && !d) || err || derr)
        return "";
    return oxelToString(e.root()) + " | " + oxelToString(s->root()) + " | " +
           (d ? oxelToString(d->root()) : "") + bits;
}

// Seed reset and no second deviate pending. A pending one shows as a shift: after two resets
// the first two draws repeat only from an empty pair state; otherwise one draw consumes it.
void resetGauss()
{
    idum = -1;
    float a = gasdev(&idum), b = gasdev(&idum);
    idum = -1;
    float c = gasdev(&idum), d = gasdev(&idum);
    if (!(a == c && b == d))
        (void)gasdev(&idum);
    idum = -1;
}

}  // namespace

// Threads parse, evaluate, simplify and differentiate distinct formulas out of step, each
// getting the lone thread's outcome, while a broken text fails cleanly.
TEST(ThreadSafety, DistinctFormulasMatchSingleThreaded)
{
    std::vector<std::string> alone;
    for (const Formula& f : kFormulas) {
        alone.push_back(workOn(f));
        ASSERT_FALSE(alone.back().empty()) << f.text;
    }
    EXPECT_EQ(runThreads([&](int t) {
        int bad = 0;
        for (size_t k = 0; k < 15 * kRows; ++k) {
            size_t i = (k * 5 + static_cast<size_t>(t)) % kRows;  // 5 is prime to the row count
            OxelExpression broken;
            bad += workOn(kFormulas[i]) != alone[i];
            bad += parseInto(broken, "sin 1 +") != 0 || std::string(broken.lastError()).empty();
        }
        return bad;
    }), kNoFaults);
}

// Several threads make the first eval() and evalBatch() calls on one fresh expression at once
// (the programs are compiled on first use), each eval() with its own vector, into which the
// assignment writes: every thread gets the lone results.
TEST(ThreadSafety, FirstCallsOnOneExpression)
{
    const int n = 70000;  // large enough for the worker threads to take part
    std::vector<double> rows(3 * static_cast<size_t>(n)), xs(n), ys(n);  // x, y, the slot of s
    for (int i = 0; i < n; ++i) {
        xs[i] = rows[3 * i] = std::sin(i * 0.74) * 3;
        ys[i] = rows[3 * i + 1] = std::sin(i * 0.74 + 0.37) * 3;
    }
    const double* cols[] = {xs.data(), ys.data(), nullptr};
    std::vector<double> want(static_cast<size_t>(n));
    std::vector<int> wantErr(static_cast<size_t>(n));
    const char* text = "s = x * y; s + ln(x) - sqrt(w) / (x - 1)";
    {
        OxelExpression lone;
        ASSERT_EQ(parseInto(lone, text), 1);
        oxelSetBatchThreads(1);
        ASSERT_EQ(lone.evalBatch(rows.data(), n, 3, want.data(), wantErr.data()), 0);
        oxelSetBatchThreads(0);
    }
    for (int round = 0; round < 3; ++round) {
        OxelExpression e;
        ASSERT_EQ(parseInto(e, text), 1);
        EXPECT_EQ(runThreads([&](int t) {
                      std::vector<double> got(static_cast<size_t>(n));
                      std::vector<int> err(static_cast<size_t>(n));
                      int bad = 0;
                      for (int r = t; r < n; r += 101) {
                          std::vector<double> v(&rows[3 * r], &rows[3 * r] + 3);
                          int code = 0;
                          const double one = e.eval(v.data(), 3, code);
                          bad += std::memcmp(&one, &want[r], sizeof one) != 0;
                          bad += code != wantErr[r] || v[2] != v[0] * v[1];
                      }
                      if (t % 2)
                          e.evalBatch(rows.data(), n, 3, got.data(), err.data());
                      else
                          e.evalBatchColumns(cols, n, got.data(), err.data());
                      bad += got != want || err != wantErr;
                      return bad;
                  }),
                  kNoFaults);
    }
}

// Concurrent draws are, as a multiset, exactly the lone reference sequence: each value once.
TEST(ThreadSafety, RandomDrawsFromThreadsAreTheLoneSequence)
{
    struct Source {
        const char* text;
        void (*reset)();
        double (*next)();  // the lone reference generator
    };
    const Source sources[] = {  // {formula, generator reset, reference draw}
        {"gauss()", resetGauss, [] { return double(gasdev(&idum)); }},  // Box-Muller pairs
        {"rand()", [] { std::srand(20240611u); },  // C library scaled by 2^-31 in single precision
         [] { return double(float(std::rand()) * 0x1p-31f); }},
    };
    const int perThread = 2500;  // even total: the Gauss pair state ends empty
    for (const Source& src : sources) {
        OxelExpression e;
        ASSERT_EQ(parseInto(e, src.text), 1);
        std::vector<std::vector<double>> drawn(kThreads + 1);  // the last one is the lone eval()
        auto draw = [&](int t) {
            for (int i = 0; i < (t == kThreads ? kThreads : 1) * perThread; ++i) {
                int err = 0;
                drawn[t].push_back(evalAt(e, {0, 0}, err));
            }
            return 0;
        };
        std::vector<double> reference(perThread * kThreads), all;
        src.reset();
        std::generate(reference.begin(), reference.end(), src.next);
        src.reset();
        draw(kThreads);
        EXPECT_TRUE(drawn[kThreads] == reference) << src.text;  // the same order when alone
        src.reset();
        runThreads(draw);
        for (int t = 0; t < kThreads; ++t)
            all.insert(all.end(), drawn[t].begin(), drawn[t].end());
        std::sort(all.begin(), all.end());
        std::sort(reference.begin(), reference.end());
        EXPECT_GT(reference.back() - reference.front(), 0.9) << src.text;  // a real spread
        EXPECT_TRUE(all == reference) << src.text;
    }
}
