// Linux side of FileSocket: a Unix-domain stream socket named by a path, with millisecond
// time-outs, and the error collector its operations report to.
#include "fileSocket.h"

#include "allocations.h"
#include "errorText.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace J2SE {

namespace {

// A listen backlog of 0 asks for the largest queue the system allows.
const int LARGEST_BACKLOG = 0x7FFFFFFE;
// Longest wait of one connect attempt, so that a close ends a wait for a full listen queue.
const int CONNECT_SLICE_MS = 10;
const int MAX_MESSAGE_LENGTH = 1023;

static_assert(sizeof(sockaddr_un) == 110, "the address record is 2 + 108 bytes");

// All zero, AF_UNIX, at most 107 characters of the path: always terminated, longer paths cut.
sockaddr_un address_record(const cstring& path) {
    sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

timeval as_timeval(int64_t ms) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    return tv;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// ExceptionHandler

ExceptionHandler::ExceptionHandler()
    : _has_thrown(false), _error_code(-1), _time_out_occured(false), _message(), _socket_identifier() {}

ExceptionHandler::~ExceptionHandler() {}

void ExceptionHandler::fill(const cstring& identifier, const char* message, int error) {
    _has_thrown = true;
    if (&identifier != &_socket_identifier) _socket_identifier = identifier;
    if (message != nullptr) {
        _message = cstring(message);
        return;
    }
    _error_code = error;
    const char* text = error == 0 ? "" : error_text(error);
    size_t length = strnlen(text, MAX_MESSAGE_LENGTH);
    _message = cstring(text, text + length);
}

void ExceptionHandler::fill(const FileSocket* socket, const char* message, int error) {
    cstring identifier = socket != nullptr ? socket->socket_identifier() : cstring();
    fill(identifier, message, error);
}

void ExceptionHandler::throw_FileSocketException(const FileSocket* socket, const char* message) {
    fill(socket, message, errno);
}

void ExceptionHandler::throw_FileSocketException(const FileSocket* socket, int error) {
    fill(socket, nullptr, error);
}

void ExceptionHandler::throw_SocketTimeoutException(const FileSocket* socket, const char* message) {
    _time_out_occured = true;
    fill(socket, message, errno);
}

void ExceptionHandler::throw_SocketTimeoutException(const FileSocket* socket, int error) {
    _time_out_occured = true;
    fill(socket, nullptr, error);
}

// ---------------------------------------------------------------------------------------------
// NonBlockingSocket and the timed poll

NonBlockingSocket::NonBlockingSocket(int socket) : _socket(socket), _non_blocking(false) {
    int flags = fcntl(_socket, F_GETFL);
    if (flags != -1 && fcntl(_socket, F_SETFL, flags | O_NONBLOCK) == 0) _non_blocking = true;
}

NonBlockingSocket::~NonBlockingSocket() {
    if (!_non_blocking) return;
    int saved = errno;
    int flags = fcntl(_socket, F_GETFL);
    if (flags != -1) fcntl(_socket, F_SETFL, flags & ~O_NONBLOCK);
    errno = saved;
}

const char* const FileSocketHelperUnix::TMP_DIR_PREFIX = "/tmp/";

int64_t FileSocketHelperUnix::now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int FileSocketHelperUnix::wait_socket(int fd, long timeout_ms, int events) {
    pollfd watched;
    watched.fd = fd;
    watched.events = static_cast<short>(events);
    const bool unlimited = timeout_ms < 0;
    const int64_t deadline = unlimited ? 0 : now_ms() + timeout_ms;
    int remaining = unlimited ? -1 : static_cast<int>(timeout_ms > INT_MAX ? INT_MAX : timeout_ms);
    int result;
    for (;;) {
        watched.revents = 0;
        errno = 0;
        result = poll(&watched, 1, remaining);
        if (result >= 0 || errno != EINTR) break;
        if (!unlimited) {
            int64_t left = deadline - now_ms();
            if (left < 1) return 0;
            remaining = static_cast<int>(left > INT_MAX ? INT_MAX : left);
        }
    }
    // A peer that has hung up counts as a failed wait, even when data could still be read.
    if (result > 0 && (watched.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) return -1;
    return result;
}

// ---------------------------------------------------------------------------------------------
// FileSocket: creation and destruction

static BlockingIOData* new_blocking_data() {
    void* memory = wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/unix/fileSocket_unix.cpp:blocking_data"),
                               sizeof(BlockingIOData));
    return memory != nullptr ? new (memory) BlockingIOData() : nullptr;
}

FileSocket::FileSocket(ExceptionHandler& handler)
    : _socket_fd(-1), _socket_identifier(), _is_bound(false), _blocking_IO_data(new_blocking_data()),
      _bound_device(0), _bound_inode(0) {
    create_descriptor(handler);
}

FileSocket::FileSocket(int fd, const cstring& identifier, ExceptionHandler& handler)
    : _socket_fd(fd), _socket_identifier(identifier), _is_bound(false), _blocking_IO_data(new_blocking_data()),
      _bound_device(0), _bound_inode(0) {
    if (fd == -1) create_descriptor(handler);
}

void FileSocket::create_descriptor(ExceptionHandler& handler) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        handler.throw_FileSocketException(this, nullptr);
        return;
    }
    set_socket_fd(fd);
    BlockingIO::reopen(_blocking_IO_data);
}

