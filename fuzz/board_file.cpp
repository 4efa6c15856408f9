// Fuzz target: a monitoring-board file as a VM (or anyone who can write to /tmp) may leave it.
// The library maps a board read-only and hands the mapping to Java, which reads every byte of it;
// the library itself never interprets the bytes. Each run writes the input as a board file into a
// directory of the target's own (on tmpfs), attaches it as the collector does, reads every mapped
// byte as Java would, checks that the mapping holds exactly the file's bytes (an empty file is
// not attached), and detaches it.
#include "cstring.h"
#include "sharedFile.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

std::string board_path() {
    static std::string path;
    if (path.empty()) {
        // tmpfs: on the disk-backed /tmp, rewriting a truncated file forces a write-back at every
        // close, which would slow the target a hundredfold without changing what it tests.
        char dir[] = "/dev/shm/nox-fuzz-board-XXXXXX";
        if (mkdtemp(dir) == nullptr) abort();
        path = std::string(dir) + "/nox_jvm_monitoringboard_" + std::to_string(getuid()) + "_" +
               std::to_string(getpid());
        static std::string directory = dir;
        atexit([] {
            unlink(path.c_str());
            rmdir(directory.c_str());
        });
    }
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = board_path();
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) abort();
    if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) abort();
    close(fd);

    J2SE::SharedFile board(getpid(), J2SE::cstring(path.c_str()));
    bool attached = board.attach(false, nullptr);
    if (attached != (size > 0)) __builtin_trap();
    if (attached) {
        if (board.get_map_size() != size) __builtin_trap();
        if (memcmp(board.get_map_address(), data, size) != 0) __builtin_trap();
        if (!board.detach()) __builtin_trap();
    }
    return 0;
}
