// OxZahl and OxVar: numeric constants and slots of the value vector.
#include <charconv>
#include <cstdio>
#include <cstring>

#include <oxel/nodes.h>

// ---------------------------------------------------------------- OxZahl

namespace {

// Room for "%.10f" of the largest double: 309 integral digits, point, ten decimals, sign,
// brackets and the terminator.
const int kNumberTextMax = 330;
const int kNumberTextMin = 40;

// Fixed-point text with ten decimals, trailing fractional zeros dropped, negatives bracketed.
// std::to_chars ignores the C locale, so a host running under a comma locale still gets
// text that reads back.
int formatNumber(double v, char* out)
{
    int p = 0;
    if (v < 0)
        out[p++] = '(';
    char* end = out + kNumberTextMax - 2;
    auto res = std::to_chars(out + p, end, v, std::chars_format::fixed, 10);
    int n = static_cast<int>(res.ptr - out);
    if (n > p && out[n - 1] == '0') {
        while (n > p && out[n - 1] == '0')
            --n;
        if (n > p && out[n - 1] == '.')
            --n;
    }
    if (v < 0)
        out[n++] = ')';
    out[n] = '\0';
    return n;
}

}  // namespace

OxZahl::OxZahl(double v) : val_(v), text_(nullptr), textCap_(0) {}

double OxZahl::value(double* /*vars*/, int& /*err*/) const { return val_; }

Oxel* OxZahl::dup() { return new OxZahl(val_); }

OxZahl::~OxZahl() { delete[] text_; }

int OxZahl::identify() { return 13; }

const char* OxZahl::symbol()
{
    char scratch[kNumberTextMax];
    int n = formatNumber(val_, scratch);
    if (n + 1 > textCap_) {
        int cap = n + 1 > kNumberTextMin ? n + 1 : kNumberTextMin;
        char* fresh = new char[static_cast<size_t>(cap)];
        delete[] text_;
        text_ = fresh;
        textCap_ = cap;
    }
    std::memcpy(text_, scratch, static_cast<size_t>(n) + 1);
    return text_;
}

int OxZahl::count() { return static_cast<int>(std::strlen(symbol())); }

int OxZahl::print(char* buf)
{
    const char* s = symbol();
    size_t n = std::strlen(s);
    std::memcpy(buf, s, n + 1);
    return static_cast<int>(n);
}

int OxZahl::vconstant() { return -1; }
int OxZahl::pconstant(const char* /*var*/) { return 1; }

// Exact comparison on purpose: a NaN constant equals nothing, not even itself.
int OxZahl::operator==(Oxel& other)
{
    if (identify() != other.identify())
        return 0;
    int scratch = 0;
    return val_ == other.value(nullptr, scratch);
}

// ---------------------------------------------------------------- OxVar

OxVar::OxVar(int index, const char* name) : index_(index), name_(name), bound_(nullptr) {}

OxVar::OxVar(int index, const char* name, Oxel* bound) : index_(index), name_(name), bound_(bound)
{
}

// A bound variable is an assignment: it stores its expression's value for later readers.
namespace {

// Kept out of line so that reading a plain variable, the commonest node, needs no frame.
__attribute__((noinline)) double assignSlot(Oxel* bound, int index, double* vars, int& err)
{
    vars[index] = bound->value(vars, err);
    return vars[index];
}

}  // namespace

double OxVar::value(double* vars, int& err) const
{
    if (__builtin_expect(bound_ == nullptr, 1))
        return vars[index_];
    return assignSlot(bound_, index_, vars, err);
}

// Copies read the slot only; the assignment itself stays with the original tree.
Oxel* OxVar::dup() { return new OxVar(index_, name_.c_str()); }

OxVar::~OxVar()
{
    oxelDestroy(bound_);
}

int OxVar::getNumChildren() { return bound_ ? 1 : 0; }
Oxel* OxVar::getChild(int i) { return i == 0 ? bound_ : nullptr; }
void OxVar::setChild(int /*i*/, Oxel* child) { bound_ = child; }
int OxVar::identify() { return 12; }
const char* OxVar::symbol() { return name_.c_str(); }
int OxVar::count() { return name_.length(); }

int OxVar::print(char* buf) { return std::sprintf(buf, "%s", name_.c_str()); }

// Never constant, even when bound, so that folding never swallows a variable.
int OxVar::vconstant() { return 0; }

int OxVar::pconstant(const char* var)
{
    if (bound_ && !bound_->pconstant(var))
        return 0;
    return std::strcmp(var, name_.c_str()) != 0;
}

// Variables are the same when they read the same slot; names are only labels.
int OxVar::operator==(Oxel& other)
{
    if (identify() != other.identify())
        return 0;
    return index_ == static_cast<OxVar&>(other).index_;
}
