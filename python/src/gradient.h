// oxel.Gradient: a value with its derivatives evaluated together (included by module.cpp
// after PyExpression, inside its anonymous namespace).

// Holds the expression it came from (for pickling) and the library's gradient.
class PyGradient {
public:
    // A new gradient, or null where the library gives none.
    static PyGradient* make(py::object expression, const std::vector<std::string>& names,
        int order)
    {
        std::unique_ptr<OxelGradient> g = expression.cast<PyExpression&>().gradient(names, order);
        return g ? new PyGradient(std::move(expression), names, order, std::move(g)) : nullptr;
    }

    // (outputs, errors): shape (n,) for scalars, (n, *shape) for arrays.
    py::tuple eval(const py::kwargs& kw) const
    {
        const PyExpression& e = expression_.cast<const PyExpression&>();
        bool arrays = false;
        std::vector<py::object> given = e.arguments(kw, arrays);
        const int nv = e.expression().numVars(), n = grad_->numOutputs();
        if (!arrays) {
            std::vector<double> values(static_cast<size_t>(nv), 0.0); // internal ones at 0
            for (size_t i = 0; i < given.size(); ++i)
                values[i] = py::cast<double>(given[i]);
            py::array_t<double> out(n);
            py::array_t<std::int32_t> codes(n);
            grad_->eval(
                values.data(), out.mutable_data(), reinterpret_cast<int*>(codes.mutable_data()));
            return py::make_tuple(out, codes);
        }
        const PyExpression::Columns columns = PyExpression::columnsOf(given);
        std::vector<py::ssize_t> shape{n};
        for (auto d : py::tuple(columns.shape))
            shape.push_back(py::cast<py::ssize_t>(d));
        py::array_t<double> out(shape);
        py::array_t<std::int32_t> codes(shape);
        const py::ssize_t total = columns.total;
        double* outBase = out.mutable_data();
        int* codeBase = reinterpret_cast<int*>(codes.mutable_data());
        int status = 0;
        {
            py::gil_scoped_release released; // threads may share a gradient, as an expression
            std::vector<double*> outs(static_cast<size_t>(n));
            std::vector<int*> codep(static_cast<size_t>(n));
            status = columns.forChunks(nv, [&](const double* const* cols, py::ssize_t start,
                                               int rows) {
                for (int k = 0; k < n; ++k) {
                    outs[static_cast<size_t>(k)] = outBase + k * total + start;
                    codep[static_cast<size_t>(k)] = codeBase + k * total + start;
                }
                return grad_->evalBatchColumns(cols, rows, outs.data(), codep.data());
            });
        }
        if (status != 0)
            throw std::runtime_error("oxel: batch evaluation refused its arguments");
        return py::make_tuple(out, codes);
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

void bindGradient(py::module_& m, py::class_<PyExpression>& expression)
{
    expression.def(
        "gradient",
        [](py::object self, const std::vector<std::string>& names, int order) -> py::object {
            PyGradient* g = PyGradient::make(std::move(self), names, order);
            if (!g)
                return py::none();
            return py::cast(g, py::return_value_policy::take_ownership);
        },
        "names"_a, "order"_a = 1,
        "The value with its derivatives by names (variables or aliases), evaluated together: "
        "order 1 adds the gradient, order 2 also the upper triangle of the Hessian, row by row. "
        "None where a derivative cannot be formed, for an unknown name or another order.");
    py::class_<PyGradient> cls(m, "Gradient", R"(A value with its derivatives (Expression.gradient).

eval(**values) -> (outputs, errors): the value, d/d names[k] for each k and, for order 2, the
second derivatives (i, j), i <= j, row by row; each what eval() of the expression or of the
derivative expression gives, bit for bit. Shape (num_outputs,) for numbers,
(num_outputs, *shape) for arrays.)");
    cls.attr("__module__") = "oxel";
    cls.def("eval", &PyGradient::eval,
           "eval(**values) -> (outputs, errors), element-wise over numpy arrays")
        .def_property_readonly("num_outputs", &PyGradient::numOutputs)
        .def_property_readonly("names", &PyGradient::names)
        .def_property_readonly("order", &PyGradient::order)
        .def_property_readonly("expression", &PyGradient::expression)
        .def(py::pickle(
            [](const PyGradient& g) {
                return py::make_tuple(g.expression(), g.names(), g.order());
            },
            [](py::tuple t) {
                PyGradient* g = PyGradient::make(
                    t[0], t[1].cast<std::vector<std::string>>(), t[2].cast<int>());
                if (!g)
                    throw std::runtime_error("oxel: cannot rebuild a gradient");
                return g;
            }));
}
