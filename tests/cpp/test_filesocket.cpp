// The file-socket layer without a JVM: what each failure reports, the socket file and a peer that
// hangs up, time-outs and signals, and socket file names and owners. Closes racing blocked calls
// are in test_filesocket_races.cpp.
#include "fileSocket.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using J2SE::ExceptionHandler;
using J2SE::FileSocket;

namespace {

// A listening server, a connected client and the accepted end.
struct Connection {
    noxtest::ScopedPath path{noxtest::socket_path("pair")};
    ExceptionHandler handler;
    FileSocket server{handler};
    FileSocket client{handler};
    FileSocket* accepted = nullptr;

    Connection() {
        server.bind(path.c_str(), 0, false, handler);
        client.connect(path.c_str(), 0, handler);
        accepted = server.accept(0, false, handler);
    }
    ~Connection() { FileSocket::destroy(accepted); }
};

void ignore_signal(int) {}

// Sends SIGUSR2 to one thread every 2 ms (for at most 8 s) while it lives; the handler is
// installed without SA_RESTART, so every blocking call of that thread sees EINTR. The handler
// stays: a signal still pending when the object goes must not end the process.
class Signals {
public:
    explicit Signals(pthread_t target) : _target(target) {
        struct sigaction action = {};
        action.sa_handler = ignore_signal;
        sigaction(SIGUSR2, &action, nullptr);
        _thread = std::thread([this] {
            auto end = std::chrono::steady_clock::now() + std::chrono::seconds(8);
            while (!_stop && std::chrono::steady_clock::now() < end) {
                pthread_kill(_target, SIGUSR2);
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        });
    }
    ~Signals() {
        _stop = true;
        _thread.join();
    }

private:
    pthread_t _target;
    std::atomic<bool> _stop{false};
    std::thread _thread;
};

long elapsed_ms(std::chrono::steady_clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count());
}

}  // namespace

