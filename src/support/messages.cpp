// The message sink: a host's handler when one is installed, the standard streams otherwise.
#include "support/messages.h"

#include <mutex>

namespace {

std::mutex handlerMutex;
OxelMessageHandler currentHandler = nullptr;
void* currentUserData = nullptr;

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
    handler(kind, text, userData);
    return true;
}
