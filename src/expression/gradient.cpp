// OxelGradient: a value with its first (and second) derivatives run as one program whose equal
// steps are computed once; points where anything fails are evaluated again output by output.
#include <oxel/expression.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_set>

#include <oxel/core.h>

#include "algebra/dag.h"
#include "core/deep.h"
#include "nodes/kinds.h"
#include "nodes/vector_kernels.h"
#include "program/native/native.h"
#include "program/program.h"

namespace {

// Values of one point up to this many (variables plus outputs) stay on the stack.
const int kStackSlots = 64;

// Points of a program with more slots than this run by the step interpreter (a double per
// step) instead of through one row of the column program, whose workspace holds a block of
// rows per slot: 2 KB each, a gigabyte for the Hessian of a chain nested 100000 deep.
const int kColumnPointSlots = 4096;

// Marks the nodes above an assignment (a bound variable); true when n is one of them.
bool markAssignments(Oxel* n, std::unordered_set<const Oxel*>& above)
{
    bool any = oxk::kindOf(n) == oxk::Kind::OxVar && static_cast<OxVar*>(n)->bound();
    for (int i = 0; i < n->getNumChildren(); ++i)
        if (Oxel* c = n->getChild(i))
            any = markAssignments(c, above) || any;
    if (any)
        above.insert(n);
    return any;
}

// A copy of the tree that evaluates as the tree does: dup() copies an assigned variable as a
// plain read, so the paths down to assignments are copied again with them.
Oxel* copyKeepingAssignments(Oxel* n, const std::unordered_set<const Oxel*>& above)
{
    if (!above.count(n))
        return n->dup();
    if (oxk::kindOf(n) == oxk::Kind::OxVar) {
        OxVar* v = static_cast<OxVar*>(n);
        return new OxVar(v->index(), v->symbol(), copyKeepingAssignments(v->bound(), above));
    }
    Oxel* d = n->dup();
    for (int i = 0; i < n->getNumChildren(); ++i) {
        Oxel* c = n->getChild(i);
        if (c && above.count(c)) {
            Oxel* plain = d->getChild(i);
            d->setChild(i, copyKeepingAssignments(c, above));
            oxelDestroy(plain);
        }
    }
    return d;
}

// Scratch for one point: on the stack when small, else this thread's buffer, kept.
class PointSlots {
public:
    explicit PointSlots(size_t n)
    {
        if (n > static_cast<size_t>(kStackSlots)) {
            thread_local std::vector<double> heap;
            if (heap.size() < n)
                heap.resize(n);
            data_ = heap.data();
        }
    }
    double* get() { return data_; }

private:
    double stack_[kStackSlots];
    double* data_ = stack_;
};

// Flags the rows whose value does not fit the shared program (oxp::inputFits).
void markUnfit(const double* __restrict column, int* __restrict flags, int numRows)
{
    for (int r = 0; r < numRows; ++r)
        flags[r] |= oxp::inputFits(column[r]) ? 0 : -1;
}

// Whether every value of the column fits, two at a time (NaN compares false).
bool columnFits(const double* column, int numRows)
{
    const __m128d bound = _mm_set1_pd(oxp::kInputBound);
    const __m128d magnitude = _mm_castsi128_pd(_mm_set1_epi64x(0x7FFFFFFFFFFFFFFF));
    __m128d ok = oxv::allOnes();
    int r = 0;
    for (; r + 2 <= numRows; r += 2)
        ok = _mm_and_pd(ok, _mm_cmple_pd(_mm_and_pd(_mm_loadu_pd(column + r), magnitude), bound));
    bool fits = _mm_movemask_pd(ok) == 3;
    for (; r < numRows; ++r)
        fits = fits && oxp::inputFits(column[r]);
    return fits;
}

// Whether any flag is set, four at a time.
bool anySet(const int* flags, int numRows)
{
    __m128i any = _mm_setzero_si128();
    int r = 0;
    for (; r + 4 <= numRows; r += 4)
        any = _mm_or_si128(any, _mm_loadu_si128(reinterpret_cast<const __m128i*>(flags + r)));
    bool set = _mm_movemask_epi8(_mm_cmpeq_epi32(any, _mm_setzero_si128())) != 0xFFFF;
    for (; r < numRows; ++r)
        set = set || flags[r] != 0;
    return set;
}

}  // namespace

struct OxelGradient::Impl {
    // The cells that the derivatives' stand-ins read, when they share (destroyed after them).
    std::unique_ptr<oxd::Graph> graph;
    std::vector<std::unique_ptr<OxelExpression>> exprs;  // output k's own expression
    int numVars = 0;
    // The shared program (one too wide for registers only when wider than kColumnPointSlots:
    // the step interpreter runs it), or null: points by columns.
    OxelPointProgram* point = nullptr;
    // Its machine code once published, kept here so that a point costs one load and a call.
    mutable std::atomic<OxelSeveralFn> native{nullptr};
    OxelProgram* columns = nullptr;  // its column form, or null: rows through point
    ~Impl()
    {
        oxelPointRelease(point);
        oxelProgramRelease(columns);
    }

    int numOutputs() const { return static_cast<int>(exprs.size()); }

