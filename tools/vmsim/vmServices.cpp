#include "vmServices.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace vmsim {
namespace {

std::string error_name(int error) {
    const char* name = strerrorname_np(error);
    return name != nullptr ? name : "errno " + std::to_string(error);
}

std::string own_path(const char* family, pid_t pid) {
    return std::string("/tmp/nox_jvm_") + family + std::to_string(geteuid()) + "_" + std::to_string(pid);
}

void put_le(unsigned char* at, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; i++) at[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint64_t realtime_ms() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// Ticks the board's counter on a fixed CLOCK_MONOTONIC schedule until the process ends. The
// counter is 8-byte aligned and stored in one instruction (x86-64), after the time of the tick,
// so a reader never sees a torn counter; the two fields together are not a snapshot.
void* tick_board(void* arg) {
    unsigned char* board = static_cast<unsigned char*>(arg);
    struct timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (uint64_t ticks = 1;; ticks++) {
        next.tv_nsec += BOARD_TICK_NS;
        if (next.tv_nsec >= 1000000000L) {
            next.tv_nsec -= 1000000000L;
            next.tv_sec++;
        }
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr) == EINTR) {
        }
        put_le(board + BOARD_TIME, realtime_ms(), 8);
        __atomic_store_n(reinterpret_cast<uint64_t*>(board + BOARD_COUNTER), ticks, __ATOMIC_RELEASE);
    }
    return nullptr;
}

// A connection of the profiling server and the bytes of its unfinished line.
struct Client {
    int fd;
    std::string pending;
};

// A line longer than this is answered in pieces of this size, so a client that never sends a
// newline cannot make the server grow without bound.
constexpr size_t LONGEST_LINE = 65536;

bool send_all(int fd, const std::string& text) {
    size_t sent = 0;
    while (sent < text.size()) {
        ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;  // gone, or not reading for longer than the send time-out
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool answer(int fd, const std::string& line) {
    return send_all(fd, "PONG " + line + "\n");
}

// Answers every complete line of the client; returns false when the connection is to be closed.
bool answer_lines(Client& client) {
    for (;;) {
        size_t newline = client.pending.find('\n');
        if (newline == std::string::npos) {
            if (client.pending.size() < LONGEST_LINE) return true;
            newline = LONGEST_LINE;
            if (!answer(client.fd, client.pending.substr(0, newline))) return false;
            client.pending.erase(0, newline);
            continue;
        }
        if (!answer(client.fd, client.pending.substr(0, newline))) return false;
        client.pending.erase(0, newline + 1);
    }
}

// Reads what the client sent; returns false when the connection is to be closed. A last line
// without newline at the end of the stream is answered before the close.
bool serve(Client& client) {
    char buffer[4096];
    ssize_t n = read(client.fd, buffer, sizeof buffer);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (n <= 0) {
        if (n == 0 && !client.pending.empty()) answer(client.fd, client.pending);
        return false;
    }
    client.pending.append(buffer, static_cast<size_t>(n));
    return answer_lines(client);
}

void accept_client(int listener, std::vector<Client>& clients) {
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;  // the peer gave up meanwhile, or descriptors ran out: keep serving
    // A client that does not read its answers holds the server for at most a second per answer.
    struct timeval limit = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    clients.push_back(Client{fd, std::string()});
}

// One poll loop serves the listening socket and every connection, so the VM's own thread stays
// free for its semaphore wait. Runs until the process ends.
void* run_server(void* arg) {
    int listener = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    std::vector<Client> clients;
    std::vector<struct pollfd> fds;
    for (;;) {
        fds.assign(1, pollfd{listener, POLLIN, 0});
        for (const Client& client : clients) fds.push_back(pollfd{client.fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0) continue;  // EINTR; nothing else can fail here
        std::vector<Client> kept;
        for (size_t i = 0; i < clients.size(); i++) {
            bool keep = fds[i + 1].revents == 0 || serve(clients[i]);
            if (keep) kept.push_back(clients[i]);
            else close(clients[i].fd);
        }
        clients.swap(kept);
        if (fds[0].revents & POLLIN) accept_client(listener, clients);
    }
    return nullptr;
}

bool start_thread(void* (*body)(void*), void* arg) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, body, arg) != 0) return false;
    pthread_detach(thread);
    return true;
}

}  // namespace

std::string board_path(pid_t pid) {
    return own_path("monitoringboard_", pid);
}

std::string server_path(pid_t pid) {
    return own_path("profiling_server_", pid);
}

bool start_board(size_t size, int slot, std::string* error) {
    pid_t pid = getpid();
    std::string path = board_path(pid);
    // A file of this name belongs to an ended process that had our pid: it is stale.
    unlink(path.c_str());
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = "cannot create " + path + ": " + error_name(errno);
        return false;
    }
    // The mode is set on the descriptor so a umask cannot change it; space is reserved before
    // the mapping is written, so a full /tmp fails here and not with SIGBUS later.
    int failure = fchmod(fd, 0600) != 0 ? errno : posix_fallocate(fd, 0, static_cast<off_t>(size));
    void* map = failure == 0 ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    if (failure == 0 && map == MAP_FAILED) failure = errno;
    close(fd);
    if (map == MAP_FAILED) {
        unlink(path.c_str());
        *error = "cannot make the board " + path + ": " + error_name(failure);
        return false;
    }
    unsigned char* board = static_cast<unsigned char*>(map);
    memcpy(board + BOARD_MAGIC, "NOXBOARD", 8);
    put_le(board + BOARD_PID, static_cast<uint32_t>(pid), 4);
    put_le(board + BOARD_SLOT, static_cast<uint32_t>(slot), 4);
    put_le(board + BOARD_TIME, realtime_ms(), 8);
    put_le(board + BOARD_SIZE, static_cast<uint32_t>(size), 4);
    // The mapping stays for the life of the process: the ticking thread never stops.
    if (!start_thread(tick_board, board)) {
        munmap(map, size);
        unlink(path.c_str());
        *error = "cannot start the board's thread";
        return false;
    }
    return true;
}

bool start_server(std::string* error) {
    std::string path = server_path(getpid());
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        *error = "socket path too long: " + path;
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = "cannot create the profiling server's socket: " + error_name(errno);
        return false;
    }
    // Linux gives the socket file the mode of the socket's inode (less the umask), so the
    // fchmod before bind means the file never exists with a wider mode.
    unlink(path.c_str());  // a stale socket file of an ended process with our pid
    const char* step = "fchmod";
    bool bound = false;
    if (fchmod(fd, 0600) == 0) {
        step = "bind";
        bound = bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0;
        if (bound) step = "listen";
        if (bound && listen(fd, 16) == 0) step = nullptr;
    }
    if (step == nullptr && start_thread(run_server, reinterpret_cast<void*>(static_cast<intptr_t>(fd)))) return true;
    *error = step != nullptr ? std::string("profiling server ") + path + ": " + step + " failed: " + error_name(errno)
                             : std::string("cannot start the profiling server's thread");
    close(fd);
    if (bound) unlink(path.c_str());
    return false;
}

void remove_services_of(pid_t pid) {
    if (pid <= 0) return;
    unlink(board_path(pid).c_str());
    unlink(server_path(pid).c_str());
}

}  // namespace vmsim