void FileSocket::init(ExceptionHandler& handler) {
    if (socket_fd() == -1) create_descriptor(handler);
}

FileSocket::~FileSocket() {
    ExceptionHandler quiet;
    closef(quiet);
    if (_blocking_IO_data != nullptr) {
        _blocking_IO_data->~BlockingIOData();
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/unix/fileSocket_unix.cpp:~FileSocket"), _blocking_IO_data);
        _blocking_IO_data = nullptr;
    }
}

FileSocket* FileSocket::create(ExceptionHandler& handler) {
    void* memory = wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/unix/fileSocket_unix.cpp:create"),
                               sizeof(FileSocket));
    return memory != nullptr ? new (memory) FileSocket(handler) : nullptr;
}

FileSocket* FileSocket::create(int fd, const cstring& identifier, ExceptionHandler& handler) {
    void* memory = wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/unix/fileSocket_unix.cpp:create"),
                               sizeof(FileSocket));
    return memory != nullptr ? new (memory) FileSocket(fd, identifier, handler) : nullptr;
}

void FileSocket::destroy(FileSocket* socket) {
    if (socket == nullptr) return;
    socket->~FileSocket();
    wrap_free(alloc_site("(libnoxjvm_inspector.so) src/unix/fileSocket_unix.cpp:destroy"), socket);
}

// ---------------------------------------------------------------------------------------------
// bind and accept

void FileSocket::bind(const cstring& path, int backlog, bool restrictAccess, ExceptionHandler& handler) {
    if (socket_fd() == -1) {
        handler.throw_FileSocketException(this, "FileSocket was not created successfully (has no socket endpoint)");
        return;
    }
    // An empty path would make Linux choose an abstract name. A path too long for the socket
    // address would be bound under a shortened name while the stale-socket removal, the chmod
    // and the removal at close act on the whole path, a different file: refuse both.
    if (path.is_empty() || path.length() > sizeof(sockaddr_un::sun_path) - 1) {
        handler.throw_FileSocketException(this, "bind failed");
        return;
    }
    const char* failure = nullptr;
    {
        // Registered, so that a close in the meantime cannot release the number under us.
        BlockingIO io(_blocking_IO_data);
        failure = bind_and_listen(descriptor_in(io), path, backlog, restrictAccess);
    }
    if (failure != nullptr) handler.throw_FileSocketException(this, failure);
}

