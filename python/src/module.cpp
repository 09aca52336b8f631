// The extension module oxel._oxel: OxelExpression for Python, scalars and numpy arrays.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <oxel/oxel.h>

#include "caret.h" // the command-line program shows parse failures the same way

namespace py = pybind11;
using namespace pybind11::literals;

static_assert(sizeof(int) == sizeof(std::int32_t), "error codes are returned as int32 arrays");

namespace {

// oxel.ParseError, created when the module loads; numpy, imported then too.
struct ParseErrorTag { };
py::handle parseErrorType;
py::handle numpy;

// ------------------------------------------------------------------ library messages

// The messages the library hands over on this thread while a Python call parses or
// differentiates; they become the exception of that call instead of output.
struct Captured {
    int kind;
    std::string text;
};
thread_local std::vector<Captured>* capturing = nullptr;

class Capture {
public:
    Capture()
        : outer_(capturing)
    {
        capturing = &messages;
    }
    ~Capture() { capturing = outer_; }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::vector<Captured> messages;

private:
    std::vector<Captured>* outer_;
};

// The handler is process-wide: a thread that is not inside a Python call (a host that embeds
// Python and parses on its own threads) keeps the output it gets without a handler.
void onMessage(int kind, const char* text, void*)
{
    if (capturing) {
        capturing->push_back({ kind, text });
        return;
    }
    if (kind == OXEL_MESSAGE_PARSE_ERROR) {
        std::fprintf(stderr, "Parsing OxError: %s\n", text);
    } else if (kind == OXEL_MESSAGE_IGNORED_CHARACTER) {
        // "ignored character 'c' at offset N" or "... '\xHH' ...": the character itself is echoed.
        const char* c = std::strchr(text, '\'');
        if (!c)
            return;
        if (c[1] == '\\' && c[2] == 'x' && c[5] == '\'')
            std::fputc(
                static_cast<int>(std::strtol(std::string(c + 3, 2).c_str(), nullptr, 16)), stdout);
        else
            std::fputc(static_cast<unsigned char>(c[1]), stdout);
    } else {
        std::printf("%s\n", text);
    }
}

[[noreturn]] void raiseParseError(const std::string& message, long offset, const std::string& text)
{
    OxelCaret c;
    std::string shown = message;
    if (!text.empty() && oxelCaretLines(text, offset, c))
        shown += "\n" + c.lead + c.before + c.line + c.after + "\n" + c.caret + "^";
    py::object err = parseErrorType(shown);
    err.attr("message") = message;
    err.attr("offset") = offset < 0 ? py::object(py::none()) : py::object(py::int_(offset));
    err.attr("text") = text;
    PyErr_SetObject(parseErrorType.ptr(), err.ptr());
    throw py::error_already_set();
}

// A name the lexer reads as one variable name: a letter or '_', then letters, digits and '_',
// and no keyword. The lexer itself decides, so the rule cannot drift from it.
void checkName(const std::string& name, const char* what)
{
    KxDArray<KxString> names;
    if (name.find('\0') == std::string::npos && oxelFormulaNames(name.c_str(), names) == 1
        && name == names[0].c_str())
        return;
    throw py::value_error(py::repr(py::str(name)).cast<std::string>() + " is not a valid " + what
        + ": a name is a letter or '_' followed by letters, digits and '_', and no function "
          "name or keyword");
}

// ------------------------------------------------------------------ expressions

// A per-call array that stays on the stack for the usual handful of variables.
template <class T> class SmallBuffer {
public:
    SmallBuffer(size_t n, T fill)
        : data_(n <= kInline ? inline_ : (heap_.resize(n), heap_.data()))
    {
        std::fill(data_, data_ + n, fill);
    }
    T* data() { return data_; }
    T& operator[](size_t i) { return data_[i]; }

private:
    static constexpr size_t kInline = 16;
    T inline_[kInline];
    std::vector<T> heap_;
    T* data_;
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
    explicit PyExpression(Recipe r)
        : recipe_(std::move(r))
        , expr_(new OxelExpression)
    {
        const std::string& text = recipe_.text;
        size_t nul = text.find('\0');
        if (nul != std::string::npos)
            throw py::value_error(
                "the formula contains a NUL byte at offset " + std::to_string(nul));
        for (const std::string& v : recipe_.variables) {
            checkName(v, "variable name");
            expr_->addVar(v.c_str());
        }
        for (const auto& a : recipe_.aliases) {
            checkName(a.first, "alias");
            checkName(a.second, "variable name");
            expr_->addVarAlias(a.second.c_str(), a.first.c_str());
        }
        Capture capture;
        if (!expr_->initFromString(text.c_str())) {
            std::string message = expr_->lastError();
            raiseParseError(
                message.empty() ? "the formula is empty" : message, expr_->lastErrorOffset(), text);
        }
        for (const Captured& c : capture.messages) {
            // A character the lexer skips would leave a formula that means something else.
            size_t at = c.text.rfind(" at offset ");
            if (c.kind == OXEL_MESSAGE_IGNORED_CHARACTER)
                raiseParseError(c.text,
                    at == std::string::npos ? -1 : std::atol(c.text.c_str() + at + 11), text);
        }
        declared_ = expr_->numVars() - expr_->numInternalVars();
        for (const auto& s : recipe_.steps) {
            std::unique_ptr<OxelExpression> next(apply(s.first, s.second));
            if (!next)
                throw std::runtime_error(
                    "oxel: cannot rebuild '" + s.first + "' of " + recipe_.text);
            expr_ = std::move(next);
        }
        indexNames();
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
        Capture capture;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            made.reset(apply(op, arg));
        }
        // A node without a derivative rule reports itself and stays as it was: no derivative.
        for (const Captured& c : capture.messages)
            if (c.kind == OXEL_MESSAGE_NO_DERIVATIVE_RULE)
                made.reset();
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

    std::string printed(KxString (OxelExpression::*form)() const)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return ((*expr_).*form)().c_str();
    }

