// The normal form: trees read into canonical sums, products and powers (oxelNormalized).
#include "algebra/normal.h"

#include <algorithm>
#include <charconv>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <typeinfo>

#include <oxel/nodes.h>
#include <oxel/printing.h>

#include "core/deep.h"

namespace oxnf {

namespace {

std::string numberKey(double v)
{
    v += 0.0;  // -0 and 0 are one number here
    char buf[40];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, res.ptr);
}

// Keys stay short however deep the term: a long one keeps its head for the order and a hash
// of the rest (two independent 64-bit hashes) for equality.
void bounded(std::string& key)
{
    if (key.size() <= 160)
        return;
    uint64_t a = 1469598103934665603ull, b = 0x9e3779b97f4a7c15ull;
    for (unsigned char c : key) {
        a = (a ^ c) * 1099511628211ull;
        b = (b + c) * 0xff51afd7ed558ccdull;
        b ^= b >> 29;
    }
    char tail[40];
    std::snprintf(tail, sizeof tail, "~%016llx%016llx", static_cast<unsigned long long>(a),
                  static_cast<unsigned long long>(b));
    key = key.substr(0, 80) + tail;
}

bool integral(double v) { return std::isfinite(v) && v == std::floor(v); }

bool subnormal(double v) { return v != 0 && std::fabs(v) < DBL_MIN; }

// Whether r, folded from a and b, keeps their values: no overflow or NaN from finite operands,
// and no subnormal (or, for a product, zero) from normal ones. Otherwise the operands stay
// apart, so that the normal form never fails where the formula does not.
bool keeps(double r, double a, double b, bool product)
{
    if (std::isnan(r))
        return !std::isfinite(a) || !std::isfinite(b);
    if (std::isinf(r))
        return std::isinf(a) || std::isinf(b);
    if (subnormal(r) || (product && r == 0 && a != 0 && b != 0))
        return subnormal(a) || subnormal(b);
    return true;
}


// Terms that this thread's normal form may still make (null: unbounded); past it, TooLarge.
thread_local long* termsLeft = nullptr;
struct TooLarge {};

E make(Term t)
{
    if (termsLeft && --*termsLeft < 0)
        throw TooLarge();
    return std::make_shared<const Term>(std::move(t));
}

// A sum or product whose operands must keep their order keeps it; others sort by key.
template <class Pairs>
void canonicalOrder(Pairs& list, bool ordered)
{
    if (!ordered)
        std::stable_sort(list.begin(), list.end(),
                         [](const auto& a, const auto& b) { return a.first->key < b.first->key; });
}

E makeSum(double constant, std::vector<std::pair<E, double>> terms, bool ordered)
{
    canonicalOrder(terms, ordered);
    Term t;
    t.kind = Kind::Sum;
    t.num = constant;
    t.ordered = ordered;
    t.key = "+(";
    for (const auto& [term, c] : terms)
        t.key += numberKey(c) + "*" + term->key + ";";
    t.key += numberKey(constant) + ")";
    bounded(t.key);
    t.terms = std::move(terms);
    return make(std::move(t));
}

// coefficient * factors with nothing left to fold; one bare factor is that factor.
E makeProd(double coefficient, std::vector<std::pair<E, E>> factors, bool ordered)
{
    if (factors.empty())
        return number(coefficient);
    if (coefficient == 1 && factors.size() == 1 && isNum(factors[0].second) &&
        factors[0].second->num == 1)
        return factors[0].first;
    canonicalOrder(factors, ordered);
    Term t;
    t.kind = Kind::Prod;
    t.num = coefficient;
    t.ordered = ordered;
    t.key = "*(" + numberKey(coefficient);
    for (const auto& [base, exponent] : factors)
        t.key += ";" + base->key + "^" + exponent->key;
    t.key += ")";
    bounded(t.key);
    t.factors = std::move(factors);
    return make(std::move(t));
}

// The term without its numeric coefficient.
E monic(const E& e)
{
    if (e->kind != Kind::Prod || e->num == 1)
        return e;
    return makeProd(1, e->factors, e->ordered);
}

double gcd(double a, double b)
{
    a = std::fabs(a);
    b = std::fabs(b);
    while (b != 0) {
        double r = std::fmod(a, b);
        a = b;
        b = r;
    }
    return a;
}

// The numeric content of a sum: the gcd of integer coefficients, signed so that the first
// term's coefficient turns positive; (2*x - 2*y) is 2*(x - y), and (y - x) is -(x - y).
double content(const E& sum)
{
    double g = 0;
    bool whole = integral(sum->num) && std::fabs(sum->num) < 9e15;
    for (const auto& part : sum->terms)
        whole = whole && integral(part.second) && std::fabs(part.second) < 9e15;
    if (whole) {
        g = gcd(sum->num, 0);
        for (const auto& part : sum->terms)
            g = gcd(g, part.second);
    }
    if (g == 0)
        g = 1;
    return sum->terms.front().second < 0 ? -g : g;
}

// Pairs with equal keys as one, at the first one's place, their values combined where combine
// agrees; a number kept apart from its fellows (keeps) is never combined.
template <class V, class Combine>
std::vector<std::pair<E, V>> mergedByKey(const std::vector<std::pair<E, V>>& list, Combine combine)
{
    std::vector<std::pair<E, V>> merged;
    std::map<std::string, size_t> seen;
    for (const auto& [e, v] : list) {
        auto it = seen.find(e->key);
        if (e->kind == Kind::Num) {
            merged.emplace_back(e, v);
        } else if (it == seen.end()) {
            seen.emplace(e->key, merged.size());
            merged.emplace_back(e, v);
        } else if (!combine(merged[it->second].second, v)) {
            merged.emplace_back(e, v);
        }
    }
    return merged;
}

E scaled(const E& sum, double g)
{
    std::vector<std::pair<E, double>> terms = sum->terms;
    for (auto& part : terms)
        part.second /= g;
    return makeSum(sum->num / g, std::move(terms), sum->ordered);
}

}  // namespace