const char* FileSocket::bind_and_listen(int fd, const cstring& path, int backlog, bool restrictAccess) {
    if (fd < 0) return "bind failed";
    // Remove a stale socket file of an earlier server, but nothing else: a regular file, a
    // folder or a symbolic link planted at the path stays and the bind below fails.
    struct stat existing;
    if (lstat(path.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) unlink(path.c_str());

    // The socket file takes the descriptor's mode when bind creates it: 0600 from the start.
    if (restrictAccess) fchmod(fd, 0600);
    sockaddr_un address = address_record(path);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return "bind failed";
    // The file this bind created; a close removes the path only while it still names this file.
    struct stat created;
    if (lstat(path.c_str(), &created) == 0) {
        _bound_device = static_cast<uint64_t>(created.st_dev);
        _bound_inode = static_cast<uint64_t>(created.st_ino);
    }
    // Bound before listen, so that a close removes the file even when listen fails.
    set_socket_identifier(path);
    set_bound(true);
    if (::listen(fd, backlog == 0 ? LARGEST_BACKLOG : backlog) != 0) return "listen failed";
    if (restrictAccess && chmod(path.c_str(), 0600) != 0) return "chmod failed";
    return nullptr;
}

FileSocket* FileSocket::accept(int /*backlog*/, bool /*restrictAccess*/, ExceptionHandler& handler) {
    // The backlog and the access restriction were applied by bind.
    if (!is_bound() || socket_identifier().is_empty()) {
        handler.throw_FileSocketException(this, "FileSocket::accept failed: file socket has no bound filename");
        return nullptr;
    }
    int accepted;
    for (;;) {
        {
            BlockingIO io(_blocking_IO_data);
            int fd = descriptor_in(io);
            if (fd < 0) {
                accepted = -1;
            } else {
                sockaddr_storage peer;
                socklen_t length = sizeof peer;
                accepted = accept4(fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
            }
        }
        if (accepted >= 0) break;
        if (errno != EINTR) {
            handler.throw_FileSocketException(this, nullptr);
            return nullptr;
        }
    }
    FileSocket* connection = create(accepted, socket_identifier(), handler);
    if (connection == nullptr) {
        ::close(accepted);
        return nullptr;
    }
    if (handler.has_thrown()) {
        destroy(connection);
        return nullptr;
    }
    return connection;
}

// ---------------------------------------------------------------------------------------------
// connect

int FileSocket::connect_in_slices(const void* address, int64_t deadline_ms, bool retry_eintr) const {
    timeval original;
    bool saved = false;
    int result;
    int error;
    for (;;) {
        int64_t slice = CONNECT_SLICE_MS;
        if (deadline_ms != 0) {
            int64_t left = deadline_ms - FileSocketHelperUnix::now_ms();
            if (left < 1) {
                result = -1;
                error = EAGAIN;
                break;
            }
            if (left < slice) slice = left;
        }
        bool refused;
        {
            BlockingIO io(_blocking_IO_data);
            int fd = descriptor_in(io);
            refused = fd < 0;
            if (refused) {
                result = -1;
            } else {
                if (!saved) {
                    socklen_t length = sizeof original;
                    saved = getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &original, &length) == 0;
                }
                timeval tv = as_timeval(slice);
                setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
                result = ::connect(fd, static_cast<const sockaddr*>(address), sizeof(sockaddr_un));
            }
        }
        error = errno;
        if (result == 0 || refused) break;
        // EAGAIN: the slice ended while the listen queue was full. A close in the meantime
        // has turned the result into EBADF, which ends the loop.
        if (error == EAGAIN || (retry_eintr && error == EINTR)) continue;
        break;
    }
    if (saved) {
        // Registered again: once a close has begun, the descriptor is left alone.
        BlockingIO io(_blocking_IO_data);
        int fd = descriptor_in(io);
        if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &original, sizeof original);
    }
    errno = error;
    return result;
}

void FileSocket::connect(const cstring& path, int timeout_ms, ExceptionHandler& handler) {
    if (path.is_empty()) {
        handler.throw_FileSocketException(this, "Filesocket path musn't be null");
        return;
    }
    if (socket_fd() < 0) {
        handler.throw_FileSocketException(this, "Filesocket has no socket endpoint");
        return;
    }
    // A path too long for the socket address would be cut, and the cut path may name another
    // server: refuse it before any connection is made (ENAMETOOLONG, "File name too long").
    if (path.length() > sizeof(sockaddr_un::sun_path) - 1) {
        handler.throw_FileSocketException(this, ENAMETOOLONG);
        return;
    }
    sockaddr_un address = address_record(path);
    if (timeout_ms >= 1) {
        timed_connect(path, &address, timeout_ms, handler);
        return;
    }
    if (connect_in_slices(&address, 0, false) == 0) {
        set_socket_identifier(path);
    } else {
        handler.throw_FileSocketException(this, nullptr);
    }
}

// Linux never reports EINPROGRESS for a Unix-domain stream connect: it completes at once, or
// fails with EAGAIN when the listen queue is full. That case waits, in blocking slices, for
// the rest of the time-out; every other immediate failure is "connect0 failed".
void FileSocket::timed_connect(const cstring& path, const void* address, int timeout_ms,
                               ExceptionHandler& handler) {
    const int64_t deadline = FileSocketHelperUnix::now_ms() + timeout_ms;
    int result;
    bool refused;
    {
        BlockingIO io(_blocking_IO_data);
        int fd = descriptor_in(io);
        refused = fd < 0;
        if (refused) {
            result = -1;
        } else {
            NonBlockingSocket non_blocking(fd);
            result = ::connect(fd, static_cast<const sockaddr*>(address), sizeof(sockaddr_un));
        }
    }
    if (result == 0) {
        set_socket_identifier(path);
        return;
    }
    if (refused) {
        handler.throw_FileSocketException(this, nullptr);
        return;
    }
    if (errno != EAGAIN && errno != EINPROGRESS) {
        handler.throw_FileSocketException(this, "connect0 failed");
        return;
    }
    if (connect_in_slices(address, deadline, true) == 0) {
        set_socket_identifier(path);
    } else if (errno == EAGAIN) {
        handler.throw_SocketTimeoutException(this, "Connect timed out");
    } else {
        handler.throw_FileSocketException(this, nullptr);
    }
}

