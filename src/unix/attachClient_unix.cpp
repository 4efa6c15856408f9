// One command run through a VM's attach listener: the socket checked and connected, the request
// written, the status line read, the output streamed.
#include "attachClient.h"
#include "errorText.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>

namespace J2SE {

namespace {

// A socket report keeps errno also when it carries a fixed text ("connect0 failed"), so that
// the message can say what the system said.
class ErrnoKeepingHandler : public ExceptionHandler {
public:
    ErrnoKeepingHandler() : saved_errno(0) {}
    using ExceptionHandler::throw_FileSocketException;
    using ExceptionHandler::throw_SocketTimeoutException;
    void throw_FileSocketException(const FileSocket* socket, const char* message) override {
        saved_errno = errno;
        ExceptionHandler::throw_FileSocketException(socket, message);
    }
    void throw_SocketTimeoutException(const FileSocket* socket, const char* message) override {
        saved_errno = errno;
        ExceptionHandler::throw_SocketTimeoutException(socket, message);
    }
    int saved_errno;
};

enum SocketFile { SOCKET_ABSENT, SOCKET_THE_VMS, SOCKET_NOT_USED };

// What is at the socket's path: nothing, the VM's socket, or something else (error set). Anyone
// may create names in /tmp; the VM makes its socket with mode 0600 and its own user.
SocketFile check_socket_file(const AttachTarget& target, AttachError* error) {
    struct stat st;
    if (lstat(target.socket_path, &st) != 0) {
        if (errno == ENOENT) return SOCKET_ABSENT;
        error->set(ATTACH_IO, cstring::printf("cannot look at %s: %s", target.socket_path.c_str(), error_text(errno)));
        return SOCKET_NOT_USED;
    }
    const char* path = target.socket_path.c_str();
    if (!S_ISSOCK(st.st_mode)) {
        error->set(ATTACH_FOREIGN_FILE, cstring::printf("%s is not a socket but a %s: not used", path,
                                                        S_ISLNK(st.st_mode) ? "link" : "file"));
    } else if (st.st_uid != target.euid) {
        error->set(ATTACH_FOREIGN_FILE, cstring::printf(
            "%s belongs to user id %u, not to the VM's user (user id %u): not used", path,
            static_cast<unsigned>(st.st_uid), target.euid));
    } else if ((st.st_mode & 077) != 0) {
        error->set(ATTACH_FOREIGN_FILE, cstring::printf("%s is open to other users (mode %03o): not used", path,
                                                        static_cast<unsigned>(st.st_mode & 0777)));
    } else {
        return SOCKET_THE_VMS;
    }
    return SOCKET_NOT_USED;
}

// The process that listens on the socket is the VM itself (the kernel's peer credentials; the
// pid as our namespace sees it).
bool check_peer(int fd, const AttachTarget& target, AttachError* error) {
    ucred peer;
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return error->set(ATTACH_IO, cstring::printf("cannot tell who serves %s: %s", target.socket_path.c_str(),
                                                     error_text(errno)));
    }
    if (peer.pid != target.pid || peer.uid != target.euid) {
        return error->set(ATTACH_FOREIGN_FILE, cstring::printf(
            "%s is served by process %d of user id %u, not by VM pid %d: not used", target.socket_path.c_str(),
            static_cast<int>(peer.pid), static_cast<unsigned>(peer.uid), target.pid));
    }
    return true;
}

int left_ms(int64_t deadline_ms) {
    int64_t left = deadline_ms - FileSocketHelperUnix::now_ms();
    return left < 1 ? 0 : static_cast<int>(left);
}

// The socket file once the listener runs: the VM's, or why not.
bool socket_ready(const AttachTarget& target, int64_t deadline_ms, AttachError* error) {
    SocketFile found = check_socket_file(target, error);
    if (found == SOCKET_ABSENT) {
        if (!start_attach_listener(target, deadline_ms, error)) return false;
        found = check_socket_file(target, error);
    }
    if (found == SOCKET_ABSENT) {
        return error->set(ATTACH_GONE, cstring::printf("the attach socket of VM pid %d vanished", target.pid));
    }
    return found == SOCKET_THE_VMS;
}

}  // namespace

AttachConnection::AttachConnection() : _socket(nullptr), _pid(0), _pending_start(0), _pending_end(0) {}

AttachConnection::~AttachConnection() {
    FileSocket::destroy(_socket);
}

