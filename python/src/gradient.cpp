// oxel.Gradient: a value with its derivatives evaluated together, and split into their shapes.
#include "evaluate.h"

#include <cstdint>
#include <stdexcept>

namespace oxpy {

using namespace pybind11::literals;

namespace {

// Holds the expression it came from (for pickling and repr) and the library's gradient.
class PyGradient {
public:
    // A new gradient, or null where the library gives none; names and order are checked.
    static PyGradient* make(
        py::object expression, const std::vector<std::string>& names, const py::object& order)
    {
        PyExpression& e = live<PyExpression>(expression, "oxel.Expression");
        if (!py::isinstance<py::int_>(order) || py::isinstance<py::bool_>(order)
            || !(order.equal(py::int_(1)) || order.equal(py::int_(2))))
            throw py::value_error(
                "order must be 1 or 2, not " + py::repr(order).cast<std::string>());
        for (const std::string& n : names)
            if (!e.index().contains(n)) {
                std::string declared;
                for (const std::string& v : e.variables())
                    declared += (declared.empty() ? "" : ", ") + v;
                throw py::value_error("gradient() got '" + n
                    + "', which is not a variable or alias of this expression (variables: "
                    + declared + ")");
            }
        std::unique_ptr<OxelGradient> g = e.gradient(names, order.cast<int>());
        return g ? new PyGradient(std::move(expression), names, order.cast<int>(), std::move(g))
                 : nullptr;
    }

    py::object eval(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) const
    {
        const PyExpression& e = live<PyExpression>(expression_, "oxel.Expression");
        Call call(e, args, nargs, kwnames);
        const int nv = e.expression().numVars(), n = grad_->numOutputs();
        if (!call.arrays()) {
            py::array_t<double> out(n);
            py::array_t<std::int32_t> codes(n);
            grad_->eval(
                call.values(), out.mutable_data(), reinterpret_cast<int*>(codes.mutable_data()));
            return call.finish(out, codes, n, py::tuple(), 1);
        }
        const Columns columns(call.inputs());
        py::tuple shape = py::make_tuple(n) + py::tuple(columns.shape);
        py::array out = call.resultArray(shape);
        bool zeroed = false;
        py::array codes = call.codeArray(shape, zeroed);
        const py::ssize_t total = columns.total;
        double* outBase = static_cast<double*>(out.mutable_data());
        int* codeBase = static_cast<int*>(codes.mutable_data());
        int status = 0;
        {
            py::gil_scoped_release released; // threads may share a gradient, as an expression
            std::vector<double*> outs(static_cast<size_t>(n));
            std::vector<int*> codep(static_cast<size_t>(n));
            status = columns.forChunks(
                nv, [&](const double* const* cols, py::ssize_t start, int rows) {
                    for (int k = 0; k < n; ++k) {
                        outs[static_cast<size_t>(k)] = outBase + k * total + start;
                        codep[static_cast<size_t>(k)] = codeBase + k * total + start;
                    }
                    return grad_->evalBatchColumns(cols, rows, outs.data(), codep.data());
                });
        }
        if (status != 0)
            throw std::runtime_error("oxel: batch evaluation refused its arguments");
        return call.finish(out, codes, n, columns.shape, total);
    }

    // (value, gradient, hessian) of eval's outputs: shapes (), (n,), (n, n) for a point and
    // rows, (n, *rows), (n, n, *rows) for arrays; the Hessian full and symmetric, None for
    // order 1.
    py::tuple split(const py::object& outputs) const
    {
        py::handle np = handles.numpy;
        py::object a = np.attr("asarray")(outputs, "dtype"_a = "float64");
        const int count = grad_->numOutputs();
        if (a.attr("ndim").cast<int>() == 0 || a.attr("shape")[py::int_(0)].cast<int>() != count)
            throw py::value_error("split() takes the " + std::to_string(count)
                + " outputs of eval() along the first axis, not an array of shape "
                + py::repr(a.attr("shape")).cast<std::string>());
        const int n = static_cast<int>(names_.size());
        py::object value = a[py::int_(0)];
        py::object gradient = a[py::slice(1, 1 + n, 1)];
        if (order_ == 1)
            return py::make_tuple(value, gradient, py::none());
        py::tuple rows = py::tuple(a.attr("shape"))[py::slice(1, py::len(a.attr("shape")), 1)];
        py::object hessian = np.attr("empty")(py::make_tuple(n, n) + rows);
        for (int i = 0, k = 1 + n; i < n; ++i)
            for (int j = i; j < n; ++j, ++k) {
                hessian[py::make_tuple(i, j)] = a[py::int_(k)];
                hessian[py::make_tuple(j, i)] = a[py::int_(k)];
            }
        return py::make_tuple(value, gradient, hessian);
    }

    std::string repr() const
    {
        return py::repr(expression_).cast<std::string>() + ".gradient("
            + py::repr(py::cast(names_)).cast<std::string>() + ", order=" + std::to_string(order_)
            + ")";
    }

    int numOutputs() const { return grad_->numOutputs(); }
    const std::vector<std::string>& names() const { return names_; }
    int order() const { return order_; }
    py::object expression() const { return expression_; }

private:
    PyGradient(py::object expression, std::vector<std::string> names, int order,
        std::unique_ptr<OxelGradient> g)
        : expression_(std::move(expression))
        , names_(std::move(names))
        , order_(order)
        , grad_(std::move(g))
    {
    }