// ---------------------------------------------------------------------------------------------
// read, write, available, shutdown, close

// Waits, registered for a close to release it, until the socket is ready for `events`; false
// after reporting the time-out (as `timeout_text`) or the failed wait.
bool FileSocket::wait_ready(int timeout_ms, int events, const char* timeout_text,
                            ExceptionHandler& handler) const {
    int waited;
    {
        BlockingIO io(_blocking_IO_data);
        int fd = descriptor_in(io);
        waited = fd < 0 ? -1 : FileSocketHelperUnix::wait_socket(fd, timeout_ms, events);
    }
    if (waited == 0) {
        handler.throw_SocketTimeoutException(this, timeout_text);
        return false;
    }
    if (waited < 0) {
        handler.throw_FileSocketException(this, nullptr);
        return false;
    }
    return true;
}

// With a time-out the call after the wait does not block (MSG_DONTWAIT): another thread may
// have taken the bytes, or a large write may not fit, and a blocking call would then outlast
// the time-out. EAGAIN sends the caller back to the wait.
int FileSocket::readf(char* buffer, int length, int timeout_ms, ExceptionHandler& handler) const {
    const bool timed = timeout_ms >= 1;
    const size_t size = static_cast<size_t>(length > 0 ? length : 0);
    ssize_t count;
    for (;;) {
        if (timed && !wait_ready(timeout_ms, POLLIN | POLLERR, "Read timed out", handler)) return -1;
        do {
            BlockingIO io(_blocking_IO_data);
            int fd = descriptor_in(io);
            count = fd < 0 ? -1 : ::recv(fd, buffer, size, timed ? MSG_DONTWAIT : 0);
        } while (count < 0 && errno == EINTR);
        if (!(timed && count < 0 && errno == EAGAIN)) break;
    }
    // End of stream and read errors alike give -1 without a report.
    return count > 0 ? static_cast<int>(count) : -1;
}

namespace {

// poll until `fd` is ready for `events` or reports anything, at most until deadline_ms
// (0 = no limit); a signal never stretches the wait. The result of poll (0: time-out).
int poll_until(int fd, int events, int64_t deadline_ms) {
    for (;;) {
        int wait = -1;
        if (deadline_ms != 0) {
            int64_t left = deadline_ms - FileSocketHelperUnix::now_ms();
            if (left < 1) return 0;
            wait = static_cast<int>(left > INT_MAX ? INT_MAX : left);
        }
        pollfd watched;
        watched.fd = fd;
        watched.events = static_cast<short>(events);
        watched.revents = 0;
        errno = 0;
        int ready = poll(&watched, 1, wait);
        if (ready >= 0 || errno != EINTR) return ready;
    }
}

// recv on `fd` (-1: released by a close, errno EBADF). With a deadline (monotonic ms, 0 = none)
// the socket is first read without waiting and then polled for the rest of the time; any
// readiness, a hang-up or an error included, goes back to recv, which tells which it was.
ssize_t receive_on(int fd, char* buffer, size_t size, int64_t deadline_ms, bool* timed_out) {
    if (fd < 0) return -1;
    for (;;) {
        ssize_t count = ::recv(fd, buffer, size, deadline_ms != 0 ? MSG_DONTWAIT : 0);
        if (count >= 0) return count;
        if (errno == EINTR) continue;
        if (deadline_ms == 0 || errno != EAGAIN) return -1;
        int ready = poll_until(fd, POLLIN, deadline_ms);
        if (ready == 0) {
            *timed_out = true;
            return -1;
        }
        if (ready < 0) return -1;
    }
}

}  // namespace

