// Races of the file-socket layer: many threads closing one socket while others are blocked in
// accept, read, write and connect on it, and a file opened by another thread at the same time.
// Each test repeats its race many times; the `tsan` preset runs them under ThreadSanitizer.
#include "fileSocket.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using J2SE::BlockingIO;
using J2SE::BlockingIOData;
using J2SE::ExceptionHandler;
using J2SE::FileSocket;

namespace {

const std::chrono::seconds WAIT_LIMIT(10);

std::string unique_path(const std::string& tag) {
    static std::atomic<int> counter{0};
    return "/tmp/noxfs_race_" + std::to_string(getpid()) + "_" + tag + "_" + std::to_string(++counter);
}

int open_descriptors() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (readdir(dir) != nullptr) count++;
    closedir(dir);
    return count;
}

// Threads of `socket` currently registered as being inside a system call.
int registered_threads(const FileSocket& socket) {
    BlockingIOData* data = socket.blocking_data();
    if (data == nullptr) return 0;
    pthread_mutex_lock(&data->_lock);
    int count = 0;
    for (BlockingIO* io = data->_blocked_threads; io != nullptr; io = io->next()) count++;
    pthread_mutex_unlock(&data->_lock);
    return count;
}

// Waits until `condition` holds; ends the test process with `what` when it does not within the
// limit, because the threads of the race still use objects on this stack.
void await(const std::function<bool()>& condition, const char* what) {
    auto deadline = std::chrono::steady_clock::now() + WAIT_LIMIT;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            fprintf(stderr, "did not happen within %lld s: %s\n", static_cast<long long>(WAIT_LIMIT.count()), what);
            fflush(stderr);
            abort();
        }
        std::this_thread::yield();
    }
}

// Opens, writes, reads back and closes a file of its own until stopped; counts every step that
// did not do what it should (a descriptor closed under it by a stray close, bytes of someone
// else).
class FileChurn {
public:
    FileChurn() : _path(unique_path("churn")), _thread([this] { run(); }) {}
    ~FileChurn() {
        stop();
        unlink(_path.c_str());
    }
    void stop() {
        _stop = true;
        if (_thread.joinable()) _thread.join();
    }
    int failures() const { return _failures.load(); }
    int cycles() const { return _cycles.load(); }

private:
    void run() {
        char pattern[256];
        char back[sizeof pattern];
        while (!_stop) {
            int cycle = _cycles.load();
            memset(pattern, 'a' + cycle % 26, sizeof pattern);
            int fd = open(_path.c_str(), O_CREAT | O_RDWR | O_TRUNC | O_CLOEXEC, 0600);
            if (fd < 0) {
                _failures++;
                continue;
            }
            bool ok = true;
            for (int i = 0; i < 8 && ok; i++) ok = write(fd, pattern, sizeof pattern) == static_cast<ssize_t>(sizeof pattern);
            for (int i = 0; i < 8 && ok; i++) {
                ok = pread(fd, back, sizeof back, static_cast<off_t>(i * sizeof back)) == static_cast<ssize_t>(sizeof back) &&
                     memcmp(back, pattern, sizeof back) == 0;
            }
            if (close(fd) != 0) ok = false;
            if (!ok) _failures++;
            _cycles++;
        }
    }

    std::string _path;
    std::atomic<bool> _stop{false};
    std::atomic<int> _failures{0};
    std::atomic<int> _cycles{0};
    std::thread _thread;
};

// A pool of threads that each call closef on the sockets of a round, all released at once.
class Closers {
public:
    explicit Closers(int count) {
        for (int i = 0; i < count; i++) _threads.emplace_back([this] { run(); });
    }
    ~Closers() {
        _quit = true;
        _generation++;
        for (auto& t : _threads) t.join();
    }
    // Every thread closes each socket once; returns the number of closes that reported.
    int close_all(std::vector<FileSocket*> sockets) {
        _sockets = std::move(sockets);
        _done = 0;
        _reports = 0;
        _generation++;
        int count = static_cast<int>(_threads.size());
        await([&] { return _done.load() == count; }, "every closer returned from closef");
        return _reports.load();
    }
    const std::string& first_report() const { return _first_report; }

private:
    void run() {
        int seen = 0;
        for (;;) {
            while (_generation.load() == seen) std::this_thread::yield();
            seen = _generation.load();
            if (_quit) return;
            for (FileSocket* socket : _sockets) {
                ExceptionHandler handler;
                socket->closef(handler);
                if (handler.has_thrown() && _reports++ == 0) _first_report = handler.message().c_str();
            }
            _done++;
        }
    }

    std::vector<std::thread> _threads;
    std::vector<FileSocket*> _sockets;
    std::atomic<int> _generation{0};
    std::atomic<bool> _quit{false};
    std::atomic<int> _done{0};
    std::atomic<int> _reports{0};
    std::string _first_report;
};

