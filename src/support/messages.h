// Library-internal side of the message handler.
#ifndef OXEL_SUPPORT_MESSAGES_H
#define OXEL_SUPPORT_MESSAGES_H

#include <string>
#include <vector>

#include <oxel/messages.h>

// Hands text to the installed handler and returns true; returns false when there is none, and
// the caller then writes its message the default way.
bool oxelMessage(int kind, const char* text);

// While one lives on a thread, the messages of that thread are kept and handed to the handler
// that took them only when it is destroyed. The parser holds one around its lock, so that a
// handler runs after the lock is released and may itself parse.
class OxelMessageQueue {
public:
    OxelMessageQueue();
    ~OxelMessageQueue();
    OxelMessageQueue(const OxelMessageQueue&) = delete;
    OxelMessageQueue& operator=(const OxelMessageQueue&) = delete;

    struct Entry {
        OxelMessageHandler handler;
        void* userData;
        int kind;
        std::string text;
    };

private:
    std::vector<Entry> entries_;
    OxelMessageQueue* outer_;
};

// Where this thread's messages are queued (null: straight to the handler), and making that
// another thread's destination: a helper that works while its caller waits sends its messages
// where the caller's would go.
void* oxelMessageTarget();
void oxelMessageAdopt(void* target);

#endif
