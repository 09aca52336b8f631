// Library-internal side of the message handler.
#ifndef OXEL_SUPPORT_MESSAGES_H
#define OXEL_SUPPORT_MESSAGES_H

#include <oxel/messages.h>

// Hands text to the installed handler and returns true; returns false when there is none, and
// the caller then writes its message the default way.
bool oxelMessage(int kind, const char* text);

#endif
