// OxelExpression: variable registry, parsing, evaluation, derivatives and simplified copies.
#include <oxel/expression.h>

#include <cstring>
#include <string>
#include <vector>

#include <oxel/formula.h>
#include <oxel/printing.h>
#include <oxel/nodes.h>

#include "core/deep.h"
#include "core/derivative.h"
#include "program/native/native.h"
#include "program/program.h"
#include "nodes/kernels.h"
#include "parser/converter.h"
#include "support/name_index.h"

namespace {

// Passes of simplifiedFully() before it settles for what it has.
const int kMaxSimplifyPasses = 100;

}  // namespace

OxelExpression::OxelExpression()
    : root_(nullptr), aliases_(KxString("")), numInternal_(0), lastErrorOffset_(-1),
      point_(nullptr), program_(nullptr), native_(nullptr)
{
    clear();
}

OxelExpression::~OxelExpression()
{
    dropProgram();
    oxelDestroy(root_);
}

// ---------------------------------------------------------------- variable registry

int OxelExpression::addVar(const char* name)
{
    if (!name || !*name)
        return -1;
    int declared = numVars() - numInternal_;
    int i = varIndex(name);
    if (i >= 0 && i < declared)
        return i;
    names_.insert(declared, KxString(name));
    oxs::nameAdd(nameIndex_, names_, declared);
    installTree(root_);  // drops the programs: they know the number of slots
    return declared;
}

void OxelExpression::addVarAlias(const char* varName, const char* alias)
{
    aliases_.insert(KxString(alias ? alias : ""), KxString(varName ? varName : ""));
}

int OxelExpression::varIndex(const char* name) const
{
    if (!name || !*name)
        return -1;
    // Most hosts declare no alias: then the name is looked up as it stands, without a copy.
    const char* wanted = name;
    if (aliases_.count() > 0)
        if (const KxString* target = aliases_.lookup(KxString(name)))
            wanted = target->c_str();
    return oxs::nameFind(nameIndex_, names_, wanted);
}

const char* OxelExpression::varName(unsigned int index) const
{
    if (index >= static_cast<unsigned int>(names_.length()))
        return nullptr;
    return names_[static_cast<int>(index)].c_str();
}

int OxelExpression::numVars() const
{
    return names_.length();
}

int OxelExpression::numInternalVars() const
{
    return numInternal_;
}

int OxelExpression::isVarNeeded(const char* name) const
{
    if (!name || !*name || !root_)
        return 0;
    int independent = 1;
    oxs::withStackFor(oxelDepth(root_), [&] { independent = root_->pconstant(name); });
    return independent == 0 ? 1 : 0;
}

// ---------------------------------------------------------------- parsing and lifecycle

int OxelExpression::initFromString(const char* text)
{
    dropProgram();
    int declared = numVars() - numInternal_;
    names_.setLength(declared > 0 ? declared : 0);
    numInternal_ = 0;
    lastError_ = KxString();
    lastErrorOffset_ = -1;
    lastErrorHint_ = KxString();

    if (!text || !*text) {
        setDefaultExpression();
        lastError_ = KxString("the formula is empty");
        lastErrorOffset_ = 0;
        return 0;
    }
    oxelDestroy(root_);
    root_ = nullptr;

    // The parser cuts statements in place. It works on a private copy, so the caller's text is
    // never written, not even when a statement fails, and may be a literal; nobody else sees
    // the copy, so its statements are read whole whatever their length.
    std::vector<char> copy(text, text + std::strlen(text) + 1);
    std::string error;
    int offset = -1;
    Oxel* tree = OxConverter_parse(copy.data(), names_, &aliases_, 0, nullptr, &error, &offset, true);
    numInternal_ = numVars() - declared;
    if (tree) {
        installTree(tree);
        return 1;
    }
    setDefaultExpression();
    lastError_ = KxString(error.c_str());
    lastErrorOffset_ = offset;
    KxDArray<KxString> known;
    for (int i = 0; i < declared; ++i)
        known.append(names_[i]);
    KxHashTableIterator<KxString, KxString> it(aliases_);
    KxString alias, target;
    while (it.next(alias, target))
        known.append(alias);
    lastErrorHint_ = oxelParseHint(text, error.c_str(), known);
    return 0;
}