bool AttachConnection::open(int pid, const AttachRequest& request, int timeout_ms, AttachError* error) {
    if (_socket != nullptr) return error->set(ATTACH_BAD_REQUEST, "the connection is already open");
    if (request.length() == 0) return error->set(ATTACH_BAD_REQUEST, "no command");
    const int64_t deadline = FileSocketHelperUnix::now_ms() + (timeout_ms < 1 ? 1 : timeout_ms);
    _pid = pid;
    AttachTarget target;
    if (!target.resolve(pid, error) || !socket_ready(target, deadline, error) ||
        !connect(target, deadline, error)) {
        return false;
    }
    ErrnoKeepingHandler handler;
    _socket->writef(request.bytes(), static_cast<int>(request.length()), left_ms(deadline) + 1, handler);
    if (handler.has_thrown()) {
        return error->set(handler.time_out_occured() ? ATTACH_TIMED_OUT : ATTACH_IO, cstring::printf(
            "VM pid %d did not take the command %s: %s", pid, request.name(), handler.message().c_str()));
    }
    return read_status(deadline, error);
}

bool AttachConnection::connect(const AttachTarget& target, int64_t deadline_ms, AttachError* error) {
    ErrnoKeepingHandler handler;
    _socket = FileSocket::create(handler);
    if (_socket == nullptr || handler.has_thrown()) {
        return error->set(ATTACH_IO, cstring::printf("no socket: %s", handler.message().c_str()));
    }
    _socket->connect(target.socket_path, left_ms(deadline_ms) + 1, handler);
    if (handler.time_out_occured()) {
        return error->set(ATTACH_TIMED_OUT, cstring::printf("VM pid %d took no connection within the time-out",
                                                            target.pid));
    }
    if (handler.has_thrown()) {
        return error->set(ATTACH_IO, cstring::printf("cannot connect to %s: %s", target.socket_path.c_str(),
                                                     error_text(handler.saved_errno)));
    }
    return check_peer(_socket->socket_fd(), target, error);
}

bool AttachConnection::read_status(int64_t deadline_ms, AttachError* error) {
    while (_parser.state() == AttachReplyParser::READING_STATUS) {
        int left = left_ms(deadline_ms);
        ErrnoKeepingHandler handler;
        int count = left < 1 ? -1 : _socket->receive(_pending, sizeof _pending, left, handler);
        if (count < 0 && (left < 1 || handler.time_out_occured())) {
            return error->set(ATTACH_TIMED_OUT, cstring::printf("VM pid %d did not answer within the time-out", _pid));
        }
        if (count < 0) {
            return error->set(ATTACH_IO, cstring::printf("reading the answer of VM pid %d failed: %s", _pid,
                                                         handler.message().c_str()));
        }
        size_t used = 0;
        if (count == 0) {
            _parser.finish();
        } else {
            _parser.feed(_pending, static_cast<size_t>(count), &used);
        }
        _pending_start = used;
        _pending_end = static_cast<size_t>(count);
    }
    if (_parser.state() == AttachReplyParser::MALFORMED) {
        return error->set(ATTACH_PROTOCOL, cstring::printf("VM pid %d gave no attach reply: %s", _pid,
                                                           _parser.problem()));
    }
    return true;
}

int AttachConnection::read(char* buffer, int length, int timeout_ms, AttachError* error) {
    if (length <= 0) return 0;
    if (_pending_start < _pending_end) {
        size_t count = _pending_end - _pending_start;
        if (count > static_cast<size_t>(length)) count = static_cast<size_t>(length);
        memcpy(buffer, _pending + _pending_start, count);
        _pending_start += count;
        return static_cast<int>(count);
    }
    if (_socket == nullptr || _parser.state() != AttachReplyParser::READING_OUTPUT) {
        error->set(ATTACH_IO, "the connection is not open");
        return -1;
    }
    ErrnoKeepingHandler handler;
    int count = _socket->receive(buffer, length, timeout_ms < 1 ? 1 : timeout_ms, handler);
    if (count >= 0) return count;
    error->set(handler.time_out_occured() ? ATTACH_TIMED_OUT : ATTACH_IO,
               handler.time_out_occured()
                   ? cstring::printf("VM pid %d sent no more output within the time-out", _pid)
                   : cstring::printf("reading the output of VM pid %d failed: %s", _pid, handler.message().c_str()));
    return -1;
}

void AttachConnection::close() {
    if (_socket == nullptr) return;
    ExceptionHandler quiet;
    _socket->closef(quiet);
}

}  // namespace J2SE
