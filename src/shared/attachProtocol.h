// The byte format of HotSpot's attach listener, version 1.
//
// A client connects to the VM's socket and writes one request: the protocol version "1", the
// command name and exactly three arguments, each followed by a NUL byte (an absent argument is
// the empty string). The VM runs the command and answers with its status as a decimal number
// on a line of its own ("0\n" for success), then the command's output, and closes the
// connection. The VM drops a request whose name is longer than 16 bytes or an argument longer
// than 1024 bytes without an answer, so such a request is refused before it is sent.
//
// Nothing here touches the system: the request is built into a fixed buffer and the reply is
// parsed from whatever chunks the socket delivers.
#ifndef NOX_SHARED_ATTACH_PROTOCOL_H
#define NOX_SHARED_ATTACH_PROTOCOL_H

#include <cstddef>

namespace J2SE {

class AttachRequest {
public:
    static constexpr size_t NAME_LENGTH_MAX = 16;
    static constexpr size_t ARGUMENT_LENGTH_MAX = 1024;
    static constexpr int ARGUMENT_COUNT = 3;
    static constexpr size_t CAPACITY = 2 + (NAME_LENGTH_MAX + 1) + ARGUMENT_COUNT * (ARGUMENT_LENGTH_MAX + 1);

    AttachRequest();

    // Builds the request for `name` and `count` arguments (null entries count as absent). Null
    // when it was built, else the text of what the VM would refuse; the request is then empty.
    const char* build(const char* name, const char* const* arguments, int count);

    const char* bytes() const { return _bytes; }
    size_t length() const { return _length; }
    // The command name, for messages.
    const char* name() const { return _bytes + 2; }

private:
    bool append(const char* text, size_t length);

    char _bytes[CAPACITY];
    size_t _length;
};

// Reads the status line at the start of a reply: an optional '-' and 1 to 10 digits whose value
// fits an int, ended by '\n'. Everything after the line is the command's output.
class AttachReplyParser {
public:
    enum State { READING_STATUS, READING_OUTPUT, MALFORMED };

    AttachReplyParser();

    // Takes the next `length` bytes of the reply. While the status is being read, *consumed
    // says how many of them belonged to the status line; the rest, if any, is output.
    State feed(const char* data, size_t length, size_t* consumed);

    // The VM closed the connection. A status line without its '\n' still counts (the JDK's own
    // client reads one that way); a reply without a single digit is malformed.
    State finish();

    State state() const { return _state; }
    // The status; meaningful once the state is READING_OUTPUT.
    int status() const { return _status; }
    // Why the reply is malformed (a fixed text), or null.
    const char* problem() const { return _problem; }

private:
    State fail(const char* problem);
    // The status line has ended; `no_digits` is the problem when it held no number.
    State complete(const char* no_digits);
    bool take(char c);

    State _state;
    bool _negative;
    int _digits;
    long long _value;
    int _status;
    const char* _problem;
};

}  // namespace J2SE

#endif
