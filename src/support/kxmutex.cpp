// KxMutex over the standard mutexes.
#include <oxel/support.h>

KxMutex::KxMutex(bool recursive) : recursive_(recursive) {}

void KxMutex::lock()
{
    if (recursive_)
        nested_.lock();
    else
        plain_.lock();
}

void KxMutex::unlock()
{
    if (recursive_)
        nested_.unlock();
    else
        plain_.unlock();
}
