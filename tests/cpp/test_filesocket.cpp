// The file-socket layer without a JVM: the error collector, the registry of blocked threads,
// the endpoint's fixed texts, time-outs and socket-file handling, and a close that never lets a
// released thread touch a reused descriptor number.
#include "fileSocket.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using J2SE::BlockingIO;
using J2SE::BlockingIOData;
using J2SE::cstring;
using J2SE::ExceptionHandler;
using J2SE::FileSocket;

namespace {

std::string unique_path(const std::string& tag) {
    static int counter = 0;
    return "/tmp/noxfs_cpp_" + std::to_string(getpid()) + "_" + tag + "_" + std::to_string(++counter);
}

// A listening server, a connected client and the accepted end.
struct Connection {
    noxtest::ScopedPath path{unique_path("pair")};
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

bool exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

// True once `flag` is set, false when `seconds` pass first.
bool returns_within(const std::atomic<bool>& flag, int seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!flag) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace

TEST(ExceptionHandler, RecordsTextsErrorsAndTimeOuts) {
    ExceptionHandler fresh;
    EXPECT_FALSE(fresh.has_thrown());
    EXPECT_EQ(fresh.error_code(), -1);
    EXPECT_TRUE(fresh.message().is_empty());

    ExceptionHandler handler;
    errno = ENOENT;
    handler.throw_FileSocketException(nullptr, "bind failed");
    EXPECT_TRUE(handler.has_thrown());
    EXPECT_STREQ(handler.message(), "bind failed");
    EXPECT_EQ(handler.error_code(), -1) << "a report with a text keeps the error code";
    EXPECT_FALSE(handler.time_out_occured());

    errno = ECONNREFUSED;
    handler.throw_FileSocketException(nullptr, static_cast<const char*>(nullptr));
    EXPECT_STREQ(handler.message(), "Connection refused");
    EXPECT_EQ(handler.error_code(), ECONNREFUSED);

    handler.throw_FileSocketException(nullptr, 0);
    EXPECT_STREQ(handler.message(), "");
    EXPECT_EQ(handler.error_code(), 0);

    handler.throw_SocketTimeoutException(nullptr, "Read timed out");
    EXPECT_TRUE(handler.time_out_occured());
    EXPECT_STREQ(handler.message(), "Read timed out");

    // The reporting socket's identifier travels with the report.
    Connection c;
    ExceptionHandler from_socket;
    from_socket.throw_FileSocketException(&c.client, EPIPE);
    EXPECT_STREQ(from_socket.socket_identifier(), c.path.c_str());
    EXPECT_STREQ(from_socket.message(), "Broken pipe");
}

TEST(BlockingIO, NullRegistryPassesErrnoThroughAndClosesPlainly) {
    {
        BlockingIO io(nullptr);
        EXPECT_FALSE(io.refused());
        errno = EAGAIN;
    }
    EXPECT_EQ(errno, EAGAIN);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    int shutdown_error = -1;
    bool closed_here = false;
    int slot = fds[0];
    EXPECT_EQ(BlockingIO::close(nullptr, &slot, &shutdown_error, &closed_here), 0);
    EXPECT_TRUE(closed_here);
    EXPECT_EQ(slot, -1) << "the number is taken out of the slot";
    EXPECT_EQ(shutdown_error, ENOTSOCK) << "a pipe cannot be shut down";
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    EXPECT_EQ(BlockingIO::close(nullptr, &slot, &shutdown_error, &closed_here), 0);
    EXPECT_FALSE(closed_here) << "a second close finds -1 and does nothing";
    close(fds[1]);
}

TEST(BlockingIO, CloseMarksEveryRegistrationAndRefusesNewOnes) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    BlockingIOData data;
    // Two threads registered; neither is inside a system call when the close runs (they have
    // returned from theirs already): both are still marked and both see EBADF.
    std::atomic<int> registered{0};
    std::atomic<bool> leave{false};
    std::vector<int> seen(2, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; i++) {
        threads.emplace_back([&, i] {
            {
                BlockingIO io(&data);
                registered++;
                while (!leave) std::this_thread::yield();
                errno = EAGAIN;
            }
            seen[i] = errno;
        });
    }
    while (registered < 2) std::this_thread::yield();
    int shutdown_error = 0;
    int slot = fds[0];
    std::thread closer([&] {
        bool closed_here = false;
        EXPECT_EQ(BlockingIO::close(&data, &slot, &shutdown_error, &closed_here), 0);
        EXPECT_TRUE(closed_here);
        BlockingIO::finish_close(&data);
    });
    // The closer waits for the registrations to leave before it releases the number.
    while (!data._closing) std::this_thread::yield();
    EXPECT_NE(fcntl(fds[0], F_GETFD), -1) << "closed while threads were still registered";
    leave = true;
    for (auto& t : threads) t.join();
    closer.join();
    EXPECT_EQ(seen[0], EBADF);
    EXPECT_EQ(seen[1], EBADF);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);

