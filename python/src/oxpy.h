// What the parts of the extension module oxel._oxel share: handles, messages, argument checks.
#ifndef OXEL_PYTHON_OXPY_H
#define OXEL_PYTHON_OXPY_H

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <string>
#include <vector>

#include <oxel/oxel.h>

namespace oxpy {

namespace py = pybind11;

// Objects the module looks up once when it loads.
struct Handles {
    py::handle numpy;
    py::handle maskedArray; // numpy.ma.MaskedArray
    py::handle parseError; // oxel.ParseError
    py::handle evaluationError; // oxel.EvaluationError
    py::handle errorEnum; // oxel.Error
    std::vector<std::pair<int, py::handle>> errorMembers; // code to oxel.Error member
};
extern Handles handles;

// The messages the library hands over on this thread while a Python call parses or
// differentiates; they become the exception of that call instead of output. Needs no
// interpreter lock.
struct Captured {
    int kind;
    std::string text;
};
class Capture {
public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    bool saw(int kind) const;
    std::vector<Captured> messages;

private:
    std::vector<Captured>* outer_;
};

// Registers ParseError, EvaluationError and Error on m, and the message handler.
void bindMessages(py::module_& m);

// Raises oxel.ParseError; offset is a byte offset into text (-1: none), hint may be empty.
[[noreturn]] void raiseParseError(
    const std::string& message, long offset, const std::string& text, const std::string& hint);

// Raises ValueError unless the lexer reads name as one variable name.
void checkName(const std::string& name, const char* what);

// An evaluation code as oxel.Error where the table has it, else as a plain int.
py::object errorCode(int code);

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
    const T& operator[](size_t i) const { return data_[i]; }

private:
    static constexpr size_t kInline = 16;
    T inline_[kInline];
    std::vector<T> heap_;
    T* data_;
};

// The C++ object behind self, or TypeError where self is no fully built T (made by __new__
// alone, or by a subclass that skipped __init__).
template <class T> T& live(py::handle self, const char* type)
{
    static py::detail::type_info* const info = py::detail::get_type_info(typeid(T));
    if (PyObject_TypeCheck(self.ptr(), info->type)) {
        auto vh = reinterpret_cast<py::detail::instance*>(self.ptr())->get_value_and_holder(info);
        if (vh && vh.holder_constructed() && vh.value_ptr())
            return *vh.template value_ptr<T>();
        throw py::type_error(std::string("this ") + type
            + " is not initialised: create it by calling " + type + "(...)");
    }
    throw py::type_error(std::string("expected an ") + type + ", got "
        + py::str(py::type::of(self).attr("__name__")).cast<std::string>());
}

// Installs value (new-allocated) as the C++ object of self, which __new__ made; TypeError
// where self already has one (__init__ or __setstate__ again on a live object).
template <class T> void install(py::handle self, T* value, const char* type)
{
    std::unique_ptr<T> owned(value);
    auto* info = py::detail::get_type_info(typeid(T));
    auto vh = reinterpret_cast<py::detail::instance*>(self.ptr())->get_value_and_holder(info);
    if (vh.holder_constructed())
        throw py::type_error(std::string("this ") + type
            + " is already initialised; an object is built once (make a new one instead)");
    if (vh.value_ptr()) // storage that pybind11 may have allocated lazily, never constructed
        ::operator delete(vh.value_ptr());
    vh.value_ptr() = owned.release();
    info->init_instance(vh.inst, nullptr);
}

// A fast-call method's body: its result, or null with the Python exception that a C++
// exception stands for.
template <class Body>
PyObject* guarded(Body body)
{
    try {
        return body().release().ptr();
    } catch (py::error_already_set& e) {
        e.restore();
    } catch (py::builtin_exception& e) {
        e.set_error();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
    return nullptr;
}

// Whether self's C++ object exists (for __init__ and __setstate__ to check first).
template <class T> bool built(py::handle self)
{
    auto* info = py::detail::get_type_info(typeid(T));
    return reinterpret_cast<py::detail::instance*>(self.ptr())
        ->get_value_and_holder(info)
        .holder_constructed();
}

} // namespace oxpy

#endif
