#include "controlAreaString.h"

#include "allocations.h"

#include <cstring>

int ControlAreaStringBase_CL::text_length(const char* chars, int capacity) {
    if (chars == nullptr || capacity <= 0) return 0;
    // memchr never looks past `capacity` bytes, so an unterminated text stays inside its field.
    const void* nul = memchr(chars, '\0', static_cast<size_t>(capacity));
    if (nul == nullptr) return capacity;
    return static_cast<int>(static_cast<const char*>(nul) - chars);
}

char* ControlAreaStringBase_CL::get_impl(const char* chars, int capacity) {
    int count = text_length(chars, capacity);
    char* copy = static_cast<char*>(
        wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/natives/controlAreaString.cpp:get_impl"),
                    static_cast<size_t>(count) + 1));
    if (copy == nullptr) return nullptr;
    if (count > 0) memcpy(copy, chars, static_cast<size_t>(count));
    copy[count] = '\0';
    return copy;
}

J2SE::cstring ControlAreaStringBase_CL::to_cstring(const char* chars, int capacity) {
    int count = text_length(chars, capacity);
    if (count == 0) return J2SE::cstring();
    return J2SE::cstring(chars, chars + count);
}
