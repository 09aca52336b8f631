// Where the library's few messages go: standard output and error, or a host's handler.
#ifndef OXEL_MESSAGES_H
#define OXEL_MESSAGES_H

#include <oxel/export.h>

// Kinds of message the library emits.
enum OxelMessageKind {
    // A text did not parse; the text is the parser's message (what follows "Parsing OxError: ").
    OXEL_MESSAGE_PARSE_ERROR = 1,
    // The lexer skipped a character it does not know; the text names it and its byte offset.
    OXEL_MESSAGE_IGNORED_CHARACTER = 2,
    // A node without a derivative rule was asked for one; the text is the whole line
    // "diff: Not yet implemented in <symbol>." without its line feed.
    OXEL_MESSAGE_NO_DERIVATIVE_RULE = 3
};

typedef void (*OxelMessageHandler)(int kind, const char* text, void* userData);

// Installs a process-wide handler; with one installed the library writes nothing to standard
// output or standard error. A null handler restores the default output: parse errors as
// "Parsing OxError: %s\n" on standard error, ignored characters echoed to standard output,
// "diff: Not yet implemented in %s.\n" on standard output. The handler is called once per
// message, on the thread that parses or differentiates, holding none of the library's locks
// (a parse hands its messages over when it is done), so it may use the library itself.
// C programs call oxel_set_message_handler() (oxel_c.h), which includes this header for the
// kinds and the handler type.
#ifdef __cplusplus
OXEL_API void oxelSetMessageHandler(OxelMessageHandler handler, void* userData);
#endif

#endif
