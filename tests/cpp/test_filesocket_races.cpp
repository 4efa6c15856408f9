// Races of the file-socket layer: a close by one thread while others are blocked in accept, read,
// write and connect on the socket (its number reused at once after the close), and two closes
// with a caller still inside. Each test repeats its race many times; the `tsan` preset runs them
// under ThreadSanitizer.
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
#include <thread>
#include <unistd.h>
#include <vector>

using J2SE::BlockingIO;
using J2SE::BlockingIOData;
using J2SE::ExceptionHandler;
using J2SE::FileSocket;

namespace {

const std::chrono::seconds WAIT_LIMIT(10);

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

// One cycle: `block` runs on its own thread until a close of `socket` releases it; the close
// runs when the thread is registered in the socket's system call. At once after the close a pipe
// takes the lowest free numbers, as another thread of the VM would: the released call must not
// read from or write to it under its socket's old number.
void close_while_blocked(FileSocket& socket, const std::function<void()>& block, const char* what) {
    std::atomic<bool> returned{false};
    std::thread blocked([&] {
        block();
        returned = true;
    });
    await([&] { return registered_threads(socket) > 0; }, what);
    ExceptionHandler closing;
    socket.closef(closing);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    EXPECT_EQ(write(fds[1], "z", 1), 1);
    EXPECT_FALSE(closing.has_thrown()) << closing.message().c_str();
    await([&] { return returned.load(); }, "the blocked thread returned after the close");
    blocked.join();
    char left[2];
    EXPECT_EQ(read(fds[0], left, sizeof left), 1) << what << ": the released call used the pipe";
    close(fds[0]);
    close(fds[1]);
}

}  // namespace

// Every blocking call, untimed and timed, comes back from a close of its socket by another
// thread, with a failure (-1 for readf), and no descriptor is left behind. The close comes when
// the thread is registered in the call: before it has made the system call or inside it.
TEST(FileSocketRaces, CloseReleasesEveryBlockedCall) {
    noxtest::FullQueue full;
    ASSERT_TRUE(full.full()) << "the listen queue never filled";
    const int before = open_descriptors();
    noxtest::ScopedPath path(noxtest::socket_path("blocked"));
    ExceptionHandler setup;
    FileSocket server(setup);
    server.bind(path.c_str(), 0, false, setup);
    std::vector<char> chunk(64 * 1024, 'w');
    char byte;
    noxtest::TestPin pin(&byte);
    noxtest::TestPin chunk_pin(chunk.data());
    // What each kind does on its socket; true when the call came back as a failure.
    using Call = std::function<bool(FileSocket&, ExceptionHandler&)>;
    struct Kind {
        const char* what;
        bool fill;  // the connection is filled first, so that a write waits
        Call call;
    };
    const int size = static_cast<int>(chunk.size());
    const std::vector<Kind> kinds = {
        {"readf", false, [&](FileSocket& s, ExceptionHandler& h) { return s.readf(&byte, 1, 0, h) == -1; }},
        {"timed readf", false, [&](FileSocket& s, ExceptionHandler& h) { return s.readf(&byte, 1, 60000, h) == -1; }},
        {"receive", false, [&](FileSocket& s, ExceptionHandler& h) { return s.receive(&byte, 1, 0, h) <= 0; }},
        {"timed receive", false, [&](FileSocket& s, ExceptionHandler& h) { return s.receive(&byte, 1, 60000, h) <= 0; }},
        {"receive_pinned", false, [&](FileSocket& s, ExceptionHandler& h) { return s.receive_pinned(pin, 1, 0, h) <= 0; }},
        {"writef", true, [&](FileSocket& s, ExceptionHandler& h) { return s.writef(chunk.data(), size, 0, h) < size && h.has_thrown(); }},
        {"timed writef", true,
         [&](FileSocket& s, ExceptionHandler& h) { return s.writef(chunk.data(), size, 60000, h) < size && h.has_thrown(); }},
        {"send_pinned", true,
         [&](FileSocket& s, ExceptionHandler& h) { return s.send_pinned(chunk_pin, size, 0, h) < size && h.has_thrown(); }},
    };
    for (int cycle = 0; cycle < noxtest::race_rounds(2000); cycle++) {
        const int kind = cycle % (static_cast<int>(kinds.size()) + 3);
        bool failed = false;
        ExceptionHandler released;
        if (kind >= static_cast<int>(kinds.size())) {
            // accept on a listening socket of its own, or connect to the full queue.
            noxtest::ScopedPath own(noxtest::socket_path("accept"));
            FileSocket socket(setup);
            int what = kind - static_cast<int>(kinds.size());
            if (what == 0) socket.bind(own.c_str(), 0, false, setup);
            close_while_blocked(socket, [&] {
                if (what == 0) {
                    FileSocket* accepted = socket.accept(0, false, released);
                    failed = accepted == nullptr && released.error_code() == EBADF;
                } else {
                    socket.connect(full.path.c_str(), what == 1 ? 0 : 60000, released);
                    failed = released.has_thrown() && !released.time_out_occured();
                }
            }, "a thread blocked in accept or connect");
            EXPECT_TRUE(failed) << "cycle " << cycle << ": " << released.message().c_str();
        } else {
            FileSocket client(setup);
            client.connect(path.c_str(), 0, setup);
            FileSocket* accepted = server.accept(0, false, setup);
            ASSERT_FALSE(setup.has_thrown()) << setup.message().c_str();
            if (kinds[kind].fill) noxtest::fill(client);
            close_while_blocked(client, [&] { failed = kinds[kind].call(client, released); }, kinds[kind].what);
            EXPECT_TRUE(failed) << kinds[kind].what << ", cycle " << cycle;
            FileSocket::destroy(accepted);
        }
        if (HasFailure()) break;
    }
    server.closef(setup);
    EXPECT_EQ(open_descriptors(), before) << "descriptors left open";
}

