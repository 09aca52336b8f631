// Library messages and errors for Python: ParseError with its hint, EvaluationError, oxel.Error.
#include "oxpy.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "caret.h" // the command-line program shows parse failures the same way

namespace oxpy {

using namespace pybind11::literals;

Handles handles;

namespace {

thread_local std::vector<Captured>* capturing = nullptr;

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
        // "ignored character 'c' at offset N" or "... '\xHH' ...": the character itself is
        // echoed.
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

// The evaluation codes by the names of the library's table (OxErrorCode), and 0 for none.
struct ErrorName {
    int code;
    const char* name;
};
const ErrorName kErrorNames[] = {
    { 0, "NONE" },
    { OX_ERR_DIVISION_BY_ZERO, "DIVISION_BY_ZERO" },
    { OX_ERR_OVERFLOW, "OVERFLOW" },
    { OX_ERR_UNDERFLOW, "UNDERFLOW" },
    { OX_ERR_ILLEGAL_LOG, "ILLEGAL_LOG" },
    { OX_ERR_RADICAND_NEGATIVE, "RADICAND_NEGATIVE" },
    { OX_ERR_ARCUS_RANGE, "ARCUS_RANGE" },
    { OX_ERR_ILLEGAL_ARGUMENT, "ILLEGAL_ARGUMENT" },
};

// A str index for a UTF-8 byte offset: the characters that start before it.
long characterIndex(const std::string& text, long offset)
{
    long n = 0;
    for (long i = 0; i < offset && i < static_cast<long>(text.size()); ++i)
        n += (static_cast<unsigned char>(text[static_cast<size_t>(i)]) & 0xC0) != 0x80;
    return n;
}

py::object newException(py::module_& m, const char* name, PyObject* base, const char* doc)
{
    py::object type = py::reinterpret_steal<py::object>(
        PyErr_NewExceptionWithDoc(("oxel." + std::string(name)).c_str(), doc, base, nullptr));
    if (!type)
        throw py::error_already_set();
    m.attr(name) = type;
    return type;
}

} // namespace

Capture::Capture()
    : outer_(capturing)
{
    capturing = &messages;
}

Capture::~Capture()
{
    capturing = outer_;
}

bool Capture::saw(int kind) const
{
    for (const Captured& c : messages)
        if (c.kind == kind)
            return true;
    return false;
}

void raiseParseError(
    const std::string& message, long offset, const std::string& text, const std::string& hint)
{
    OxelCaret c;
    std::string shown = message;
    if (!text.empty() && oxelCaretLines(text, offset, c))
        shown += "\n" + c.lead + c.before + c.line + c.after + "\n" + c.caret + "^";
    if (!hint.empty())
        shown += "\nhint: " + hint;
    py::object err = handles.parseError(shown);
    err.attr("message") = message;
    err.attr("offset")
        = offset < 0 ? py::object(py::none()) : py::object(py::int_(characterIndex(text, offset)));
    err.attr("text") = text;
    err.attr("hint") = hint.empty() ? py::object(py::none()) : py::object(py::str(hint));
    PyErr_SetObject(handles.parseError.ptr(), err.ptr());
    throw py::error_already_set();
}

// The library's one check of a variable name; a NUL inside the str would cut it short there.
void checkName(const std::string& name, const char* what)
{
    if (name.find('\0') == std::string::npos && oxelIsVariableName(name.c_str()))
        return;
    throw py::value_error(py::repr(py::str(name)).cast<std::string>() + " is not a valid " + what
        + ": a name is a letter or '_' followed by letters, digits and '_', and no function "
          "name or keyword");
}

py::object errorCode(int code)
{
    for (const auto& m : handles.errorMembers)
        if (m.first == code)
            return py::reinterpret_borrow<py::object>(m.second);
    return py::int_(code);
}

void bindMessages(py::module_& m)
{
    py::object parse = newException(m, "ParseError", PyExc_ValueError,
        "The formula text does not parse. message is the library's message, offset the index "
        "in text (a str index) where it failed (None where the library does not report one), "
        "text the formula and hint a readable explanation where one helps (else None); str() "
        "adds the formula's line with a caret under the offset, and the hint.");
    for (const char* a : { "message", "offset", "text", "hint" })
        parse.attr(a) = py::none();
    handles.parseError = parse.release();

    py::object evaluation = newException(m, "EvaluationError", PyExc_ArithmeticError,
        "eval(..., errors='raise') met an error code. code is the first failing row's code "
        "(an oxel.Error), index that row (an int, a tuple for arrays of several dimensions, "
        "None for a point), output the output of a gradient it belongs to (else None) and "
        "message the library's text for the code.");
    for (const char* a : { "code", "index", "output", "message" })
        evaluation.attr(a) = py::none();
    handles.evaluationError = evaluation.release();

    py::list members;
    for (const ErrorName& e : kErrorNames)
        members.append(py::make_tuple(e.name, e.code));
    py::object enumType = py::module_::import("enum").attr("IntEnum")(
        "Error", members, "module"_a = "oxel", "qualname"_a = "Error");
    enumType.attr("__doc__") = "Evaluation error codes; members compare equal to the plain "
                               "integers that arrays of codes hold. message: the library's text.";
    enumType.attr("message") = py::module_::import("builtins")
                                   .attr("property")(py::cpp_function(
                                       [](int code) { return std::string(vOxError(code)); },
                                       "The library's text for the code."));
    m.attr("Error") = enumType;
    for (const ErrorName& e : kErrorNames)
        handles.errorMembers.emplace_back(e.code, enumType(e.code).release());
    handles.errorEnum = enumType.release();

    handles.numpy = py::module_::import("numpy").release();
    handles.maskedArray = py::object(py::module_::import("numpy.ma").attr("MaskedArray")).release();

    // Messages become exceptions; the default output comes back when the interpreter exits.
    oxelSetMessageHandler(onMessage, nullptr);
    py::module_::import("atexit").attr("register")(
        py::cpp_function([]() { oxelSetMessageHandler(nullptr, nullptr); }));

    m.def("error_message", &vOxError, "code"_a,
        "Text of an evaluation error code ('Unknown' for codes the library does not know).\n\n"
        "    >>> oxel.error_message(oxel.Error.DIVISION_BY_ZERO)\n    'Division by zero'");
}

} // namespace oxpy
