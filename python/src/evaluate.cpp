// eval(): values by keyword, mapping or DataFrame, out= arrays, the errors= policy.
#include "evaluate.h"

#include <cmath>
#include <cstdint>
#include <stdexcept>

namespace oxpy {

using namespace pybind11::literals;

namespace {

bool isDataFrame(PyObject* o)
{
    py::handle type = py::type::handle_of(py::handle(o));
    return std::string(Py_TYPE(o)->tp_name).find("DataFrame") != std::string::npos
        && py::str(type.attr("__module__")).cast<std::string>().rfind("pandas", 0) == 0;
}

std::string typeName(PyObject* o)
{
    return py::str(py::type::handle_of(py::handle(o)).attr("__name__")).cast<std::string>();
}

// out= and codes_out= are written in place: exactly the result's shape and dtype, C order.
py::array checkedOut(PyObject* given, const py::object& shape, const char* dtype, const char* what)
{
    py::handle np = handles.numpy;
    py::handle a(given);
    bool ok = py::isinstance(a, np.attr("ndarray"))
        && py::object(a.attr("dtype")).equal(np.attr("dtype")(dtype))
        && py::object(a.attr("shape")).equal(shape)
        && a.attr("flags").attr("c_contiguous").cast<bool>()
        && a.attr("flags").attr("writeable").cast<bool>();
    if (!ok)
        throw py::value_error(std::string(what) + " must be a writeable C-contiguous numpy array "
            + "of dtype " + dtype + " and shape " + py::repr(shape).cast<std::string>() + ", not "
            + py::repr(a).cast<std::string>().substr(0, 80));
    return py::reinterpret_borrow<py::array>(a);
}

} // namespace

Call::Call(const PyExpression& e, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
    : e_(e)
    , given_(static_cast<size_t>(e.declared()), nullptr)
    , values_(static_cast<size_t>(e.expression().numVars()), 0.0) // internal variables at 0
{
    if (nargs > 1)
        throw py::type_error(
            "eval() takes at most one positional argument (a mapping or a DataFrame)");
    if (nargs == 1)
        takeMapping(args[0]);
    const Py_ssize_t n = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t k = 0; k < n; ++k) {
        PyObject* key = PyTuple_GET_ITEM(kwnames, k);
        PyObject* value = args[nargs + k];
        PyObject* found = PyDict_GetItemWithError(e.index().ptr(), key);
        if (!found && PyErr_Occurred())
            throw py::error_already_set();
        std::string name;
        // A variable named like an option takes the keyword, unless a mapping gave its value.
        if (!found || given_[PyLong_AsSize_t(found)]) {
            name = py::cast<std::string>(key);
            if (name == "out" || name == "codes_out" || name == "errors") {
                option(name, value);
                continue;
            }
        }
        if (!found)
            throw py::type_error("eval() got a value for '" + name
                + "', which is not a variable of this expression");
        take(PyLong_AsSize_t(found), value);
    }
    for (size_t i = 0; i < static_cast<size_t>(e.declared()); ++i)
        if (!given_[i])
            throw py::type_error("eval() is missing a value for variable '" + e.varName(i) + "'");
}

void Call::take(size_t i, PyObject* value)
{
    if (given_[i])
        throw py::type_error("eval() got two values for variable '" + e_.varName(i) + "'");
    given_[i] = value;
    if (PyFloat_Check(value)) {
        values_[i] = PyFloat_AS_DOUBLE(value);
    } else if (PyLong_Check(value)) {
        values_[i] = PyLong_AsDouble(value);
        if (values_[i] == -1.0 && PyErr_Occurred())
            throw py::error_already_set();
    } else {
        if (converted_.empty())
            converted_.resize(static_cast<size_t>(e_.declared()));
        converted_[i] = realArray(value, i);
        if (converted_[i].attr("ndim").cast<int>() > 0)
            arrays_ = true;
        else
            values_[i] = converted_[i].cast<double>();
    }
}

// The variables (and aliases) the mapping has, by name; other keys are not looked at.
void Call::takeMapping(PyObject* mapping)
{
    const bool frame = isDataFrame(mapping);
    if (!frame && !PyDict_Check(mapping)
        && !(PyObject_HasAttrString(mapping, "keys")
            && PyObject_HasAttrString(mapping, "__getitem__")))
        throw py::type_error("eval() takes a mapping or a pandas DataFrame as its positional "
                             "argument, not "
            + typeName(mapping));
    if (frame)
        frameIndex_ = py::handle(mapping).attr("index");
    for (auto item : e_.index()) {
        int has = PySequence_Contains(mapping, item.first.ptr());
        if (has < 0)
            throw py::error_already_set();
        if (!has)
            continue;
        py::object value
            = py::reinterpret_steal<py::object>(PyObject_GetItem(mapping, item.first.ptr()));
        if (!value)
            throw py::error_already_set();
        kept_.push_back(value);
        take(item.second.cast<size_t>(), value.ptr());
    }
}

void Call::option(const std::string& name, PyObject* value)
{
    if (value == Py_None)
        return;
    if (name == "out")
        out_ = value;
    else if (name == "codes_out")
        codesOut_ = value;
    else if (PyUnicode_Check(value) && py::cast<std::string>(value) == "return")
        onError_ = OnError::Return;
    else if (PyUnicode_Check(value) && py::cast<std::string>(value) == "nan")
        onError_ = OnError::Nan;
    else if (PyUnicode_Check(value) && py::cast<std::string>(value) == "raise")
        onError_ = OnError::Raise;
    else
        throw py::value_error("errors must be 'return', 'nan' or 'raise', not "
            + py::repr(py::handle(value)).cast<std::string>());
}

// A value that is not a plain number, as a numpy array of real numbers (other float and int
// dtypes are computed in double).
py::object Call::realArray(PyObject* value, size_t i) const
{
    if (py::isinstance(py::handle(value), handles.maskedArray))
        throw py::type_error("eval() got a masked array for variable '" + e_.varName(i)
            + "': the mask would be ignored; pass a.filled(...) or the unmasked rows");
    py::object a = handles.numpy.attr("asarray")(py::handle(value));
    char kind = a.attr("dtype").attr("kind").cast<char>();
    if (kind == 'c')
        throw py::type_error("eval() got complex values for variable '" + e_.varName(i)
            + "': the expression is real; pass the real or imaginary part");
    if (kind != 'f' && kind != 'i' && kind != 'u' && kind != 'b')
        throw py::type_error("eval() needs a real number or an array of real numbers for "
                             "variable '"
            + e_.varName(i) + "', not " + typeName(value));
    return a;
}

std::vector<py::object> Call::inputs() const
{
    std::vector<py::object> out;
    for (size_t i = 0; i < static_cast<size_t>(e_.declared()); ++i)
        out.push_back(!converted_.empty() && converted_[i]
                ? converted_[i]
                : py::reinterpret_borrow<py::object>(given_[i]));
    return out;
}

py::array Call::resultArray(const py::object& shape)
{
    if (out_)
        return checkedOut(out_, shape, "float64", "out");
    return handles.numpy.attr("empty")(shape, "dtype"_a = "float64");
}

py::array Call::codeArray(const py::object& shape, bool& zeroed)
{
    zeroed = !codesOut_;
    if (codesOut_)
        return checkedOut(codesOut_, shape, "int32", "codes_out");
    // Zero-mapped by numpy.zeros: the batch writes only the rows that fail, so the pages of
    // an error-free result are never touched.
    return handles.numpy.attr("zeros")(shape, "dtype"_a = "int32");
}

py::object Call::finishPoint(double value, int code) const
{
    if (code != 0 && onError_ == OnError::Raise)
        raise(code, py::none(), py::none());
    if (onError_ == OnError::Return)
        return py::make_tuple(value, errorCode(code));
    return py::float_(code != 0 ? std::nan("") : value);
}

py::object Call::finish(
    py::array values, py::array codes, int outputs, const py::object& rows, py::ssize_t total) const
{
    py::handle np = handles.numpy;
    if (onError_ == OnError::Raise) {
        py::array failing = np.attr("flatnonzero")(codes);
        if (failing.size() > 0) {
            py::ssize_t at = failing.attr("__getitem__")(0).cast<py::ssize_t>();
            py::ssize_t row = outputs > 0 ? at % std::max<py::ssize_t>(total, 1) : at;
            py::object output = outputs > 0 ? py::object(py::int_(at / total)) : py::none();
            int dims = static_cast<int>(py::len(rows));
            py::object index = dims == 0 ? py::none()
                : dims == 1              ? py::object(py::int_(row))
                            : py::object(py::tuple(np.attr("unravel_index")(row, rows)));
            if (dims > 1)
                index = py::tuple(
                    py::module_::import("builtins")
                        .attr("map")(py::module_::import("builtins").attr("int"), index));
            raise(reinterpret_cast<const std::int32_t*>(codes.data())[at], index, output);
        }
    }
    if (onError_ == OnError::Nan)
        np.attr("putmask")(values, codes, std::nan(""));
    py::object v = values, c = codes;
    if (frameIndex_ && outputs == 0) {
        py::object series = py::module_::import("pandas").attr("Series");
        v = series(values, "index"_a = frameIndex_, "copy"_a = false);
        c = series(codes, "index"_a = frameIndex_, "copy"_a = false);
    }
    if (onError_ == OnError::Return)
        return py::make_tuple(v, c);
    return v;
}

void Call::raise(int code, py::object index, py::object output) const
{
    std::string where = index.is_none() ? "" : " at row " + py::str(index).cast<std::string>();
    if (!output.is_none())
        where = " in output " + py::str(output).cast<std::string>() + where;
    py::object err = handles.evaluationError(
        "evaluation failed" + where + ": code " + std::to_string(code) + ", " + vOxError(code));
    err.attr("code") = errorCode(code);
    err.attr("index") = index;
    err.attr("output") = output;
    err.attr("message") = std::string(vOxError(code));
    PyErr_SetObject(handles.evaluationError.ptr(), err.ptr());
    throw py::error_already_set();
}

Columns::Columns(const std::vector<py::object>& given)
{
    py::handle np = handles.numpy;
    py::list shapes;
    for (const auto& g : given)
        shapes.append(np.attr("shape")(g));
    shape = np.attr("broadcast_shapes")(*shapes);
    for (auto d : py::tuple(shape))
        total *= py::cast<py::ssize_t>(d);
    for (size_t i = 0; i < given.size(); ++i) {
        py::object a = given[i];
        if (np.attr("ndim")(a).cast<int>() == 0) {
            constants.emplace_back(static_cast<size_t>(std::min(total, kConstantRows)),
                py::cast<double>(np.attr("float64")(a)));
            base.push_back(constants.back().data());
            continue;
        }
        if (!py::object(shapes[i]).equal(shape))
            a = np.attr("broadcast_to")(a, shape);
        constants.emplace_back();
        py::array_t<double, py::array::c_style | py::array::forcecast> column(
            np.attr("ascontiguousarray")(a, "dtype"_a = "float64"));
        base.push_back(column.data());
        arrays.push_back(std::move(column));
    }
}

namespace {

// Broadcasts the inputs, lays each out as one contiguous float64 column and evaluates all rows
// through the column batch with the interpreter lock released.
py::object evalArrays(const PyExpression& e, Call& call)
{
    const Columns columns(call.inputs());
    py::array results = call.resultArray(columns.shape);
    bool zeroed = false;
    py::array errors = call.codeArray(columns.shape, zeroed);
    double* out = static_cast<double*>(results.mutable_data());
    int* codes = static_cast<int*>(errors.mutable_data());
    const OxelExpression& expr = e.expression();
    int status = 0;
    {
        // Evaluation needs no lock: the library lets threads share an expression.
        py::gil_scoped_release released;
        status = columns.forChunks(
            expr.numVars(), [&](const double* const* cols, py::ssize_t start, int rows) {
                return expr.evalBatchColumns(cols, rows, out + start, codes + start, zeroed);
            });
    }
    if (status != 0)
        throw std::runtime_error("oxel: batch evaluation refused its arguments");
    return call.finish(results, errors, 0, columns.shape, columns.total);
}

PyObject* evalMethod(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* names)
{
    return guarded([&]() {
        PyExpression& e = live<PyExpression>(self, "oxel.Expression");
        Call call(e, args, PyVectorcall_NARGS(nargs), names);
        if (call.arrays())
            return evalArrays(e, call);
        int err = 0;
        double r = e.expression().eval(call.values(), e.expression().numVars(), err);
        return call.finishPoint(r, err);
    });
}

} // namespace

PyMethodDef evalDef
    = { "eval", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(evalMethod)),
          METH_FASTCALL | METH_KEYWORDS,
          R"DOC(eval(values=None, /, *, out=None, codes_out=None, errors='return', **variables)

Evaluates the formula. Variables come as keywords, or as a mapping or a pandas DataFrame
(columns by name, other columns ignored), or both. Python numbers give a float; numpy
arrays (and anything numpy.asarray takes) are evaluated element-wise, broadcast with each
other and with numbers. Arrays of other float, int or bool dtypes are computed in double
(float64); a 0-d array gives what a number gives. Masked and complex arrays are refused.

errors='return' (default): (value, code); code 0 (oxel.Error.NONE) where evaluation
  succeeded, else an oxel.Error; for arrays a float64 and an int32 array.
errors='nan': the values only, NaN where a code is set.
errors='raise': the values only; oxel.EvaluationError for the first failing row.
out=, codes_out=: C-contiguous float64 / int32 arrays of the result's shape, filled in
place and returned. With a DataFrame the results are Series on its index.

    >>> f = oxel.Expression("ln(x) * y")
    >>> f.eval(x=1.0, y=2.0)
    (0.0, <Error.NONE: 0>)
    >>> f.eval({"x": np.array([1.0, 0.0]), "y": 2.0}, errors="nan")
    array([ 0., nan])
)DOC" };

} // namespace oxpy