// The registry: a close waits for the threads registered in calls before it releases the
// number, a second close returns only when the first has finished, and a registration that
// comes after the close is refused.
TEST(FileSocketRaces, CloseWaitsForCallersAndForTheFirstCloser) {
    for (int round = 0; round < noxtest::race_rounds(50); round++) {
        noxtest::ScopedPath path(noxtest::socket_path("registry"));
        ExceptionHandler setup;
        FileSocket server(setup);
        server.bind(path.c_str(), 0, false, setup);
        const int fd = server.socket_fd();
        std::atomic<bool> leave{false};
        std::atomic<int> errno_after{0};
        std::thread caller([&] {
            {
                BlockingIO io(server.blocking_data());
                while (!leave) std::this_thread::yield();
                errno = EAGAIN;
            }
            errno_after = errno;
        });
        await([&] { return registered_threads(server) == 1; }, "the caller registered");
        std::atomic<int> closed{0};
        std::thread first([&] {
            ExceptionHandler h;
            server.closef(h);
            closed++;
        });
        await([&] { return server.socket_fd() == -1; }, "the first close took the descriptor");
        std::thread second([&] {
            ExceptionHandler h;
            server.closef(h);
            closed++;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 5 == 0 ? 20 : 1));
        EXPECT_EQ(closed.load(), 0) << "a close returned while a caller was still registered";
        EXPECT_NE(fcntl(fd, F_GETFD), -1) << "the number was released under a registered caller";
        EXPECT_TRUE(noxtest::path_exists(path.path()));
        leave = true;
        first.join();
        second.join();
        caller.join();
        EXPECT_EQ(errno_after.load(), EBADF) << "the caller is told that its socket was closed";
        EXPECT_FALSE(noxtest::path_exists(path.path()));
        {
            BlockingIO late(server.blocking_data());
            EXPECT_TRUE(late.refused());
        }
        if (HasFailure()) break;
    }
}
