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

// A text field as far as the block holds it: the field's N bytes, or fewer when the block ends
// inside them (a text that reaches the end of the block without a NUL stops there). A field that
// the block does not publish at all is absent: it has no characters.
template <int N>
class ControlAreaText_CL {
public:
    static const int CAPACITY = N;

    ControlAreaText_CL() : _chars(nullptr), _room(0) {}
    // `room` bytes of the field lie in the block, at most N.
    ControlAreaText_CL(const char* chars, int room) : _chars(chars), _room(room < 0 ? 0 : (room > N ? N : room)) {}

    bool is_present() const { return _chars != nullptr; }
    // Bytes of the field that lie in the block.
    int room() const { return _room; }
    const char* chars() const { return _chars; }

    // A new NUL-terminated copy of the text (wrap_free releases it); null when absent or when
    // memory is short.
    char* get() const { return _chars != nullptr ? ControlAreaStringBase_CL::get_impl(_chars, _room) : nullptr; }
    J2SE::cstring to_cstring() const { return ControlAreaStringBase_CL::to_cstring(_chars, _room); }
    int length() const { return ControlAreaStringBase_CL::text_length(_chars, _room); }

private:
    const char* _chars;
    int _room;
};

#endif
