// A local stream socket whose address is a path in the file system (AF_UNIX, SOCK_STREAM), with
// millisecond time-outs and a close that releases threads blocked in the same socket.
//
// Failures are not thrown: every operation reports them to an ExceptionHandler passed by
// reference and then returns (null, -1 or a partial count). The JNI layer passes a handler that
// turns each report into a pending Java exception.
#ifndef NOX_SHARED_FILE_SOCKET_H
#define NOX_SHARED_FILE_SOCKET_H

#include "cstring.h"

#include <pthread.h>
#include <stdint.h>

namespace J2SE {

typedef int FileSocketFD;

class FileSocket;

// The error collector of the socket operations. The base class only records; a subclass may
// also raise something (a Java exception) from the same reports.
class ExceptionHandler {
public:
    ExceptionHandler();
    virtual ~ExceptionHandler();
    ExceptionHandler(const ExceptionHandler&) = delete;
    ExceptionHandler& operator=(const ExceptionHandler&) = delete;

    // A null message describes the current errno; a non-null message is a fixed text.
    virtual void throw_FileSocketException(const FileSocket* socket, const char* message);
    virtual void throw_FileSocketException(const FileSocket* socket, int error);
    virtual void throw_SocketTimeoutException(const FileSocket* socket, const char* message);
    virtual void throw_SocketTimeoutException(const FileSocket* socket, int error);

    bool has_thrown() const { return _has_thrown; }
    int error_code() const { return _error_code; }
    bool time_out_occured() const { return _time_out_occured; }
    const cstring& message() const { return _message; }
    const cstring& socket_identifier() const { return _socket_identifier; }

protected:
    // Records one report: the socket's identifier, and either the given text or the system's
    // text of `error` (then also kept as the error code).
    void fill(const cstring& identifier, const char* message, int error);
    void fill(const FileSocket* socket, const char* message, int error);

    bool _has_thrown;
    int _error_code;
    bool _time_out_occured;
    cstring _message;
    cstring _socket_identifier;
};

class BlockingIO;

// Memory that may be used only while no call can block: a Java array held with the JVM's
// critical access, which stalls the garbage collector until it is let go. The transfers below
// pin it around each call that does not wait (MSG_DONTWAIT), and wait for readiness unpinned.
class PinnedBuffer {
public:
    virtual ~PinnedBuffer() {}
    // The first byte of the range, or null when it cannot be pinned (the pinning party has
    // then reported why).
    virtual char* pin() = 0;
    virtual void unpin() = 0;
};

// The registry of the threads that are inside a system call on one socket. Its lock is held
// while a close takes the descriptor, marks the registered threads and waits for them to leave,
// so a descriptor number is released only when no registered thread can still use it.
class BlockingIOData {
public:
    BlockingIOData();
    ~BlockingIOData();
    BlockingIOData(const BlockingIOData&) = delete;
    BlockingIOData& operator=(const BlockingIOData&) = delete;

    pthread_mutex_t _lock;
    BlockingIO* _blocked_threads;
    // Signalled by each registration that leaves while a close waits for the list to empty, and
    // when a close has finished (for the other closers that wait for it).
    pthread_cond_t _left;
    // Set when a close has taken the descriptor; new registrations are refused from then on
    // until the socket gets a new descriptor.
    bool _closing;
    // The close that took the descriptor has finished, socket file included.
    bool _closed;
};

// A scoped registration of the calling thread in a socket's registry for one system call.
// Calling order: construct, check refused(), make the call, destroy, then read the result and
// errno. A thread whose registration was marked by a close finds errno = EBADF afterwards.
class BlockingIO {
public:
    explicit BlockingIO(BlockingIOData* data);
    ~BlockingIO();
    BlockingIO(const BlockingIO&) = delete;
    BlockingIO& operator=(const BlockingIO&) = delete;