    // Output k at values, by its own expression, the code starting at 0. slots holds numVars
    // doubles for the copy that eval may write.
    double own(int k, const double* values, double* slots, int& code) const
    {
        if (numVars > 0)
            std::memcpy(slots, values, sizeof(double) * static_cast<size_t>(numVars));
        code = 0;
        return exprs[static_cast<size_t>(k)]->eval(slots, numVars, code);
    }

    // Every output by its own expression.
    __attribute__((noinline)) void byTrees(const double* values, double* out, int* codes) const
    {
        PointSlots slots(static_cast<size_t>(numVars));
        for (int k = 0; k < numOutputs(); ++k)
            out[k] = own(k, values, slots.get(), codes[k]);
    }

    // Whether the shared program's values count for these inputs (oxp::lowerSeveral).
    bool fits(const double* values) const
    {
        for (int v = 0; v < numVars; ++v)
            if (!oxp::inputFits(values[v]))
                return false;
        return true;
    }

    // The shared program at one point without machine code: the interpreter (the step
    // interpreter when very wide), or one row of the column program when too wide for the
    // interpreter's registers. Tree k's value goes to out[k]; false when
    // anything failed, else the codes are cleared.
    __attribute__((noinline)) bool interpreted(const double* values, double* out,
                                               int* codes) const
    {
        const int n = numOutputs();
        int failed = 0;
        if (point) {
            PointSlots slots(static_cast<size_t>(numVars + n));
            if (numVars > 0)
                std::memcpy(slots.get(), values, sizeof(double) * static_cast<size_t>(numVars));
            oxelPointRun(*point, nullptr, slots.get(), failed);
            std::copy(slots.get() + numVars, slots.get() + numVars + n, out);
        } else {
            if (!columns || numVars > kStackSlots || n > kStackSlots)
                return false;
            const double* cols[kStackSlots];
            double* outs[kStackSlots];
            for (int v = 0; v < numVars; ++v)
                cols[v] = values + v;
            for (int k = 0; k < n; ++k)
                outs[k] = out + k;
            oxelProgramRunSeveral(columns, cols, 1, outs, &failed);
        }
        if (failed != 0)
            return false;
        std::fill(codes, codes + n, 0);
        return true;
    }

    // One point: values into out[k] and codes[k]. The machine code, where the program has
    // it, writes the outputs and clears the codes itself.
    void run(const double* values, double* out, int* codes) const
    {
        if (fits(values)) {
            OxelSeveralFn f = native.load(std::memory_order_acquire);
            if (!f || !oxn::enabled()) {
                f = point ? oxelPointSeveral(*point) : nullptr;
                if (f)
                    native.store(f, std::memory_order_release);
            }
            if (f) {
                codes[0] = 0;
                f(values, codes, out);
                if (codes[0] == 0)
                    return;
            } else if (interpreted(values, out, codes)) {
                return;
            }
        }
        byTrees(values, out, codes);
    }
};

OxelGradient::OxelGradient(Impl* impl)
    : impl_(impl)
{
}

OxelGradient::~OxelGradient()
{
    delete impl_;
}

int OxelGradient::numOutputs() const
{
    return impl_->numOutputs();
}

void OxelGradient::eval(const double* values, double* out, int* codes) const
{
    const Impl& g = *impl_;
    if (!out || !codes || (!values && g.numVars > 0))
        return;
    g.run(values, out, codes);
}

int OxelGradient::evalBatchColumns(
    const double* const* columns, int numRows, double* const* out, int* const* codes) const
{
    const Impl& g = *impl_;
    const int n = g.numOutputs();
    if (!columns || !out || !codes || numRows < 0)
        return -1;
    for (int k = 0; k < n; ++k)
        if (!out[k] || !codes[k])
            return -1;
    const size_t nv = static_cast<size_t>(g.numVars);
    // A row's values and the copy that eval may write; not PointSlots, whose thread buffer
    // the calls below take for themselves.
    std::vector<double> values(nv), slots(nv);
    std::vector<double> outRow(static_cast<size_t>(n));
    std::vector<int> codeRow(static_cast<size_t>(n));
    auto gather = [&](int r) {
        for (size_t v = 0; v < nv; ++v)
            values[v] = columns[v] ? columns[v][r] : 0.0;
    };
    if (!g.columns) {  // calls keep their row order, as in evalBatch
        for (int r = 0; r < numRows; ++r) {
            gather(r);
            g.run(values.data(), outRow.data(), codeRow.data());
            for (int k = 0; k < n; ++k) {
                out[k][r] = outRow[static_cast<size_t>(k)];
                codes[k][r] = codeRow[static_cast<size_t>(k)];
            }
        }
        return 0;
    }
    oxelProgramRunSeveral(g.columns, columns, numRows, out, codes[0]);
    for (int k = 1; k < n; ++k)
        std::fill(codes[k], codes[k] + numRows, 0);
    // Rows whose inputs do not fit the shared program are evaluated again like failed ones.
    // Both scans below are cheap reductions; the rows are looked at one by one only when
    // one of them finds anything.
    for (size_t v = 0; v < nv; ++v)
        if (columns[v] && !columnFits(columns[v], numRows))
            markUnfit(columns[v], codes[0], numRows);
    if (!anySet(codes[0], numRows))
        return 0;
    for (int r = 0; r < numRows; ++r) {
        if (codes[0][r] == 0)
            continue;
        gather(r);
        for (int k = 0; k < n; ++k)
            out[k][r] = g.own(k, values.data(), slots.data(), codes[k][r]);
    }
    return 0;
}

