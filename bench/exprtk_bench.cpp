// ExprTk's column of the benchmark, in a translation unit of its own: its header takes about a
// minute to compile. Built only where the header is found (OXEL_BENCH_EXPRTK).
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>
#include <vector>

#include "exprtk.hpp"
#include "suite.h"

namespace oxbench {
namespace {

// ExprTk reads its variables by reference, bound once; a host copies each point in. Its
// syntax is closest to fparser's (":=" assigns, "&" and "|" are the connectives), then
// muparser's.
struct TkSetup {
    double vars[kStride] = {};
    exprtk::symbol_table<double> table;
    exprtk::expression<double> expr;
    bool ok = false;

    explicit TkSetup(int f)
    {
        for (int i = 0; i < kDeclared; ++i)
            table.add_variable(kVarNames[i], vars[i]);
        table.add_variable("a", vars[8]);
        table.add_variable("b", vars[9]);
        expr.register_symbol_table(table);
        const char* text = kSuite[f].fp ? kSuite[f].fp : kSuite[f].mu;
        exprtk::parser<double> parser;
        ok = text && parser.compile(text, expr);
    }
};

}  // namespace

bool exprtkAgrees(int f, const std::vector<double>& want)
{
    TkSetup t(f);
    if (!t.ok)
        return false;
    const double* data = rows().data();
    for (size_t r = 0; r < want.size(); ++r) {
        for (int i = 0; i < kDeclared; ++i)
            t.vars[i] = data[r * kStride + static_cast<size_t>(i)];
        if (!(std::fabs(t.expr.value() - want[r]) <= 1e-6 * std::max(1.0, std::fabs(want[r]))))
            return false;
    }
    return true;
}

void benchExprtk(benchmark::State& st, int f)
{
    TkSetup t(f);
    benchBoundVariables(st, t.vars, [&] { return t.expr.value(); });
}

}  // namespace oxbench
