// The benchmark's formula suite: liboxel text, the other libraries' syntax, hand-written C++.
#ifndef OXEL_BENCH_SUITE_H
#define OXEL_BENCH_SUITE_H

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace oxbench {

const int kPoints = 10000;  // points per timed iteration (one batch)
const int kStride = 10;     // eight declared variables and room for two assigned ones
const char* const kVarNames[] = {"x", "y", "z", "w", "u", "v", "s", "t"};
const int kDeclared = 8;

// Hand-written evaluation of n points: rows with a stride, or (columns not null) one array
// per declared variable.
using Native = void (*)(const double* rows, int stride, const double* const* columns, int n,
                        double* res, int* err);

struct Formula {
    const char* family;
    const char* oxel;
    const char* mu;  // muparser syntax, null when it has no equivalent
    const char* fp;  // fparser syntax, null when it has no equivalent
    Native native;
    double (*point)(const double* values, int* code);  // the same, one point out of line
    Native libm = nullptr;  // the C library alone (powers), null elsewhere
};

extern const Formula kSuite[];
extern const int kNumFormulas;

// Formulas of two or three variables (x, y, z) for the value with its derivatives.
struct GradientFormula {
    const char* family;
    const char* oxel;
    int numVars;  // differentiated by the first numVars of x, y, z
};

extern const GradientFormula kGradientSuite[];
extern const int kNumGradientFormulas;

// The formula as a plain C++ loop over the columns (plain.cpp), null where there is none, and
// the table of the one-thread column batch against it, from the times per point.
using PlainLoop = void (*)(const double* const* columns, int n, double* res);
PlainLoop plainLoop(int f);
void printPlainSummary(double (*perPoint)(const char* kind, int f));

// kPoints rows of kStride values each, the same for every run.
const std::vector<double>& rows();
// The same points as one array per declared variable.
const double* const* columns();

// The value benchmarks and the gradient benchmarks (grad_bench.cpp) share these.
double median(std::vector<double> v);
std::string cell(double v, const char* fmt = "%.1f");
double ratio(double a, double b);
void registerGradients();
// A library that reads its variables through addresses bound once (muparser, ExprTk): each
// point is copied into vars, then eval() gives its value.
template <class Eval>
void benchBoundVariables(benchmark::State& st, double* vars, Eval eval)
{
    const double* data = rows().data();
    std::vector<double> res(kPoints);
    for (auto _ : st) {
        for (int r = 0; r < kPoints; ++r) {
            const double* row = data + static_cast<size_t>(r) * kStride;
            for (int i = 0; i < kDeclared; ++i)
                vars[i] = row[i];
            res[static_cast<size_t>(r)] = eval();
        }
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
}

#ifdef OXEL_BENCH_EXPRTK
// ExprTk (exprtk_bench.cpp): whether it parses formula f and gives want[r] at the first rows.
bool exprtkAgrees(int f, const std::vector<double>& want);
void benchExprtk(benchmark::State& st, int f);
#endif
// Each way of computing derivatives against the value alone, from the times by name (ns).
void printGradientSummary(const std::map<std::string, double>& times);

}  // namespace oxbench

#endif