    py::object expression_;
    std::vector<std::string> names_;
    int order_;
    std::unique_ptr<OxelGradient> grad_;
};

const char* const kGradient = "oxel.Gradient";

PyObject* gradientEval(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* names)
{
    return guarded([&]() {
        return live<PyGradient>(self, kGradient).eval(args, PyVectorcall_NARGS(nargs), names);
    });
}

PyMethodDef gradientEvalDef
    = { "eval", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(gradientEval)),
          METH_FASTCALL | METH_KEYWORDS,
          R"DOC(eval(values=None, /, *, out=None, codes_out=None, errors='return', **variables)

The outputs for the variables, taken as Expression.eval takes them: shape (num_outputs,)
for numbers, (num_outputs, *shape) for arrays (a DataFrame gives arrays too). errors=,
out= and codes_out= as for Expression.eval; split() gives the outputs their shapes.

    >>> g = oxel.Expression("x*x*y").gradient(["x", "y"], order=2)
    >>> outputs, codes = g.eval(x=1.0, y=3.0)
    >>> outputs.tolist()  # value, d/dx, d/dy, d2/dx2, d2/dxdy, d2/dy2
    [3.0, 6.0, 1.0, 6.0, 2.0, 0.0]
)DOC" };

} // namespace

void bindGradient(py::module_& m, py::class_<PyExpression>& expression)
{
    expression.def(
        "gradient",
        [](py::object self, const std::vector<std::string>& names,
            const py::object& order) -> py::object {
            PyGradient* g = PyGradient::make(std::move(self), names, order);
            if (!g)
                return py::none();
            return py::cast(g, py::return_value_policy::take_ownership);
        },
        "names"_a, "order"_a = 1,
        R"DOC(The value with its derivatives by names (variables or aliases), evaluated together:
order 1 adds the gradient, order 2 also the upper triangle of the Hessian, row by row.
ValueError for a name that is neither a variable nor an alias and for an order other than
1 or 2; None where a derivative cannot be formed (as derivative() gives None). The library
works with the interpreter lock released.

    >>> g = oxel.Expression("x*x*y").gradient(["x", "y"])
    >>> g.split(g.eval(x=1.0, y=3.0, errors="raise"))
    (3.0, array([6., 1.]), None)
)DOC");
    py::class_<PyGradient> cls(
        m, "Gradient", R"DOC(A value with its derivatives (Expression.gradient).

eval(...) -> (outputs, codes): the value, d/d names[k] for each k and, for order 2, the
second derivatives (i, j), i <= j, row by row; each what eval() of the expression or of the
derivative expression gives, bit for bit. split(outputs) -> (value, gradient, hessian).

    >>> oxel.Expression("x*y").gradient(["x", "y"])
    oxel.Expression('x * y', variables=['x', 'y']).gradient(['x', 'y'], order=1)
)DOC");
    cls.attr("__module__") = "oxel";
    cls.attr("eval") = py::reinterpret_steal<py::object>(
        PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(cls.ptr()), &gradientEvalDef));
    cls.def(
           "split",
           [](py::handle self, const py::object& outputs) {
               return live<PyGradient>(self, kGradient).split(outputs);
           },
           "outputs"_a,
           R"DOC((value, gradient, hessian) from eval()'s outputs: shapes (), (n,), (n, n) for a
point; for arrays of shape S, S, (n, *S) and (n, n, *S) (the rows stay the last axes).
The Hessian is the full symmetric matrix; None for order 1.

    >>> g = oxel.Expression("x*x*y").gradient(["x", "y"], order=2)
    >>> value, grad, hess = g.split(g.eval(x=1.0, y=3.0, errors="raise"))
    >>> hess.tolist()
    [[6.0, 2.0], [2.0, 0.0]]
)DOC")
        .def_property_readonly(
            "num_outputs",
            [](py::handle self) { return live<PyGradient>(self, kGradient).numOutputs(); },
            "1 + n for order 1, 1 + n + n(n+1)/2 for order 2.")
        .def_property_readonly(
            "names", [](py::handle self) { return live<PyGradient>(self, kGradient).names(); },
            "The names the derivatives are taken by.")
        .def_property_readonly(
            "order", [](py::handle self) { return live<PyGradient>(self, kGradient).order(); },
            "The order: 1 (value and gradient) or 2 (also the Hessian).")
        .def_property_readonly(
            "expression",
            [](py::handle self) { return live<PyGradient>(self, kGradient).expression(); },
            "The oxel.Expression this gradient was made from.")
        .def("__repr__", [](py::handle self) { return live<PyGradient>(self, kGradient).repr(); })
        .def("__getstate__", [](py::handle self) {
            const PyGradient& g = live<PyGradient>(self, kGradient);
            return py::make_tuple(g.expression(), g.names(), g.order());
        });
    // Not named __setstate__: pybind11 would skip a second call silently.
    cls.attr("__setstate__") = py::cpp_function(
        [](py::handle self, const py::tuple& t) {
            if (built<PyGradient>(self))
                install<PyGradient>(self, nullptr, kGradient); // raises: already built
            if (py::len(t) != 3)
                throw py::value_error("oxel.Gradient state: (expression, names, order)");
            PyGradient* g = PyGradient::make(t[0], t[1].cast<std::vector<std::string>>(), t[2]);
            if (!g)
                throw std::runtime_error("oxel: cannot rebuild a gradient");
            install(self, g, kGradient);
        },
        py::name("setstate"), py::is_method(cls));
}

} // namespace oxpy