bool keptApart(const std::vector<std::pair<E, double>>& terms)
{
    std::map<std::string, int> seen;
    for (const auto& term : terms)
        if (++seen[term.first->key] > 1)
            return true;
    return false;
}

bool isNum(const E& e, double* v)
{
    if (e->kind != Kind::Num)
        return false;
    if (v)
        *v = e->num;
    return true;
}

E number(double v)
{
    Term t;
    t.kind = Kind::Num;
    t.num = v;
    t.key = "#" + numberKey(v);
    return make(std::move(t));
}

std::vector<std::pair<E, E>> commonFactors(const std::vector<std::pair<E, double>>& terms,
                                           const std::vector<size_t>& members)
{
    auto factorsOf = [&](size_t i) {
        const E& t = terms[i].first;
        return t->kind == Kind::Prod ? t->factors : std::vector<std::pair<E, E>>{{t, number(1)}};
    };
    std::vector<std::pair<E, E>> common;
    for (const auto& [base, exponent] : factorsOf(members[0])) {
        double k;
        if (!isNum(exponent, &k))
            continue;
        bool shared = true;
        for (size_t m = 1; m < members.size() && shared; ++m) {
            shared = false;
            for (const auto& [b, x] : factorsOf(members[m])) {
                double j;
                if (b->key == base->key && isNum(x, &j) && (j > 0) == (k > 0)) {
                    shared = true;
                    k = std::fabs(j) < std::fabs(k) ? j : k;
                }
            }
        }
        if (shared && !(base->kind == Kind::Sum && k == 1))
            common.emplace_back(base, number(k));
    }
    return common;
}