int FileSocket::receive(char* buffer, int length, int timeout_ms, ExceptionHandler& handler) const {
    const size_t size = static_cast<size_t>(length > 0 ? length : 0);
    const int64_t deadline = timeout_ms >= 1 ? FileSocketHelperUnix::now_ms() + timeout_ms : 0;
    bool timed_out = false;
    ssize_t count;
    {
        BlockingIO io(_blocking_IO_data);
        count = receive_on(descriptor_in(io), buffer, size, deadline, &timed_out);
    }
    // errno is the read's, or EBADF when a close released this thread.
    if (timed_out) {
        handler.throw_SocketTimeoutException(this, "Read timed out");
        return -1;
    }
    if (count < 0) {
        handler.throw_FileSocketException(this, errno);
        return -1;
    }
    return static_cast<int>(count);
}

bool FileSocket::wait_until(int events, int64_t deadline_ms, const char* timeout_text,
                            ExceptionHandler& handler) const {
    int ready;
    {
        BlockingIO io(_blocking_IO_data);
        int fd = descriptor_in(io);
        ready = fd < 0 ? -1 : poll_until(fd, events, deadline_ms);
    }
    if (ready == 0) {
        handler.throw_SocketTimeoutException(this, timeout_text);
        return false;
    }
    if (ready < 0) {
        handler.throw_FileSocketException(this, errno);
        return false;
    }
    return true;
}

int FileSocket::receive_pinned(PinnedBuffer& buffer, int length, int timeout_ms, ExceptionHandler& handler) const {
    const size_t size = static_cast<size_t>(length > 0 ? length : 0);
    const int64_t deadline = timeout_ms >= 1 ? FileSocketHelperUnix::now_ms() + timeout_ms : 0;
    for (;;) {
        ssize_t count = -1;
        {
            BlockingIO io(_blocking_IO_data);
            int fd = descriptor_in(io);
            if (fd >= 0) {
                char* bytes = buffer.pin();
                if (bytes == nullptr) return -1;
                count = ::recv(fd, bytes, size, MSG_DONTWAIT);
                int error = errno;
                buffer.unpin();
                errno = error;
            }
        }
        // errno is the read's, or EBADF when a close released this thread.
        if (count >= 0) return static_cast<int>(count);
        if (errno == EINTR) continue;
        if (errno != EAGAIN) {
            handler.throw_FileSocketException(this, errno);
            return -1;
        }
        if (!wait_until(POLLIN, deadline, "Read timed out", handler)) return -1;
    }
}

int FileSocket::send_pinned(PinnedBuffer& buffer, int length, int timeout_ms, ExceptionHandler& handler) const {
    int total = 0;
    while (total < length) {
        ssize_t count = -1;
        {
            BlockingIO io(_blocking_IO_data);
            int fd = descriptor_in(io);
            if (fd >= 0) {
                char* bytes = buffer.pin();
                if (bytes == nullptr) return total;
                // MSG_NOSIGNAL: a peer that has gone gives EPIPE, not a SIGPIPE that ends the JVM.
                count = ::send(fd, bytes + total, static_cast<size_t>(length - total), MSG_DONTWAIT | MSG_NOSIGNAL);
                int error = errno;
                buffer.unpin();
                errno = error;
            }
        }
        if (count > 0) {
            total += static_cast<int>(count);
            continue;
        }
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) {
            // The time-out bounds each wait for room, not the whole transfer.
            int64_t deadline = timeout_ms >= 1 ? FileSocketHelperUnix::now_ms() + timeout_ms : 0;
            if (!wait_until(POLLOUT, deadline, "Write timed out", handler)) return total;
            continue;
        }
        handler.throw_FileSocketException(this, nullptr);
        return total;
    }
    return total;
}

int FileSocket::writef(const char* buffer, int length, int timeout_ms, ExceptionHandler& handler) const {
    const bool timed = timeout_ms >= 1;
    // MSG_NOSIGNAL: a peer that has gone gives EPIPE instead of a SIGPIPE that would end the
    // whole JVM.
    const int flags = MSG_NOSIGNAL | (timed ? MSG_DONTWAIT : 0);
    int total = 0;
    while (total < length) {
        // The time-out applies to each pass, not to the whole transfer.
        if (timed && !wait_ready(timeout_ms, POLLOUT | POLLERR, "Write timed out", handler)) return total;
        ssize_t count;
        do {
            BlockingIO io(_blocking_IO_data);
            int fd = descriptor_in(io);
            count = fd < 0 ? -1 : ::send(fd, buffer + total, static_cast<size_t>(length - total), flags);
        } while (count < 0 && errno == EINTR);
        if (timed && count < 0 && errno == EAGAIN) continue;
        if (count <= 0) {
            handler.throw_FileSocketException(this, nullptr);
            return total;
        }
        total += static_cast<int>(count);
    }
    return total;
}

