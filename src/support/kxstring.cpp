// KxString: an owned NUL-terminated string that is never null.
#include <new>

#include <oxel/support.h>

KxString::KxString() : data_(nullptr), len_(0) {}

KxString::KxString(const char* text) : data_(nullptr), len_(0)
{
    if (text)
        assign(text, static_cast<int>(std::strlen(text)));
}

KxString::KxString(const KxString& other) : data_(nullptr), len_(0)
{
    if (other.len_)
        assign(other.data_, other.len_);
}

KxString::KxString(KxString&& other) noexcept : data_(other.data_), len_(other.len_)
{
    other.data_ = nullptr;
    other.len_ = 0;
}

KxString& KxString::operator=(const KxString& other)
{
    if (this != &other)
        assign(other.c_str(), other.len_);
    return *this;
}

KxString& KxString::operator=(KxString&& other) noexcept
{
    if (this != &other) {
        kxfree(data_);
        data_ = other.data_;
        len_ = other.len_;
        other.data_ = nullptr;
        other.len_ = 0;
    }
    return *this;
}

KxString& KxString::operator=(const char* text)
{
    if (!text)
        text = "";
    if (text != data_)
        assign(text, static_cast<int>(std::strlen(text)));
    return *this;
}

KxString::~KxString()
{
    kxfree(data_);
}

bool KxString::operator==(const KxString& other) const
{
    return len_ == other.len_ && std::strcmp(c_str(), other.c_str()) == 0;
}

void KxString::assign(const char* text, int n)
{
    if (n == 0) {
        kxfree(data_);
        data_ = nullptr;
        len_ = 0;
        return;
    }
    char* fresh = static_cast<char*>(kxmalloc(static_cast<size_t>(n) + 1));
    if (!fresh)
        throw std::bad_alloc();
    std::memcpy(fresh, text, static_cast<size_t>(n));
    fresh[n] = '\0';
    kxfree(data_);
    data_ = fresh;
    len_ = n;
}
