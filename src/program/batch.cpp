// Running the column program: the loops of every kind, blocks of rows, worker threads.
#include "program/batch.h"
#include "program/native/wide.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

#include <immintrin.h>

#include <oxel/nodes.h>

#include "nodes/vector_lanes.h"

namespace oxb {
namespace {

// Error codes go to the row when Raise, else to a scratch that nobody reads.
template <bool Raise>
struct ErrSink {
    int* e;
    int dummy = 0;
    int& at(int i) { return Raise ? e[i] : dummy; }
};

template <oxk::Kind K, bool Raise>
struct BinLoops {
    static constexpr oxk::BinFn F = oxk::row(K).bin;
    static void cc(const Insn& in, const Frame& f)
    {
        const double* __restrict a = f.cols[in.a];
        const double* __restrict b = f.cols[in.b];
        double* __restrict r = f.cols[in.out];
        ErrSink<Raise> e{f.err};
        for (int i = 0; i < f.n; ++i)
            r[i] = F(a[i], b[i], e.at(i));
    }
    static void ck(const Insn& in, const Frame& f)
    {
        const double* __restrict a = f.cols[in.a];
        const double b = in.kb;
        double* __restrict r = f.cols[in.out];
        ErrSink<Raise> e{f.err};
        for (int i = 0; i < f.n; ++i)
            r[i] = F(a[i], b, e.at(i));
    }
    static void kc(const Insn& in, const Frame& f)
    {
        const double a = in.ka;
        const double* __restrict b = f.cols[in.b];
        double* __restrict r = f.cols[in.out];
        ErrSink<Raise> e{f.err};
        for (int i = 0; i < f.n; ++i)
            r[i] = F(a, b[i], e.at(i));
    }
};

template <oxk::Kind K, bool Raise>
void unLoop(const Insn& in, const Frame& f)
{
    constexpr oxk::UnFn F = oxk::row(K).un;
    const double* __restrict a = f.cols[in.a];
    double* __restrict r = f.cols[in.out];
    ErrSink<Raise> e{f.err};
    for (int i = 0; i < f.n; ++i)
        r[i] = F(a[i], e.at(i));
}

// Two rows per step over the whole block (a partial block's tail computes on stale rows that
// nobody reads); rows whose guard failed get their code from the scalar kernel afterwards.
template <oxk::Kind K, bool Raise, bool AConst, bool BConst>
void vecLoop(const Insn& in, const Frame& f)
{
    constexpr oxv::VecKernel V = oxk::row(K).vec;
    constexpr oxk::BinFn F = oxk::row(K).bin;
    const double* a = AConst ? nullptr : f.cols[in.a];
    const double* b = BConst ? nullptr : f.cols[in.b];
    double* r = f.cols[in.out];
    const __m128d ka = _mm_set1_pd(in.ka);
    const __m128d kb = _mm_set1_pd(in.kb);
    __m128d allOk = oxv::allOnes();
    const int end = (f.n + 1) & ~1;
    for (int i = 0; i < end; i += 2) {
        __m128d va = AConst ? ka : _mm_loadu_pd(a + i);
        __m128d vb = BConst ? kb : _mm_loadu_pd(b + i);
        __m128d ok;
        _mm_storeu_pd(r + i, V(va, vb, ok));
        allOk = _mm_and_pd(allOk, ok);
    }
    if (!Raise || _mm_movemask_pd(allOk) == 3)
        return;
    for (int i = 0; i < f.n; ++i) {
        int code = 0;
        F(AConst ? in.ka : a[i], BConst ? in.kb : b[i], code);
        if (code && f.err[i] == 0)
            f.err[i] = code;
    }
}

// A power with a constant exponent or base, prepared with the program; column a holds the
// other operand.
template <bool Raise>
void powConstLoop(const Insn& in, const Frame& f)
{
    const double* __restrict a = f.cols[in.a];
    double* __restrict r = f.cols[in.out];
    ErrSink<Raise> e{f.err};
    const oxk::PowPlan& plan = *in.plan;
    for (int i = 0; i < f.n; ++i)
        r[i] = oxk::powPlanned(plan, a[i], e.at(i));
}

// A constant sub-expression failed: every row fails there.
void raiseLoop(const Insn& in, const Frame& f)
{
    for (int i = 0; i < f.n; ++i)
        f.err[i] = f.err[i] ? f.err[i] : in.code;
}

// [raise][column-column, column-constant, constant-column]; unary kinds use [raise][0].
struct Runners {
    Runner r[2][3];
};

template <oxk::Kind K>
constexpr Runners runnersOf()
{
    constexpr const oxk::KindRow& row = oxk::row(K);
    if constexpr (row.vectorized) {
        return Runners{{{&vecLoop<K, false, false, false>, &vecLoop<K, false, false, true>,
                         &vecLoop<K, false, true, false>},
                        {&vecLoop<K, true, false, false>, &vecLoop<K, true, false, true>,
                         &vecLoop<K, true, true, false>}}};
    } else if constexpr (row.arity == 2) {
        return Runners{{{&BinLoops<K, false>::cc, &BinLoops<K, false>::ck, &BinLoops<K, false>::kc},
                        {&BinLoops<K, true>::cc, &BinLoops<K, true>::ck, &BinLoops<K, true>::kc}}};
    } else if constexpr (row.arity == 1) {
        return Runners{{{&unLoop<K, false>, nullptr, nullptr}, {&unLoop<K, true>, nullptr, nullptr}}};
    } else {
        return Runners{};
    }
}

constexpr int kNumKinds = static_cast<int>(oxk::Kind::Unknown) + 1;

template <size_t... I>
constexpr std::array<Runners, kNumKinds> runnerTable(std::index_sequence<I...>)
{
    return {runnersOf<static_cast<oxk::Kind>(I)>()...};
}

constexpr std::array<Runners, kNumKinds> kRunners =
    runnerTable(std::make_index_sequence<kNumKinds>());

template <bool SinFirst>
void sinCosLoop(const Insn& in, const Frame& f)
{
    const double* __restrict a = f.cols[in.a];
    double* __restrict first = f.cols[in.out];
    double* __restrict other = f.cols[in.b];
    for (int i = 0; i < f.n; ++i) {
        double sn, cs;
        ::sincos(a[i], &sn, &cs);
        first[i] = SinFirst ? sn : cs;
        other[i] = SinFirst ? cs : sn;
    }
}

void copyLoop(const Insn& in, const Frame& f)
{
    std::memcpy(f.cols[in.out], f.cols[in.a], sizeof(double) * static_cast<size_t>(f.n));
}

}  // namespace

Runner sinCosRunner(oxk::Kind first)
{
    return first == oxk::Kind::OxSinus ? &sinCosLoop<true> : &sinCosLoop<false>;
}

Runner copyRunner()
{
    return &copyLoop;
}

Runner selectRunner(const oxp::Step& s)
{
    if (s.kind == oxk::Kind::Unknown)
        return &raiseLoop;
    if (Runner wide = oxn::wideRunner(s))
        return wide;
    const bool aConst = s.a.mode == oxp::Operand::Const;
    const bool bConst = s.b.mode == oxp::Operand::Const;
    if (oxp::plannedPower(s))
        return s.raises ? &powConstLoop<true> : &powConstLoop<false>;
    const int shape = oxk::row(s.kind).un ? 0 : (aConst ? 2 : (bConst ? 1 : 0));
    return kRunners[static_cast<size_t>(s.kind)].r[s.raises][shape];
}

}  // namespace oxb

