// Benchmark: liboxel eval and batch against muparser, fparser, ExprTk and hand-written C++.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "suite.h"

#ifdef OXEL_BENCH_MUPARSER
#include <muParser.h>
#endif
#ifdef OXEL_BENCH_FPARSER
#include <fparser.hh>
#endif

namespace {

using namespace oxbench;

std::string text(int f) { return kSuite[f].oxel; }

// Formulas that ExprTk reads and evaluates as eval() does (crossCheck fills it in).
std::vector<bool> g_exprtk(static_cast<size_t>(kNumFormulas), false);

// An expression with the eight variables declared and formula f parsed.
OxelExpression* parseOxel(int f)
{
    OxelExpression* e = new OxelExpression;
    for (const char* n : kVarNames)
        e->addVar(n);
    std::string t = text(f);
    if (!e->initFromString(&t[0]))
        std::fprintf(stderr, "oxel_bench: cannot parse %s\n", kSuite[f].oxel);
    return e;
}

// One point at a time, as a host calls eval(): each row copied into the value vector, then
// point(values, code) gives its value.
template <class Point>
void pointByPoint(benchmark::State& st, int nv, Point point)
{
    const double* data = rows().data();
    KxDArray<double> vals;
    vals.setLength(kStride);
    std::vector<double> res(kPoints);
    std::vector<int> err(kPoints);
    for (auto _ : st) {
        for (int r = 0; r < kPoints; ++r) {
            const double* row = data + static_cast<size_t>(r) * kStride;
            for (int i = 0; i < nv; ++i)
                vals[i] = row[i];
            int ev = 0;
            res[static_cast<size_t>(r)] = point(vals, ev);
            err[static_cast<size_t>(r)] = ev;
        }
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
}

void benchEval(benchmark::State& st, int f)
{
    OxelExpression* e = parseOxel(f);
    pointByPoint(st, e->numVars(),
                 [e](KxDArray<double>& vals, int& ev) { return e->eval(vals, ev); });
    delete e;
}

// The hand-written formula out of line, called for each point through a pointer as any
// generated code is: the floor for an evaluator that is not compiled into the host's loop.
void benchNativeCalled(benchmark::State& st, int f)
{
    const auto point = kSuite[f].point;
    OxelExpression* e = parseOxel(f);
    const int nv = e->numVars();
    delete e;
    pointByPoint(st, nv,
                 [point](KxDArray<double>& vals, int& ev) { return point(vals.data(), &ev); });
}

void benchBatch(benchmark::State& st, int f)
{
    OxelExpression* e = parseOxel(f);
    std::vector<double> res(kPoints);
    std::vector<int> err(kPoints);
    for (auto _ : st) {
        e->evalBatch(rows().data(), kPoints, kStride, res.data(), err.data());
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
    delete e;
}

// The column batch over one array per variable (assigned variables read 0).
void benchColumns(benchmark::State& st, int f)
{
    OxelExpression* e = parseOxel(f);
    std::vector<const double*> cols(columns(), columns() + kDeclared);
    cols.resize(static_cast<size_t>(std::max(e->numVars(), kDeclared)), nullptr);
    std::vector<double> res(kPoints);
    std::vector<int> err(kPoints);
    for (auto _ : st) {
        e->evalBatchColumns(cols.data(), kPoints, res.data(), err.data());
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
    delete e;
}

// Large batches for the worker threads: 10^7 rows, one thread against the
// default count, in wall time (CPU time would add the threads up).
const int kLargeRows = 10000000;
const int kLargeStride = kStride;  // the expressions declare all eight variables

const std::vector<double>& largeRows()
{
    static const std::vector<double> data = [] {
        std::vector<double> v(static_cast<size_t>(kLargeRows) * kLargeStride);
        const std::vector<double>& small = rows();
        for (size_t r = 0; r < static_cast<size_t>(kLargeRows); ++r)
            for (size_t i = 0; i < kLargeStride; ++i)
                v[r * kLargeStride + i] = small[(r % kPoints) * kStride + i];
        return v;
    }();
    return data;
}

void benchLarge(benchmark::State& st, int f, int threads)
{
    OxelExpression* e = parseOxel(f);
    std::vector<double> res(kLargeRows);
    std::vector<int> err(kLargeRows);
    const double* data = largeRows().data();
    oxelSetBatchThreads(threads);
    for (auto _ : st) {
        e->evalBatch(data, kLargeRows, kLargeStride, res.data(), err.data());
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
    oxelSetBatchThreads(0);
    delete e;
}

void benchLargeOne(benchmark::State& st, int f) { benchLarge(st, f, 1); }
void benchLargeAll(benchmark::State& st, int f) { benchLarge(st, f, 0); }

// The formulas of four variables or fewer that are pure arithmetic.
bool arithmeticOfFour(int f)
{
    static const char* const families[] = {"add", "mul-add", "rational", "polynomial", "horner"};
    for (const char* name : families)
        if (std::strcmp(kSuite[f].family, name) == 0)
            return true;
    return false;
}

void runNative(benchmark::State& st, Native fn, const double* const* cols = nullptr)
{
    std::vector<double> res(kPoints);
    std::vector<int> err(kPoints);
    for (auto _ : st) {
        fn(rows().data(), kStride, cols, kPoints, res.data(), err.data());
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
}

void benchNative(benchmark::State& st, int f) { runNative(st, kSuite[f].native); }
void benchNativeColumns(benchmark::State& st, int f) { runNative(st, kSuite[f].native, columns()); }
void benchLibm(benchmark::State& st, int f) { runNative(st, kSuite[f].libm); }

void benchPlain(benchmark::State& st, int f)
{
    const PlainLoop loop = plainLoop(f);
    std::vector<double> res(kPoints);
    for (auto _ : st) {
        loop(columns(), kPoints, res.data());
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
}

#ifdef OXEL_BENCH_MUPARSER
// muparser reads its variables through pointers bound once; a host copies each point in.
struct MuSetup {
    mu::Parser p;
    double vars[kStride] = {};
    explicit MuSetup(const char* expr)
    {
        for (int i = 0; i < kDeclared; ++i)
            p.DefineVar(kVarNames[i], &vars[i]);
        p.DefineVar("a", &vars[8]);
        p.DefineVar("b", &vars[9]);
        p.SetExpr(expr);
    }
};

void benchMu(benchmark::State& st, int f)
{
    MuSetup m(kSuite[f].mu);
    benchBoundVariables(st, m.vars, [&] { return m.p.Eval(); });
}

void benchMuParse(benchmark::State& st, int f)
{
    MuSetup m(kSuite[f].mu);
    for (auto _ : st) {
        m.p.SetExpr(kSuite[f].mu);
        benchmark::DoNotOptimize(m.p.Eval());  // muparser parses on the first Eval
    }
}
#endif

#ifdef OXEL_BENCH_FPARSER
const char* kFpVars = "x,y,z,w,u,v,s,t";

void benchFp(benchmark::State& st, int f)
{
    FunctionParser fp;
    fp.Parse(kSuite[f].fp, kFpVars);
    fp.Optimize();
    const double* data = rows().data();
    std::vector<double> res(kPoints);
    for (auto _ : st) {
        for (int r = 0; r < kPoints; ++r)
            res[static_cast<size_t>(r)] = fp.Eval(data + static_cast<size_t>(r) * kStride);
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
}

void benchFpParse(benchmark::State& st, int f)
{
    FunctionParser fp;
    for (auto _ : st)
        benchmark::DoNotOptimize(fp.Parse(kSuite[f].fp, kFpVars));
}
#endif

void benchParse(benchmark::State& st, int f)
{
    OxelExpression e;
    for (const char* n : kVarNames)
        e.addVar(n);
    std::string t = text(f);
    for (auto _ : st)
        benchmark::DoNotOptimize(e.initFromString(&t[0]));
}

// First use: declare the variables, parse, evaluate once (what a host pays for a formula it
// evaluates a few times only).
void benchFirst(benchmark::State& st, int f)
{
    const std::string t = text(f);
    std::vector<double> vals(static_cast<size_t>(kStride), 1.5);
    for (auto _ : st) {
        OxelExpression e;
        for (const char* n : kVarNames)
            e.addVar(n);
        std::string copy = t;
        e.initFromString(&copy[0]);
        int err = 0;
        benchmark::DoNotOptimize(e.eval(vals.data(), static_cast<int>(vals.size()), err));
    }
}

void benchDiff(benchmark::State& st, int f)
{
    OxelExpression* e = parseOxel(f);
    for (auto _ : st) {
        OxelExpression* d = e->derivative("x");
        OxelExpression* s = d ? d->simplified() : nullptr;
        benchmark::DoNotOptimize(s);
        delete s;
        delete d;
    }
    delete e;
}

// Nanoseconds per iteration of every benchmark, by name.
}  // namespace

std::map<std::string, double> g_times;

namespace {

class CollectingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration && !r.error_occurred) {
                std::string name = r.benchmark_name();
                name = name.substr(0, name.find("/min_time"));
                name = name.substr(0, name.find("/repeats"));
                const double t = name.compare(0, 7, "threads") == 0
                                     ? 1e3 * r.real_accumulated_time / r.iterations  // ms
                                     : r.GetAdjustedCPUTime();
                // With --benchmark_repetitions the best run counts: on a shared machine the
                // others measure the neighbours.
                auto it = g_times.find(name);
                g_times[name] = it == g_times.end() ? t : std::min(it->second, t);
            }
        ConsoleReporter::ReportRuns(runs);
    }
};

// kind/family with dashes for blanks, e.g. eval/pow-const-3.5: --benchmark_filter=pow works.
std::string key(const char* kind, int f)
{
    std::string k = std::string(kind) + "/" + kSuite[f].family;
    std::replace(k.begin(), k.end(), ' ', '-');
    return k;
}

void registerAll()
{
    for (int f = 0; f < kNumFormulas; ++f) {
        auto reg = [&](const char* kind, void (*fn)(benchmark::State&, int)) {
            benchmark::RegisterBenchmark(key(kind, f).c_str(), fn, f)
                ->Unit(benchmark::kNanosecond)
                ->MinTime(0.1);
        };
        reg("eval", benchEval);
        reg("batch", benchBatch);
        reg("native", benchNative);
        reg("native-called", benchNativeCalled);
        reg("columns", benchColumns);
        reg("native-columns", benchNativeColumns);
        if (kSuite[f].libm)
            reg("libm", benchLibm);
        if (plainLoop(f))
            reg("plain", benchPlain);
#ifdef OXEL_BENCH_MUPARSER
        if (kSuite[f].mu) {
            reg("muparser", benchMu);
            reg("parse-muparser", benchMuParse);
        }
#endif
#ifdef OXEL_BENCH_FPARSER
        if (kSuite[f].fp) {
            reg("fparser", benchFp);
            reg("parse-fparser", benchFpParse);
        }
#endif
#ifdef OXEL_BENCH_EXPRTK
        if (g_exprtk[static_cast<size_t>(f)])
            reg("exprtk", benchExprtk);
#endif
        reg("parse", benchParse);
        reg("first", benchFirst);
        reg("diff", benchDiff);
        if (arithmeticOfFour(f)) {
            for (auto large : {std::make_pair("threads-1", &benchLargeOne),
                               std::make_pair("threads-all", &benchLargeAll)})
                benchmark::RegisterBenchmark(key(large.first, f).c_str(), large.second, f)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime()
                    ->MinTime(0.5);
        }
    }
}

// Per point for evaluation benchmarks, per call for parse and derivative; < 0 when absent.
double perPoint(const char* kind, int f)
{
    auto it = g_times.find(key(kind, f));
    return it == g_times.end() ? -1.0 : it->second / kPoints;
}

double perCall(const char* kind, int f)
{
    auto it = g_times.find(key(kind, f));
    return it == g_times.end() ? -1.0 : it->second;
}

// Values of the other libraries at the first points must agree with eval(); otherwise their
// syntax string is not the same formula and their timing would mean nothing.
void crossCheck()
{
    const double* data = rows().data();
    for (int f = 0; f < kNumFormulas; ++f) {
        OxelExpression* e = parseOxel(f);
        KxDArray<double> vals;
        vals.setLength(e->numVars());
        std::vector<double> wants;
        for (int r = 0; r < 50; ++r) {
            const double* row = data + static_cast<size_t>(r) * kStride;
            for (int i = 0; i < kDeclared; ++i)
                vals[i] = row[i];
            int err = 0;
            double want = e->eval(vals, err);
            wants.push_back(want);
            auto close = [&](double got) {
                return std::fabs(got - want) <= 1e-6 * std::max(1.0, std::fabs(want));
            };
#ifdef OXEL_BENCH_MUPARSER
            if (kSuite[f].mu) {
                MuSetup m(kSuite[f].mu);
                for (int i = 0; i < kDeclared; ++i)
                    m.vars[i] = row[i];
                if (!close(m.p.Eval()))
                    std::printf("warning: muparser disagrees on '%s'\n", kSuite[f].mu);
            }
#endif
#ifdef OXEL_BENCH_FPARSER
            if (kSuite[f].fp) {
                FunctionParser fp;
                fp.Parse(kSuite[f].fp, kFpVars);
                if (!close(fp.Eval(row)))
                    std::printf("warning: fparser disagrees on '%s'\n", kSuite[f].fp);
            }
#endif
            double plain = 0.0;
            const double* cols[kDeclared];
            for (int i = 0; i < kDeclared; ++i)
                cols[i] = columns()[i] + r;
            if (plainLoop(f) && (plainLoop(f)(cols, 1, &plain), !close(plain)))
                std::printf("warning: the plain loop disagrees on '%s'\n", kSuite[f].oxel);
            int en = 0;
            double nat = 0.0;
            kSuite[f].native(row, kStride, nullptr, 1, &nat, &en);
            if (std::memcmp(&nat, &want, sizeof nat) != 0 || en != err) {
                std::printf("warning: native code disagrees on '%s'\n", kSuite[f].oxel);
                break;
            }
        }
#ifdef OXEL_BENCH_EXPRTK
        g_exprtk[static_cast<size_t>(f)] = exprtkAgrees(f, wants);
#endif
        delete e;
    }
}

void printSummary()
{
    std::printf("\nns per point (batches of %d points); parse and d/dx+simplify in ns per call\n\n",
                kPoints);
    std::printf("| formula | eval | batch | muparser | fparser | native | eval/mu | batch/mu | "
                "batch/native | parse | parse mu | parse fp | d/dx+simp |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    std::vector<double> evalMu, batchMu, batchNative, evalFp, parse, parseMu, diff, evalNative,
        firstMu, columnsNative;
    for (int f = 0; f < kNumFormulas; ++f) {
        double ev = perPoint("eval", f), ba = perPoint("batch", f), na = perPoint("native", f);
        double mu = perPoint("muparser", f), fp = perPoint("fparser", f);
        double pa = perCall("parse", f), pm = perCall("parse-muparser", f);
        double pf = perCall("parse-fparser", f), di = perCall("diff", f);
        if (ratio(ev, mu) > 0)
            evalMu.push_back(ratio(ev, mu));
        if (ratio(ba, mu) > 0)
            batchMu.push_back(ratio(ba, mu));
        if (ratio(ba, na) > 0)
            batchNative.push_back(ratio(ba, na));
        if (ratio(ev, na) > 0)
            evalNative.push_back(ratio(ev, na));
        if (ratio(perPoint("columns", f), perPoint("native-columns", f)) > 0)
            columnsNative.push_back(ratio(perPoint("columns", f), perPoint("native-columns", f)));
        if (ratio(perCall("first", f), pm) > 0)
            firstMu.push_back(ratio(perCall("first", f), pm));
        if (ratio(ev, fp) > 0)
            evalFp.push_back(ratio(ev, fp));
        if (pa > 0)
            parse.push_back(pa);
        if (pm > 0)
            parseMu.push_back(pm);
        if (di > 0)
            diff.push_back(di);
        std::printf("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n",
                    kSuite[f].family, cell(ev).c_str(), cell(ba).c_str(), cell(mu).c_str(),
                    cell(fp).c_str(), cell(na).c_str(), cell(ratio(ev, mu), "%.2f").c_str(),
                    cell(ratio(ba, mu), "%.2f").c_str(), cell(ratio(ba, na), "%.2f").c_str(),
                    cell(pa, "%.0f").c_str(), cell(pm, "%.0f").c_str(), cell(pf, "%.0f").c_str(),
                    cell(di, "%.0f").c_str());
    }
    std::printf("\nmedians: eval/muparser %.2f, batch/muparser %.2f, batch/native %.2f, "
                "eval/fparser %.2f, eval/native %.2f, first use/muparser's %.2f, "
                "columns/native over columns %.2f\n",
                median(evalMu), median(batchMu), median(batchNative), median(evalFp),
                median(evalNative), median(firstMu), median(columnsNative));
    // The hand-written formula behind a call, as generated code has to be.
    std::vector<double> evalCalled, calledNative, calledTk;
    for (int f = 0; f < kNumFormulas; ++f) {
        const double nc = perPoint("native-called", f);
        if (ratio(perPoint("eval", f), nc) > 0)
            evalCalled.push_back(ratio(perPoint("eval", f), nc));
        if (ratio(nc, perPoint("native", f)) > 0)
            calledNative.push_back(ratio(nc, perPoint("native", f)));
        if (ratio(nc, perPoint("exprtk", f)) > 0)
            calledTk.push_back(ratio(nc, perPoint("exprtk", f)));
    }
    std::printf("\nmedians of the hand-written formula called once per point through a pointer: "
                "eval/it %.2f, it/native %.2f, it/ExprTk %.2f\n",
                median(evalCalled), median(calledNative), median(calledTk));
    // ExprTk, where its header was found and it reads the formula.
    std::vector<double> evalTk, batchTk;
    for (int f = 0; f < kNumFormulas; ++f) {
        double tk = perPoint("exprtk", f), ev = perPoint("eval", f), ba = perPoint("batch", f);
        if (tk <= 0)
            continue;
        if (evalTk.empty())
            std::printf("\n| formula | eval | batch | ExprTk | eval/ExprTk | batch/ExprTk |\n"
                        "|---|---:|---:|---:|---:|---:|\n");
        evalTk.push_back(ratio(ev, tk));
        batchTk.push_back(ratio(ba, tk));
        std::printf("| %s | %s | %s | %s | %s | %s |\n", kSuite[f].family, cell(ev).c_str(),
                    cell(ba).c_str(), cell(tk).c_str(), cell(ratio(ev, tk), "%.2f").c_str(),
                    cell(ratio(ba, tk), "%.2f").c_str());
    }
    if (!evalTk.empty())
        std::printf("\nmedians: eval/ExprTk %.2f, batch/ExprTk %.2f\n", median(evalTk),
                    median(batchTk));
    // Powers against the C library's pow on the same points (the power formulas only).
    std::vector<double> evalLibm, batchLibm;
    std::printf("\n| power formula | eval | batch | native | C pow | eval/pow | batch/pow |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|\n");
    for (int f = 0; f < kNumFormulas; ++f) {
        double lm = perPoint("libm", f);
        if (lm <= 0)
            continue;
        double ev = perPoint("eval", f), ba = perPoint("batch", f), na = perPoint("native", f);
        if (ratio(ev, lm) > 0)
            evalLibm.push_back(ratio(ev, lm));
        if (ratio(ba, lm) > 0)
            batchLibm.push_back(ratio(ba, lm));
        std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", kSuite[f].oxel, cell(ev).c_str(),
                    cell(ba).c_str(), cell(na).c_str(), cell(lm).c_str(),
                    cell(ratio(ev, lm), "%.2f").c_str(), cell(ratio(ba, lm), "%.2f").c_str());
    }
    std::printf("\npowers: median eval/pow %.2f, batch/pow %.2f\n", median(evalLibm),
                median(batchLibm));
    std::printf("median parse %.0f ns (muparser %.0f ns), median d/dx+simplify %.0f ns\n",
                median(parse), median(parseMu), median(diff));
    std::printf("\n| batch of 10^7 rows | 1 thread (ms) | %d threads (ms) | speed-up |\n",
                oxelBatchThreads());
    std::printf("|---|---:|---:|---:|\n");
    for (int f = 0; f < kNumFormulas; ++f) {
        double one = perCall("threads-1", f), all = perCall("threads-all", f);
        if (one > 0 && all > 0)
            std::printf("| %s | %.1f | %.1f | %.2f |\n", kSuite[f].oxel, one, all,
                        one / all);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // The derivative benchmark meets nodes without a rule: their note would flood the output.
    oxelSetMessageHandler([](int, const char*, void*) {}, nullptr);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    crossCheck();
    registerAll();
    registerGradients();
    CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    printSummary();
    printPlainSummary(&perPoint);
    printGradientSummary(g_times);
    return 0;
}
