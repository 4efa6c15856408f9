// Fuzz target: the names of the files under /tmp through which VMs announce themselves, parsed
// back into a user id and a pid. Anyone may create a file in /tmp, so the parser sees arbitrary
// names. Each run parses the input as a name of every family, and checks the round trip: a name
// built from two numbers of the input parses back into exactly those numbers when both are
// non-negative, and is refused when one is negative.
#include "cstring.h"
#include "sharedUtils.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace {

const char* const PATTERNS[] = {"/tmp/nox_jvm_%d_%d", "/tmp/nox_jvm_monitoringboard_%d_%d",
                                "/tmp/nox_jvm_profiling_server_%d_%d"};

void check_round_trip(const char* pattern, int uid, int pid) {
    J2SE::cstring name = J2SE::cstring::printf(pattern, uid, pid);
    int first = -1;
    int second = -1;
    int count = J2SE::parse_file_name(name.c_str(), pattern, &first, &second);
    if (uid >= 0 && pid >= 0) {
        if (count != 2 || first != uid || second != pid) __builtin_trap();
    } else if (count == 2) {
        __builtin_trap();  // a minus sign is not part of a name of ours
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The library's own patterns must be the ones checked here.
    if (strcmp(J2SE::get_controlarea_format_string().c_str(), PATTERNS[0]) != 0 ||
        strcmp(J2SE::get_monitor_board_format_string().c_str(), PATTERNS[1]) != 0 ||
        strcmp(J2SE::get_profiling_server_format_string().c_str(), PATTERNS[2]) != 0) {
        __builtin_trap();
    }
    std::string name(reinterpret_cast<const char*>(data), size);
    name = name.c_str();  // a name ends at its first NUL, as one from readdir does
    for (const char* pattern : PATTERNS) {
        int first = 0;
        int second = 0;
        int count = J2SE::parse_file_name(name.c_str(), pattern, &first, &second);
        if (count < 0 || count > 2) __builtin_trap();
        if (count == 2 && (first < 0 || second < 0)) __builtin_trap();
    }
    if (size >= 8) {
        int32_t uid;
        int32_t pid;
        memcpy(&uid, data, 4);
        memcpy(&pid, data + 4, 4);
        for (const char* pattern : PATTERNS) check_round_trip(pattern, uid, pid);
    }
    return 0;
}
