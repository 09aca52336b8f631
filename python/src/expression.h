// oxel.Expression's C++ side: a parsed formula with the recipe that rebuilds it.
#ifndef OXEL_PYTHON_EXPRESSION_H
#define OXEL_PYTHON_EXPRESSION_H

#include "oxpy.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

namespace oxpy {

// A lock that a forked child finds free: the parent may have forked while one of its other
// threads held it (with the interpreter lock released), and that thread is not in the child.
// The first use in a child replaces the inherited lock with a new one.
class ForkFreshMutex {
public:
    ForkFreshMutex();
    void lock() { fresh().lock(); }
    void unlock() { m_.unlock(); }

private:
    std::mutex& fresh();
    std::mutex m_;
    std::atomic<unsigned> generation_;
};

// How an expression came about: the text it was parsed from and the operations applied since,
// so that unpickling rebuilds the very same tree.
struct Recipe {
    std::string text;
    std::vector<std::string> variables;
    std::vector<std::pair<std::string, std::string>> aliases; // alias, variable
    std::vector<std::pair<std::string, std::string>> steps; // operation, argument
};

class PyExpression {
public:
    explicit PyExpression(Recipe r);

    // Expression(text, variables=None, aliases=None): variables default to the names the text
    // reads, in order of appearance.
    static PyExpression* create(
        const std::string& text, const py::object& variables, const py::object& aliases);

    // A derived expression: this one's recipe plus one step, or None where the library has
    // none. The interpreter lock is released while the library works.
    py::object derive(const std::string& op, const std::string& arg);

    // The declared variables in index order: the names eval() takes.
    std::vector<std::string> variables() const;
    py::dict aliases() const;
    const std::string& text() const { return recipe_.text; }
    const Recipe& recipe() const { return recipe_; }

    // A printed form, made with the interpreter lock released.
    std::string printed(KxString (OxelExpression::*form)() const);
    // The partial derivative by var as statements over its shared parts (its parts each in
    // normal form with normalized), with the interpreter lock released; None where it cannot
    // be formed.
    py::object statements(const std::string& var, bool normalized);
    // The formula as a whole C function of the declared variables ('' where there is none).
    std::string cFunction(const std::string& name);
    std::string print();
    // oxel.Expression('<formula>', variables=[...]) where the tree reads back.
    std::string repr();

    // The value and its derivatives by names, with the interpreter lock released; null where
    // a derivative cannot be formed (as derivative() gives None).
    std::unique_ptr<OxelGradient> gradient(const std::vector<std::string>& names, int order);

    const OxelExpression& expression() const { return *expr_; }
    int declared() const { return declared_; }
    // Every name eval() accepts (variables and aliases) to its index in the value vector.
    const py::dict& index() const { return index_; }
    std::string varName(size_t i) const { return expr_->varName(static_cast<unsigned>(i)); }

private:
    PyExpression(Recipe r, std::unique_ptr<OxelExpression> e, int declared);
    OxelExpression* apply(const std::string& op, const std::string& arg);
    void indexNames();

    Recipe recipe_;
    std::unique_ptr<OxelExpression> expr_;
    int declared_ = 0;
    py::dict index_;
    ForkFreshMutex mutex_; // derivatives and printing format number nodes: one thread at a time
};

// Expression.gradient and the class oxel.Gradient (gradient.cpp).
void bindGradient(py::module_& m, py::class_<PyExpression>& expression);

} // namespace oxpy

#endif
