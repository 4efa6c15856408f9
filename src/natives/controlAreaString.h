// Fixed-capacity text fields of a control area. A VM writes N bytes of characters with no length
// field: the text ends at the first NUL byte or at the end of the N bytes, so a text of exactly N
// characters carries no terminator. Readers copy the text out; the shared bytes are never changed.
#ifndef NOX_NATIVES_CONTROL_AREA_STRING_H
#define NOX_NATIVES_CONTROL_AREA_STRING_H

#include "cstring.h"

class ControlAreaStringBase_CL {
public:
    // Copies the text that starts at `chars` (at most `capacity` characters, up to the first NUL)
    // into a new NUL-terminated heap block from wrap_malloc; the caller releases it with
    // wrap_free. A capacity of 0 or below yields the empty text. Null when the allocation fails.
    static char* get_impl(const char* chars, int capacity);

    // The same text as an owned string.
    static J2SE::cstring to_cstring(const char* chars, int capacity);

    // Number of characters before the first NUL, at most `capacity`.
    static int text_length(const char* chars, int capacity);
};

template <int N>
class ControlAreaString_CL : public ControlAreaStringBase_CL {
public:
    static const int CAPACITY = N;

    char* get() const { return get_impl(_string, N); }
    J2SE::cstring to_cstring() const { return ControlAreaStringBase_CL::to_cstring(_string, N); }
    int length() const { return text_length(_string, N); }
    const char* chars() const { return _string; }

    char _string[N];
};

#endif