E reducedSum(const std::vector<std::pair<E, double>>& terms, const std::vector<size_t>& members,
             const std::vector<std::pair<E, E>>& common)
{
    std::vector<E> divisor;
    for (const auto& [base, exponent] : common)
        divisor.push_back(power(base, exponent));
    std::vector<std::pair<E, double>> parts;
    for (size_t m : members)
        parts.emplace_back(mul({terms[m].first}, divisor), terms[m].second);
    return add(parts);
}

E add(const std::vector<std::pair<E, double>>& parts)
{
    double constant = 0;
    bool ordered = false;
    std::vector<std::pair<E, double>> list;
    // A product with one sum in it is multiplied out into the terms, where like terms meet:
    // u'/v - u*v'/v^2 rather than (u'*v - u*v')/v^2. Alone it stays a product, and so does a
    // sum of more than 32 terms (multiplying out nested ones, a Horner scheme, say, would
    // take time quadratic in the depth).
    std::function<void(const E&, double)> push = [&](const E& e, double c) {
        ordered = ordered || e->ordered;
        if (e->kind != Kind::Prod) {
            list.emplace_back(e, c);
            return;
        }
        if (!keeps(c * e->num, c, e->num, true)) {  // the factor c stays in the term
            E kept = mul({number(c), e});
            list.emplace_back(monic(kept), kept->num);
            return;
        }
        size_t sums = 0, at = 0;
        for (size_t i = 0; i < e->factors.size(); ++i) {
            double k;
            if (e->factors[i].first->kind == Kind::Sum && isNum(e->factors[i].second, &k) && k == 1)
                ++sums, at = i;
        }
        if (sums != 1 || e->ordered || e->factors[at].first->terms.size() > 32) {
            list.emplace_back(monic(e), c * e->num);
            return;
        }
        std::vector<std::pair<E, E>> rest = e->factors;
        E sum = rest[at].first;
        rest.erase(rest.begin() + static_cast<long>(at));
        E others = makeProd(1, rest, false);
        for (const auto& [t, k] : sum->terms)
            push(mul({others, t}), c * e->num * k);
        if (sum->num != 0)
            push(others, c * e->num * sum->num);
    };
    // A constant that would not keep its value stays a term of its own: 1 times the number.
    auto addConstant = [&](double c, double k) {
        double v = c * k;
        if (keeps(v, c, k, true) && keeps(constant + v, constant, v, false))
            constant += v;
        else
            push(mul({number(c), number(k)}), 1);
    };
    for (const auto& [e, c] : parts) {
        if (e->kind == Kind::Num) {
            addConstant(c, e->num);
        } else if (e->kind == Kind::Sum) {
            addConstant(c, e->num);
            for (const auto& [t, k] : e->terms)
                keeps(c * k, c, k, true) ? push(t, c * k) : push(mul({number(c), t}), k);
        } else {
            push(e, c);
        }
    }
    // Like terms, first occurrence first; coefficients whose sum would not keep its value stay
    // apart.
    auto merged = mergedByKey(list, [](double& c, double more) {
        if (!keeps(c + more, c, more, false))
            return false;
        c += more;
        return true;
    });
    merged.erase(std::remove_if(merged.begin(), merged.end(),
                                [](const auto& p) { return p.second == 0; }),
                 merged.end());
    if (merged.empty())
        return number(constant);
    if (merged.size() == 1 && constant == 0)
        return mul({number(merged[0].second), merged[0].first});
    // What every term shares comes out: x*y + x*z is x*(y + z); not from like terms kept apart,
    // whose coefficients would meet again in the sum that remains.
    if (constant == 0 && !ordered && !keptApart(merged)) {
        std::vector<size_t> all(merged.size());
        for (size_t i = 0; i < all.size(); ++i)
            all[i] = i;
        std::vector<std::pair<E, E>> common = commonFactors(merged, all);
        if (!common.empty()) {
            std::vector<E> parts{reducedSum(merged, all, common)};
            for (const auto& [base, exponent] : common)
                parts.push_back(power(base, exponent));
            return mul(parts);
        }
    }
    return makeSum(constant, std::move(merged), ordered);
}