int rounds(int normal) {
    const char* text = getenv("NOX_RACE_ROUNDS");
    return text != nullptr && atoi(text) > 0 ? atoi(text) : normal;
}

}  // namespace

// 200 threads close one listening socket and one connected socket at the same moment while two
// threads are blocked in accept on the first and two in read on the second, and another thread
// keeps opening, writing and closing a file. Each descriptor is closed exactly once: no close
// reports anything, the file thread never loses its descriptor, and no descriptor is left.
TEST(FileSocketRaces, ManyClosersCloseOnce) {
    const int before = open_descriptors();
    {
        FileChurn churn;
        Closers closers(200);
        for (int round = 0; round < rounds(40); round++) {
            noxtest::ScopedPath path(unique_path("close"));
            ExceptionHandler setup;
            FileSocket server(setup);
            FileSocket client(setup);
            server.bind(path.c_str(), 0, false, setup);
            client.connect(path.c_str(), 0, setup);
            FileSocket* accepted = server.accept(0, false, setup);
            ASSERT_FALSE(setup.has_thrown()) << setup.message().c_str();
            ASSERT_NE(accepted, nullptr);

            std::atomic<int> returned{0};
            std::vector<std::thread> blocked;
            for (int i = 0; i < 2; i++) {
                blocked.emplace_back([&] {
                    ExceptionHandler handler;
                    FileSocket::destroy(server.accept(0, false, handler));
                    returned++;
                });
                blocked.emplace_back([&] {
                    ExceptionHandler handler;
                    char byte;
                    client.readf(&byte, 1, 0, handler);
                    returned++;
                });
            }
            await([&] { return registered_threads(server) == 2 && registered_threads(client) == 2; },
                  "two threads blocked in accept and two in read");
            int reports = closers.close_all({&server, &client});
            EXPECT_EQ(reports, 0) << "round " << round << ": " << closers.first_report();
            await([&] { return returned.load() == 4; }, "the blocked threads returned after the close");
            for (auto& t : blocked) t.join();
            EXPECT_EQ(server.socket_fd(), -1);
            EXPECT_EQ(client.socket_fd(), -1);
            EXPECT_FALSE(noxtest::path_exists(path.path())) << "the closed server's socket file is removed";
            FileSocket::destroy(accepted);
            if (HasFailure()) break;
        }
        churn.stop();
        EXPECT_EQ(churn.failures(), 0) << "the file thread lost its descriptor or its bytes";
        EXPECT_GT(churn.cycles(), 0);
    }
    EXPECT_EQ(open_descriptors(), before) << "descriptors left open";
}

// The socket file belongs to the server that created it: a close after another server has
// taken the path leaves the new server's file alone, also when many threads close at once.
TEST(FileSocketRaces, CloseRemovesOnlyTheFileItBound) {
    Closers closers(50);
    for (int round = 0; round < rounds(50); round++) {
        noxtest::ScopedPath path(unique_path("owner"));
        ExceptionHandler handler;
        FileSocket first(handler);
        first.bind(path.c_str(), 0, false, handler);
        // A second server takes the path over: bind removes the stale socket file first.
        FileSocket second(handler);
        second.bind(path.c_str(), 0, false, handler);
        ASSERT_FALSE(handler.has_thrown()) << handler.message().c_str();
        EXPECT_EQ(closers.close_all({&first}), 0) << closers.first_report();
        ASSERT_TRUE(noxtest::path_exists(path.path())) << "round " << round << ": the first server's close removed the second's file";
        ExceptionHandler connecting;
        FileSocket client(connecting);
        client.connect(path.c_str(), 0, connecting);
        EXPECT_FALSE(connecting.has_thrown()) << connecting.message().c_str();
        second.closef(handler);
        EXPECT_FALSE(noxtest::path_exists(path.path())) << "the second server removes its own file";
    }
}

namespace {

// Plain memory standing in for a pinned Java array.
class PlainPin : public J2SE::PinnedBuffer {
public:
    explicit PlainPin(char* bytes) : _bytes(bytes) {}
    char* pin() override { return _bytes; }
    void unpin() override {}

private:
    char* _bytes;
};

// One cycle: `block` runs on its own thread until a close of `socket` releases it; the close
// runs when the thread is registered in the socket's system call.
void close_while_blocked(FileSocket& socket, const std::function<void()>& block, const char* what) {
    std::atomic<bool> returned{false};
    std::thread blocked([&] {
        block();
        returned = true;
    });
    await([&] { return registered_threads(socket) > 0; }, what);
    ExceptionHandler closing;
    socket.closef(closing);
    EXPECT_FALSE(closing.has_thrown()) << closing.message().c_str();
    await([&] { return returned.load(); }, "the blocked thread returned after the close");
    blocked.join();
}

}  // namespace