    {
        BlockingIO late(&data);
        EXPECT_TRUE(late.refused());
    }
    EXPECT_EQ(errno, EBADF);
    bool closed_here = true;
    EXPECT_EQ(BlockingIO::close(&data, &slot, &shutdown_error, &closed_here), 0);
    EXPECT_FALSE(closed_here) << "a second close does nothing";
    close(fds[1]);
}

TEST(FileSocket, BindAndAcceptTextsAndTheSocketFile) {
    ExceptionHandler handler;
    FileSocket unbound(handler);
    EXPECT_FALSE(handler.has_thrown());
    EXPECT_TRUE(unbound.has_blocking_data());
    EXPECT_EQ(unbound.accept(0, false, handler), nullptr);
    EXPECT_STREQ(handler.message(), "FileSocket::accept failed: file socket has no bound filename");
    unbound.bind("", 0, false, handler);
    EXPECT_STREQ(handler.message(), "bind failed");
    unbound.closef(handler);
    ExceptionHandler after_close;
    unbound.bind("/tmp/x", 0, false, after_close);
    EXPECT_STREQ(after_close.message(), "FileSocket was not created successfully (has no socket endpoint)");

    // A regular file at the path is left alone; a stale socket file is replaced.
    noxtest::ScopedPath regular(unique_path("regular"));
    ASSERT_TRUE(noxtest::write_file(regular.path(), 3));
    ExceptionHandler on_file;
    FileSocket blocked(on_file);
    blocked.bind(regular.c_str(), 0, false, on_file);
    EXPECT_STREQ(on_file.message(), "bind failed");
    struct stat info;
    ASSERT_EQ(stat(regular.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));

    noxtest::ScopedPath path(unique_path("server"));
    ASSERT_TRUE(noxtest::make_socket_file(path.path()));
    ExceptionHandler ok;
    FileSocket server(ok);
    server.bind(path.c_str(), 0, true, ok);
    EXPECT_FALSE(ok.has_thrown()) << ok.message().c_str();
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    FileSocket client(ok);
    client.connect(path.c_str(), 0, ok);
    FileSocket* accepted = server.accept(0, false, ok);
    ASSERT_NE(accepted, nullptr);
    EXPECT_TRUE(accepted->has_blocking_data());
    EXPECT_STREQ(accepted->socket_identifier(), path.c_str());
    EXPECT_FALSE(accepted->is_bound());
    FileSocket::destroy(accepted);
    client.closef(ok);
    EXPECT_TRUE(exists(path.path())) << "accepted and connected sockets never remove the file";
    client.closef(ok);  // closing twice only empties the identifier
    EXPECT_TRUE(client.socket_identifier().is_empty());
    server.closef(ok);
    EXPECT_FALSE(exists(path.path()));
    EXPECT_FALSE(ok.has_thrown()) << ok.message().c_str();
}

