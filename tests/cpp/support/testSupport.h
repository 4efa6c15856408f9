// Helpers for tests that use the real operating system: child processes, temporary files and
// folders that are removed even when a test fails, and a trace sink that records messages.
#ifndef NOX_TESTS_TEST_SUPPORT_H
#define NOX_TESTS_TEST_SUPPORT_H

#include "fileSocket.h"
#include "traceOutput.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace noxtest {

// A live child process that sleeps until the object goes out of scope (then killed and reaped).
class LiveChild {
public:
    LiveChild();
    ~LiveChild();
    LiveChild(const LiveChild&) = delete;
    LiveChild& operator=(const LiveChild&) = delete;
    pid_t pid() const { return _pid; }
    // Kills and reaps the child now; its pid then names no process.
    void end();

private:
    pid_t _pid;
};

// The pid of a child that has exited and been reaped.
pid_t reaped_child_pid();

// A path that is unlinked (file, socket or link) when the object goes out of scope.
class ScopedPath {
public:
    explicit ScopedPath(std::string path);
    ~ScopedPath();
    ScopedPath(const ScopedPath&) = delete;
    ScopedPath& operator=(const ScopedPath&) = delete;
    const std::string& path() const { return _path; }
    const char* c_str() const { return _path.c_str(); }

private:
    std::string _path;
};

// A fresh folder under /tmp, removed with everything in it when the object goes out of scope.
class ScopedDir {
public:
    ScopedDir();
    ~ScopedDir();
    ScopedDir(const ScopedDir&) = delete;
    ScopedDir& operator=(const ScopedDir&) = delete;
    const std::string& path() const { return _path; }
    std::string file(const std::string& name) const { return _path + "/" + name; }

private:
    std::string _path;
};

// The name of the control-area file of `pid`'s VM, as this user's VM would make it.
std::string control_area_path(pid_t pid);
// Creates a regular file with `size` bytes (all 'a'); returns false on failure.
bool write_file(const std::string& path, size_t size);
// Creates a bound Unix-domain socket file at `path` (the socket itself is closed again).
bool make_socket_file(const std::string& path);
bool path_exists(const std::string& path);

// Records every message it is given.
class RecordingTrace : public J2SE::TraceOutput {
public:
    void trace_error(const char* msg) const override { errors.push_back(msg); }
    void trace_warning(const char* msg) const override { warnings.push_back(msg); }
    void trace_info(const char* msg) const override { infos.push_back(msg); }
    mutable std::vector<std::string> errors;
    mutable std::vector<std::string> warnings;
    mutable std::vector<std::string> infos;
};

// A System V key that no other test process uses: derived from this process's pid and a
// small per-test number, far from the key ranges of instance clusters and VM events.
int private_ipc_key(int n);

// A System V segment holding `bytes` under `key`, removed when the object goes. A segment that a
// killed earlier run left under the key is removed first, when nobody is attached to it.
class TestSegment {
public:
    TestSegment(int key, const std::vector<unsigned char>& bytes);
    ~TestSegment();
    TestSegment(const TestSegment&) = delete;
    TestSegment& operator=(const TestSegment&) = delete;
    bool ok() const { return _id != -1; }
    std::string error() const;  // why shmget refused

private:
    int _id;
    int _errno;
};

// A set of one semaphore of `value` under `key`, as a VM makes its event; removed when the object goes.
class TestSemaphore {
public:
    TestSemaphore(int key, int value);
    ~TestSemaphore();
    TestSemaphore(const TestSemaphore&) = delete;
    TestSemaphore& operator=(const TestSemaphore&) = delete;
    int id() const { return _id; }
    int value() const;

private:
    int _id;
};

// Mappings of this process (lines of /proc/self/maps) whose range starts at `address`.
int mapping_count(const void* address);
// The path of the mapping of this process that contains `address`: "" for anonymous memory,
// "-" when nothing is mapped there.
std::string mapping_path(const void* address);
// The permissions of the mapping that contains `address`, as /proc/self/maps shows them ("rw-s").
std::string mapping_permissions(const void* address);

// The 32-bit value at `offset` of the file at `path`, read with pread; -1 when it cannot be read.
int32_t file_int32(const std::string& path, off_t offset);

// Runs a shell command and returns what it printed on standard output.
std::string command_output(const std::string& command);

// `size` zeroed bytes that end where an inaccessible page begins: a read or a write one byte past
// them crashes the test at once, with or without a sanitizer.
class GuardedBytes {
public:
    explicit GuardedBytes(size_t size);
    ~GuardedBytes();
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;
    unsigned char* data() const { return _data; }
    size_t size() const { return _size; }

private:
    void* _mapping;
    size_t _mapping_size;
    unsigned char* _data;
    size_t _size;
};

// A path under /tmp for a file socket that no other test or test process uses.
std::string socket_path(const std::string& tag);

// A file-socket server of backlog 1 whose listen queue is full: a further connect waits.
struct FullQueue {
    ScopedPath path{socket_path("queue")};
    J2SE::ExceptionHandler handler;
    J2SE::FileSocket server{handler};
    std::vector<J2SE::FileSocket*> queued;

    FullQueue();
    ~FullQueue();
    bool full() const { return handler.time_out_occured(); }
};

// Fills the socket's send buffer and the peer's receive buffer: nobody reads the peer.
void fill(const J2SE::FileSocket& socket);

// Plain memory standing in for a pinned Java array; checks that each pin is let go before the next.
class TestPin : public J2SE::PinnedBuffer {
public:
    explicit TestPin(char* bytes) : _bytes(bytes) {}
    char* pin() override;
    void unpin() override { _pinned = false; }
    bool pinned() const { return _pinned; }

private:
    char* _bytes;
    bool _pinned = false;
};

// The rounds of a race test: `normal`, or NOX_RACE_ROUNDS when that is set.
int race_rounds(int normal);

}  // namespace noxtest

#endif