TEST(FileSocketRaces, CloseWhileBlockedInAccept) {
    const int before = open_descriptors();
    for (int cycle = 0; cycle < rounds(1000); cycle++) {
        noxtest::ScopedPath path(unique_path("accept"));
        ExceptionHandler setup;
        FileSocket server(setup);
        server.bind(path.c_str(), 0, false, setup);
        ASSERT_FALSE(setup.has_thrown()) << setup.message().c_str();
        ExceptionHandler released;
        FileSocket* accepted = nullptr;
        close_while_blocked(server, [&] { accepted = server.accept(0, false, released); }, "a thread blocked in accept");
        EXPECT_EQ(accepted, nullptr);
        EXPECT_EQ(released.error_code(), EBADF) << released.message().c_str();
        if (HasFailure()) break;
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(FileSocketRaces, CloseWhileBlockedInRead) {
    const int before = open_descriptors();
    noxtest::ScopedPath path(unique_path("read"));
    ExceptionHandler setup;
    FileSocket server(setup);
    server.bind(path.c_str(), 0, false, setup);
    for (int cycle = 0; cycle < rounds(1000); cycle++) {
        FileSocket client(setup);
        client.connect(path.c_str(), 0, setup);
        FileSocket* accepted = server.accept(0, false, setup);
        ASSERT_FALSE(setup.has_thrown()) << setup.message().c_str();
        int result = 0;
        ExceptionHandler released;
        // Every kind of read in turn: readf and receive untimed (waiting in recv) and timed
        // (waiting in poll), and the pinned read (waiting in poll).
        close_while_blocked(client, [&] {
            char byte;
            PlainPin pin(&byte);
            switch (cycle % 5) {
            case 0: result = client.readf(&byte, 1, 0, released); break;
            case 1: result = client.readf(&byte, 1, 60000, released); break;
            case 2: result = client.receive(&byte, 1, 0, released) > 0 ? 1 : -1; break;
            case 3: result = client.receive(&byte, 1, 60000, released) > 0 ? 1 : -1; break;
            default: result = client.receive_pinned(pin, 1, 0, released) > 0 ? 1 : -1; break;
            }
        }, "a thread blocked in read");
        EXPECT_EQ(result, -1);
        FileSocket::destroy(accepted);
        if (HasFailure()) break;
    }
    server.closef(setup);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(FileSocketRaces, CloseWhileBlockedInWrite) {
    const int before = open_descriptors();
    noxtest::ScopedPath path(unique_path("write"));
    ExceptionHandler setup;
    FileSocket server(setup);
    server.bind(path.c_str(), 0, false, setup);
    std::vector<char> chunk(64 * 1024, 'w');
    for (int cycle = 0; cycle < rounds(1000); cycle++) {
        FileSocket client(setup);
        client.connect(path.c_str(), 0, setup);
        FileSocket* accepted = server.accept(0, false, setup);
        ASSERT_FALSE(setup.has_thrown()) << setup.message().c_str();
        // Fill the connection: nobody reads the accepted end.
        while (send(client.socket_fd(), chunk.data(), chunk.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
        ExceptionHandler released;
        int written = 0;
        close_while_blocked(client, [&] {
            PlainPin pin(chunk.data());
            switch (cycle % 3) {
            case 0: written = client.writef(chunk.data(), static_cast<int>(chunk.size()), 0, released); break;
            case 1: written = client.writef(chunk.data(), static_cast<int>(chunk.size()), 60000, released); break;
            default: written = client.send_pinned(pin, static_cast<int>(chunk.size()), 0, released); break;
            }
        }, "a thread blocked in write");
        EXPECT_LT(written, static_cast<int>(chunk.size()));
        EXPECT_TRUE(released.has_thrown());
        FileSocket::destroy(accepted);
        if (HasFailure()) break;
    }
    server.closef(setup);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(FileSocketRaces, CloseWhileBlockedInConnect) {
    const int before = open_descriptors();
    noxtest::ScopedPath path(unique_path("connect"));
    ExceptionHandler setup;
    FileSocket server(setup);
    server.bind(path.c_str(), 1, false, setup);
    ASSERT_FALSE(setup.has_thrown()) << setup.message().c_str();
    // Fill the listen queue so that the next connect waits.
    std::vector<FileSocket*> queued;
    for (int i = 0; i < 64; i++) {
        ExceptionHandler filling;
        FileSocket* s = FileSocket::create(filling);
        s->connect(path.c_str(), 20, filling);
        queued.push_back(s);
        if (filling.time_out_occured()) break;
    }
    for (int cycle = 0; cycle < rounds(1000); cycle++) {
        ExceptionHandler created;
        FileSocket client(created);
        ExceptionHandler released;
        close_while_blocked(client, [&] { client.connect(path.c_str(), cycle % 2 == 0 ? 0 : 60000, released); },
                            "a thread blocked in connect");
        EXPECT_TRUE(released.has_thrown());
        EXPECT_FALSE(released.time_out_occured()) << released.message().c_str();
        if (HasFailure()) break;
    }
    for (FileSocket* s : queued) FileSocket::destroy(s);
    server.closef(setup);
    EXPECT_EQ(open_descriptors(), before);
}