namespace {

// The product of nums over the product of dens, as N / D when that keeps its value (keeps);
// otherwise one at a time, and those that would not keep it become factors of their own
// (x*1e200*1e200 is not 1e400*x, which overflows where x*1e200*1e200 does not).
double foldNumbers(const std::vector<double>& nums, const std::vector<double>& dens,
                   std::vector<std::pair<E, E>>& apart)
{
    bool whole = true;
    auto product = [&](const std::vector<double>& list) {
        double p = 1;
        for (double v : list) {
            whole = whole && keeps(p * v, p, v, true);
            p *= v;
        }
        return p;
    };
    double n = product(nums), d = product(dens);
    if (whole && keeps(n / d, n, d, true))
        return n / d;
    double c = 1;
    for (double v : nums) {
        if (keeps(c * v, c, v, true))
            c *= v;
        else
            apart.emplace_back(number(v), number(1));
    }
    for (double v : dens) {
        if (keeps(c / v, c, v, true))
            c /= v;
        else
            apart.emplace_back(number(v), number(-1));
    }
    return c;
}

}  // namespace

E mul(const std::vector<E>& num, const std::vector<E>& den)
{
    double n = 1, d = 1;
    bool ordered = false;
    std::vector<std::pair<E, E>> list;
    auto factor = [&](const E& base, const E& exponent) {
        double k;
        if (base->kind == Kind::Sum && isNum(exponent, &k) && integral(k)) {
            double g = content(base);
            if (g != 1) {
                (k > 0 ? n : d) *= std::pow(g, std::fabs(k));
                list.emplace_back(scaled(base, g), exponent);
                return;
            }
        }
        list.emplace_back(base, exponent);
    };
    std::vector<double> nums, dens;  // the numbers, folded below
    auto take = [&](const E& e, bool inverse) {
        ordered = ordered || e->ordered;
        if (e->kind == Kind::Num) {
            (inverse ? dens : nums).push_back(e->num);
        } else if (e->kind == Kind::Prod) {
            (inverse ? dens : nums).push_back(e->num);
            for (const auto& [base, exponent] : e->factors)
                factor(base, inverse ? mul({number(-1), exponent}) : exponent);
        } else {
            factor(e, number(inverse ? -1 : 1));
        }
    };
    for (const E& e : num)
        take(e, false);
    for (const E& e : den)
        take(e, true);
    nums.push_back(n);
    dens.push_back(d);
    std::vector<std::pair<E, E>> apart;  // numbers that do not fold (keeps)
    double c = foldNumbers(nums, dens, apart);
    if (c == 0)
        return number(0);
    // Equal bases: one power with the summed exponent.
    auto merged = mergedByKey(list, [](E& x, const E& more) {
        x = add({{x, 1}, {more, 1}});
        return true;
    });
    std::vector<std::pair<E, E>> factors;
    for (auto& f : merged) {
        double k;
        if (isNum(f.second, &k) && k == 0)
            continue;
        if (f.first->kind == Kind::Num && isNum(f.second, &k) && integral(k)) {
            double p = std::pow(f.first->num, k);  // pow(2, 3) and the like, folded
            if (keeps(p, f.first->num, k, true) && keeps(c * p, c, p, true)) {
                c *= p;
                continue;
            }
        }
        factors.push_back(std::move(f));
    }
    if (c == 0)  // a power of 0 folded in above: 0/u is 0 here as it is when read back
        return number(0);
    factors.insert(factors.end(), apart.begin(), apart.end());
    // A number times one sum is distributed over it: 2*(x + y) is 2*x + 2*y.
    double one;
    if (c != 1 && factors.size() == 1 && factors[0].first->kind == Kind::Sum &&
        isNum(factors[0].second, &one) && one == 1)
        return add({{factors[0].first, c}});
    return makeProd(c, std::move(factors), ordered);
}