    // True when the socket was already being closed at registration: the caller must not
    // touch the descriptor (its number may already name another file). errno becomes EBADF
    // when the registration ends.
    bool refused() const { return _refused; }
    // The next registration of the same registry (read under the registry's lock).
    BlockingIO* next() const { return _next; }

    // Takes the descriptor out of *slot (leaving -1) under the registry's lock. Only the thread
    // that got a real number closes it: it shuts the socket down both ways, marks every
    // registered thread, waits until they have left their calls (the shutdown wakes them), and
    // closes the number once; *closed_here is then true and that thread must call
    // finish_close() when it has done the rest of its close. Every other caller waits until
    // that close has finished and returns 0 with *closed_here false. *shutdown_error receives
    // the errno of a failed shutdown (0 when it succeeded). Returns the result of close (0, or
    // -1 with errno).
    static int close(BlockingIOData* data, FileSocketFD* slot, int* shutdown_error, bool* closed_here);

    // The close that took the descriptor is complete: the other closers may return.
    static void finish_close(BlockingIOData* data);

    // A new descriptor has been created for the socket: registrations are accepted again.
    static void reopen(BlockingIOData* data);

    // The wake-up signal sent to marked threads. 0 only checks that the thread exists: the
    // shutdown before every close is what wakes them.
    static int sigWakeup;

private:
    BlockingIOData* _blocking_data;
    pthread_t _thread;
    bool _interrupted;
    BlockingIO* _next;
    bool _refused;

    static pthread_mutex_t init_mutex;
    static bool initialized;
};

// Sets O_NONBLOCK on a descriptor for the life of the object.
class NonBlockingSocket {
public:
    explicit NonBlockingSocket(int socket);
    ~NonBlockingSocket();
    NonBlockingSocket(const NonBlockingSocket&) = delete;
    NonBlockingSocket& operator=(const NonBlockingSocket&) = delete;

private:
    const int _socket;
    bool _non_blocking;
};

class FileSocketHelperUnix {
public:
    static const char* const TMP_DIR_PREFIX;

    // Waits until `fd` is ready for `events`, at most timeout_ms (no limit when below 0).
    // Signals never stretch the wait. Returns 0 when the time ran out, -1 on failure (also
    // when the descriptor reports an error or a hang-up), else a positive count. errno is 0
    // before each wait, so a time-out or a hang-up never carries a stale error.
    static int wait_socket(int fd, long timeout_ms, int events);

    // Milliseconds on the monotonic clock.
    static int64_t now_ms();
};

class FileSocket {
public:
    explicit FileSocket(ExceptionHandler& handler);
    // Wraps an existing descriptor (an accepted connection); -1 creates a new one.
    FileSocket(int fd, const cstring& identifier, ExceptionHandler& handler);
    ~FileSocket();
    FileSocket(const FileSocket&) = delete;
    FileSocket& operator=(const FileSocket&) = delete;

    // Creates the descriptor when there is none.
    void init(ExceptionHandler& handler);

    void bind(const cstring& path, int backlog, bool restrictAccess, ExceptionHandler& handler);
    // Returns a new heap socket (free it with destroy()), or null.
    FileSocket* accept(int backlog, bool restrictAccess, ExceptionHandler& handler);
    void connect(const cstring& path, int timeout_ms, ExceptionHandler& handler);
    // One read of at most `length` bytes: the count, or -1 at end of stream, on a read error
    // (neither reported) and after a reported time-out or failed wait.
    int readf(char* buffer, int length, int timeout_ms, ExceptionHandler& handler) const;
    // One read of at most `length` bytes for a stream: the count, 0 at end of stream, or -1
    // after a report ("Read timed out", or the system's text of a failed read, EBADF once a
    // close has released the call). Unlike readf, a read error is reported, and a peer that has
    // hung up is read from (its last bytes, then end of stream) instead of failing the wait.
    int receive(char* buffer, int length, int timeout_ms, ExceptionHandler& handler) const;
    // receive() into pinned memory: the count, 0 at end of stream, -1 after a report or when
    // the memory could not be pinned.
    int receive_pinned(PinnedBuffer& buffer, int length, int timeout_ms, ExceptionHandler& handler) const;
    // writef() from pinned memory: all `length` bytes unless a report (or a failed pin) stops
    // it; the count written. The time-out bounds each wait for room.
    int send_pinned(PinnedBuffer& buffer, int length, int timeout_ms, ExceptionHandler& handler) const;
    // Writes all `length` bytes unless a report stops it; returns the count written.
    int writef(const char* buffer, int length, int timeout_ms, ExceptionHandler& handler) const;
    void shutdown(bool how, ExceptionHandler& handler);
    void closef(ExceptionHandler& handler);
    int available() const;

