// oxel.Expression: parsing with the default variables, derived expressions, printing.
#include "expression.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

namespace oxpy {

namespace {

// Counts the forks this process came out of as a child; each ForkFreshMutex remembers the
// count it was made (or last replaced) at.
std::atomic<unsigned> forkGeneration{0};
std::mutex renewing; // replaced in the child, which has only the forking thread

const bool forkCounted = [] {
    pthread_atfork(nullptr, nullptr, [] {
        new (&renewing) std::mutex;
        forkGeneration.fetch_add(1);
    });
    return true;
}();

bool knownStep(const std::string& op)
{
    return op == "derivative" || op == "simplified" || op == "simplified_fully"
        || op == "normalized";
}

// The names the text reads, in order of first appearance, with aliases replaced by their
// variables; then any variable an alias names that the text does not read.
std::vector<std::string> namesRead(
    const std::string& text, const std::vector<std::pair<std::string, std::string>>& aliases)
{
    KxDArray<KxString> names;
    KxDArray<int> assigned;
    oxelFormulaNames(text.c_str(), names, &assigned);
    // Hashed: a text of a hundred thousand names stays linear.
    // An alias replaces the name, then any later alias of the result replaces it again.
    std::unordered_map<std::string, std::vector<size_t>> at;
    for (size_t k = 0; k < aliases.size(); ++k)
        at[aliases[k].first].push_back(k);
    auto resolve = [&](std::string n) {
        for (size_t from = 0;;) {
            const auto it = at.find(n);
            if (it == at.end())
                return n;
            const auto k = std::lower_bound(it->second.begin(), it->second.end(), from);
            if (k == it->second.end())
                return n;
            n = aliases[*k].second;
            from = *k + 1;
        }
    };
    std::vector<std::string> out;
    std::unordered_set<std::string> seen;
    auto add = [&](const std::string& n) {
        if (seen.insert(n).second)
            out.push_back(n);
    };
    for (int i = 0; i < names.length(); ++i) {
        if (assigned[i])
            continue;
        add(resolve(names[i].c_str()));
    }
    for (const auto& a : aliases)
        add(a.second);
    return out;
}

} // namespace

ForkFreshMutex::ForkFreshMutex() : generation_(forkGeneration.load()) {}

std::mutex& ForkFreshMutex::fresh()
{
    const unsigned now = forkGeneration.load();
    if (generation_.load(std::memory_order_acquire) != now) {
        std::lock_guard<std::mutex> hold(renewing);
        if (generation_.load(std::memory_order_relaxed) != now) {
            new (&m_) std::mutex;
            generation_.store(now, std::memory_order_release);
        }
    }
    return m_;
}

PyExpression::PyExpression(Recipe r)
    : recipe_(std::move(r))
    , expr_(new OxelExpression)
{
    const std::string& text = recipe_.text;
    size_t nul = text.find('\0');
    if (nul != std::string::npos)
        throw py::value_error("the formula contains a NUL byte at offset " + std::to_string(nul));
    for (const auto& s : recipe_.steps)
        if (!knownStep(s.first))
            throw py::value_error("oxel: unknown step '" + s.first + "'");
    for (const std::string& v : recipe_.variables) {
        checkName(v, "variable name");
        expr_->addVar(v.c_str());
    }
    const std::unordered_set<std::string> declared(recipe_.variables.begin(),
        recipe_.variables.end());
    for (const auto& a : recipe_.aliases) {
        checkName(a.first, "alias");
        checkName(a.second, "variable name");
        if (!declared.count(a.second))
            throw py::value_error("alias '" + a.first + "' refers to '" + a.second
                + "', which is not a declared variable");
        expr_->addVarAlias(a.second.c_str(), a.first.c_str());
    }
    Capture capture;
    if (!expr_->initFromString(text.c_str())) {
        raiseParseError(expr_->lastError(), expr_->lastErrorOffset(), text,
            expr_->lastErrorHint());
    }
    for (const Captured& c : capture.messages) {
        // A character the lexer skips would leave a formula that means something else.
        size_t at = c.text.rfind(" at offset ");
        if (c.kind == OXEL_MESSAGE_IGNORED_CHARACTER)
            raiseParseError(c.text,
                at == std::string::npos ? -1 : std::atol(c.text.c_str() + at + 11), text, "");
    }
    declared_ = expr_->numVars() - expr_->numInternalVars();
    for (const auto& s : recipe_.steps) {
        std::unique_ptr<OxelExpression> next(apply(s.first, s.second));
        if (!next)
            throw std::runtime_error("oxel: cannot rebuild '" + s.first + "' of " + recipe_.text);
        expr_ = std::move(next);
    }
    indexNames();
}

PyExpression::PyExpression(Recipe r, std::unique_ptr<OxelExpression> e, int declared)
    : recipe_(std::move(r))
    , expr_(std::move(e))
    , declared_(declared)
{
    indexNames();
}

PyExpression* PyExpression::create(
    const std::string& text, const py::object& variables, const py::object& aliases)
{
    Recipe r;
    r.text = text;
    if (!aliases.is_none())
        for (auto item : py::cast<py::dict>(aliases))
            r.aliases.emplace_back(
                py::cast<std::string>(item.first), py::cast<std::string>(item.second));
    if (variables.is_none()) {
        r.variables = namesRead(text, r.aliases);
    } else {
        if (py::isinstance<py::str>(variables))
            throw py::type_error("variables must be a list of names, not one str");
        r.variables = variables.cast<std::vector<std::string>>();
    }
    return new PyExpression(std::move(r));
}

py::object PyExpression::derive(const std::string& op, const std::string& arg)
{
    // A misspelt name is the caller's error, as in gradient(); no derivative is None.
    if (op == "derivative" && !index().contains(arg))
        throw py::value_error("derivative() got '" + arg
            + "', which is not a variable or alias of this expression");
    std::unique_ptr<OxelExpression> made;
    {
        py::gil_scoped_release released;
        Capture capture;
        std::lock_guard<ForkFreshMutex> lock(mutex_);
        made.reset(apply(op, arg));
    }
    if (!made)
        return py::none();
    Recipe r = recipe_;
    r.steps.emplace_back(op, arg);
    return py::cast(new PyExpression(std::move(r), std::move(made), declared_),
        py::return_value_policy::take_ownership);
}

std::vector<std::string> PyExpression::variables() const
{
    std::vector<std::string> out;
    for (int i = 0; i < declared_; ++i)
        out.emplace_back(expr_->varName(static_cast<unsigned>(i)));
    return out;
}

py::dict PyExpression::aliases() const
{
    py::dict d;
    for (const auto& a : recipe_.aliases)
        d[py::str(a.first)] = a.second;
    return d;
}

std::string PyExpression::printed(KxString (OxelExpression::*form)() const)
{
    py::gil_scoped_release released;
    std::lock_guard<ForkFreshMutex> lock(mutex_);
    return ((*expr_).*form)().c_str();
}

py::object PyExpression::statements(const std::string& var, bool normalized)
{
    if (!index().contains(var))
        throw py::value_error("derivative_statements() got '" + var
            + "', which is not a variable or alias of this expression");
    std::string text;
    {
        py::gil_scoped_release released;
        Capture capture;
        std::lock_guard<ForkFreshMutex> lock(mutex_);
        text = expr_->partialStatements(var.c_str(), normalized).c_str();
    }
    if (text.empty())
        return py::none();
    return py::str(text);
}

std::string PyExpression::cFunction(const std::string& name)
{
    py::gil_scoped_release released;
    std::lock_guard<ForkFreshMutex> lock(mutex_);
    return expr_->toCFunction(name.c_str()).c_str();
}

std::string PyExpression::print()
{
    py::gil_scoped_release released;
    std::lock_guard<ForkFreshMutex> lock(mutex_);
    return oxelToString(expr_->root());
}

std::string PyExpression::repr()
{
    std::string formula = printed(&OxelExpression::toFormula);
    if (formula.empty())
        return "<oxel.Expression " + py::repr(py::str(print())).cast<std::string>() + ">";
    std::string out = "oxel.Expression(" + py::repr(py::str(formula)).cast<std::string>()
        + ", variables=" + py::repr(py::cast(variables())).cast<std::string>();
    if (!recipe_.aliases.empty())
        out += ", aliases=" + py::repr(aliases()).cast<std::string>();
    return out + ")";
}

std::unique_ptr<OxelGradient> PyExpression::gradient(
    const std::vector<std::string>& names, int order)
{
    py::gil_scoped_release released;
    Capture capture;
    std::lock_guard<ForkFreshMutex> lock(mutex_);
    std::string why;
    return expr_->gradient(names, order, &why);
}

OxelExpression* PyExpression::apply(const std::string& op, const std::string& arg)
{
    // Numerical clients get the mathematical partial: independent parts are an exact 0.
    std::string why;
    if (op == "derivative")
        return expr_->partial(arg.c_str(), &why);
    if (op == "simplified")
        return expr_->simplified();
    if (op == "simplified_fully")
        return expr_->simplifiedFully();
    return expr_->normalized(); // knownStep() admits nothing else
}

void PyExpression::indexNames()
{
    for (int i = 0; i < declared_; ++i)
        index_[py::str(expr_->varName(static_cast<unsigned>(i)))] = i;
    for (const auto& a : recipe_.aliases) {
        int i = expr_->varIndex(a.first.c_str());
        if (i >= 0 && i < declared_)
            index_[py::str(a.first)] = i;
    }
}

} // namespace oxpy