    std::string print()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return oxelToString(expr_->root());
    }

    // Plain Python numbers take the short way to the single-point program; anything else goes
    // through numpy, and one value with dimensions makes the call element-wise.
    // The keywords come as the vectorcall protocol hands them over: names in a tuple, values in
    // an array; no dictionary is built on the way.
    py::tuple eval(PyObject* names, PyObject* const* args)
    {
        const int count = expr_->numVars();
        const size_t declared = static_cast<size_t>(declared_);
        SmallBuffer<double> values(
            static_cast<size_t>(count), 0.0); // internal variables start at 0
        SmallBuffer<PyObject*> given(declared, nullptr);
        std::vector<py::object> converted; // numpy conversions, by index, once one is needed
        bool arrays = false;
        const Py_ssize_t n = names ? PyTuple_GET_SIZE(names) : 0;
        for (Py_ssize_t k = 0; k < n; ++k) {
            PyObject* key = PyTuple_GET_ITEM(names, k);
            PyObject* value = args[k];
            PyObject* found = PyDict_GetItemWithError(index_.ptr(), key);
            if (!found) {
                if (PyErr_Occurred())
                    throw py::error_already_set();
                throw py::type_error("eval() got a value for '" + py::cast<std::string>(key)
                    + "', which is not a variable of this expression");
            }
            size_t i = PyLong_AsSize_t(found);
            if (given[i])
                throw py::type_error("eval() got two values for variable '" + varName(i) + "'");
            given[i] = value;
            if (PyFloat_Check(value)) {
                values[i] = PyFloat_AS_DOUBLE(value);
            } else if (PyLong_Check(value)) {
                values[i] = PyLong_AsDouble(value);
                if (values[i] == -1.0 && PyErr_Occurred())
                    throw py::error_already_set();
            } else {
                if (converted.empty())
                    converted.resize(declared);
                converted[i] = realArray(value, i);
                if (converted[i].attr("ndim").cast<int>() > 0)
                    arrays = true;
                else
                    values[i] = converted[i].cast<double>();
            }
        }
        for (size_t i = 0; i < declared; ++i)
            if (!given[i])
                throw py::type_error("eval() is missing a value for variable '" + varName(i) + "'");
        if (arrays) {
            std::vector<py::object> columns;
            for (size_t i = 0; i < declared; ++i)
                columns.push_back(
                    converted[i] ? converted[i] : py::reinterpret_borrow<py::object>(given[i]));
            return evalArrays(columns);
        }
        int err = 0;
        double r = expr_->eval(values.data(), count, err);
        return py::make_tuple(r, err);
    }

    // The values of eval()'s keywords in variable order, checked as eval() checks them (numbers
    // stay Python objects, anything else becomes a real numpy array); arrays: one of them has
    // dimensions.
    std::vector<py::object> arguments(const py::kwargs& kw, bool& arrays) const
    {
        std::vector<py::object> given(static_cast<size_t>(declared_));
        for (auto item : kw) {
            PyObject* found = PyDict_GetItemWithError(index_.ptr(), item.first.ptr());
            if (!found) {
                if (PyErr_Occurred())
                    throw py::error_already_set();
                throw py::type_error("eval() got a value for '" + py::cast<std::string>(item.first)
                    + "', which is not a variable of this expression");
            }
            size_t i = PyLong_AsSize_t(found);
            if (given[i])
                throw py::type_error("eval() got two values for variable '" + varName(i) + "'");
            PyObject* value = item.second.ptr();
            if (PyFloat_Check(value) || PyLong_Check(value)) {
                given[i] = py::reinterpret_borrow<py::object>(item.second);
                continue;
            }
            given[i] = realArray(value, i);
            if (given[i].attr("ndim").cast<int>() > 0)
                arrays = true;
        }
        for (size_t i = 0; i < given.size(); ++i)
            if (!given[i])
                throw py::type_error("eval() is missing a value for variable '" + varName(i) + "'");
        return given;
    }

    // The inputs over their common shape, as float64 columns. An array of that shape serves
    // as it stands where it is contiguous float64; a number (or a 0-d array) becomes a short
    // constant column that every chunk of rows reuses, so that a scalar never costs a whole
    // column of fresh memory; other arrays are broadcast into a column of their own.
    struct Columns {
        std::vector<py::object> arrays;             // the columns made here, kept alive
        std::vector<std::vector<double>> constants; // by input: empty for an array
        std::vector<const double*> base;            // by input: its column or constant
        py::object shape;
        py::ssize_t total = 1;

        // Calls run(cols, start, rows) for consecutive chunks covering every row, cols holding
        // numVars column pointers (internal variables null, read as 0); stops at a nonzero
        // status and returns it. Needs no interpreter lock.
        template <class Run>
        int forChunks(int numVars, Run run) const
        {
            std::vector<const double*> cols(static_cast<size_t>(numVars), nullptr);
            const py::ssize_t chunk = chunkRows();
            int status = 0;
            for (py::ssize_t start = 0; start < total && status == 0;) {
                const int rows = static_cast<int>(std::min(total - start, chunk));
                for (size_t i = 0; i < base.size(); ++i)
                    cols[i] = constants[i].empty() ? base[i] + start : base[i];
                status = run(cols.data(), start, rows);
                start += rows;
            }
            return status;
        }

        py::ssize_t chunkRows() const
        {
            for (const auto& c : constants)
                if (!c.empty())
                    return kConstantRows;
            return INT_MAX;
        }
        // Rows per call when a constant column is reused: 1 MB each, and enough rows for
        // the library to share them among its threads.
        static constexpr py::ssize_t kConstantRows = 1 << 17;
    };
    static Columns columnsOf(const std::vector<py::object>& given)
    {
        py::handle np = numpy;
        py::list shapes;
        for (const auto& g : given)
            shapes.append(np.attr("shape")(g));
        Columns c;
        c.shape = np.attr("broadcast_shapes")(*shapes);
        for (auto d : py::tuple(c.shape))
            c.total *= py::cast<py::ssize_t>(d);
        for (size_t i = 0; i < given.size(); ++i) {
            py::object a = given[i];
            if (np.attr("ndim")(a).cast<int>() == 0) {
                c.constants.emplace_back(
                    static_cast<size_t>(std::min(c.total, Columns::kConstantRows)),
                    py::cast<double>(np.attr("float64")(a)));
                c.base.push_back(c.constants.back().data());
                continue;
            }
            if (!py::object(shapes[i]).equal(c.shape))
                a = np.attr("broadcast_to")(a, c.shape);
            c.constants.emplace_back();
            py::array_t<double, py::array::c_style | py::array::forcecast> column(
                np.attr("ascontiguousarray")(a, "dtype"_a = "float64"));
            c.base.push_back(column.data());
            c.arrays.push_back(std::move(column));
        }
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
        indexNames();
    }

    OxelExpression* apply(const std::string& op, const std::string& arg)
    {
        if (op == "derivative")
            return expr_->derivative(arg.c_str());
        if (op == "simplified")
            return expr_->simplified();
        if (op == "simplified_fully")
            return expr_->simplifiedFully();
        if (op == "normalized")
            return expr_->normalized();
        throw py::value_error("oxel: unknown step '" + op + "'");
    }

    std::string varName(size_t i) const { return expr_->varName(static_cast<unsigned>(i)); }

    // Every name eval() accepts (variables and aliases) to its index in the value vector.
    void indexNames()
    {
        for (int i = 0; i < declared_; ++i)
            index_[py::str(expr_->varName(static_cast<unsigned>(i)))] = i;
        for (const auto& a : recipe_.aliases) {
            int i = expr_->varIndex(a.first.c_str());
            if (i >= 0 && i < declared_)
                index_[py::str(a.first)] = i;
        }
    }

    // A value that is not a plain number, as a numpy array of real numbers.
    py::object realArray(PyObject* value, size_t i) const
    {
        py::object a = numpy.attr("asarray")(py::handle(value));
        char kind = a.attr("dtype").attr("kind").cast<char>();
        if (kind == 'c')
            throw py::type_error("eval() got complex values for variable '" + varName(i)
                + "': the expression is real; pass the real or imaginary part");
        if (kind != 'f' && kind != 'i' && kind != 'u' && kind != 'b')
            throw py::type_error("eval() needs a real number or an array of real numbers for "
                                 "variable '"
                + varName(i) + "', not "
                + py::str(py::type::of(py::handle(value)).attr("__name__")).cast<std::string>());
        return a;
    }

    // Broadcasts the inputs, lays each out as one contiguous float64 column and evaluates all
    // rows through the column batch with the interpreter lock released.
    py::tuple evalArrays(const std::vector<py::object>& given)
    {
        py::handle np = numpy;
        const Columns columns = columnsOf(given);
        py::array_t<double> results(py::cast<std::vector<py::ssize_t>>(columns.shape));
        // Zero-mapped by numpy.zeros: the batch writes only the rows that fail, so the pages
        // of an error-free result are never touched.
        py::array_t<std::int32_t> errors = np.attr("zeros")(columns.shape, "dtype"_a = "int32");
        double* out = results.mutable_data();
        int* codes = reinterpret_cast<int*>(errors.mutable_data());
        int status = 0;
        {
            // Evaluation needs no lock: the library lets threads share an expression.
            py::gil_scoped_release released;
            status = columns.forChunks(expr_->numVars(), [&](const double* const* cols,
                                                             py::ssize_t start, int rows) {
                return expr_->evalBatchColumns(cols, rows, out + start, codes + start, true);
            });
        }
        if (status != 0)
            throw std::runtime_error("oxel: batch evaluation refused its arguments");
        return py::make_tuple(results, errors);
    }

    Recipe recipe_;
    std::unique_ptr<OxelExpression> expr_;
    int declared_ = 0;
    py::dict index_; // what indexNames() gives
    std::mutex mutex_; // derivatives and printing format number nodes: one thread at a time
};