// Every refused operation reports its fixed text or the system's text with its error number.
TEST(FileSocket, FailuresReportTheirTexts) {
    noxtest::ScopedDir dir;
    noxtest::ScopedPath regular(noxtest::socket_path("regular"));
    ASSERT_TRUE(noxtest::write_file(regular.path(), 3));
    // A file of the user at a path too long for the address: a bind under the cut name would
    // change or remove it at close.
    std::string too_long = dir.file(std::string(120 - dir.path().size(), 'p'));
    ASSERT_TRUE(noxtest::write_file(too_long, 5));
    // A server at the longest path that fits, and a path that is that one plus more.
    std::string longest = dir.file(std::string(107 - dir.path().size() - 1, 'c'));
    ASSERT_EQ(longest.size(), 107u);
    ExceptionHandler setup;
    FileSocket server(setup);
    server.bind(longest.c_str(), 0, false, setup);
    ASSERT_FALSE(setup.has_thrown()) << setup.message().c_str();
    std::string missing = noxtest::socket_path("missing");

    struct Case {
        const char* what;
        std::function<void(FileSocket&, ExceptionHandler&)> act;
        const char* message;
        int error;
    };
    const std::vector<Case> cases = {
        {"accept unbound", [](FileSocket& s, ExceptionHandler& h) { FileSocket::destroy(s.accept(0, false, h)); },
         "FileSocket::accept failed: file socket has no bound filename", -1},
        {"bind the empty path", [](FileSocket& s, ExceptionHandler& h) { s.bind("", 0, false, h); }, "bind failed", -1},
        {"bind onto a regular file", [&](FileSocket& s, ExceptionHandler& h) { s.bind(regular.c_str(), 0, false, h); },
         "bind failed", -1},
        {"bind a path too long", [&](FileSocket& s, ExceptionHandler& h) { s.bind(too_long.c_str(), 0, true, h); },
         "bind failed", -1},
        {"bind after close",
         [](FileSocket& s, ExceptionHandler& h) {
             s.closef(h);
             s.bind("/tmp/x", 0, false, h);
         },
         "FileSocket was not created successfully (has no socket endpoint)", -1},
        {"timed connect, no listener", [&](FileSocket& s, ExceptionHandler& h) { s.connect(missing.c_str(), 100, h); },
         "connect0 failed", -1},
        {"connect, no listener", [&](FileSocket& s, ExceptionHandler& h) { s.connect(missing.c_str(), 0, h); },
         "No such file or directory", ENOENT},
        {"connect the empty path", [](FileSocket& s, ExceptionHandler& h) { s.connect("", 0, h); },
         "Filesocket path musn't be null", -1},
        {"connect after close",
         [&](FileSocket& s, ExceptionHandler& h) {
             s.closef(h);
             s.connect(missing.c_str(), 0, h);
         },
         "Filesocket has no socket endpoint", -1},
        {"connect a path too long", [&](FileSocket& s, ExceptionHandler& h) { s.connect((longest + "x").c_str(), 0, h); },
         "File name too long", ENAMETOOLONG},
        {"timed connect a path too long",
         [&](FileSocket& s, ExceptionHandler& h) { s.connect((longest + "x").c_str(), 500, h); }, "File name too long",
         ENAMETOOLONG},
    };
    for (const Case& c : cases) {
        ExceptionHandler handler;
        FileSocket socket(handler);
        c.act(socket, handler);
        EXPECT_TRUE(handler.has_thrown()) << c.what;
        EXPECT_FALSE(handler.time_out_occured()) << c.what;
        EXPECT_STREQ(handler.message(), c.message) << c.what;
        EXPECT_EQ(handler.error_code(), c.error) << c.what;
        EXPECT_FALSE(socket.is_bound()) << c.what;
        ExceptionHandler quiet;
        socket.closef(quiet);
    }
    // What was at the paths is untouched, and no connection reached the server at the cut path.
    struct stat info;
    ASSERT_EQ(stat(regular.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    ASSERT_EQ(stat(too_long.c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 5);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_FALSE(noxtest::path_exists(too_long.substr(0, 107)));
    pollfd pending{server.socket_fd(), POLLIN, 0};
    EXPECT_EQ(poll(&pending, 1, 0), 0) << "a connection reached the server at the cut path";
    server.closef(setup);
}

// A stale socket file is replaced, by a file of mode 0600 when access is restricted; reports of
// an accepted socket name the server's path; only a server's close removes the file, and only
// the file it bound itself. (The stream reads' end of stream and reset are in the Java tests.)
TEST(FileSocket, TheSocketFile) {
    noxtest::ScopedPath stale(noxtest::socket_path("stale"));
    ASSERT_TRUE(noxtest::make_socket_file(stale.path()));
    ExceptionHandler handler;
    FileSocket server(handler);
    server.bind(stale.c_str(), 0, true, handler);
    ASSERT_FALSE(handler.has_thrown()) << handler.message().c_str();
    struct stat info;
    ASSERT_EQ(stat(stale.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    FileSocket client(handler);
    client.connect(stale.c_str(), 0, handler);
    FileSocket* accepted = server.accept(0, false, handler);
    ASSERT_NE(accepted, nullptr);
    EXPECT_STREQ(accepted->socket_identifier(), stale.c_str());
    client.closef(handler);
    // The accepted end reads the end of the stream without a report; a timed read of a peer that
    // has hung up is a failed wait, not a time-out; a write breaks.
    char byte;
    ExceptionHandler eof, hangup, broken;
    EXPECT_EQ(accepted->readf(&byte, 1, 0, eof), -1);
    EXPECT_FALSE(eof.has_thrown());
    EXPECT_EQ(accepted->readf(&byte, 1, 100, hangup), -1);
    EXPECT_TRUE(hangup.has_thrown());
    EXPECT_FALSE(hangup.time_out_occured());
    for (int i = 0; i < 100 && !broken.has_thrown(); i++) accepted->writef("x", 1, 0, broken);
    EXPECT_STREQ(broken.message(), "Broken pipe");
    EXPECT_STREQ(broken.socket_identifier(), stale.c_str());
    FileSocket::destroy(accepted);
    EXPECT_TRUE(noxtest::path_exists(stale.path())) << "accepted and connected sockets never remove the file";
    // Another server takes the path over (the file is then its own): the first server's close
    // leaves it, the successor's close removes it.
    FileSocket successor(handler);
    successor.bind(stale.c_str(), 0, false, handler);
    server.closef(handler);
    EXPECT_TRUE(noxtest::path_exists(stale.path())) << "a close removed another server's file";
    successor.closef(handler);
    EXPECT_FALSE(noxtest::path_exists(stale.path())) << "a server's close leaves its own file";
    EXPECT_FALSE(handler.has_thrown()) << handler.message().c_str();
}

// Each timed call reports its time-out as such, not early and within a loose bound (a wait of
// 200 ms that takes 5 s is broken), while signals keep interrupting its waits; each untimed call
// waits through the signals until its peer acts.
TEST(FileSocket, TimeOutsAndSignals) {
    Connection c;
    ASSERT_NE(c.accepted, nullptr);
    Connection full;
    ASSERT_NE(full.accepted, nullptr);
    noxtest::fill(full.client);
    noxtest::FullQueue queue;
    ASSERT_TRUE(queue.full()) << "the listen queue never filled";
    std::vector<char> big(4 << 20, 'b');
    char buffer[64];
    noxtest::TestPin pin(buffer);
    noxtest::TestPin big_pin(big.data());

    struct Case {
        const char* what;
        std::function<int(ExceptionHandler&)> call;
        const char* timeout_text;  // null: untimed, the peer acts after 300 ms
        std::function<void()> peer;
    };
    auto send_byte = [&] { ASSERT_EQ(write(c.accepted->socket_fd(), "z", 1), 1); };
    auto connect_peer = [&] {
        ExceptionHandler h;
        FileSocket late(h);
        late.connect(c.path.c_str(), 0, h);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    };
    const std::vector<Case> cases = {
        {"readf", [&](ExceptionHandler& h) { return c.client.readf(buffer, 1, 200, h); }, "Read timed out", nullptr},
        {"receive", [&](ExceptionHandler& h) { return c.client.receive(buffer, 1, 200, h); }, "Read timed out", nullptr},
        {"receive_pinned", [&](ExceptionHandler& h) { return c.client.receive_pinned(pin, 1, 200, h); },
         "Read timed out", nullptr},
        {"writef", [&](ExceptionHandler& h) { return full.client.writef(big.data(), 1 << 20, 200, h); },
         "Write timed out", nullptr},
        {"send_pinned", [&](ExceptionHandler& h) { return full.client.send_pinned(big_pin, 1 << 20, 200, h); },
         "Write timed out", nullptr},
        {"connect",
         [&](ExceptionHandler& h) {
             FileSocket waiting(h);
             waiting.connect(queue.path.c_str(), 200, h);
             return 0;
         },
         "Connect timed out", nullptr},
        {"untimed readf", [&](ExceptionHandler& h) { return c.client.readf(buffer, 1, 0, h); }, nullptr, send_byte},
        {"untimed receive", [&](ExceptionHandler& h) { return c.client.receive(buffer, 1, 0, h); }, nullptr, send_byte},
        {"untimed receive_pinned", [&](ExceptionHandler& h) { return c.client.receive_pinned(pin, 1, 0, h); }, nullptr,
         send_byte},
        {"accept",
         [&](ExceptionHandler& h) {
             FileSocket* more = c.server.accept(0, false, h);
             FileSocket::destroy(more);
             return more != nullptr ? 1 : -1;
         },
         nullptr, connect_peer},
    };
    for (const Case& k : cases) {
        ExceptionHandler handler;
        std::thread peer;
        if (k.peer) {
            peer = std::thread([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                k.peer();
            });
        }
        auto started = std::chrono::steady_clock::now();
        int result;
        {
            Signals signals(pthread_self());
            result = k.call(handler);
        }
        long took = elapsed_ms(started);
        if (peer.joinable()) peer.join();
        if (k.timeout_text != nullptr) {
            EXPECT_TRUE(handler.time_out_occured()) << k.what << ": " << handler.message().c_str();
            EXPECT_STREQ(handler.message(), k.timeout_text) << k.what;
            EXPECT_GE(took, 100) << k.what << " timed out early";
            EXPECT_LT(took, 5000) << k.what << " timed out after " << took << " ms";
        } else {
            EXPECT_FALSE(handler.has_thrown()) << k.what << ": " << handler.message().c_str();
            EXPECT_EQ(result, 1) << k.what;
        }
        EXPECT_FALSE(pin.pinned() || big_pin.pinned()) << k.what;
    }
}

// Bare names lie in /tmp, cut to 94 bytes but never inside a character; a server is attachable
// when its socket file is the caller's.
TEST(FileSocket, SocketFileNamesAndOwners) {
    std::string name = std::string(93, 'n') + "\xc3\xa9" + "tail";  // é takes bytes 94 and 95
    EXPECT_EQ(std::string(FileSocket::create_identifier(name.c_str()).c_str()), "/tmp/" + std::string(93, 'n'));
    EXPECT_EQ(std::string(FileSocket::create_identifier(std::string(120, 'm').c_str()).c_str()),
              "/tmp/" + std::string(94, 'm'));

    EXPECT_EQ(FileSocket::is_filesocket_server_attachable(noxtest::socket_path("none").c_str()), -1);
    noxtest::ScopedPath own(noxtest::socket_path("own"));
    ASSERT_TRUE(noxtest::make_socket_file(own.path()));
    EXPECT_EQ(FileSocket::is_filesocket_server_attachable(own.c_str()), 0);
    if (getuid() != 0) {
        GTEST_SKIP() << "another user's socket file needs root to make";
    }
    ASSERT_EQ(chown(own.c_str(), 65534, 65534), 0);
    EXPECT_EQ(FileSocket::is_filesocket_server_attachable(own.c_str()), 1);
}
