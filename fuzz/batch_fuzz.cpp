// libFuzzer target: eval()'s compiled program (native code included) and the batch must give
// the tree walk's value, error code and slot values on every row.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "program/native/native.h"

namespace {

// The first kSeedBytes bytes pick the rows' values, the rest is the formula.
const size_t kSeedBytes = 12;

double pickValue(uint8_t b)
{
    static const double table[] = {0.0, -0.0, 1.0, -1.0, 0.5, 2.0, -3.5, 1e-8, 1e308, -1e308,
                                   1.7976931348623157e308, 4.9e-324, INFINITY, -INFINITY, NAN,
                                   -NAN, 709.72, 2147483648.0, 31.0, -1e-300};
    const size_t n = sizeof table / sizeof table[0];
    if (b < 2 * n)
        return table[b % n];
    return (static_cast<double>(b) - 150.0) / 7.0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // eval() runs native code (where the build has it) from the first call on.
    oxelNativeHotCalls(0);
    // The lexer echoes unknown characters on stdout.
    if (!std::freopen("/dev/null", "w", stdout))
        return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < kSeedBytes)
        return 0;
    const uint8_t* seed = data;
    std::vector<char> text = oxfuzz::writableText(data + kSeedBytes, size - kSeedBytes);
    if (oxfuzz::callsBesselOfOrder(text))
        return 0;

    OxelExpression e;
    e.addVar("x");
    e.addVar("y");
    e.addVar("z");
    if (!e.initFromString(text.data()))
        return 0;
    // Random sources draw in row order; their agreement is a unit test (reseeding needed).
    if (oxfuzz::drawsRandom(e.root()))
        return 0;

    const int nv = e.numVars();
    const int stride = nv + 1;
    const int numRows = 1 + seed[0] % 300;
    std::vector<double> rows(static_cast<size_t>(numRows) * stride);
    for (int r = 0; r < numRows; ++r)
        for (int i = 0; i < stride; ++i)
            rows[static_cast<size_t>(r) * stride + i] =
                pickValue(static_cast<uint8_t>(seed[1 + (r + 3 * i) % (kSeedBytes - 1)] + r * i));

    std::vector<double> results(static_cast<size_t>(numRows));
    std::vector<int> errors(static_cast<size_t>(numRows));
    FUZZ_CHECK(e.evalBatch(rows.data(), numRows, stride, results.data(), errors.data()) == 0);

    KxDArray<double> vals;
    vals.setLength(nv);
    std::vector<double> walked(static_cast<size_t>(nv > 0 ? nv : 1));
    for (int r = 0; r < numRows; ++r) {
        const double* row = &rows[static_cast<size_t>(r) * stride];
        for (int i = 0; i < nv; ++i)
            vals[i] = walked[static_cast<size_t>(i)] = row[i];
        // Some rows start from a code the host left set: comparisons may overwrite it.
        const int start = seed[r % kSeedBytes] % 5 == 0 ? 3 : 0;
        int err = start, want = start;
        double v = e.eval(vals, err);
        double w = e.root()->value(walked.data(), want);
        FUZZ_CHECK(std::memcmp(&v, &w, sizeof v) == 0);
        FUZZ_CHECK(err == want);
        FUZZ_CHECK(nv == 0 || std::memcmp(vals.data(), walked.data(), sizeof(double) * nv) == 0);
        if (start == 0) {
            FUZZ_CHECK(std::memcmp(&v, &results[static_cast<size_t>(r)], sizeof v) == 0);
            FUZZ_CHECK(err == errors[static_cast<size_t>(r)]);
        }
    }
    return 0;
}
