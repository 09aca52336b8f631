// The extension module oxel._oxel: OxelExpression for Python, scalars and numpy arrays.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <oxel/oxel.h>

namespace py = pybind11;
using namespace pybind11::literals;

static_assert(sizeof(int) == sizeof(std::int32_t), "error codes are returned as int32 arrays");

namespace {

// oxel.ParseError, created when the module loads.
struct ParseErrorTag { };
py::handle parseErrorType;

// The offset of a parse failure where the library reports one; None otherwise.
template <class E>
auto errorOffset(E& e, int) -> decltype(static_cast<long>(e.lastErrorOffset()), py::object())
{
    long offset = static_cast<long>(e.lastErrorOffset());
    return offset < 0 ? py::object(py::none()) : py::object(py::int_(offset));
}
template <class E> py::object errorOffset(E&, long)
{
    return py::none();
}

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
    explicit PyExpression(Recipe r)
        : recipe_(std::move(r))
        , expr_(new OxelExpression)
    {
        for (const std::string& v : recipe_.variables)
            expr_->addVar(v.c_str());
        for (const auto& a : recipe_.aliases)
            expr_->addVarAlias(a.second.c_str(), a.first.c_str());
        if (!expr_->initFromString(recipe_.text.c_str())) {
            std::string message = expr_->lastError();
            py::object err = parseErrorType(message.empty() ? "the formula is empty" : message);
            err.attr("offset") = errorOffset(*expr_, 0);
            err.attr("text") = recipe_.text;
            PyErr_SetObject(parseErrorType.ptr(), err.ptr());
            throw py::error_already_set();
        }
        declared_ = expr_->numVars() - expr_->numInternalVars();
        for (const auto& s : recipe_.steps) {
            std::unique_ptr<OxelExpression> next(apply(s.first, s.second));
            if (!next)
                throw std::runtime_error(
                    "oxel: cannot rebuild '" + s.first + "' of " + recipe_.text);
            expr_ = std::move(next);
        }
    }

    static PyExpression* create(const std::string& text, const std::vector<std::string>& variables,
        const py::object& aliases)
    {
        Recipe r;
        r.text = text;
        r.variables = variables;
        if (!aliases.is_none())
            for (auto item : py::cast<py::dict>(aliases))
                r.aliases.emplace_back(
                    py::cast<std::string>(item.first), py::cast<std::string>(item.second));
        return new PyExpression(std::move(r));
    }