TEST(FileSocket, PathsTooLongForTheAddressAreNotBound) {
    noxtest::ScopedDir dir;
    std::string whole = dir.file(std::string(120 - dir.path().size(), 'p'));
    ASSERT_GT(whole.size(), 107u);
    // A file of the user that happens to sit at the whole path must survive: a bind under the
    // cut name would have removed or changed it at close.
    ASSERT_TRUE(noxtest::write_file(whole, 5));
    ExceptionHandler handler;
    FileSocket server(handler);
    server.bind(whole.c_str(), 0, true, handler);
    EXPECT_STREQ(handler.message(), "bind failed");
    EXPECT_FALSE(server.is_bound());
    EXPECT_FALSE(exists(whole.substr(0, 107)));
    server.closef(handler);
    struct stat st;
    ASSERT_EQ(stat(whole.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 5);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // The longest path that fits is bound as it is.
    std::string longest = dir.file(std::string(107 - dir.path().size() - 1, 'q'));
    ASSERT_EQ(longest.size(), 107u);
    ExceptionHandler fits;
    FileSocket other(fits);
    other.bind(longest.c_str(), 0, true, fits);
    EXPECT_FALSE(fits.has_thrown()) << fits.message().c_str();
    EXPECT_TRUE(exists(longest));
    other.closef(fits);
    EXPECT_FALSE(exists(longest));
}

TEST(FileSocket, ConnectTexts) {
    std::string missing = unique_path("missing");
    ExceptionHandler timed;
    FileSocket a(timed);
    a.connect(missing.c_str(), 100, timed);
    EXPECT_STREQ(timed.message(), "connect0 failed");
    ExceptionHandler untimed;
    FileSocket b(untimed);
    b.connect(missing.c_str(), 0, untimed);
    EXPECT_STREQ(untimed.message(), "No such file or directory");
    EXPECT_EQ(untimed.error_code(), ENOENT);
    ExceptionHandler empty;
    b.connect("", 0, empty);
    EXPECT_STREQ(empty.message(), "Filesocket path musn't be null");
    b.closef(empty);
    ExceptionHandler closed;
    b.connect(missing.c_str(), 0, closed);
    EXPECT_STREQ(closed.message(), "Filesocket has no socket endpoint");
}

TEST(FileSocket, TimedConnectToAFullQueueTimesOut) {
    noxtest::ScopedPath path(unique_path("queue"));
    ExceptionHandler handler;
    FileSocket server(handler);
    server.bind(path.c_str(), 1, false, handler);
    std::vector<FileSocket*> queued;
    ExceptionHandler filling;
    for (int i = 0; i < 64 && !filling.has_thrown(); i++) {
        FileSocket* s = FileSocket::create(filling);
        s->connect(path.c_str(), 20, filling);
        queued.push_back(s);
    }
    EXPECT_TRUE(filling.time_out_occured());
    EXPECT_STREQ(filling.message(), "Connect timed out");
    for (FileSocket* s : queued) FileSocket::destroy(s);
}

TEST(FileSocket, ReadsWritesTimeOutsAndEndOfStream) {
    Connection c;
    ASSERT_NE(c.accepted, nullptr);
    char buffer[4096];
    ExceptionHandler timed;
    EXPECT_EQ(c.client.readf(buffer, sizeof buffer, 30, timed), -1);
    EXPECT_TRUE(timed.time_out_occured());
    EXPECT_STREQ(timed.message(), "Read timed out");

    ExceptionHandler ok;
    EXPECT_EQ(c.accepted->writef("hello", 5, 100, ok), 5);
    EXPECT_EQ(c.client.available(), 5);
    EXPECT_EQ(c.client.readf(buffer, sizeof buffer, 100, ok), 5);

    // A write that cannot finish: the first pass goes out, then the wait for room times out.
    std::vector<char> big(16 << 20, 'x');
    ExceptionHandler full;
    int written = c.client.writef(big.data(), static_cast<int>(big.size()), 30, full);
    EXPECT_GT(written, 0);
    EXPECT_LT(written, static_cast<int>(big.size()));
    EXPECT_STREQ(full.message(), "Write timed out");

    // End of stream: -1 and no report. A timed read after the peer hung up is a failed wait.
    c.client.shutdown(true, ok);
    FileSocket::destroy(c.accepted);
    c.accepted = nullptr;
    ExceptionHandler eof;
    EXPECT_EQ(c.client.readf(buffer, sizeof buffer, 0, eof), -1);
    EXPECT_FALSE(eof.has_thrown());
    ExceptionHandler hangup;
    EXPECT_EQ(c.client.readf(buffer, sizeof buffer, 100, hangup), -1);
    EXPECT_TRUE(hangup.has_thrown());
    EXPECT_FALSE(hangup.time_out_occured());
    EXPECT_FALSE(ok.has_thrown()) << ok.message().c_str();
}

TEST(FileSocket, SocketFileNames) {
    EXPECT_STREQ(FileSocket::create_identifier("abc"), "/tmp/abc");
    EXPECT_STREQ(FileSocket::create_identifier("./abc"), "./abc");
    std::string long_name(120, 'n');
    long_name[93] = 'L';
    long_name[94] = 'X';
    EXPECT_EQ(std::string(FileSocket::create_identifier(long_name.c_str()).c_str()),
              "/tmp/" + long_name.substr(0, 94));

    EXPECT_EQ(FileSocket::is_filesocket_server_attachable(unique_path("none").c_str()), -1);
    noxtest::ScopedPath own(unique_path("own"));
    ASSERT_TRUE(noxtest::make_socket_file(own.path()));
    EXPECT_EQ(FileSocket::is_filesocket_server_attachable(own.c_str()), 0);
}

// Thread R is blocked in a read while the main thread closes the socket and at once opens
// pipes, which take the lowest free numbers. R must come back with -1 and must not have read
// from a pipe that got its socket's old number.
TEST(FileSocket, ReleasedReaderNeverTouchesAReusedNumber) {
    for (int round = 0; round < 300; round++) {
        Connection c;
        ASSERT_NE(c.accepted, nullptr);
        int old_fd = c.client.socket_fd();
        std::atomic<bool> started{false};
        std::atomic<bool> returned{false};
        int result = 0;
        std::thread reader([&] {
            ExceptionHandler handler;
            char byte;
            started = true;
            result = c.client.readf(&byte, 1, round % 2 == 0 ? 0 : 10000, handler);
            returned = true;
        });
        while (!started) std::this_thread::yield();
        if (round % 3 == 0) usleep(200);
        ExceptionHandler closing;
        c.client.closef(closing);
        EXPECT_FALSE(closing.has_thrown()) << closing.message().c_str();
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        bool reused = fds[0] == old_fd || fds[1] == old_fd;
        ASSERT_EQ(write(fds[1], "z", 1), 1);
        // The close must release the blocked read; should it not, the test ends here with a
        // message instead of hanging (the reader still uses this round's objects).
        if (!returns_within(returned, 10)) {
            fprintf(stderr, "round %d: the read blocked on a closed socket did not return within 10 s\n", round);
            abort();
        }
        reader.join();
        EXPECT_EQ(result, -1);
        char left = 0;
        ASSERT_EQ(fcntl(fds[0], F_SETFL, O_NONBLOCK), 0);
        EXPECT_EQ(read(fds[0], &left, 1), 1) << "the released reader took the pipe's byte (reused=" << reused << ")";
        close(fds[0]);
        close(fds[1]);
    }
}

namespace {

// Plain memory standing in for a pinned Java array; counts the pins and checks that each pin
// is let go before the next.
class CountingPin : public J2SE::PinnedBuffer {
public:
    explicit CountingPin(char* bytes) : _bytes(bytes) {}
    char* pin() override {
        EXPECT_FALSE(_pinned) << "pinned twice without unpin";
        _pinned = true;
        pins++;
        return _bytes;
    }
    void unpin() override { _pinned = false; }
    bool pinned() const { return _pinned; }
    int pins = 0;

private:
    char* _bytes;
    bool _pinned = false;
};

}  // namespace

TEST(FileSocket, ConnectRefusesPathsTooLongForTheAddress) {
    noxtest::ScopedDir dir;
    std::string longest = dir.file(std::string(107 - dir.path().size() - 1, 'c'));
    ASSERT_EQ(longest.size(), 107u);
    ExceptionHandler handler;
    FileSocket server(handler);
    server.bind(longest.c_str(), 0, false, handler);
    ASSERT_FALSE(handler.has_thrown()) << handler.message().c_str();
    for (int timeout : {0, 500}) {
        ExceptionHandler refused;
        FileSocket client(refused);
        client.connect((longest + "_other").c_str(), timeout, refused);
        EXPECT_STREQ(refused.message(), "File name too long");
        EXPECT_EQ(refused.error_code(), ENAMETOOLONG);
        EXPECT_FALSE(refused.time_out_occured());
        EXPECT_TRUE(client.socket_identifier().is_empty());
    }
    pollfd pending{server.socket_fd(), POLLIN, 0};
    EXPECT_EQ(poll(&pending, 1, 0), 0) << "a connection reached the server at the cut path";
    server.closef(handler);
}

TEST(FileSocket, ReceiveReportsReadErrorsTimeOutsAndTheEndOfStream) {
    for (bool pinned : {false, true}) {
        for (int timeout : {0, 2000}) {
            Connection c;
            ASSERT_NE(c.accepted, nullptr);
            char buffer[64];
            CountingPin pin(buffer);
            auto receive = [&](ExceptionHandler& handler, int timeout_ms) {
                return pinned ? c.client.receive_pinned(pin, sizeof buffer, timeout_ms, handler)
                              : c.client.receive(buffer, sizeof buffer, timeout_ms, handler);
            };
            ExceptionHandler slow;
            EXPECT_EQ(receive(slow, 30), -1);
            EXPECT_STREQ(slow.message(), "Read timed out");
            // The accepted end closes with bytes it never read: the client's read is reset.
            ExceptionHandler ok;
            EXPECT_EQ(c.client.writef("unread", 6, 0, ok), 6);
            FileSocket::destroy(c.accepted);
            c.accepted = nullptr;
            ExceptionHandler reset;
            EXPECT_EQ(receive(reset, timeout), -1);
            EXPECT_STREQ(reset.message(), "Connection reset by peer") << "pinned " << pinned << ", timeout " << timeout;
            EXPECT_EQ(reset.error_code(), ECONNRESET);
            ExceptionHandler end;
            EXPECT_EQ(receive(end, timeout), 0) << "after the reset the stream is at its end";
            EXPECT_FALSE(end.has_thrown()) << end.message().c_str();
            EXPECT_FALSE(pin.pinned());
        }
    }
    // Bytes a peer sent before it hung up are read first, then the end of stream.
    Connection c;
    ASSERT_NE(c.accepted, nullptr);
    ExceptionHandler ok;
    EXPECT_EQ(c.accepted->writef("last", 4, 0, ok), 4);
    FileSocket::destroy(c.accepted);
    c.accepted = nullptr;
    char buffer[64];
    CountingPin pin(buffer);
    EXPECT_EQ(c.client.receive_pinned(pin, sizeof buffer, 1000, ok), 4);
    EXPECT_EQ(std::string(buffer, 4), "last");
    EXPECT_EQ(c.client.receive_pinned(pin, sizeof buffer, 1000, ok), 0);
    EXPECT_FALSE(ok.has_thrown()) << ok.message().c_str();
}

TEST(FileSocket, PinnedSendMovesEverythingAndTimesOutPerWait) {
    Connection c;
    ASSERT_NE(c.accepted, nullptr);
    std::vector<char> big(4 << 20);
    for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>(i * 7);
    std::vector<char> got;
    std::thread reader([&] {
        ExceptionHandler handler;
        std::vector<char> chunk(100000);
        CountingPin pin(chunk.data());
        while (got.size() < big.size()) {
            int n = c.accepted->receive_pinned(pin, static_cast<int>(chunk.size()), 5000, handler);
            if (n <= 0) break;
            got.insert(got.end(), chunk.begin(), chunk.begin() + n);
        }
    });
    ExceptionHandler ok;
    CountingPin pin(big.data());
    EXPECT_EQ(c.client.send_pinned(pin, static_cast<int>(big.size()), 5000, ok), static_cast<int>(big.size()));
    reader.join();
    EXPECT_FALSE(ok.has_thrown()) << ok.message().c_str();
    EXPECT_TRUE(got == big) << "the bytes arrived changed or incomplete: " << got.size();
    EXPECT_FALSE(pin.pinned());

    // Nobody reads now: the first pass goes out, then the wait for room times out.
    ExceptionHandler full;
    int written = c.client.send_pinned(pin, static_cast<int>(big.size()), 30, full);
    EXPECT_GT(written, 0);
    EXPECT_LT(written, static_cast<int>(big.size()));
    EXPECT_STREQ(full.message(), "Write timed out");
    EXPECT_FALSE(pin.pinned());
}
