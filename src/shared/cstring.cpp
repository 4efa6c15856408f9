#include "cstring.h"

#include "allocations.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace J2SE {

char cstring::EMPTY_STRING[1] = {'\0'};

cstring::cstring() : _str(EMPTY_STRING), _len(0) {}

cstring::cstring(const char* s) : _str(EMPTY_STRING), _len(0) {
    copy_from_cstr(s, nullptr);
}

cstring::cstring(const char* begin, const char* end) : _str(EMPTY_STRING), _len(0) {
    copy_from_cstr(begin, end);
}

cstring::cstring(const cstring& other) : _str(EMPTY_STRING), _len(0) {
    copy_from_cstr(other._str, other._str + other._len);
}

cstring& cstring::operator=(const cstring& other) {
    if (this != &other) {
        copy_from_cstr(other._str, other._str + other._len);
    }
    return *this;
}

cstring::~cstring() {
    free_cstring();
}

void cstring::free_cstring() {
    if (_str != nullptr && _str != EMPTY_STRING) {
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/shared/cstring.cpp:free_cstring"), _str);
    }
    _str = EMPTY_STRING;
    _len = 0;
}

void cstring::clear() {
    free_cstring();
}

void cstring::copy_from_cstr(const char* begin, const char* end) {
    free_cstring();
    if (begin == nullptr || begin == EMPTY_STRING) return;
    size_t length = (end != nullptr && end >= begin) ? static_cast<size_t>(end - begin) : strlen(begin);
    if (length == 0) return;
    char* block = static_cast<char*>(
        wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/shared/cstring.cpp:copy_from_cstr"), length + 1));
    memcpy(block, begin, length);
    block[length] = '\0';
    _str = block;
    _len = length;
}

cstring& cstring::replace(char from, char to) {
    // An empty string has nothing to replace; _len - 1 would wrap around.
    if (_len == 0) return *this;
    for (size_t i = 0; i < _len - 1; i++) {
        if (_str[i] == from) _str[i] = to;
    }
    return *this;
}

cstring cstring::printf(const char* format, ...) {
    char buffer[MAX_BUFFER_SIZE];
    buffer[0] = '\0';
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    cstring result;
    result.copy_from_cstr(buffer, nullptr);
    return result;
}

cstring cstring::operator+(const cstring& other) const {
    size_t sum = _len + other._len;
    cstring result;
    if (sum == 0) return result;
    char* block = static_cast<char*>(
        wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/shared/cstring.cpp:operator+"), sum + 1));
    memcpy(block, _str, _len);
    memcpy(block + _len, other._str, other._len);
    block[sum] = '\0';
    // Built with strlen, so the result ends at the first NUL of the concatenation.
    result.copy_from_cstr(block, nullptr);
    wrap_free(alloc_site("(libnoxjvm_inspector.so) src/shared/cstring.cpp:operator+"), block);
    return result;
}

cstring& cstring::operator+=(const cstring& other) {
    cstring self(*this);
    *this = self + other;
    return *this;
}

bool cstring::operator==(const cstring& other) const {
    if (this == &other) return true;
    if (_str == other._str) return true;
    if (_len != other._len) return false;
    return memcmp(_str, other._str, _len) == 0;
}

}  // namespace J2SE
