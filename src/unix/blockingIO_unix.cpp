// Linux side of BlockingIO: the registry of threads inside a system call on one socket, and the
// close that releases them before the descriptor number can be reused.
//
// The danger it answers: thread A reads the descriptor number, thread B closes the socket and
// some other part of the JVM opens a file that gets the same number; A's read or write would
// then hit that file. So every call on the descriptor happens inside a registration and reads
// the number there; a close takes the number out of the socket (one closer among many gets
// it), refuses new registrations, shuts the socket down (which makes accept, read, write and
// poll return at once) and waits until every registered thread has left before it calls
// close(). Calls that a shutdown does not end (a connect waiting for a full listen queue) are
// made in short slices by their callers.
#include "fileSocket.h"

#include <cerrno>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

namespace J2SE {

int BlockingIO::sigWakeup = 0;
pthread_mutex_t BlockingIO::init_mutex = PTHREAD_MUTEX_INITIALIZER;
bool BlockingIO::initialized = false;

BlockingIOData::BlockingIOData() : _blocked_threads(nullptr), _closing(false), _closed(false) {
    pthread_mutex_init(&_lock, nullptr);
    pthread_cond_init(&_left, nullptr);
}

BlockingIOData::~BlockingIOData() {
    pthread_cond_destroy(&_left);
    pthread_mutex_destroy(&_lock);
}

BlockingIO::BlockingIO(BlockingIOData* data)
    : _blocking_data(data), _thread(pthread_self()), _interrupted(false), _next(nullptr), _refused(false) {
    if (data == nullptr) return;
    int saved = errno;
    pthread_mutex_lock(&data->_lock);
    if (data->_closing || data->_closed) {
        // Not linked: the closer may already have released the number.
        _refused = true;
        _interrupted = true;
    } else {
        _next = data->_blocked_threads;
        data->_blocked_threads = this;
    }
    pthread_mutex_unlock(&data->_lock);
    errno = saved;
}

BlockingIO::~BlockingIO() {
    if (_blocking_data == nullptr) return;
    int restore = errno;
    if (_refused) {
        errno = EBADF;
        return;
    }
    BlockingIOData* data = _blocking_data;
    pthread_mutex_lock(&data->_lock);
    BlockingIO* previous = nullptr;
    BlockingIO* current = data->_blocked_threads;
    while (current != nullptr && current != this) {
        previous = current;
        current = current->_next;
    }
    if (current != nullptr) {
        if (_interrupted) restore = EBADF;
        if (previous == nullptr) {
            data->_blocked_threads = _next;
        } else {
            previous->_next = _next;
        }
        if (data->_closing) pthread_cond_broadcast(&data->_left);
    }
    pthread_mutex_unlock(&data->_lock);
    errno = restore;
}

namespace {

// Shuts the socket down both ways, which releases threads blocked in accept, read, write or
// poll on it. ENOTCONN and EINVAL (a socket never connected, or listening) are expected.
void shut_down(int fd, int* shutdown_error) {
    if (::shutdown(fd, SHUT_RDWR) != 0 && errno != ENOTCONN && errno != EINVAL) *shutdown_error = errno;
}

}  // namespace

int BlockingIO::close(BlockingIOData* data, FileSocketFD* slot, int* shutdown_error, bool* closed_here) {
    *shutdown_error = 0;
    *closed_here = false;
    if (data == nullptr) {
        int fd = __atomic_exchange_n(slot, -1, __ATOMIC_ACQ_REL);
        if (fd == -1) return 0;
        *closed_here = true;
        shut_down(fd, shutdown_error);
        // Never retried: on Linux the number is released even when close reports EINTR.
        return ::close(fd);
    }
    pthread_mutex_lock(&data->_lock);
    // The hand-over: of all the threads closing at once, exactly one gets the real number.
    int fd = __atomic_exchange_n(slot, -1, __ATOMIC_ACQ_REL);
    if (fd == -1) {
        // Another thread is closing (or has closed) the socket: return once its close is done,
        // so that no caller comes back while the socket is still half open.
        while (data->_closing && !data->_closed) pthread_cond_wait(&data->_left, &data->_lock);
        pthread_mutex_unlock(&data->_lock);
        return 0;
    }
    *closed_here = true;
    data->_closing = true;
    data->_closed = false;
    shut_down(fd, shutdown_error);
    for (BlockingIO* blocked = data->_blocked_threads; blocked != nullptr; blocked = blocked->_next) {
        blocked->_interrupted = true;
        pthread_kill(blocked->_thread, sigWakeup);
    }
    // The wait releases the lock, but the number is already out of the slot: a closer that
    // comes in now finds -1 and waits for this close, and a new registration is refused.
    while (data->_blocked_threads != nullptr) pthread_cond_wait(&data->_left, &data->_lock);
    int result = ::close(fd);
    int saved = errno;
    pthread_mutex_unlock(&data->_lock);
    errno = saved;
    return result;
}

void BlockingIO::finish_close(BlockingIOData* data) {
    if (data == nullptr) return;
    int saved = errno;
    pthread_mutex_lock(&data->_lock);
    data->_closed = true;
    pthread_cond_broadcast(&data->_left);
    pthread_mutex_unlock(&data->_lock);
    errno = saved;
}

void BlockingIO::reopen(BlockingIOData* data) {
    if (data == nullptr) return;
    pthread_mutex_lock(&data->_lock);
    data->_closing = false;
    data->_closed = false;
    pthread_mutex_unlock(&data->_lock);
}

}  // namespace J2SE