E power(const E& base, const E& exponent)
{
    double k, b;
    if (isNum(exponent, &k)) {
        if (k == 0)
            return number(1);
        if (k == 1)
            return base;
        if (isNum(base, &b) && integral(k) && std::fabs(k) <= 64) {
            double r = std::pow(b, k);
            if (std::isfinite(r) && r != 0 && keeps(r, b, k, true))
                return number(r);
        }
        // (u*v)^k is u^k * v^k, and (u^a)^k is u^(a*k), for whole k only: sqrt(x*x) is no x.
        // Odd roots of whole powers are real everywhere: cbrt(u^a) is u^(a/3).
        bool oddRoot = base->kind == Kind::Prod && base->num == 1 && base->factors.size() == 1 &&
                       isNum(base->factors[0].second, &b) && integral(b) && thirds(k);
        if (oddRoot)
            return power(base->factors[0].first, number(b * k));
        if (base->kind == Kind::Prod && integral(k)) {
            std::vector<E> parts{number(std::pow(base->num, k))};
            for (const auto& [u, a] : base->factors)
                parts.push_back(power(u, mul({a, exponent})));
            return mul(parts);
        }
    } else if (isNum(base, &b) && b == 1) {
        return number(1);
    }
    return makeProd(1, {{base, exponent}}, base->ordered || exponent->ordered);
}

namespace {

// Nodes without algebra of their own: the node with its operands normalized. Assignments and
// random sources pin the order of whatever holds them; two draws are never one term.
E opaque(Oxel* node, int& draws)
{
    Term t;
    t.kind = Kind::Call;
    t.node = node;
    const std::type_info& type = typeid(*node);
    bool random = type == typeid(OxRand) || type == typeid(OxGauss);
    auto* var = dynamic_cast<OxVar*>(node);
    t.ordered = random || (var && var->bound());
    t.key = var && !var->bound() ? std::string(var->name().c_str()) : type.name();
    if (auto* dep = dynamic_cast<OxDepVar*>(node)) {
        t.key += std::string(dep->node()->getName()) + "[" + std::to_string(dep->component()) +
                 "]d" + std::to_string(dep->nDiff());
        for (int i = 0; i < dep->nDiff(); ++i)
            t.key += "," + std::to_string(dep->diffDims()[i]);
    }
    if (random)
        t.key += "#" + std::to_string(draws++);
    bool numeric = node->getNumChildren() > 0;
    t.key += "(";
    for (int i = 0; i < node->getNumChildren(); ++i) {
        Oxel* child = node->getChild(i);
        if (!child) {  // kept whole, as it is
            t.args.clear();
            numeric = false;
            t.key += "?" + oxelToString(node);
            break;
        }
        E arg = fromTree(child);
        numeric = numeric && arg->kind == Kind::Num;
        t.ordered = t.ordered || arg->ordered;
        t.key += arg->key + ",";
        t.args.push_back(std::move(arg));
    }
    t.key += ")";
    bounded(t.key);
    E e = make(std::move(t));
    // A function of numbers whose value is whole folds: sin(0) is 0, sqrt(4) is 2; ln(2) stays.
    // So do infinities and NaN, which print as such functions of numbers.
    if (numeric && !var && type != typeid(OxBranch) && !dynamic_cast<OxDepVar*>(node)) {
        Oxel* tree = toTree(e);
        int err = 0;
        double v = tree ? tree->value(nullptr, err) : 0;
        oxelDestroy(tree);
        if (tree && err == 0 && ((integral(v) && std::fabs(v) < 1e15) || !std::isfinite(v)))
            return number(v);
    }
    return e;
}

thread_local int draws = 0;

}  // namespace