using oxb::kBlock;

namespace {

// A program whose last step, its result, is a function with a four-lane form (ln, log10, tanh,
// ...; exp is a block step itself) of an earlier step: the steps before it as block code, where
// they fit it, and the four-lane function over the block's column. Two steps before it measured
// no faster than their column loops (ln(1 + x*x)), three faster.
void tailBlock(OxelProgram& p, const oxp::Program& ir)
{
    const int n = static_cast<int>(ir.steps.size());
    if (n < 4 || ir.result.mode != oxp::Operand::Reg || ir.result.index != n - 1 ||
        ir.steps.back().a.mode != oxp::Operand::Reg)
        return;
    const oxn::MathColumn tail = oxn::mathColumn(ir.steps.back().kind);
    if (!tail)
        return;
    oxp::Program rest = ir;
    rest.steps.pop_back();
    rest.result = ir.steps.back().a;
    oxp::allocate(rest);
    p.block = oxn::compileBlock(rest, p.inputVars, p.blockCode);
    p.blockRound = oxn::blockRound(rest);
    if (p.block)
        p.tail = tail;
}

}  // namespace

OxelProgram* oxelProgramCompile(Oxel* root, int numVars)
{
    OxelProgram* p = new OxelProgram;
    p->root = root;
    p->numVars = numVars > 0 ? numVars : 0;
    const oxp::Program ir = oxp::lower(root, p->numVars);
    if (!ir.ok || ir.hasCalls()) {
        p->rowProgram = oxelPointBuild(ir);
        return p;
    }
    buildColumns(*p, ir);
    p->compiled = true;
    p->block = oxn::compileBlock(ir, p->inputVars, p->blockCode);
    p->blockRound = oxn::blockRound(ir);
    p->blockStreamedOnly = p->block && ir.steps.size() == 1 &&
                             oxk::truthValued(ir.steps[0].kind);
    if (!p->block)
        tailBlock(*p, ir);
    return p;
}

