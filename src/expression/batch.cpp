// Batch evaluation: the tree lowered once into a flat column program, run over blocks of rows.
//
// Why a flat program gives the tree's bits and error codes:
// - Every instruction applies the same oxk kernel that the node's value() applies, to the
//   same operands, in the same evaluation order (a divisor before its dividend, statements
//   left to right), so values match bit for bit.
// - Error codes: a node shares its caller's code with at most one child (the one it evaluates
//   first); all other children get a fresh local code that is merged only into a still-zero
//   code. The ordering comparisons end such a chain (their children get locals), so they are
//   always the first node to write their code, which is therefore still zero: their
//   "overwrite" can never be observed. With each row's code starting at 0, the code a row
//   ends with is simply the first failure in evaluation order. One error column per block,
//   written only while still zero, reproduces that.
// - Variables are renamed at compile time: an assignment makes later readers of its slot
//   use the assigned value's column directly, which is what the tree's slot write achieves.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <typeinfo>

#include <emmintrin.h>
#include <vector>

#include <oxel/nodes.h>

#include "expression/program.h"
#include "nodes/kernels.h"

namespace {

const int kBlock = 256;          // rows per column; a few dozen columns stay in L1
const long kMaxCompileDepth = 4000;  // deeper trees keep the tree walk (compile recurses)

// ---------------------------------------------------------------- kernels, uniform shape

using BinKernel = double (*)(double, double, int&);
using UnKernel = double (*)(double, int&);

// The truth-valued kernels raise nothing; give them the common signature.
#define OXB_LOGIC_ADAPTER(Cls) \
    inline double k_##Cls(double a, double b, int&) { return oxk::eval_##Cls(a, b); }
OXEL_LOGIC_OPERATORS(OXB_LOGIC_ADAPTER)
#undef OXB_LOGIC_ADAPTER
inline double k_OxNot(double v, int&) { return oxk::eval_OxNot(v); }

// Hot arithmetic on two rows at a time (SSE2 is part of x86-64). Each computes exactly what
// the matching oxk kernel computes: the same IEEE operation where the guard holds, the
// kernel's fallback 1.0 where it fails; ok receives the lanes whose guard held, so that the
// rare failing rows can ask the scalar kernel for their code.
const __m128d kMax = _mm_set1_pd(DBL_MAX);
const __m128d kNegMax = _mm_set1_pd(-DBL_MAX);
const __m128d kOne = _mm_set1_pd(1.0);
const __m128d kSign = _mm_set1_pd(-0.0);

inline __m128d select(__m128d mask, __m128d yes, __m128d no)
{
    return _mm_or_pd(_mm_and_pd(mask, yes), _mm_andnot_pd(mask, no));
}

inline __m128d vecPlus(__m128d a, __m128d b, __m128d& ok)
{
    __m128d pos = _mm_cmpgt_pd(a, _mm_setzero_pd());
    __m128d up = _mm_cmpgt_pd(_mm_sub_pd(kMax, a), b);     // DBL_MAX - a > b
    __m128d down = _mm_cmpgt_pd(b, _mm_sub_pd(kNegMax, a));  // b > -DBL_MAX - a
    ok = select(pos, up, down);
    return select(ok, _mm_add_pd(a, b), kOne);
}

inline __m128d vecMinus(__m128d a, __m128d b, __m128d& ok)
{
    __m128d pos = _mm_cmpgt_pd(b, _mm_setzero_pd());
    __m128d down = _mm_cmpgt_pd(a, _mm_sub_pd(b, kMax));  // a > b - DBL_MAX
    __m128d up = _mm_cmpgt_pd(_mm_add_pd(b, kMax), a);    // b + DBL_MAX > a
    ok = select(pos, down, up);
    return select(ok, _mm_sub_pd(a, b), kOne);
}

inline __m128d vecMal(__m128d a, __m128d b, __m128d& ok)
{
    __m128d fa = _mm_andnot_pd(kSign, a);
    __m128d fb = _mm_andnot_pd(kSign, b);
    __m128d small = _mm_cmpngt_pd(fa, kOne);  // not |a| > 1, NaN included
    ok = _mm_or_pd(small, _mm_cmpgt_pd(_mm_div_pd(kMax, fa), fb));
    // a's own NaN wins, as in the scalar kernel, whatever operand order the compiler picks.
    __m128d prod = select(_mm_cmpunord_pd(a, a), _mm_add_pd(a, a), _mm_mul_pd(a, b));
    return select(ok, prod, kOne);
}

inline __m128d vecDurch(__m128d a, __m128d b, __m128d& ok)
{
    __m128d fa = _mm_andnot_pd(kSign, a);
    __m128d fb = _mm_andnot_pd(kSign, b);
    __m128d nonzero = _mm_cmpneq_pd(b, _mm_setzero_pd());  // NaN counts as nonzero
    __m128d safe = _mm_or_pd(_mm_cmpge_pd(fb, kOne), _mm_cmpunord_pd(b, b));
    safe = _mm_or_pd(safe, _mm_cmpgt_pd(_mm_mul_pd(fb, kMax), fa));
    ok = _mm_and_pd(nonzero, safe);
    return select(ok, _mm_div_pd(a, b), kOne);
}

// ---------------------------------------------------------------- instructions

struct Frame {
    double** cols;  // column pointers of this block
    int* err;       // error codes of this block's rows
    int n;          // rows in this block
};

struct Insn;
using Runner = void (*)(const Insn&, const Frame&);

// OxHoch with a constant exponent: the guard limits depend only on the exponent, so they are
// computed once, with the very expressions the kernel uses.
struct PowConst {
    double b, bc;            // exponent, and the exponent rounded up for negative bases
    bool bIntegral;          // b == ceil(b)
    bool bAbove1, bcAbove1;  // b > 1, ceil(b) > 1
    long double limB, limBc;
};

struct Insn {
    Runner run;
    int out;  // column written
    int a;    // column of the first operand, -1 for the constant ka
    int b;    // column of the second operand, -1 for the constant kb
    double ka;
    double kb;
    int code;  // error code of a raise
    PowConst pow;
};

// Error codes go to the row when Raise, else to a scratch that nobody reads.
template <bool Raise>
struct ErrSink {
    int* e;
    int dummy = 0;
    int& at(int i) { return Raise ? e[i] : dummy; }
};

template <BinKernel F, bool Raise>
struct BinLoops {
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

template <UnKernel F, bool Raise>
struct UnLoops {
    static void c(const Insn& in, const Frame& f)
    {
        const double* __restrict a = f.cols[in.a];
        double* __restrict r = f.cols[in.out];
        ErrSink<Raise> e{f.err};
        for (int i = 0; i < f.n; ++i)
            r[i] = F(a[i], e.at(i));
    }
};

// Truth values and selections: pure mask arithmetic, exact by construction.
const __m128d kTruth = _mm_set1_pd(1e-8);
const __m128d kAllOnes = _mm_castsi128_pd(_mm_set1_epi32(-1));

#define OXB_VEC_COMPARE(Cls, expr)                                  \
    inline __m128d vec##Cls(__m128d a, __m128d b, __m128d& ok)      \
    {                                                               \
        ok = kAllOnes;                                              \
        return _mm_and_pd(expr, kOne);                              \
    }
OXB_VEC_COMPARE(OxLess, _mm_cmplt_pd(a, b))
OXB_VEC_COMPARE(OxGreater, _mm_cmpgt_pd(a, b))
OXB_VEC_COMPARE(OxLessEqual, _mm_cmple_pd(a, b))
OXB_VEC_COMPARE(OxGreaterEqual, _mm_cmpge_pd(a, b))
OXB_VEC_COMPARE(OxEqual, _mm_cmpeq_pd(a, b))
OXB_VEC_COMPARE(OxAnd, _mm_and_pd(_mm_cmpgt_pd(a, kTruth), _mm_cmpgt_pd(b, kTruth)))
OXB_VEC_COMPARE(OxOr, _mm_or_pd(_mm_cmpgt_pd(a, kTruth), _mm_cmpgt_pd(b, kTruth)))
#undef OXB_VEC_COMPARE

inline __m128d vecOxMax(__m128d a, __m128d b, __m128d& ok)
{
    ok = kAllOnes;
    return select(_mm_cmpgt_pd(a, b), a, b);
}

inline __m128d vecOxMin(__m128d a, __m128d b, __m128d& ok)
{
    ok = kAllOnes;
    return select(_mm_cmplt_pd(a, b), a, b);
}

using VecKernel = __m128d (*)(__m128d, __m128d, __m128d&);

// Two rows per step over the whole block (a partial block's tail computes on stale rows that
// nobody reads); rows whose guard failed get their code from the scalar kernel afterwards.
template <VecKernel V, BinKernel F, bool Raise, bool AConst, bool BConst>
void runVec(const Insn& in, const Frame& f)
{
    const double* a = AConst ? nullptr : f.cols[in.a];
    const double* b = BConst ? nullptr : f.cols[in.b];
    double* r = f.cols[in.out];
    const __m128d ka = _mm_set1_pd(in.ka);
    const __m128d kb = _mm_set1_pd(in.kb);
    __m128d allOk = _mm_castsi128_pd(_mm_set1_epi32(-1));
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

template <bool Raise>
void runPowConst(const Insn& in, const Frame& f)
{
    const double* __restrict a = f.cols[in.a];
    double* __restrict r = f.cols[in.out];
    ErrSink<Raise> e{f.err};
    const PowConst& p = in.pow;
    for (int i = 0; i < f.n; ++i) {
        double x = a[i];
        double b = p.b;
        bool above1 = p.bAbove1;
        long double limit = p.limB;
        if (x < 0 && !p.bIntegral) {
            oxk::raise(e.at(i), OX_ERR_RADICAND_NEGATIVE);
            b = p.bc;
            above1 = p.bcAbove1;
            limit = p.limBc;
        } else if (x == 0.0 && b < 0) {
            oxk::raise(e.at(i), OX_ERR_DIVISION_BY_ZERO);
            r[i] = 0.0;
            continue;
        }
        if (above1) {
            if (limit > x) {
                r[i] = oxk::powerOf(x, b);
            } else {
                oxk::raise(e.at(i), OX_ERR_OVERFLOW);
                r[i] = 1.0;
            }
            continue;
        }
        r[i] = oxk::powerOf(x, b);
    }
}

// A constant sub-expression failed: every row fails there.
void runRaise(const Insn& in, const Frame& f)
{
    for (int i = 0; i < f.n; ++i)
        f.err[i] = f.err[i] ? f.err[i] : in.code;
}

// ---------------------------------------------------------------- operation table

enum OpShape { kUnary, kBinary, kDivisorFirst, kNullable, kNot };

struct OpInfo {
    const std::type_info* type;
    OpShape shape;
    bool raises;
    BinKernel bin;
    UnKernel un;
    Runner loops[2][3];  // [raise][cc, ck, kc] for binary, [raise][0] for unary
};

template <BinKernel F>
OpInfo binaryOp(const std::type_info& t, OpShape shape, bool raises)
{
    return OpInfo{&t,
                  shape,
                  raises,
                  F,
                  nullptr,
                  {{&BinLoops<F, false>::cc, &BinLoops<F, false>::ck, &BinLoops<F, false>::kc},
                   {&BinLoops<F, true>::cc, &BinLoops<F, true>::ck, &BinLoops<F, true>::kc}}};
}

template <VecKernel V, BinKernel F>
OpInfo vectorOp(const std::type_info& t, OpShape shape, bool raises = true)
{
    return OpInfo{&t,
                  shape,
                  raises,
                  F,
                  nullptr,
                  {{&runVec<V, F, false, false, false>, &runVec<V, F, false, false, true>,
                    &runVec<V, F, false, true, false>},
                   {&runVec<V, F, true, false, false>, &runVec<V, F, true, false, true>,
                    &runVec<V, F, true, true, false>}}};
}

template <UnKernel F>
OpInfo unaryOp(const std::type_info& t, OpShape shape, bool raises)
{
    return OpInfo{&t,
                  shape,
                  raises,
                  nullptr,
                  F,
                  {{&UnLoops<F, false>::c, nullptr, nullptr}, {&UnLoops<F, true>::c, nullptr, nullptr}}};
}

// Which kernels can raise a code of their own (the rest only pass codes on).
bool kernelRaises(const char* cls)
{
    static const char* const raising[] = {
        "OxPlus",   "OxMinus", "OxMal",   "OxDurch", "OxModulo", "OxHoch",  "OxSqroot",
        "OxLn",     "OxArcsin", "OxArccos", "OxExp",  "OxArccosh", "OxArctanh", "OxExpm1",
        "OxLog10",  "OxSinh",  "OxArctan2", "OxDrem", "OxFmod"};
    for (const char* r : raising)
        if (std::strcmp(r, cls) == 0)
            return true;
    return false;
}

const std::vector<OpInfo>& opTable()
{
    static const std::vector<OpInfo> table = [] {
        std::vector<OpInfo> t;
        // findOp takes the first row of a class, so vector forms come before generic ones.
        t.push_back(vectorOp<vecOxMax, oxk::eval_OxMax>(typeid(OxMax), kBinary, false));
        t.push_back(vectorOp<vecOxMin, oxk::eval_OxMin>(typeid(OxMin), kBinary, false));
        t.push_back(vectorOp<vecPlus, oxk::eval_OxPlus>(typeid(OxPlus), kBinary));
        t.push_back(vectorOp<vecMinus, oxk::eval_OxMinus>(typeid(OxMinus), kBinary));
        t.push_back(vectorOp<vecMal, oxk::eval_OxMal>(typeid(OxMal), kBinary));
        t.push_back(vectorOp<vecDurch, oxk::eval_OxDurch>(typeid(OxDurch), kDivisorFirst));
        t.push_back(binaryOp<oxk::eval_OxModulo>(typeid(OxModulo), kBinary, true));
        t.push_back(binaryOp<oxk::eval_OxHoch>(typeid(OxHoch), kBinary, true));
#define OXB_BINARY(Cls, code, prio, sym) \
    t.push_back(binaryOp<oxk::eval_##Cls>(typeid(Cls), kBinary, kernelRaises(#Cls)));
        OXEL_BITWISE_OPERATORS(OXB_BINARY)
        OXEL_BINARY_FUNCTIONS(OXB_BINARY)
#undef OXB_BINARY
#define OXB_UNARY(Cls, code, prio, sym) \
    t.push_back(unaryOp<oxk::eval_##Cls>(typeid(Cls), kUnary, kernelRaises(#Cls)));
        OXEL_UNARY_FUNCTIONS(OXB_UNARY)
#undef OXB_UNARY
        t.push_back(vectorOp<vecOxLess, k_OxLess>(typeid(OxLess), kBinary, false));
        t.push_back(vectorOp<vecOxGreater, k_OxGreater>(typeid(OxGreater), kBinary, false));
        t.push_back(vectorOp<vecOxLessEqual, k_OxLessEqual>(typeid(OxLessEqual), kBinary, false));
        t.push_back(
            vectorOp<vecOxGreaterEqual, k_OxGreaterEqual>(typeid(OxGreaterEqual), kBinary, false));
        t.push_back(vectorOp<vecOxEqual, k_OxEqual>(typeid(OxEqual), kNullable, false));
        t.push_back(vectorOp<vecOxAnd, k_OxAnd>(typeid(OxAnd), kNullable, false));
        t.push_back(vectorOp<vecOxOr, k_OxOr>(typeid(OxOr), kNullable, false));
        t.push_back(unaryOp<k_OxNot>(typeid(OxNot), kNot, false));
        return t;
    }();
    return table;
}

const OpInfo* findOp(Oxel* node)
{
    const std::type_info& t = typeid(*node);
    for (const OpInfo& op : opTable())
        if (*op.type == t)
            return &op;
    return nullptr;
}

// ---------------------------------------------------------------- compiler

// What an expression evaluates to at compile time: a constant, or a column (virtual register).
struct Operand {
    bool isConst;
    double k;
    int reg;
};

struct Compiler {
    int numVars;
    std::vector<Insn> code;
    std::vector<Operand> slot;     // current value of each variable slot (renaming)
    std::vector<bool> slotSet;
    std::vector<int> inputVar;     // virtual register r < inputVar.size() reads variable inputVar[r]
    std::vector<int> inputReg;     // variable -> its input register, -1 if not read
    int numRegs = 0;
    bool failed = false;
    bool errorCertain = false;     // an unconditional raise happened: later codes cannot win

    Operand constant(double v) { return Operand{true, v, -1}; }

    void emitRaise(int c)
    {
        if (c == 0 || errorCertain)
            return;
        Insn in{};
        in.run = &runRaise;
        in.out = -1;
        in.a = in.b = -1;
        in.code = c;
        code.push_back(in);
        errorCertain = true;
    }

    Operand readVar(int index)
    {
        if (index < 0 || index >= numVars) {
            failed = true;
            return constant(0.0);
        }
        if (slotSet[static_cast<size_t>(index)])
            return slot[static_cast<size_t>(index)];
        int& r = inputReg[static_cast<size_t>(index)];
        if (r < 0)
            r = -2;  // placeholder; input registers are numbered after compilation
        Operand o{false, 0.0, -1000 - index};
        return o;
    }

    Operand emit(Runner run, const Operand& a, const Operand* b)
    {
        Insn in{};
        in.run = run;
        in.out = numRegs++;
        in.a = a.isConst ? -1 : a.reg;
        in.ka = a.k;
        in.b = (b && !b->isConst) ? b->reg : -1;
        in.kb = b ? b->k : 0.0;
        code.push_back(in);
        return Operand{false, 0.0, in.out};
    }

    Operand unary(const OpInfo& op, const Operand& v)
    {
        if (v.isConst) {
            int e = 0;
            double r = op.un(v.k, e);
            emitRaise(e);
            return constant(r);
        }
        bool raise = op.raises && !errorCertain;
        return emit(op.loops[raise][0], v, nullptr);
    }

    Operand binary(const OpInfo& op, const Operand& a, const Operand& b)
    {
        if (a.isConst && b.isConst) {
            int e = 0;
            double r = op.bin(a.k, b.k, e);
            emitRaise(e);
            return constant(r);
        }
        bool raise = op.raises && !errorCertain;
        if (op.bin == &oxk::eval_OxHoch && b.isConst) {
            Operand o = emit(raise ? &runPowConst<true> : &runPowConst<false>, a, &b);
            PowConst& p = code.back().pow;
            p.b = b.k;
            p.bc = std::ceil(b.k);
            p.bIntegral = !(b.k != p.bc);
            p.bAbove1 = b.k > 1.0;
            p.bcAbove1 = p.bc > 1.0;
            p.limB = powl(static_cast<long double>(DBL_MAX), static_cast<long double>(1.0 / p.b));
            p.limBc = powl(static_cast<long double>(DBL_MAX), static_cast<long double>(1.0 / p.bc));
            return o;
        }
        int kind = a.isConst ? 2 : (b.isConst ? 1 : 0);
        return emit(op.loops[raise][kind], a, &b);
    }

    Operand compile(Oxel* node)
    {
        if (failed)
            return constant(0.0);
        if (!node) {
            failed = true;
            return constant(0.0);
        }
        const std::type_info& t = typeid(*node);
        if (t == typeid(OxZahl))
            return constant(static_cast<OxZahl*>(node)->number());
        if (t == typeid(OxVar)) {
            OxVar* v = static_cast<OxVar*>(node);
            if (!v->bound())
                return readVar(v->index());
            Operand o = compile(v->bound());
            int index = v->index();
            if (index < 0 || index >= numVars) {
                failed = true;
                return o;
            }
            slot[static_cast<size_t>(index)] = o;
            slotSet[static_cast<size_t>(index)] = true;
            return o;
        }
        if (t == typeid(OxBranch)) {
            Oxel* first = node->getChild(0);
            Oxel* second = node->getChild(1);
            Operand result = constant(0.0);
            if (first)
                result = compile(first);
            if (second)
                result = compile(second);
            return result;
        }
        const OpInfo* op = findOp(node);
        if (!op) {  // random sources, dependent variables, classes unknown here
            failed = true;
            return constant(0.0);
        }
        switch (op->shape) {
        case kUnary:
            return unary(*op, compile(node->getChild(0)));
        case kNot: {
            Oxel* child = node->getChild(0);
            if (!child)
                return constant(1.0);
            return unary(*op, compile(child));
        }
        case kBinary: {
            Operand a = compile(node->getChild(0));
            Operand b = compile(node->getChild(1));
            return binary(*op, a, b);
        }
        case kDivisorFirst: {
            Operand b = compile(node->getChild(1));
            Operand a = compile(node->getChild(0));
            return binary(*op, a, b);
        }
        case kNullable: {
            Oxel* l = node->getChild(0);
            Oxel* r = node->getChild(1);
            Operand a = l ? compile(l) : constant(0.0);
            Operand b = r ? compile(r) : constant(0.0);
            return binary(*op, a, b);
        }
        }
        failed = true;
        return constant(0.0);
    }
};

}  // namespace

// ---------------------------------------------------------------- program

class OxelProgram {
public:
    Oxel* root = nullptr;
    int numVars = 0;
    bool compiled = false;          // false: the tree walks every row
    std::vector<Insn> code;
    std::vector<int> inputVars;     // variable index of input column i
    int numColumns = 0;             // input columns, then scratch columns
    int resultColumn = -1;          // column holding the value, or -1 for resultConst
    double resultConst = 0.0;
    bool resultInResults = false;   // the result column is the caller's results array
    std::vector<double> workspace;  // reused between runs unless another run holds it
    std::atomic<bool> busy{false};
};

namespace {

// Maps virtual registers to columns: inputs first, then scratch columns reused once dead.
// The result gets the extra column numColumns, which points into the caller's results.
void allocateColumns(OxelProgram& p, const Compiler& c, const Operand& result)
{
    std::vector<int> inputCol(static_cast<size_t>(c.numVars), -1);
    for (int v = 0; v < c.numVars; ++v) {
        if (c.inputReg[static_cast<size_t>(v)] != -1) {
            inputCol[static_cast<size_t>(v)] = static_cast<int>(p.inputVars.size());
            p.inputVars.push_back(v);
        }
    }
    const int resultReg = result.isConst ? -1 : result.reg;
    const int kResultSlot = -7;

    std::vector<int> lastUse(static_cast<size_t>(c.numRegs), -1);
    for (size_t i = 0; i < c.code.size(); ++i) {
        const Insn& in = c.code[i];
        if (in.a >= 0)
            lastUse[static_cast<size_t>(in.a)] = static_cast<int>(i);
        if (in.b >= 0)
            lastUse[static_cast<size_t>(in.b)] = static_cast<int>(i);
    }

    std::vector<int> colOf(static_cast<size_t>(c.numRegs), -1);
    std::vector<int> freeCols;
    int next = static_cast<int>(p.inputVars.size());
    auto map = [&](int reg) {
        if (reg <= -1000)
            return inputCol[static_cast<size_t>(-1000 - reg)];
        if (reg < 0)
            return reg;
        return colOf[static_cast<size_t>(reg)];
    };
    auto release = [&](int reg) {
        if (reg >= 0 && reg != resultReg && colOf[static_cast<size_t>(reg)] >= 0) {
            freeCols.push_back(colOf[static_cast<size_t>(reg)]);
            colOf[static_cast<size_t>(reg)] = -1;
        }
    };
    p.code = c.code;
    for (size_t i = 0; i < c.code.size(); ++i) {
        const Insn& v = c.code[i];
        Insn& m = p.code[i];
        m.a = map(v.a);
        m.b = map(v.b);
        if (v.out >= 0) {
            int col;
            if (v.out == resultReg) {
                col = kResultSlot;
            } else if (!freeCols.empty()) {
                col = freeCols.back();
                freeCols.pop_back();
            } else {
                col = next++;
            }
            colOf[static_cast<size_t>(v.out)] = col;
            m.out = col;
        }
        // Operands die after the output took its column, so in and out never alias.
        if (v.a >= 0 && lastUse[static_cast<size_t>(v.a)] == static_cast<int>(i))
            release(v.a);
        if (v.b >= 0 && v.b != v.a && lastUse[static_cast<size_t>(v.b)] == static_cast<int>(i))
            release(v.b);
        if (v.out >= 0 && lastUse[static_cast<size_t>(v.out)] < 0)
            release(v.out);  // a value nobody reads (a discarded statement)
    }
    p.numColumns = next;
    for (Insn& m : p.code) {
        if (m.a == kResultSlot)
            m.a = next;
        if (m.b == kResultSlot)
            m.b = next;
        if (m.out == kResultSlot)
            m.out = next;
    }
    p.resultInResults = resultReg >= 0;
    if (result.isConst) {
        p.resultColumn = -1;
        p.resultConst = result.k;
    } else if (result.reg <= -1000) {
        p.resultColumn = inputCol[static_cast<size_t>(-1000 - result.reg)];
    } else {
        p.resultColumn = next;
    }
}

}  // namespace

OxelProgram* oxelProgramCompile(Oxel* root, int numVars)
{
    OxelProgram* p = new OxelProgram;
    p->root = root;
    p->numVars = numVars > 0 ? numVars : 0;
    if (!root || oxelDepth(root) > kMaxCompileDepth)
        return p;
    Compiler c;
    c.numVars = p->numVars;
    c.slot.assign(static_cast<size_t>(p->numVars), Operand{true, 0.0, -1});
    c.slotSet.assign(static_cast<size_t>(p->numVars), false);
    c.inputReg.assign(static_cast<size_t>(p->numVars), -1);
    Operand result = c.compile(root);
    if (c.failed)
        return p;
    allocateColumns(*p, c, result);
    p->compiled = true;
    return p;
}

void oxelProgramRelease(OxelProgram* program)
{
    delete program;
}

namespace {

// Rows the compiler cannot lower (random sources, dependent variables) walk the tree.
void runTree(OxelProgram& p, const double* rows, int numRows, int stride, double* results,
             int* errors)
{
    std::vector<double> slots(static_cast<size_t>(p.numVars > 0 ? p.numVars : 1));
    for (int r = 0; r < numRows; ++r) {
        const double* row = rows + static_cast<size_t>(r) * static_cast<size_t>(stride);
        std::copy(row, row + p.numVars, slots.begin());
        errors[r] = 0;
        results[r] = p.root->value(slots.data(), errors[r]);
    }
}

void runCompiled(OxelProgram& p, double* ws, const double* rows, int numRows, int stride,
                 double* results, int* errors)
{
    const int numInputs = static_cast<int>(p.inputVars.size());
    std::vector<double*> cols(static_cast<size_t>(p.numColumns) + 1);
    for (int c = 0; c < p.numColumns; ++c)
        cols[static_cast<size_t>(c)] = ws + static_cast<size_t>(c) * kBlock;
    double** colp = cols.data();
    for (int start = 0; start < numRows; start += kBlock) {
        const int n = std::min(kBlock, numRows - start);
        const double* base = rows + static_cast<size_t>(start) * static_cast<size_t>(stride);
        for (int c = 0; c < numInputs; ++c) {
            double* col = colp[c];
            const double* src = base + p.inputVars[static_cast<size_t>(c)];
            for (int i = 0; i < n; ++i)
                col[i] = src[static_cast<size_t>(i) * static_cast<size_t>(stride)];
        }
        int* err = errors + start;
        std::memset(err, 0, sizeof(int) * static_cast<size_t>(n));
        double* res = results + start;
        // Vector steps may write one row past a partial block: keep that off the caller's array.
        const bool direct = p.resultInResults && n == kBlock;
        colp[p.numColumns] = direct ? res : ws + static_cast<size_t>(p.numColumns) * kBlock;
        Frame f{colp, err, n};
        for (const Insn& in : p.code)
            in.run(in, f);
        if (p.resultColumn == -1) {
            std::fill(res, res + n, p.resultConst);
        } else if (!direct) {
            std::memcpy(res, colp[p.resultColumn], sizeof(double) * static_cast<size_t>(n));
        }
    }
}

}  // namespace

void oxelProgramRun(OxelProgram* p, const double* rows, int numRows, int stride, double* results,
                    int* errors)
{
    if (numRows <= 0)
        return;
    if (!p->compiled) {
        runTree(*p, rows, numRows, stride, results, errors);
        return;
    }
    size_t need = static_cast<size_t>(p->numColumns + 1) * kBlock;
    bool expected = false;
    if (p->busy.compare_exchange_strong(expected, true)) {
        if (p->workspace.size() < need)
            p->workspace.resize(need);
        runCompiled(*p, p->workspace.data(), rows, numRows, stride, results, errors);
        p->busy.store(false);
    } else {
        std::vector<double> ws(need);
        runCompiled(*p, ws.data(), rows, numRows, stride, results, errors);
    }
}