namespace {

bool isBinary(Oxel* node, const std::type_info& type)
{
    return typeid(*node) == type && node->getChild(0) && node->getChild(1);
}

// The operands of a chain of + and - (or of * and /) with their signs (or sides), walked
// without recursion: a sum of ten thousand terms is one sum, built once.
void chainOperands(Oxel* root, bool sum, std::vector<std::pair<Oxel*, bool>>& out)
{
    const std::type_info& same = sum ? typeid(OxPlus) : typeid(OxMal);
    const std::type_info& flip = sum ? typeid(OxMinus) : typeid(OxDurch);
    std::vector<std::pair<Oxel*, bool>> todo{{root, false}};
    while (!todo.empty()) {
        auto [node, flipped] = todo.back();
        todo.pop_back();
        if (isBinary(node, same) || isBinary(node, flip)) {
            todo.emplace_back(node->getChild(1), flipped != isBinary(node, flip));
            todo.emplace_back(node->getChild(0), flipped);
        } else {
            out.emplace_back(node, flipped);
        }
    }
}

}  // namespace

E fromTree(Oxel* node)
{
    if (isBinary(node, typeid(OxPlus)) || isBinary(node, typeid(OxMinus))) {
        std::vector<std::pair<Oxel*, bool>> operands;
        chainOperands(node, true, operands);
        std::vector<std::pair<E, double>> parts;
        for (const auto& [o, minus] : operands)
            parts.emplace_back(fromTree(o), minus ? -1 : 1);
        return add(parts);
    }
    if (isBinary(node, typeid(OxMal)) || isBinary(node, typeid(OxDurch))) {
        std::vector<std::pair<Oxel*, bool>> operands;
        chainOperands(node, false, operands);
        std::vector<E> num, den;
        for (const auto& [o, divisor] : operands)
            (divisor ? den : num).push_back(fromTree(o));
        return mul(num, den);
    }
    const std::type_info& type = typeid(*node);
    Oxel* a = node->getNumChildren() > 0 ? node->getChild(0) : nullptr;
    Oxel* b = node->getNumChildren() > 1 ? node->getChild(1) : nullptr;
    bool two = a && b && dynamic_cast<OxBinary*>(node);
    if (auto* z = dynamic_cast<OxZahl*>(node)) {
        // The constant of log10's derivative reads as what it is.
        static OxLn* ln10 = new OxLn(new OxZahl(10));
        return z->number() == std::log(10.0) ? opaque(ln10, draws) : number(z->number());
    }
    if (two && type == typeid(OxHoch))
        return power(fromTree(a), fromTree(b));
    if (a && type == typeid(OxSqroot))
        return power(fromTree(a), number(0.5));
    if (a && type == typeid(OxCbroot))
        return power(fromTree(a), number(1.0 / 3));
    return opaque(node, draws);
}

// Only moderate exponents count: far beyond 2^53 every double is whole, and whether a huge n
// divides by 3 is an accident of rounding that a second normalization would see otherwise.
bool thirds(double k)
{
    double n = std::nearbyint(k * 3);
    return std::fabs(k) < 1e6 && std::fabs(k * 3 - n) < 1e-12 && std::fmod(n, 3) != 0;
}

}  // namespace oxnf

// Terms beyond one per node of the tree come from the node budget: multiplying out can grow
// without bound, and is refused (null) when it would pass the budget.
Oxel* oxelNormalized(Oxel* tree)
{
    if (!tree)
        return nullptr;
    Oxel* out = nullptr;
    // Reading, writing back and releasing the terms recurse a few frames per level; the term
    // budget lives on the thread that does the work.
    oxs::withStackFor(4 * oxelDepth(tree), [&] {
        oxnf::draws = 0;
        struct Scope {  // the count ends with this call however it ends
            long left;
            explicit Scope(long n) : left(n) { oxnf::termsLeft = &left; }
            ~Scope() { oxnf::termsLeft = nullptr; }
        } scope(oxelNodeCount(tree) + oxelNodeBudget());
        try {
            oxnf::E e = oxnf::fromTree(tree);
            oxnf::termsLeft = nullptr;
            out = oxnf::toTree(e);
        } catch (const oxnf::TooLarge&) {
            out = nullptr;
        }
    });
    return out;
}