int oxelBlockCompile(Oxel* root, int numVars)
{
    OxelProgram* p = oxelProgramCompile(root, numVars);
    const int made = p->block && !p->blockStreamedOnly ? 1 : 0;
    oxelProgramRelease(p);
    return made;
}

OxelProgram* oxelProgramBuild(const oxp::Program& ir, int numVars)
{
    OxelProgram* p = new OxelProgram;
    p->numVars = numVars > 0 ? numVars : 0;
    buildColumns(*p, ir);
    p->compiled = true;
    return p;
}

int oxelProgramSteps(Oxel* root, int numVars)
{
    const oxp::Program ir = oxp::lower(root, numVars);
    return ir.ok ? static_cast<int>(ir.steps.size()) : -1;
}

void oxelProgramRelease(OxelProgram* program)
{
    delete program;
}

namespace {

// Where the rows come from: interleaved rows with a stride, or one array per variable.
struct Source {
    const double* rows;
    int stride;
    const double* const* columns;
    bool errorsZeroed;  // the error codes start at zero already
    double* const* outs = nullptr;  // several trees: outs[k] receives assigned value k >= 1
    bool stream = false;  // results too large for the caches: the block code streams them
};

// Programs with random draws or callbacks run row after row on the calling thread, so that
// draws and calls come in the order of evaluating the rows one by one.
void runRows(OxelProgram& p, const Source& src, int numRows, double* results, int* errors)
{
    std::vector<double> slots(static_cast<size_t>(p.numVars > 0 ? p.numVars : 1));
    for (int r = 0; r < numRows; ++r) {
        for (int v = 0; v < p.numVars; ++v) {
            const double* col = src.columns ? src.columns[v] : nullptr;
            slots[static_cast<size_t>(v)] =
                src.columns ? (col ? col[r] : 0.0)
                            : src.rows[static_cast<size_t>(r) * static_cast<size_t>(src.stride) +
                                       static_cast<size_t>(v)];
        }
        errors[r] = 0;
        results[r] = oxelPointRun(*p.rowProgram, p.root, slots.data(), errors[r]);
    }
}

// A block through the fused code: the rows it marks, and those past its last group of four,
// are gathered into the front of the workspace's input columns (in place where a column is
// there already: row k moves to k or below) and run through the instructions.
// Codes go to err directly unless the caller promised zeros (then only failures are written).
void runFused(const OxelProgram& p, double** colp, double* ws, int rows, int n, double* res,
              int* err, bool zeroed, bool stream)
{
    uint8_t marks[kBlock / 4];
    int redo[kBlock];
    int codes[kBlock];
    int count = 0;
    const int groups = n / (4 * p.blockRound) * p.blockRound;
    double* const mid = ws + static_cast<size_t>(p.numColumns) * static_cast<size_t>(rows);
    const int streamed = stream && !p.tail && reinterpret_cast<uintptr_t>(res) % 16 == 0;
    const bool marked = groups > 0 && p.block(colp, p.tail ? mid : res, zeroed ? codes : err,
                                              marks, groups, streamed) != 0;
    if (p.tail && groups > 0) {
        // The last step: a row the block code vouches for has its code. A marked row is redone
        // below; its operand here may not be the kernels' value, so neither is its code.
        std::fill(codes, codes + 4 * groups, 0);
        p.tail(mid, res, codes, 4 * groups);
        int raised = 0;  // codes are rare: one pass the compiler vectorises finds them
        for (int r = 0; r < 4 * groups; ++r)
            raised |= codes[r];
        for (int r = 0; raised && r < 4 * groups; ++r)
            if (codes[r] && !(marked && (marks[r / 4] >> (r % 4) & 1)))
                err[r] = codes[r];
    }
    if (marked)
        for (int g = 0; g < groups; ++g)
            for (unsigned m = marks[g]; m; m &= m - 1)
                redo[count++] = 4 * g + __builtin_ctz(m);
    for (int r = 4 * groups; r < n; ++r)
        redo[count++] = r;
    if (count == 0)
        return;
    for (size_t c = 0; c < p.inputVars.size(); ++c) {
        double* to = ws + c * static_cast<size_t>(rows);
        const double* from = colp[c];
        for (int k = 0; k < count; ++k)
            to[k] = from[redo[k]];
        colp[c] = to;
    }
    colp[p.numColumns] = mid;
    std::fill(codes, codes + count, 0);
    oxb::Frame f{colp, codes, count};
    for (const oxb::Insn& in : p.code)
        in.run(in, f);
    const double* value = colp[p.resultColumn];
    for (int k = 0; k < count; ++k) {
        res[redo[k]] = value[k];
        if (codes[k] || !zeroed)
            err[redo[k]] = codes[k];
    }
}

// A thread's workspace holds a block of every column: blocks of fewer rows (a multiple of four)
// where kBlock rows would need more than this, as in programs with tens of thousands of live
// values (the Hessian of a deeply nested formula).
const size_t kWorkspaceBytes = size_t{8} << 20;

int blockRows(size_t columns)
{
    const size_t fit = kWorkspaceBytes / (sizeof(double) * columns) & ~size_t{3};
    return static_cast<int>(std::max<size_t>(4, std::min<size_t>(kBlock, fit)));
}

// Rows [begin, end) through the program, a block at a time, in this thread's workspace.
void runCompiled(const OxelProgram& p, const Source& src, int begin, int end, double* results,
                 int* errors)
{
    thread_local std::vector<double> ws;
    thread_local std::vector<double*> cols;
    const size_t outputs = src.outs ? p.assigned.size() : 0;  // result 0 included
    const size_t columns = static_cast<size_t>(p.numColumns) + 2 + outputs;
    const int rows = blockRows(columns);
    const size_t stride = static_cast<size_t>(rows);
    if (ws.size() < columns * stride)
        ws.resize(columns * stride);
    cols.resize(static_cast<size_t>(p.numColumns) + 1 + outputs);
    for (int c = 0; c < p.numColumns; ++c)
        cols[static_cast<size_t>(c)] = ws.data() + static_cast<size_t>(c) * stride;
    double* const resultScratch = ws.data() + static_cast<size_t>(p.numColumns) * stride;
    double** colp = cols.data();
    const int numInputs = static_cast<int>(p.inputVars.size());
    const bool streams = src.stream && reinterpret_cast<uintptr_t>(results) % 16 == 0;
    const bool fused = p.block && (streams || !p.blockStreamedOnly) && !src.outs &&
                       oxn::enabled() && oxm::plainRounding();
    for (int start = begin; start < end; start += rows) {
        const int n = std::min(rows, end - start);
        // Vector steps may read and write one row past a partial block: such blocks work on
        // copies, never on the caller's arrays.
        const bool full = n == rows;
        for (int c = 0; c < numInputs; ++c) {
            const int v = p.inputVars[static_cast<size_t>(c)];
            double* col = ws.data() + static_cast<size_t>(c) * stride;
            if (src.columns) {
                const double* in = src.columns[v];
                if (in && full) {
                    colp[c] = const_cast<double*>(in + start);  // read only: inputs are never outputs
                    continue;
                }
                colp[c] = col;
                if (in)
                    std::memcpy(col, in + start, sizeof(double) * static_cast<size_t>(n));
                else
                    std::fill(col, col + n, 0.0);
                continue;
            }
            colp[c] = col;
            const double* base = src.rows +
                                 static_cast<size_t>(start) * static_cast<size_t>(src.stride) +
                                 static_cast<size_t>(v);
            for (int i = 0; i < n; ++i)
                col[i] = base[static_cast<size_t>(i) * static_cast<size_t>(src.stride)];
        }
        int* err = errors + start;
        double* res = results + start;
        if (fused) {
            runFused(p, colp, ws.data(), rows, n, res, err, src.errorsZeroed, src.stream);
            continue;
        }
        if (!src.errorsZeroed)
            std::memset(err, 0, sizeof(int) * static_cast<size_t>(n));
        const bool direct = p.resultInResults && full;
        colp[p.numColumns] = direct ? res : resultScratch;
        for (size_t k = 1; k < outputs; ++k)  // scratch after the result's
            colp[static_cast<size_t>(p.numColumns) + k] =
                full ? src.outs[k] + start : resultScratch + k * stride;
        oxb::Frame f{colp, err, n};
        for (const oxb::Insn& in : p.code)
            in.run(in, f);
        if (p.resultColumn == -1)
            std::fill(res, res + n, p.resultConst);
        else if (!direct)
            std::memcpy(res, colp[p.resultColumn], sizeof(double) * static_cast<size_t>(n));
        for (size_t k = 1; k < outputs; ++k) {
            double* to = src.outs[k] + start;
            const int from = p.assigned[k].first;
            if (from == -1)
                std::fill(to, to + n, p.assigned[k].second);
            else if (colp[from] != to)
                std::memcpy(to, colp[from], sizeof(double) * static_cast<size_t>(n));
        }
    }
    if (fused && src.stream)
        _mm_sfence();  // streamed values reach memory before the batch reports them
}

const int kTaskRows = 16 * kBlock;       // rows per task handed to a worker
const int kParallelRows = 4 * kTaskRows;  // smaller batches stay on the calling thread

struct Job {
    const OxelProgram* p;
    const Source* src;
    int numRows;
    double* results;
    int* errors;
};

void runTask(void* ctx, int i)
{
    const Job& j = *static_cast<const Job*>(ctx);
    const int begin = i * kTaskRows;
    runCompiled(*j.p, *j.src, begin, std::min(j.numRows, begin + kTaskRows), j.results, j.errors);
}

// Results from 8 MB on (a few times this processor's caches) are streamed to memory.
const int kStreamRows = 1 << 20;

void run(OxelProgram* p, Source src, int numRows, double* results, int* errors)
{
    if (numRows <= 0)
        return;
    src.stream = numRows >= kStreamRows;
    if (!p->compiled) {
        runRows(*p, src, numRows, results, errors);
        return;
    }
    if (numRows >= kParallelRows && oxp::poolThreads() > 1) {
        Job job{p, &src, numRows, results, errors};
        oxp::poolRun((numRows + kTaskRows - 1) / kTaskRows, &runTask, &job);
        return;
    }
    runCompiled(*p, src, 0, numRows, results, errors);
}

}  // namespace

void oxelProgramRun(OxelProgram* p, const double* rows, int numRows, int stride, double* results,
                    int* errors)
{
    run(p, Source{rows, stride, nullptr, false}, numRows, results, errors);
}

void oxelProgramRunColumns(OxelProgram* p, const double* const* columns, int numRows,
                           double* results, int* errors, bool errorsZeroed)
{
    run(p, Source{nullptr, 0, columns, errorsZeroed}, numRows, results, errors);
}

void oxelProgramRunSeveral(OxelProgram* p, const double* const* columns, int numRows,
                           double* const* outs, int* errors)
{
    Source src{nullptr, 0, columns, false};
    src.outs = outs;
    run(p, src, numRows, outs[0], errors);
}