    // A derived expression: this one's recipe plus one step, or None where the library has none.
    py::object derive(const std::string& op, const std::string& arg)
    {
        std::unique_ptr<OxelExpression> made;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            made.reset(apply(op, arg));
        }
        if (!made)
            return py::none();
        Recipe r = recipe_;
        r.steps.emplace_back(op, arg);
        return py::cast(new PyExpression(std::move(r), std::move(made), declared_),
            py::return_value_policy::take_ownership);
    }

    // The declared variables in index order: the names eval() takes.
    std::vector<std::string> variables() const
    {
        std::vector<std::string> out;
        for (int i = 0; i < declared_; ++i)
            out.emplace_back(expr_->varName(static_cast<unsigned>(i)));
        return out;
    }

    py::dict aliases() const
    {
        py::dict d;
        for (const auto& a : recipe_.aliases)
            d[py::str(a.first)] = a.second;
        return d;
    }

    const std::string& text() const { return recipe_.text; }

    std::string print()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return oxelToString(expr_->root());
    }

    py::tuple eval(const py::kwargs& kw)
    {
        bool arrays = false;
        py::module_ np = py::module_::import("numpy");
        std::vector<py::object> given = arguments(np, kw, arrays);
        return arrays ? evalArrays(np, given) : evalScalars(given);
    }

    // The values of eval()'s keywords in variable order; arrays: one of them is an array.
    std::vector<py::object> arguments(py::module_& np, const py::kwargs& kw, bool& arrays) const
    {
        std::vector<py::object> given(static_cast<size_t>(declared_));
        for (auto item : kw) {
            std::string name = py::cast<std::string>(item.first);
            int i = expr_->varIndex(name.c_str());
            if (i < 0 || i >= declared_)
                throw py::type_error("eval() got a value for '" + name
                    + "', which is not a variable of this expression");
            if (given[static_cast<size_t>(i)])
                throw py::type_error("eval() got two values for variable '"
                    + std::string(expr_->varName(static_cast<unsigned>(i))) + "'");
            given[static_cast<size_t>(i)] = py::reinterpret_borrow<py::object>(item.second);
        }
        for (int i = 0; i < declared_; ++i) {
            if (!given[static_cast<size_t>(i)])
                throw py::type_error("eval() is missing a value for variable '"
                    + std::string(expr_->varName(static_cast<unsigned>(i))) + "'");
            if (py::cast<int>(np.attr("ndim")(given[static_cast<size_t>(i)])) > 0)
                arrays = true;
        }
        return given;
    }

    // The inputs broadcast, each one contiguous float64 column, and their common shape.
    struct Columns {
        std::vector<py::array_t<double, py::array::c_style | py::array::forcecast>> arrays;
        py::object shape;
    };
    static Columns columnsOf(py::module_& np, const std::vector<py::object>& given)
    {
        py::tuple broadcast = np.attr("broadcast_arrays")(*py::cast(given));
        Columns c;
        for (auto a : broadcast)
            c.arrays.emplace_back(np.attr("ascontiguousarray")(a, "dtype"_a = "float64"));
        c.shape = broadcast[0].attr("shape");
        return c;
    }

    // The value and its derivatives by names, under the lock that derivatives need.
    std::unique_ptr<OxelGradient> gradient(const std::vector<std::string>& names, int order)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return expr_->gradient(names, order);
    }

    const OxelExpression& expression() const { return *expr_; }

    Recipe state() const { return recipe_; }
    static PyExpression* fromState(Recipe r) { return new PyExpression(std::move(r)); }

private:
    PyExpression(Recipe r, std::unique_ptr<OxelExpression> e, int declared)
        : recipe_(std::move(r))
        , expr_(std::move(e))
        , declared_(declared)
    {
    }

    OxelExpression* apply(const std::string& op, const std::string& arg)
    {
        if (op == "derivative")
            return expr_->derivative(arg.c_str());
        if (op == "simplified")
            return expr_->simplified();
        if (op == "simplified_fully")
            return expr_->simplifiedFully();
        throw py::value_error("oxel: unknown step '" + op + "'");
    }

    py::tuple evalScalars(const std::vector<py::object>& given)
    {
        KxDArray<double> values;
        int err = 0;
        double r;
        values.setLength(expr_->numVars()); // internal variables start at 0
        for (int i = 0; i < declared_; ++i)
            values[i] = py::cast<double>(given[static_cast<size_t>(i)]);
        r = expr_->eval(values, err);
        return py::make_tuple(r, err);
    }

    // Broadcasts the inputs, lays each out as one contiguous float64 column and evaluates all
    // rows through the column batch with the interpreter lock released.
    py::tuple evalArrays(py::module_& np, const std::vector<py::object>& given)
    {
        Columns prepared = columnsOf(np, given);
        const auto& columns = prepared.arrays;
        py::object shape = prepared.shape;
        py::array_t<double> results(py::cast<std::vector<py::ssize_t>>(shape));
        // Zero-mapped by numpy.zeros: the batch writes only the rows that fail, so the pages
        // of an error-free result are never touched.
        py::array_t<std::int32_t> errors = np.attr("zeros")(shape, "dtype"_a = "int32");
        const py::ssize_t total = results.size();
        std::vector<const double*> base;
        for (auto& c : columns)
            base.push_back(c.data());
        double* out = results.mutable_data();
        int* codes = reinterpret_cast<int*>(errors.mutable_data());
        int status = 0;
        {
            // Evaluation needs no lock: the library lets threads share an expression.
            py::gil_scoped_release released;
            // Internal variables get null columns, which read as 0.
            std::vector<const double*> cols(static_cast<size_t>(expr_->numVars()), nullptr);
            for (py::ssize_t start = 0; start < total && status == 0;) {
                int n = static_cast<int>(std::min<py::ssize_t>(total - start, INT_MAX));
                for (size_t i = 0; i < base.size(); ++i)
                    cols[i] = base[i] + start;
                status = expr_->evalBatchColumns(cols.data(), n, out + start, codes + start, true);
                start += n;
            }
        }
        if (status != 0)
            throw std::runtime_error("oxel: batch evaluation refused its arguments");
        return py::make_tuple(results, errors);
    }

    Recipe recipe_;
    std::unique_ptr<OxelExpression> expr_;
    int declared_ = 0;
    std::mutex mutex_; // derivatives and printing format number nodes: one thread at a time
};