// Everything but the header's fast path: checks, the interpreter, publishing the code.
double OxelExpression::evalSlow(double* values, int count, int& err) const
{
    if (!root_)
        return 0.0;
    // A short vector would be read (and written) past its end; without variables, a null
    // vector is never touched.
    if (__builtin_expect(count < names_.length() || !values, 0) &&
        (count < names_.length() || names_.length() > 0)) {
        oxk::raise(err, OX_ERR_ILLEGAL_ARGUMENT);
        return 0.0;
    }
    const OxelPointProgram& p = *pointProgram();
    const double v = oxelPointRun(p, root_, values, err);
    if (!native_.load(std::memory_order_relaxed))
        if (auto f = oxelPointNative(p))
            native_.store(f, std::memory_order_release);
    return v;
}

void OxelExpression::setDefaultExpression()
{
    int declared = numVars() - numInternal_;
    names_.setLength(declared > 0 ? declared : 0);
    numInternal_ = 0;
    installTree(new OxZahl(0.0));
}

void OxelExpression::setRoot(Oxel* tree)
{
    installTree(tree ? tree : new OxZahl(0.0));
}

void OxelExpression::installTree(Oxel* tree)
{
    dropProgram();
    if (tree != root_)
        oxelDestroy(root_);
    root_ = tree;
}

void OxelExpression::clear()
{
    names_.setLength(0);
    nameIndex_.clear();
    aliases_.removeAll();
    numInternal_ = 0;
    setDefaultExpression();
}

void OxelExpression::copyVarNames(OxelExpression& other)
{
    if (&other == this)
        return;
    clear();
    int declared = other.numVars() - other.numInternal_;
    for (int i = 0; i < declared; ++i)
        names_.append(other.names_[i]);
    oxs::nameIndex(nameIndex_, names_, declared);
    aliases_ = other.aliases_;
    installTree(root_);
}

KxString OxelExpression::toFormula() const
{
    return oxelToFormula(root_);
}

// ---------------------------------------------------------------- derived expressions

OxelExpression* OxelExpression::withSameNames(Oxel* tree) const
{
    try {
        OxelExpression* out = new OxelExpression;
        out->names_.setLength(names_.length());
        for (int i = 0; i < names_.length(); ++i)
            out->names_[i] = names_[i];
        // The copy declares the internal variables too.
        oxs::nameIndex(out->nameIndex_, out->names_, names_.length());
        out->aliases_ = aliases_;
        out->installTree(tree);
        return out;
    } catch (...) {
        oxelDestroy(tree);
        return nullptr;
    }
}

OxelExpression* OxelExpression::derivative(const char* var) const
{
    if (!root_)
        return nullptr;
    KxString name(var ? var : "");
    if (KxString* target = aliases_.lookup(name))
        name = *target;
    Oxel* d = oxelDerivative(root_, name.c_str());  // too large counts as no derivative
    if (!d)
        return nullptr;
    return withSameNames(d);
}

OxelExpression* OxelExpression::partial(const char* var, std::string* why) const
{
    long nodes = oxelNodeBudget();
    return partialWithin(var, &nodes, why);
}

OxelExpression* OxelExpression::partialWithin(const char* var, long* nodes,
                                              std::string* why) const
{
    if (!root_)
        return nullptr;
    // A misspelt name would otherwise give a silent zero.
    if (varIndex(var) < 0) {
        if (why)
            *why = "unknown variable '" + std::string(var ? var : "") + "' (neither a "
                   "declared variable nor an alias)";
        return nullptr;
    }
    KxString name(var);
    if (KxString* target = aliases_.lookup(name))
        name = *target;
    Oxel* d = oxd::partialDiff(root_, name.c_str(), nodes, why);
    return d ? withSameNames(d) : nullptr;
}