// The derivatives, appended to exprs (which holds the value), as stand-ins of one shared graph
// (oxd::Graph, returned): exactly the trees of partialWithin, in size linear in the formula
// where those grow with its square. Null, with exprs as they were, where the graph does not
// represent the formula or refuses anything: the trees then give the same refusal.
std::unique_ptr<oxd::Graph> OxelExpression::sharedPartials(
    std::vector<std::unique_ptr<OxelExpression>>& exprs, const std::vector<std::string>& names,
    int order) const
{
    std::vector<std::string> vars;  // aliases resolved
    for (const std::string& name : names) {
        const int index = varIndex(name.c_str());
        if (index < 0)
            return nullptr;
        vars.push_back(varName(static_cast<unsigned>(index)));
    }
    if (!oxd::Graph::represents(root_))
        return nullptr;
    std::unique_ptr<oxd::Graph> graph(new oxd::Graph(vars));
    Oxel* copy = nullptr;
    oxs::withStackFor(oxelDepth(root_), [&] { copy = root_->dup(); });
    const std::unique_ptr<Oxel, void (*)(Oxel*)> f(graph->take(copy), &oxelDestroy);
    long nodes = oxelNodeBudget();  // shared by every output
    const int n = static_cast<int>(vars.size());
    auto add = [&](Oxel* of, int var) {
        Oxel* d = graph->partial(of, var, &nodes);
        exprs.emplace_back(d ? withSameNames(d) : nullptr);
        return exprs.back() != nullptr;
    };
    bool formed = true;
    for (int v = 0; v < n && formed; ++v)
        formed = add(f.get(), v);
    for (int i = 0; order == 2 && i < n && formed; ++i)
        for (int j = i; j < n && formed; ++j)
            formed = add(exprs[static_cast<size_t>(1 + i)]->root(), j);
    if (!formed) {
        exprs.resize(1);  // before the graph their stand-ins read
        return nullptr;
    }
    return graph;
}

std::unique_ptr<OxelGradient> OxelExpression::gradient(
    const std::vector<std::string>& names, int order, std::string* why)
{
    if (!root_ || (order != 1 && order != 2)) {
        if (why)
            *why = root_ ? "the order of derivatives must be 1 or 2" : "no formula";
        return nullptr;
    }
    std::unique_ptr<OxelGradient::Impl> g(new OxelGradient::Impl);
    g->numVars = numVars();
    Oxel* copy = nullptr;
    oxs::withStackFor(oxelDepth(root_), [&] {
        std::unordered_set<const Oxel*> above;
        markAssignments(root_, above);
        copy = copyKeepingAssignments(root_, above);
    });
    g->exprs.emplace_back(withSameNames(copy));
    // The trees first: where they fit they cost less than the graph (a flat sum of 10^6 terms:
    // 0.6 GB against 1.1 GB); the graph where they exceed the budget, and the trees' reason
    // where it refuses too.
    g->graph = oxd::sharingFirst() ? sharedPartials(g->exprs, names, order) : nullptr;
    if (!g->graph) {
        long nodes = oxelNodeBudget();  // shared by every output
        std::string reason;
        bool formed = true;
        for (size_t i = 0; i < names.size() && formed; ++i) {
            g->exprs.emplace_back(partialWithin(names[i].c_str(), &nodes, &reason));
            formed = g->exprs.back() != nullptr;
        }
        const size_t n = names.size();
        for (size_t i = 0; order == 2 && i < n && formed; ++i)
            for (size_t j = i; j < n && formed; ++j) {
                g->exprs.emplace_back(
                    g->exprs[1 + i]->partialWithin(names[j].c_str(), &nodes, &reason));
                formed = g->exprs.back() != nullptr;
            }
        if (!formed) {
            g->exprs.resize(1);
            // Only a refusal for size can go away in the graph.
            g->graph = nodes == 0 ? sharedPartials(g->exprs, names, order) : nullptr;
            if (!g->graph) {
                if (why)
                    *why = reason;
                return nullptr;
            }
        }
    }
    std::vector<Oxel*> roots;
    for (const auto& e : g->exprs) {
        if (!e)
            return nullptr;
        roots.push_back(e->root());
    }
    const oxp::Program ir = oxp::lowerSeveral(roots, g->numVars, true);
    if (ir.ok) {
        g->point = oxelPointBuild(ir);
        if (!oxelPointBuilt(*g->point) && ir.numSlots <= kColumnPointSlots) {
            oxelPointRelease(g->point);
            g->point = nullptr;
        }
        if (!ir.hasCalls())
            g->columns = oxelProgramBuild(ir, g->numVars);
    }
    return std::unique_ptr<OxelGradient>(new OxelGradient(g.release()));
}
