// The extension module oxel._oxel: oxel.Expression's methods, the version, the thread count.
#include "evaluate.h"

#include <cstdint>
#include <cstring>

namespace py = pybind11;
using namespace pybind11::literals;
using oxpy::live;
using oxpy::PyExpression;

static_assert(sizeof(int) == sizeof(std::int32_t), "error codes are returned as int32 arrays");

namespace {

const char* const kExpression = "oxel.Expression";

PyExpression& expr(py::handle self)
{
    return live<PyExpression>(self, kExpression);
}

// "major.minor.patch" from the library's build record ("|key|value|key|value...").
std::string libraryVersion()
{
    const char* record = orvexpackage_oxel();
    std::string r = record ? record : "", parts[3];
    const char* keys[3] = { "|version_major|", "|version_minor|", "|version_patch|" };
    for (int k = 0; k < 3; ++k) {
        size_t at = r.find(keys[k]);
        if (at != std::string::npos) {
            at += std::strlen(keys[k]);
            parts[k] = r.substr(at, r.find('|', at) - at);
        }
    }
    return parts[0] + "." + parts[1] + "." + parts[2];
}

void bindExpression(py::module_& m)
{
    py::class_<PyExpression> cls(m, "Expression", R"DOC(A formula over named variables.

Expression(text, variables=None, aliases=None) parses text. variables fixes the names and
their order; by default they are the names the text reads, in order of first appearance
(names it assigns, "t = ...", are not variables). aliases maps further names to variables.
A text that does not parse raises oxel.ParseError (a ValueError).

    >>> f = oxel.Expression("x * 2 + y")
    >>> f.variables
    ['x', 'y']
    >>> f.eval(x=1.0, y=0.5)
    (2.5, <Error.NONE: 0>)
)DOC");
    cls.attr("__module__") = "oxel"; // pickles refer to oxel.Expression
    cls.attr("eval") = py::reinterpret_steal<py::object>(
        PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(cls.ptr()), &oxpy::evalDef));
    // Named other than __init__ and __setstate__: pybind11 would skip a second call of those
    // silently, and a second call must fail.
    cls.attr("__init__") = py::cpp_function(
        [](py::handle self, const std::string& text, const py::object& variables,
            const py::object& aliases) {
            if (oxpy::built<PyExpression>(self))
                oxpy::install<PyExpression>(self, nullptr, kExpression); // raises
            oxpy::install(self, PyExpression::create(text, variables, aliases), kExpression);
        },
        py::name("init"), py::is_method(cls), "text"_a, "variables"_a = py::none(),
        "aliases"_a = py::none());
    auto derived = [&cls](const char* name, const char* op, const char* doc) {
        cls.def(
            name, [op](py::handle self) { return expr(self).derive(op, ""); }, doc);
    };
    cls.def(
        "derivative",
        [](py::handle self, const std::string& var) {
            return expr(self).derive("derivative", var);
        },
        "var"_a,
        R"DOC(Partial derivative by a variable or alias (not simplified), as a new Expression:
parts that do not depend on var are an exact 0, never evaluated (so pow(x, 2) by y is 0 with
no code). None where none exists (a comparison, logic or gauss() node depends on var, or the
node budget is exceeded); ValueError for a name that is no variable or alias. The
interpreter lock is released while the library works.

    >>> oxel.Expression("x*x*y").derivative("x").eval(x=2.0, y=1.0)
    (4.0, <Error.NONE: 0>)
)DOC");
    cls.def(
        "derivative_statements",
        [](py::handle self, const std::string& var, bool normalized) {
            return expr(self).statements(var, normalized);
        },
        "var"_a, "normalized"_a = false,
        R"DOC(derivative() as formula text whose shared parts are assignments (t1 = ...;), the
result last: linear in the formula's size where the expanded tree grows with its square (nested
chains). Parsed with the same variables it gives derivative()'s values and codes; with
normalized=True each part is in its normal form on its own. None where no derivative exists;
ValueError for a name that is no variable or alias.