OxelExpression* OxelExpression::simplified() const
{
    if (!root_)
        return nullptr;
    return withSameNames(root_->simplify());
}

OxelExpression* OxelExpression::simplifiedFully() const
{
    if (!root_)
        return nullptr;
    Oxel* tree = root_->simplify();
    std::string text = oxelToString(tree);
    for (int pass = 1; pass < kMaxSimplifyPasses; ++pass) {
        Oxel* next = tree->simplify();
        std::string nextText = oxelToString(next);
        oxelDestroy(tree);
        tree = next;
        if (nextText == text)
            break;
        text = nextText;
    }
    return withSameNames(tree);
}

OxelExpression* OxelExpression::normalized() const
{
    Oxel* normal = root_ ? oxelNormalized(root_) : nullptr;  // null beyond the node budget
    return normal ? withSameNames(normal) : nullptr;
}

KxString OxelExpression::toC() const { return oxelToC(root_); }
KxString OxelExpression::toLatex() const { return oxelToLatex(root_); }

KxString OxelExpression::toCFunction(const char* name) const
{
    std::vector<const char*> params;  // the declared variables; internal ones come after them
    for (int i = 0; i < numVars() - numInternal_; ++i)
        params.push_back(varName(static_cast<unsigned>(i)));
    return oxelToCFunction(root_, name, params.data(), static_cast<int>(params.size()));
}

// ---------------------------------------------------------------- batch evaluation

namespace {

// The program in slot, compiled by whichever thread gets there first; the others discard theirs.
template <class Program>
__attribute__((noinline)) Program* compileInto(std::atomic<Program*>& slot,
                                               Program* (*compile)(Oxel*, int),
                                               void (*release)(Program*), Oxel* root, int numVars)
{
    Program* p = nullptr;
    Program* mine = compile(root, numVars);
    if (slot.compare_exchange_strong(p, mine, std::memory_order_acq_rel))
        return mine;
    release(mine);
    return p;
}

// The compiled case stays a load and a test in the caller.
template <class Program>
inline Program* compiledOnce(std::atomic<Program*>& slot, Program* (*compile)(Oxel*, int),
                             void (*release)(Program*), Oxel* root, int numVars)
{
    Program* p = slot.load(std::memory_order_acquire);
    if (__builtin_expect(p != nullptr, 1))
        return p;
    return compileInto(slot, compile, release, root, numVars);
}

}  // namespace

OxelPointProgram* OxelExpression::pointProgram() const
{
    return compiledOnce(point_, &oxelPointCompile, &oxelPointRelease, root_, numVars());
}

OxelProgram* OxelExpression::batchProgram() const
{
    return compiledOnce(program_, &oxelProgramCompile, &oxelProgramRelease, root_, numVars());
}

int OxelExpression::evalBatch(const double* rows, int numRows, int stride, double* results,
                              int* errors) const
{
    if (!rows || !results || !errors || numRows < 0 || stride < numVars())
        return -1;
    if (numRows > 0)
        oxelProgramRun(batchProgram(), rows, numRows, stride, results, errors);
    return 0;
}

int OxelExpression::evalBatchColumns(const double* const* columns, int numRows,
                                     double* results, int* errors, bool errorsZeroed) const
{
    if (!columns || !results || !errors || numRows < 0)
        return -1;
    if (numRows > 0)
        oxelProgramRunColumns(batchProgram(), columns, numRows, results, errors, errorsZeroed);
    return 0;
}

void OxelExpression::dropProgram()
{
    native_.store(nullptr, std::memory_order_relaxed);
    if (OxelProgram* p = program_.exchange(nullptr))
        oxelProgramRelease(p);
    oxelPointRelease(point_.exchange(nullptr));
}

void oxelSetBatchThreads(int n)
{
    oxp::poolSetThreads(n);
}

int oxelBatchThreads()
{
    return oxp::poolThreads();
}
