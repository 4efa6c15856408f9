// An owned, NUL-terminated heap string with its length. The empty string is always the one
// shared EMPTY_STRING buffer, never a heap block; every other string owns a block of exactly
// length + 1 bytes from wrap_malloc. Copies never share a buffer.
#ifndef NOX_SHARED_CSTRING_H
#define NOX_SHARED_CSTRING_H

#include <cstddef>

namespace J2SE {

class cstring {
public:
    cstring();
    cstring(const char* s);
    cstring(const char* begin, const char* end);
    cstring(const cstring& other);
    cstring& operator=(const cstring& other);
    ~cstring();

    // Releases the buffer (unless it is EMPTY_STRING) and leaves the empty string.
    void free_cstring();
    void clear();

    // Replaces the content with the characters from `begin` up to `end`, or up to the first
    // NUL when `end` is null or lies before `begin`.
    void copy_from_cstr(const char* begin, const char* end);

    // Replaces `from` by `to` at every position below _len - 1: the last character is never
    // examined, so a one-character string comes back unchanged. Callers rely on this.
    cstring& replace(char from, char to);

    // Formats into a 1024-byte buffer: at most 1023 characters survive, the rest is cut.
    static cstring printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

    cstring operator+(const cstring& other) const;
    cstring& operator+=(const cstring& other);
    bool operator==(const cstring& other) const;
    bool operator!=(const cstring& other) const { return !(*this == other); }

    const char* c_str() const { return _str; }
    operator const char*() const { return _str; }
    size_t length() const { return _len; }
    size_t len() const { return _len; }
    bool is_empty() const { return _len == 0; }
    const char* as_array() const { return _str; }

    // The one-byte buffer shared by every empty string; never freed.
    static char EMPTY_STRING[1];

private:
    static const int MAX_BUFFER_SIZE = 1024;

    char* _str;
    size_t _len;
};

}  // namespace J2SE

#endif