    static cstring create_identifier(const cstring& name);
    static int16_t is_filesocket_server_attachable(const cstring& name);

    // Heap sockets are made with the library's tracked allocator: create() returns null when
    // the allocation fails; destroy() runs the destructor and frees.
    static FileSocket* create(ExceptionHandler& handler);
    static FileSocket* create(int fd, const cstring& identifier, ExceptionHandler& handler);
    static void destroy(FileSocket* socket);

    // The descriptor, or -1. A thread that makes a system call with it reads it inside a
    // BlockingIO registration (see descriptor_in()), never before.
    int socket_fd() const { return __atomic_load_n(&_socket_fd, __ATOMIC_ACQUIRE); }
    // A copy of the identifier, taken under the registry's lock: threads woken by a close read
    // it for their reports while the closing thread clears it.
    cstring socket_identifier() const;
    bool is_bound() const { return __atomic_load_n(&_is_bound, __ATOMIC_ACQUIRE); }
    bool has_blocking_data() const { return _blocking_IO_data != nullptr; }
    BlockingIOData* blocking_data() const { return _blocking_IO_data; }

private:
    void create_descriptor(ExceptionHandler& handler);
    // bind, listen and chmod on `fd` (-1: the socket is being closed); null, or the text of the
    // step that failed.
    const char* bind_and_listen(int fd, const cstring& path, int backlog, bool restrictAccess);
    void set_socket_fd(int fd) { __atomic_store_n(&_socket_fd, fd, __ATOMIC_RELEASE); }
    void set_bound(bool bound) { __atomic_store_n(&_is_bound, bound, __ATOMIC_RELEASE); }
    // The descriptor for one system call made inside `io`; -1 with errno EBADF once a close has
    // taken it (the number may already name another file).
    int descriptor_in(const BlockingIO& io) const;
    // Removes the socket file when it is still the one bind created (same device and inode): a
    // server that has since taken the path keeps its file.
    void remove_bound_file(const cstring& path) const;
    // Waits, registered, until the socket is ready for `events` or reports anything (a hang-up,
    // an error), at most until deadline_ms (monotonic; 0 = no limit). False after reporting
    // the time-out (as `timeout_text`) or the failed wait.
    bool wait_until(int events, int64_t deadline_ms, const char* timeout_text, ExceptionHandler& handler) const;
    bool wait_ready(int timeout_ms, int events, const char* timeout_text, ExceptionHandler& handler) const;
    // Replaces the identifier under the registry's lock (the empty string clears it).
    void set_socket_identifier(const cstring& identifier);
    void timed_connect(const cstring& path, const void* address, int timeout_ms,
                       ExceptionHandler& handler);
    // Blocking connect attempts, each bounded by a short SO_SNDTIMEO slice so that a close can
    // end the wait for a full listen queue; gives up when deadline_ms (monotonic, 0 = none)
    // has passed (errno EAGAIN). Returns 0 or -1 with errno.
    int connect_in_slices(const void* address, int64_t deadline_ms, bool retry_eintr) const;

    FileSocketFD _socket_fd;
    cstring _socket_identifier;
    bool _is_bound;
    BlockingIOData* _blocking_IO_data;
    // Device and inode of the socket file that bind created.
    uint64_t _bound_device;
    uint64_t _bound_inode;
};

}  // namespace J2SE

#endif
