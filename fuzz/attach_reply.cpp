// Fuzz target: the reply of a VM's attach listener, as the client parses it. The bytes come from
// whatever process serves the socket. The first input byte chooses the size of the chunks the
// rest is fed in (a socket delivers any split); the parse must not depend on the split, and a
// status it accepts must be exactly what an independent reading of the line gives.
#include "attachProtocol.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

using J2SE::AttachReplyParser;

namespace {

struct Parsed {
    AttachReplyParser::State state;
    int status;
    std::string output;
};

Parsed parse_in_chunks(const std::string& reply, size_t chunk) {
    AttachReplyParser parser;
    Parsed parsed{AttachReplyParser::READING_STATUS, 0, ""};
    for (size_t at = 0; at < reply.size(); at += chunk) {
        size_t length = reply.size() - at < chunk ? reply.size() - at : chunk;
        size_t used = length + 1;
        AttachReplyParser::State state = parser.feed(reply.data() + at, length, &used);
        if (used > length) __builtin_trap();
        if (state == AttachReplyParser::READING_OUTPUT) parsed.output.append(reply, at + used, length - used);
    }
    parsed.state = parser.finish();
    parsed.status = parser.status();
    if (parsed.state == AttachReplyParser::MALFORMED && parser.problem() == nullptr) __builtin_trap();
    return parsed;
}

// The status line read with strtol: an optional '-' and 1 to 10 digits within int, then '\n'
// or the end of the reply. True with the status and where the output starts.
bool independent_status(const std::string& reply, int* status, size_t* output_start) {
    size_t end = reply.find('\n');
    std::string line = reply.substr(0, end);
    size_t digits = line.size() - (line.size() > 0 && line[0] == '-' ? 1 : 0);
    if (digits < 1 || digits > 10 || line.find_first_not_of("0123456789", line.size() - digits) != std::string::npos) {
        return false;
    }
    errno = 0;
    long long value = strtoll(line.c_str(), nullptr, 10);
    if (errno != 0 || value < INT32_MIN || value > INT32_MAX) return false;
    *status = static_cast<int>(value);
    *output_start = end == std::string::npos ? reply.size() : end + 1;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    size_t chunk = 1 + data[0] % 64;
    std::string reply(reinterpret_cast<const char*>(data + 1), size - 1);

    Parsed whole = parse_in_chunks(reply, reply.size() + 1);
    Parsed split = parse_in_chunks(reply, chunk);
    if (whole.state != split.state || whole.output != split.output) __builtin_trap();

    int status = 0;
    size_t output_start = 0;
    bool valid = independent_status(reply, &status, &output_start);
    if (valid != (whole.state == AttachReplyParser::READING_OUTPUT)) __builtin_trap();
    if (valid && (whole.status != status || split.status != status || whole.output != reply.substr(output_start))) {
        __builtin_trap();
    }
    return 0;
}