#include "gradient.h"

} // namespace

PYBIND11_MODULE(_oxel, m)
{
    m.doc() = "liboxel formulas for Python: parse once, evaluate over scalars or numpy arrays";

    static py::exception<ParseErrorTag> parseError(m, "ParseError", PyExc_ValueError);
    parseError.attr("__doc__")
        = "The formula text does not parse. args[0] is the library's message, offset the "
          "position of the failure in the text (None where the library does not report one) "
          "and text the formula.";
    parseError.attr("__module__") = "oxel"; // shown as oxel.ParseError
    parseError.attr("offset") = py::none();
    parseError.attr("text") = py::none();
    parseErrorType = parseError;

    m.def("error_message", &vOxError, "code"_a,
        "Text of an evaluation error code ('Unknown' for codes the library does not know).");

    py::class_<PyExpression> cls(m, "Expression", R"(A formula over named variables.

Expression(text, variables=[...], aliases={alias: variable}) parses text; a text that does
not parse raises oxel.ParseError (a ValueError). eval(**values) evaluates it: Python numbers
give (float, int), numpy arrays (broadcast with numbers) a float64 array of values and an
int32 array of error codes (0 where evaluation succeeded).)");
    cls.attr("__module__") = "oxel"; // pickles refer to oxel.Expression
    cls.def(py::init(&PyExpression::create), "text"_a, "variables"_a = std::vector<std::string>(),
           "aliases"_a = py::none())
        .def("eval", &PyExpression::eval,
            "eval(**values) -> (value, error_code), element-wise over numpy arrays")
        .def(
            "derivative",
            [](PyExpression& e, const std::string& var) { return e.derive("derivative", var); },
            "var"_a,
            "Partial derivative by a variable or alias (not simplified); None where none exists.")
        .def(
            "simplified", [](PyExpression& e) { return e.derive("simplified", ""); },
            "One simplification pass, as a new expression.")
        .def(
            "simplified_fully", [](PyExpression& e) { return e.derive("simplified_fully", ""); },
            "Simplification repeated until the printed text stops changing.")
        .def_property_readonly(
            "variables", &PyExpression::variables, "The declared variables, in index order.")
        .def_property_readonly("aliases", &PyExpression::aliases, "{alias: variable}")
        .def_property_readonly(
            "text", &PyExpression::text, "The text this expression was parsed from.")
        .def("__str__", &PyExpression::print)
        .def("__repr__",
            [](PyExpression& e) {
                return "<oxel.Expression " + py::repr(py::str(e.print())).cast<std::string>() + ">";
            })
        .def(py::pickle(
            [](const PyExpression& e) {
                Recipe r = e.state();
                return py::make_tuple(r.text, r.variables, r.aliases, r.steps);
            },
            [](py::tuple t) {
                Recipe r;
                r.text = t[0].cast<std::string>();
                r.variables = t[1].cast<std::vector<std::string>>();
                r.aliases = t[2].cast<std::vector<std::pair<std::string, std::string>>>();
                r.steps = t[3].cast<std::vector<std::pair<std::string, std::string>>>();
                return PyExpression::fromState(std::move(r));
            }));
    bindGradient(m, cls);
}