int FileSocket::available() const {
    if (socket_fd() < 0) return -1;
    int count = 0;
    int result;
    {
        BlockingIO io(_blocking_IO_data);
        int fd = descriptor_in(io);
        result = fd < 0 ? -1 : ioctl(fd, FIONREAD, &count);
    }
    return result == -1 ? -1 : count;
}

void FileSocket::shutdown(bool /*how*/, ExceptionHandler& handler) {
    // Always both ways.
    if (socket_fd() <= 0) return;
    int result;
    {
        BlockingIO io(_blocking_IO_data);
        int fd = descriptor_in(io);
        if (fd <= 0) return;
        result = ::shutdown(fd, SHUT_RDWR);
    }
    if (result != 0 && errno != ENOTCONN && errno != EINVAL) handler.throw_FileSocketException(this, nullptr);
}

void FileSocket::closef(ExceptionHandler& handler) {
    int shutdown_error = 0;
    bool closed_here = false;
    int result = BlockingIO::close(_blocking_IO_data, &_socket_fd, &shutdown_error, &closed_here);
    int close_error = errno;
    if (!closed_here) {
        // Closed by another thread, whose close has finished, or never opened: nothing to
        // release, nothing to report.
        set_socket_identifier(cstring());
        return;
    }
    // Reported while the identifier still names the socket.
    if (shutdown_error != 0) handler.throw_FileSocketException(this, shutdown_error);
    if (result != 0) handler.throw_FileSocketException(this, close_error);
    cstring identifier = socket_identifier();
    if (is_bound() && !identifier.is_empty()) remove_bound_file(identifier);
    set_bound(false);
    set_socket_identifier(cstring());
    BlockingIO::finish_close(_blocking_IO_data);
}

void FileSocket::remove_bound_file(const cstring& path) const {
    struct stat current;
    if (lstat(path.c_str(), &current) != 0 || !S_ISSOCK(current.st_mode)) return;
    if (static_cast<uint64_t>(current.st_dev) != _bound_device || static_cast<uint64_t>(current.st_ino) != _bound_inode) return;
    unlink(path.c_str());
}

int FileSocket::descriptor_in(const BlockingIO& io) const {
    int fd = io.refused() ? -1 : socket_fd();
    if (fd < 0) errno = EBADF;
    return fd;
}

cstring FileSocket::socket_identifier() const {
    if (_blocking_IO_data == nullptr) return _socket_identifier;
    pthread_mutex_lock(&_blocking_IO_data->_lock);
    cstring copy(_socket_identifier);
    pthread_mutex_unlock(&_blocking_IO_data->_lock);
    return copy;
}

void FileSocket::set_socket_identifier(const cstring& identifier) {
    if (_blocking_IO_data == nullptr) {
        _socket_identifier = identifier;
        return;
    }
    pthread_mutex_lock(&_blocking_IO_data->_lock);
    _socket_identifier = identifier;
    pthread_mutex_unlock(&_blocking_IO_data->_lock);
}

// ---------------------------------------------------------------------------------------------
// Socket file names

cstring FileSocket::create_identifier(const cstring& name) {
    if (strchr(name.c_str(), '/') != nullptr) return name;
    char buffer[100];
    snprintf(buffer, sizeof buffer, "%s", FileSocketHelperUnix::TMP_DIR_PREFIX);
    size_t prefix = strlen(FileSocketHelperUnix::TMP_DIR_PREFIX);
    size_t room = sizeof buffer - 1 - prefix;
    size_t kept = name.length() < room ? name.length() : room;
    // A cut inside a multi-byte character would hand Java an invalid UTF-8 text: cut before
    // the character instead.
    if (kept < name.length()) {
        while (kept > 0 && (static_cast<unsigned char>(name.c_str()[kept]) & 0xC0) == 0x80) kept--;
    }
    strncat(buffer, name.c_str(), kept);
    buffer[sizeof buffer - 1] = '\0';
    return cstring(buffer);
}

int16_t FileSocket::is_filesocket_server_attachable(const cstring& name) {
    cstring identifier = create_identifier(name);
    struct stat info;
    if (stat(identifier.c_str(), &info) != 0) return -1;
    passwd entry;
    passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(info.st_uid, &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr) return 1;
    return info.st_uid == getuid() ? 0 : 1;
}

}  // namespace J2SE
