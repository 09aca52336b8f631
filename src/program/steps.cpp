// The plain step interpreter: each step through its kernel, values in a heap buffer. It runs
// programs too wide for the single-point program's registers, whatever their size.
#include "program/program.h"

#include <algorithm>
#include <vector>

namespace oxp {
namespace {

// This thread's values, kept for the next call; a call made while they are in use (a
// callback that evaluates another wide program) gets its own.
thread_local std::vector<double> buffer;
thread_local bool busy = false;

double value(const Operand& o, const double* v, const double* vars)
{
    switch (o.mode) {
    case Operand::Reg:
        return v[o.index];
    case Operand::Input:
        return vars[o.index];
    case Operand::Const:
        break;
    }
    return o.k;
}

// Step values, then room for the longest argument list, then the assigned values.
size_t room(const Program& p)
{
    size_t longest = 0;
    for (const Call& c : p.calls)
        longest = std::max(longest, static_cast<size_t>(c.count));
    return p.steps.size() + longest + p.assigned.size() + 1;
}

double run(const Program& p, double* v, double* vars, int& err)
{
    int code = 0;  // the first failure in evaluation order
    double* const args = v + p.steps.size();
    for (size_t i = 0; i < p.steps.size(); ++i) {
        const Step& s = p.steps[i];
        if (s.kind == oxk::Kind::Unknown) {
            oxk::raise(code, s.code);
            continue;
        }
        double r;
        if (isCall(s)) {
            const Call& c = p.calls[static_cast<size_t>(s.call)];
            for (int k = 0; k < c.count; ++k)
                args[k] = value(p.args[static_cast<size_t>(c.first + k)], v, vars);
            r = runCall(c, args, code);
        } else if (plannedPower(s)) {
            r = oxk::powPlanned(powerPlan(s), value(plannedOperand(s), v, vars), code);
        } else if (const oxk::UnFn un = oxk::row(s.kind).un) {
            r = un(value(s.a, v, vars), code);
        } else {
            r = oxk::row(s.kind).bin(value(s.a, v, vars), value(s.b, v, vars), code);
        }
        v[i] = r;
    }
    // Every final value is read before any slot is written (t = x; x = y; y = t).
    const double result = value(p.result, v, vars);
    double* const finals = v + room(p) - p.assigned.size() - 1;
    for (size_t k = 0; k < p.assigned.size(); ++k)
        finals[k] = value(p.assigned[k].second, v, vars);
    for (size_t k = 0; k < p.assigned.size(); ++k)
        vars[p.assigned[k].first] = finals[k];
    if (err == 0)
        err = code;
    return result;
}

}  // namespace

double runSteps(const Program& p, double* vars, int& err)
{
    const size_t n = room(p);
    if (busy) {
        std::vector<double> own(n);
        return run(p, own.data(), vars, err);
    }
    if (buffer.size() < n)
        buffer.resize(n);
    busy = true;
    const double r = run(p, buffer.data(), vars, err);
    busy = false;
    return r;
}

}  // namespace oxp