    >>> print(oxel.Expression("exp(exp(x))").derivative_statements("x", normalized=True))
    t1 = exp(x);
    exp(t1) * t1
)DOC");
    derived("simplified", "simplified", R"DOC(One simplification pass, as a new expression.

    >>> str(oxel.Expression("2+3*x*1").simplified())
    '2+3*x'
)DOC");
    derived("simplified_fully", "simplified_fully",
        R"DOC(Simplification repeated until the printed text stops changing.

    >>> str(oxel.Expression("x*1*1 + 0").simplified_fully())
    'x'
)DOC");
    derived("normalized", "normalized",
        R"DOC(The same function in a normal form (like terms collected, powers and quotients
folded): equal mathematically, rounding may differ.

    >>> oxel.Expression("x*y + y*x").normalized().to_formula()
    '2 * x * y'
)DOC");
    auto printed
        = [&cls](const char* name, KxString (OxelExpression::*form)() const, const char* doc) {
              cls.def(
                  name, [form](py::handle self) { return expr(self).printed(form); }, doc);
          };
    printed("to_formula", &OxelExpression::toFormula,
        R"DOC(The formula text that reads back to the same values ('' where there is none).

    >>> oxel.Expression("pow(x, 2)+1").to_formula()
    'pow(x, 2) + 1'
)DOC");
    cls.def(
        "to_c",
        [](py::handle self, const py::object& function) {
            if (function.is_none())
                return expr(self).printed(&OxelExpression::toC);
            std::string text = expr(self).cFunction(function.cast<std::string>());
            if (text.empty())
                throw py::value_error("no C function " + py::repr(function).cast<std::string>()
                    + " can be written: a name that is no C keyword or <math.h> name is needed");
            return text;
        },
        "function"_a = py::none(),
        R"DOC(A C99 expression over <math.h> ('' where C cannot express it); with function=NAME
a whole C function double NAME(double x, ...) taking the variables in declaration order.
Variables named like C keywords or <math.h> names get a trailing '_'.

    >>> oxel.Expression("sqrt(x)/2").to_c()
    'sqrt(x) / 2.0'
)DOC");
    printed("to_latex", &OxelExpression::toLatex, R"DOC(Math-mode LaTeX, without the surrounding $.

    >>> oxel.Expression("sqrt(x)").to_latex()
    '\\sqrt{x}'
)DOC");
    cls.def(
           "_repr_latex_",
           [](py::handle self) -> py::object {
               std::string t = expr(self).printed(&OxelExpression::toLatex);
               return t.empty() ? py::object(py::none()) : py::str("$" + t + "$");
           },
           "LaTeX for notebooks: $...$.")
        .def_property_readonly(
            "variables", [](py::handle self) { return expr(self).variables(); },
            "The declared variables, in index order: the names eval() takes.")
        .def_property_readonly(
            "aliases", [](py::handle self) { return expr(self).aliases(); },
            "The aliases as {alias: variable}: further names that eval() takes for a variable.")
        .def_property_readonly(
            "text", [](py::handle self) { return expr(self).text(); },
            "The text this expression was parsed from.")
        .def(
            "__str__", [](py::handle self) { return expr(self).print(); },
            "The library's own print of the tree.")
        .def(
            "__repr__", [](py::handle self) { return expr(self).repr(); },
            "oxel.Expression('<formula>', variables=[...]): the formula read back.")
        .def("__getstate__", [](py::handle self) {
            const oxpy::Recipe& r = expr(self).recipe();
            return py::make_tuple(r.text, r.variables, r.aliases, r.steps);
        });
    cls.attr("__setstate__") = py::cpp_function(
        [](py::handle self, const py::tuple& t) {
            if (oxpy::built<PyExpression>(self))
                oxpy::install<PyExpression>(self, nullptr, kExpression); // raises
            if (py::len(t) != 4)
                throw py::value_error("oxel.Expression state: (text, variables, aliases, steps)");
            oxpy::Recipe r;
            r.text = t[0].cast<std::string>();
            r.variables = t[1].cast<std::vector<std::string>>();
            r.aliases = t[2].cast<std::vector<std::pair<std::string, std::string>>>();
            r.steps = t[3].cast<std::vector<std::pair<std::string, std::string>>>();
            oxpy::install(self, new PyExpression(std::move(r)), kExpression);
        },
        py::name("setstate"), py::is_method(cls));
    oxpy::bindGradient(m, cls);
}

} // namespace

PYBIND11_MODULE(_oxel, m)
{
    m.doc() = "liboxel formulas for Python: parse once, evaluate over scalars or numpy arrays";
    oxpy::bindMessages(m);
    bindExpression(m);
    m.attr("__version__") = libraryVersion();
    m.def(
        "set_num_threads",
        [](int n) {
            if (n < 0)
                throw py::value_error("set_num_threads() takes a count >= 0 (0: the default)");
            oxelSetBatchThreads(n);
        },
        "n"_a,
        R"DOC(Threads that one large array evaluation may use, process-wide (the calling thread
counts as one); 0 restores the default (the number of cores, at most 8), 1 keeps
evaluation on the calling thread. Results are the same bits whatever the count.

    >>> oxel.set_num_threads(2)
)DOC");
    m.def("get_num_threads", &oxelBatchThreads,
        "The thread count that set_num_threads() sets (the default once reset).");
    m.def(
        "set_node_budget", [](long n) { oxelSetNodeBudget(n); }, "n"_a,
        R"DOC(Nodes that one derivative, gradient or normal form may build, process-wide; beyond
it they give None instead of taking unbounded memory and time. n <= 0 restores the default
(one million).

    >>> oxel.set_node_budget(0)
)DOC");
    m.def("get_node_budget", &oxelNodeBudget, "The node budget that set_node_budget() sets.");
}
