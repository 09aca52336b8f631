// Dependent variables: the host's descriptor OxDepVarnode and the tree node OxDepVar.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <oxel/nodes.h>

// ---------------------------------------------------------------- OxDepVarnode

OxDepVarnode::OxDepVarnode(const char* name, OxDepVarCallback callback, void* userData)
    : name_(strdup(name ? name : "")),
      nDims_(-1),
      nDataVar_(-1),
      nDiffLevels_(-1),
      defaultNames_(nullptr),
      defaultIndices_(nullptr),
      userData_(userData),
      callback_(callback),
      refCount_(0)
{
}

OxDepVarnode::~OxDepVarnode()
{
    std::free(name_);
    delete[] defaultNames_;
    delete[] defaultIndices_;
}

void OxDepVarnode::setUp(int nDims, int nDataVar, int nDiffLevels, char** defaultVarNames,
                         int* defaultVarIndices)
{
    if (nDims_ >= 0) {
        delete[] defaultNames_;
        delete[] defaultIndices_;
        defaultNames_ = nullptr;
        defaultIndices_ = nullptr;
    }
    nDims_ = nDims;
    // A negative dimension count unconfigures the source but leaves the other counts alone.
    if (nDims < 0)
        return;
    nDataVar_ = nDataVar;
    nDiffLevels_ = nDiffLevels;
    if (defaultVarNames && defaultVarIndices) {
        defaultNames_ = new KxString[static_cast<size_t>(nDims)];
        defaultIndices_ = new int[static_cast<size_t>(nDims)];
        for (int i = 0; i < nDims; ++i) {
            defaultNames_[i] = defaultVarNames[i];
            defaultIndices_[i] = defaultVarIndices[i];
        }
    }
}

const char* OxDepVarnode::getVar(int i, int& index) const
{
    if (hasDefaultVars() && i >= 0 && i < nDims_) {
        index = defaultIndices_[i];
        return defaultNames_[i].c_str();
    }
    index = -1;
    return nullptr;
}

double OxDepVarnode::value(int component, int nDiff, const int* diffDims,
                           const double* args) const
{
    if (!callback_)
        return 0.0;
    return callback_(userData_, component, nDiff, diffDims, args);
}

// ---------------------------------------------------------------- OxDepVar

OxDepVar::OxDepVar(OxDepVarnode* node, int component, int nDiff, const int* diffDims,
                   Oxel** children)
    : node_(node),
      component_(component),
      numChildren_(node->getNDims() > 0 ? node->getNDims() : 0),
      children_(nullptr),
      nDiff_(nDiff > 0 ? nDiff : 0),
      diffDims_(nullptr)
{
    node_->ref();
    if (nDiff_ > 0) {
        diffDims_ = new int[static_cast<size_t>(nDiff_)];
        for (int j = 0; j < nDiff_; ++j)
            diffDims_[j] = diffDims ? diffDims[j] : 0;
    }
    if (numChildren_ > 0) {
        children_ = new Oxel*[static_cast<size_t>(numChildren_)];
        for (int i = 0; i < numChildren_; ++i) {
            if (children) {
                children_[i] = children[i];
            } else {
                // Arguments left out in the text read the source's default variables.
                int index = -1;
                const char* name = node_->getVar(i, index);
                children_[i] = new OxVar(index, name);
            }
        }
    }
}

// The callback sees the arguments' values even when one of them failed; the first
// failing argument's code is the one passed on.
double OxDepVar::value(double* vars, int& err) const
{
    double inlineArgs[kInlineArgs];
    std::vector<double> heapArgs;
    double* args = inlineArgs;
    if (numChildren_ > kInlineArgs) {
        heapArgs.resize(static_cast<size_t>(numChildren_));
        args = heapArgs.data();
    }
    for (int i = 0; i < numChildren_; ++i) {
        int e = 0;
        args[i] = children_[i]->value(vars, e);
        if (err == 0 && e != 0)
            err = e;
    }
    return node_->value(component_, nDiff_, diffDims_, args);
}

Oxel* OxDepVar::dup()
{
    std::vector<Oxel*> copies(static_cast<size_t>(numChildren_));
    for (int i = 0; i < numChildren_; ++i)
        copies[static_cast<size_t>(i)] = children_[i] ? children_[i]->dup() : nullptr;
    return new OxDepVar(node_, component_, nDiff_, diffDims_,
                        numChildren_ > 0 ? copies.data() : nullptr);
}

OxDepVar::~OxDepVar()
{
    for (int i = 0; i < numChildren_; ++i)
        oxelDestroy(children_[i]);
    delete[] children_;
    delete[] diffDims_;
    node_->unref();
}

int OxDepVar::getNumChildren() { return numChildren_; }

Oxel* OxDepVar::getChild(int i)
{
    return i >= 0 && i < numChildren_ ? children_[i] : nullptr;
}

void OxDepVar::setChild(int i, Oxel* child)
{
    if (i >= 0 && i < numChildren_)
        children_[i] = child;
}

int OxDepVar::identify() { return 20; }
const char* OxDepVar::symbol() { return node_->getName(); }
int OxDepVar::count() { return static_cast<int>(std::strlen(node_->getName())); }

// Only the name: component, arguments and derivative marks do not show in the text.
int OxDepVar::print(char* buf) { return std::sprintf(buf, "%s", node_->getName()); }

namespace {

int occurrences(const int* dims, int n, int d)
{
    int k = 0;
    for (int j = 0; j < n; ++j)
        if (dims[j] == d)
            ++k;
    return k;
}

}  // namespace

// Mixed partial derivatives commute, so directions compare as counts per dimension.
int OxDepVar::operator==(Oxel& other)
{
    if (identify() != other.identify())
        return 0;
    OxDepVar& o = static_cast<OxDepVar&>(other);
    if (node_ != o.node_ || component_ != o.component_ || nDiff_ != o.nDiff_ ||
        numChildren_ != o.numChildren_)
        return 0;
    for (int j = 0; j < nDiff_; ++j) {
        int d = diffDims_[j];
        if (occurrences(diffDims_, nDiff_, d) != occurrences(o.diffDims_, nDiff_, d))
            return 0;
    }
    for (int i = 0; i < numChildren_; ++i) {
        Oxel* a = children_[i];
        Oxel* b = o.children_[i];
        if (a == b)
            continue;
        if (!a || !b || !(*a == *b))
            return 0;
    }
    return 1;
}