// Expression.eval as a fast-call method: a scalar call costs little more than the library's.
PyObject* evalMethod(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* names)
{
    try {
        if (PyVectorcall_NARGS(nargs) != 0)
            throw py::type_error("eval() takes the variables as keywords only");
        return py::cast<PyExpression&>(py::handle(self)).eval(names, args).release().ptr();
    } catch (py::error_already_set& e) {
        e.restore();
    } catch (py::builtin_exception& e) {
        e.set_error();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
    return nullptr;
}

PyMethodDef evalDef
    = { "eval", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(evalMethod)),
          METH_FASTCALL | METH_KEYWORDS,
          "eval(**values) -> (value, error_code), element-wise over numpy arrays" };

#include "gradient.h"

} // namespace

PYBIND11_MODULE(_oxel, m)
{
    m.doc() = "liboxel formulas for Python: parse once, evaluate over scalars or numpy arrays";

    static py::exception<ParseErrorTag> parseError(m, "ParseError", PyExc_ValueError);
    parseError.attr("__doc__")
        = "The formula text does not parse. message is the library's message, offset the "
          "position of the failure in the text (None where the library does not report one) "
          "and text the formula; str() adds the formula's line with a caret under the offset.";
    parseError.attr("__module__") = "oxel"; // shown as oxel.ParseError
    parseError.attr("message") = py::none();
    parseError.attr("offset") = py::none();
    parseError.attr("text") = py::none();
    parseErrorType = parseError;
    numpy = py::module_::import("numpy").release();

    // Messages become exceptions; the default output comes back when the interpreter exits.
    oxelSetMessageHandler(onMessage, nullptr);
    py::module_::import("atexit").attr("register")(
        py::cpp_function([]() { oxelSetMessageHandler(nullptr, nullptr); }));

    m.def("error_message", &vOxError, "code"_a,
        "Text of an evaluation error code ('Unknown' for codes the library does not know).");

    py::class_<PyExpression> cls(m, "Expression", R"(A formula over named variables.

Expression(text, variables=[...], aliases={alias: variable}) parses text; a text that does
not parse raises oxel.ParseError (a ValueError). eval(**values) evaluates it: Python numbers
give (float, int), numpy arrays (broadcast with numbers) a float64 array of values and an
int32 array of error codes (0 where evaluation succeeded).)");
    cls.attr("__module__") = "oxel"; // pickles refer to oxel.Expression
    cls.attr("eval") = py::reinterpret_steal<py::object>(
        PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(cls.ptr()), &evalDef));
    cls.def(py::init(&PyExpression::create), "text"_a, "variables"_a = std::vector<std::string>(),
           "aliases"_a = py::none())
        .def(
            "derivative",
            [](PyExpression& e, const std::string& var) { return e.derive("derivative", var); },
            "var"_a,
            "Partial derivative by a variable or alias (not simplified); None where none exists\n"
            "(also where a comparison, logic or gauss() node has no derivative rule).")
        .def(
            "simplified", [](PyExpression& e) { return e.derive("simplified", ""); },
            "One simplification pass, as a new expression.")
        .def(
            "simplified_fully", [](PyExpression& e) { return e.derive("simplified_fully", ""); },
            "Simplification repeated until the printed text stops changing.")
        .def(
            "normalized", [](PyExpression& e) { return e.derive("normalized", ""); },
            "The same function in a normal form (like terms collected, powers and quotients\n"
            "folded): equal mathematically, rounding may differ.")
        .def(
            "to_formula", [](PyExpression& e) { return e.printed(&OxelExpression::toFormula); },
            "The formula text that reads back to the same values ('' where there is none).")
        .def(
            "to_c", [](PyExpression& e) { return e.printed(&OxelExpression::toC); },
            "A C99 expression over <math.h> ('' where C cannot express it).")
        .def(
            "to_latex", [](PyExpression& e) { return e.printed(&OxelExpression::toLatex); },
            "Math-mode LaTeX, without the surrounding $.")
        .def(
            "_repr_latex_",
            [](PyExpression& e) -> py::object {
                std::string t = e.printed(&OxelExpression::toLatex);
                return t.empty() ? py::object(py::none()) : py::str("$" + t + "$");
            },
            "LaTeX for notebooks: $...$.")
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
