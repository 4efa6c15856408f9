#include "attachProtocol.h"

#include <climits>
#include <cstring>

namespace J2SE {

// ---------------------------------------------------------------- AttachRequest

AttachRequest::AttachRequest() : _length(0) {
    _bytes[0] = '\0';
}

bool AttachRequest::append(const char* text, size_t length) {
    if (_length + length + 1 > CAPACITY) return false;
    memcpy(_bytes + _length, text, length);
    _length += length;
    _bytes[_length++] = '\0';
    return true;
}

const char* AttachRequest::build(const char* name, const char* const* arguments, int count) {
    _length = 0;
    _bytes[0] = '\0';
    size_t name_length = name != nullptr ? strlen(name) : 0;
    if (name_length == 0) return "the command name is empty";
    if (name_length > NAME_LENGTH_MAX) return "the command name is longer than 16 bytes";
    if (count < 0 || count > ARGUMENT_COUNT) return "a command takes at most three arguments";
    append("1", 1);
    append(name, name_length);
    for (int i = 0; i < ARGUMENT_COUNT; i++) {
        const char* argument = i < count && arguments[i] != nullptr ? arguments[i] : "";
        size_t length = strlen(argument);
        if (length > ARGUMENT_LENGTH_MAX) {
            _length = 0;
            return "an argument is longer than 1024 bytes";
        }
        append(argument, length);
    }
    return nullptr;
}

// ---------------------------------------------------------------- AttachReplyParser

// The VM writes the status with "%d\n": at most 10 digits after an optional '-'.
static const int STATUS_DIGITS_MAX = 10;

AttachReplyParser::AttachReplyParser()
    : _state(READING_STATUS), _negative(false), _digits(0), _value(0), _status(0), _problem(nullptr) {}

AttachReplyParser::State AttachReplyParser::fail(const char* problem) {
    _state = MALFORMED;
    _problem = problem;
    return _state;
}

// One character of the status line; false when the line is malformed (the state says so).
bool AttachReplyParser::take(char c) {
    if (c == '-' && _digits == 0 && !_negative) {
        _negative = true;
        return true;
    }
    if (c == '\n') return complete("the reply's status line holds no number") != MALFORMED;
    if (c < '0' || c > '9') {
        fail("the reply does not start with a status line");
        return false;
    }
    if (++_digits > STATUS_DIGITS_MAX) {
        fail("the reply's status is not a number of at most 10 digits");
        return false;
    }
    _value = _value * 10 + (c - '0');
    return true;
}

AttachReplyParser::State AttachReplyParser::feed(const char* data, size_t length, size_t* consumed) {
    size_t used = 0;
    while (_state == READING_STATUS && used < length) {
        if (!take(data[used++])) break;
    }
    if (consumed != nullptr) *consumed = used;
    return _state;
}

AttachReplyParser::State AttachReplyParser::finish() {
    if (_state != READING_STATUS) return _state;
    return complete("the VM closed the connection without a status");
}

AttachReplyParser::State AttachReplyParser::complete(const char* no_digits) {
    if (_digits == 0) return fail(no_digits);
    long long value = _negative ? -_value : _value;
    if (value < INT_MIN || value > INT_MAX) return fail("the reply's status does not fit an int");
    _status = static_cast<int>(value);
    _state = READING_OUTPUT;
    return _state;
}

}  // namespace J2SE
