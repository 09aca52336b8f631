// The message sink: a host's handler when one is installed, the standard streams otherwise.
#include "support/messages.h"
#include "support/fork.h"

#include <mutex>

namespace {

std::mutex handlerMutex;
const bool handlerForkSafe = oxelForkLock(kForkLeaf, handlerMutex);
OxelMessageHandler currentHandler = nullptr;
void* currentUserData = nullptr;

// The innermost queue of this thread, if any; messages go there instead of to the handler.
thread_local std::vector<OxelMessageQueue::Entry>* queued = nullptr;
thread_local OxelMessageQueue* innermost = nullptr;

}  // namespace

void oxelSetMessageHandler(OxelMessageHandler handler, void* userData)
{
    std::lock_guard<std::mutex> lock(handlerMutex);
    currentHandler = handler;
    currentUserData = userData;
}

bool oxelMessage(int kind, const char* text)
{
    OxelMessageHandler handler;
    void* userData;
    {
        std::lock_guard<std::mutex> lock(handlerMutex);
        handler = currentHandler;
        userData = currentUserData;
    }
    if (!handler)
        return false;
    if (queued)
        queued->push_back({handler, userData, kind, text});
    else
        handler(kind, text, userData);
    return true;
}

OxelMessageQueue::OxelMessageQueue() : outer_(innermost)
{
    innermost = this;
    queued = &entries_;
}

OxelMessageQueue::~OxelMessageQueue()
{
    innermost = outer_;
    queued = outer_ ? &outer_->entries_ : nullptr;
    for (const Entry& e : entries_) {
        if (queued)
            queued->push_back(e);
        else
            e.handler(e.kind, e.text.c_str(), e.userData);
    }
}

void* oxelMessageTarget()
{
    return queued;
}

void oxelMessageAdopt(void* target)
{
    queued = static_cast<std::vector<OxelMessageQueue::Entry>*>(target);
}
