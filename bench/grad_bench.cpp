// Benchmark of the value with its derivatives: the fused program against the value alone and
// against the separate derivative expressions.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "suite.h"

namespace oxbench {
namespace {

// What a gradient benchmark runs: the value alone, the fused program, or the separate
// derivative expressions (value, first derivatives and, for order 2, the Hessian's triangle).
enum class GradMode { Value, Fused, Separate };

struct GradSetup {
    std::unique_ptr<OxelExpression> e{new OxelExpression};
    std::unique_ptr<OxelGradient> g;
    std::vector<std::unique_ptr<OxelExpression>> separate;
    std::vector<const double*> colp;
    int outputs = 1;

    GradSetup(int f, GradMode mode, int order)
    {
        const GradientFormula& gf = kGradientSuite[f];
        for (const char* n : {"x", "y", "z"})
            e->addVar(n);
        if (!e->initFromString(gf.oxel))
            std::fprintf(stderr, "oxel_bench: cannot parse %s\n", gf.oxel);
        const std::vector<std::string> names(kVarNames, kVarNames + gf.numVars);
        if (mode == GradMode::Fused) {
            g = e->gradient(names, order);
            outputs = g->numOutputs();
        }
        if (mode == GradMode::Separate) {
            for (const std::string& n : names)
                separate.emplace_back(e->derivative(n.c_str()));
            for (int i = 0; order == 2 && i < gf.numVars; ++i)
                for (int j = i; j < gf.numVars; ++j)
                    separate.emplace_back(
                        separate[static_cast<size_t>(i)]->derivative(kVarNames[j]));
            outputs = 1 + static_cast<int>(separate.size());
        }
        colp.assign(columns(), columns() + 3);
    }

    const OxelExpression& output(int k) const
    {
        return k == 0 ? *e : *separate[static_cast<size_t>(k - 1)];
    }
};

void benchGradPoint(benchmark::State& st, int f, GradMode mode, int order)
{
    GradSetup s(f, mode, order);
    std::vector<double> res(static_cast<size_t>(kPoints) * s.outputs);
    std::vector<int> err(res.size());
    double vals[3];
    for (auto _ : st) {
        for (int r = 0; r < kPoints; ++r) {
            for (int v = 0; v < 3; ++v)
                vals[v] = s.colp[static_cast<size_t>(v)][r];
            const size_t at = static_cast<size_t>(r) * static_cast<size_t>(s.outputs);
            if (s.g) {
                s.g->eval(vals, &res[at], &err[at]);
                continue;
            }
            for (int k = 0; k < s.outputs; ++k) {
                int ev = 0;
                res[at + static_cast<size_t>(k)] = s.output(k).eval(vals, 3, ev);
                err[at + static_cast<size_t>(k)] = ev;
            }
        }
        benchmark::DoNotOptimize(res.data());
        benchmark::ClobberMemory();
    }
}

void benchGradBatch(benchmark::State& st, int f, GradMode mode, int order)
{
    GradSetup s(f, mode, order);
    std::vector<std::vector<double>> res(static_cast<size_t>(s.outputs),
                                         std::vector<double>(kPoints));
    std::vector<std::vector<int>> err(res.size(), std::vector<int>(kPoints));
    std::vector<double*> resp;
    std::vector<int*> errp;
    for (size_t k = 0; k < res.size(); ++k) {
        resp.push_back(res[k].data());
        errp.push_back(err[k].data());
    }
    for (auto _ : st) {
        if (s.g) {
            s.g->evalBatchColumns(s.colp.data(), kPoints, resp.data(), errp.data());
        } else {
            for (int k = 0; k < s.outputs; ++k)
                s.output(k).evalBatchColumns(s.colp.data(), kPoints, resp[static_cast<size_t>(k)],
                                             errp[static_cast<size_t>(k)]);
        }
        benchmark::DoNotOptimize(resp.data());
        benchmark::ClobberMemory();
    }
}

// The gradient benchmarks' names: grad-<what>[-batch]/<family>.
const char* const kGradKinds[] = {"value", "1", "2", "sep-1", "sep-2"};

std::string gradKey(int kind, bool batch, int f)
{
    std::string k = std::string("grad-") + kGradKinds[kind] + (batch ? "-batch/" : "/") +
                    kGradientSuite[f].family;
    std::replace(k.begin(), k.end(), ' ', '-');
    return k;
}

}  // namespace

void registerGradients()
{
    const GradMode modes[] = {GradMode::Value, GradMode::Fused, GradMode::Fused,
                              GradMode::Separate, GradMode::Separate};
    const int orders[] = {1, 1, 2, 1, 2};
    for (int f = 0; f < kNumGradientFormulas; ++f)
        for (int kind = 0; kind < 5; ++kind)
            for (bool batch : {false, true})
                benchmark::RegisterBenchmark(gradKey(kind, batch, f).c_str(),
                                             batch ? benchGradBatch : benchGradPoint, f,
                                             modes[kind], orders[kind])
                    ->Unit(benchmark::kNanosecond)
                    ->MinTime(0.1);
}


// Each way of computing derivatives against the value alone, per formula, with medians.
void printGradientSummary(const std::map<std::string, double>& times)
{
    std::printf("\n| value with derivatives | value ns (point) | 1 | 2 | sep 1 | sep 2 "
                "| value ns (batch) | 1 | 2 | sep 1 | sep 2 |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    std::vector<double> ratios[2][4];
    bool any = false;
    for (int f = 0; f < kNumGradientFormulas; ++f) {
        std::string line = std::string("| `") + kGradientSuite[f].oxel + "` |";
        for (bool batch : {false, true}) {
            auto time = [&](int kind) {
                auto it = times.find(gradKey(kind, batch, f));
                return it == times.end() ? -1.0 : it->second / kPoints;
            };
            const double value = time(0);
            line += " " + cell(value) + " |";
            for (int kind = 1; kind < 5; ++kind) {
                const double r = ratio(time(kind), value);
                if (r > 0)
                    ratios[batch][kind - 1].push_back(r);
                line += " " + cell(r, "%.2fx") + " |";
            }
            any = any || value > 0;
        }
        std::printf("%s\n", line.c_str());
    }
    if (!any)
        return;
    for (bool batch : {false, true})
        std::printf("%s medians against the value: gradient %.2fx, with Hessian %.2fx; "
                    "separate expressions %.2fx and %.2fx\n",
                    batch ? "batch" : "point", median(ratios[batch][0]), median(ratios[batch][1]),
                    median(ratios[batch][2]), median(ratios[batch][3]));
}

}  // namespace oxbench
