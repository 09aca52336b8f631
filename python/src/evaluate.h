// eval()'s arguments for an Expression or a Gradient: values by name, options, result shapes.
#ifndef OXEL_PYTHON_EVALUATE_H
#define OXEL_PYTHON_EVALUATE_H

#include "expression.h"

#include <climits>

namespace oxpy {

enum class OnError { Return, Nan, Raise };

// One call of eval(mapping_or_frame=None, /, *, out=None, codes_out=None, errors="return",
// **values): the values by variable, checked, and the options. Plain Python numbers stay
// numbers (the short way to the single-point program); anything else becomes a numpy array.
class Call {
public:
    Call(const PyExpression& e, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // Whether the call needs the array path: a value with dimensions, or out= given.
    bool arrays() const { return arrays_ || out_ || codesOut_; }
    // The values of numVars() slots for a point (internal variables 0).
    double* values() { return values_.data(); }
    // The inputs in variable order for Columns (numbers or numpy arrays).
    std::vector<py::object> inputs() const;
    // out= or a new float64 array of shape; codes_out= or zeros (zeroed: whether they are).
    py::array resultArray(const py::object& shape);
    py::array codeArray(const py::object& shape, bool& zeroed);

    // What eval() returns for a point of an expression.
    py::object finishPoint(double value, int code) const;
    // ... for arrays: values and codes of shape (outputs, *rows) for a gradient (outputs > 0),
    // of rows otherwise.
    py::object finish(py::array values, py::array codes, int outputs, const py::object& rows,
        py::ssize_t total) const;

private:
    void take(size_t i, PyObject* value);
    void takeMapping(PyObject* mapping);
    void option(const std::string& name, PyObject* value);
    py::object realArray(PyObject* value, size_t i) const;
    [[noreturn]] void raise(int code, py::object index, py::object output) const;

    const PyExpression& e_;
    SmallBuffer<PyObject*> given_; // by variable, borrowed from the call or kept below
    SmallBuffer<double> values_; // numVars() slots
    std::vector<py::object> kept_; // values taken from a mapping
    std::vector<py::object> converted_; // by variable, once one is needed: numpy forms
    bool arrays_ = false;
    PyObject* out_ = nullptr;
    PyObject* codesOut_ = nullptr;
    OnError onError_ = OnError::Return;
    py::object frameIndex_; // a DataFrame's index: results become Series on it
};

// The inputs over their common shape, as float64 columns. An array of that shape serves as it
// stands where it is contiguous float64; a number (or a 0-d array) becomes a short constant
// column that every chunk of rows reuses, so that a scalar never costs a whole column of fresh
// memory; other arrays are broadcast into a column of their own.
struct Columns {
    explicit Columns(const std::vector<py::object>& given);

    std::vector<py::object> arrays; // the columns made here, kept alive
    std::vector<std::vector<double>> constants; // by input: empty for an array
    std::vector<const double*> base; // by input: its column or constant
    py::object shape;
    py::ssize_t total = 1;

    // Calls run(cols, start, rows) for consecutive chunks covering every row, cols holding
    // numVars column pointers (internal variables null, read as 0); stops at a nonzero status
    // and returns it. Needs no interpreter lock.
    template <class Run> int forChunks(int numVars, Run run) const
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
    // Rows per call when a constant column is reused: 1 MB each, and enough rows for the
    // library to share them among its threads.
    static constexpr py::ssize_t kConstantRows = 1 << 17;
};

// Expression.eval as a fast-call method: a scalar call costs little more than the library's.
extern PyMethodDef evalDef;

} // namespace oxpy

#endif
