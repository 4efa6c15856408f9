// The monitoring boards and profiling servers that vmsim's VMs publish (--board, --profiling-server):
// the files are read here with plain system calls against the layout documented in
// tools/vmsim/README.md, and the exit requests are raised through the library as an inspector does.
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using noxtest::Vmsim;

namespace {

// Splits "a,b" into its items ("-" is the empty list).
std::vector<std::string> paths_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream items(text == "-" ? "" : text);
    for (std::string item; std::getline(items, item, ',');) out.push_back(item);
    return out;
}

std::string expected_path(const char* family, int pid) {
    return std::string("/tmp/nox_jvm_") + family + std::to_string(geteuid()) + "_" + std::to_string(pid);
}

uint64_t little_endian(const unsigned char* at, size_t bytes) {
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; i++) value |= static_cast<uint64_t>(at[i]) << (8 * i);
    return value;
}

// The first 64 bytes of a board as they are now; empty when the file cannot be read.
std::vector<unsigned char> board_head(const std::string& path) {
    std::vector<unsigned char> head(64);
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return {};
    ssize_t got = pread(fd, head.data(), head.size(), 0);
    close(fd);
    if (got != static_cast<ssize_t>(head.size())) return {};
    return head;
}

uint64_t counter_of(const std::string& path) {
    std::vector<unsigned char> head = board_head(path);
    return head.empty() ? 0 : little_endian(head.data() + 16, 8);
}

uint64_t realtime_ms() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC, the clock of the board's ticks

// Checks a board's file and header: owner, mode, size, magic, pid, slot, size field, and a
// counter and time that move with the clock. `started`: a time before vmsim was started.
void expect_board(const std::string& path, int pid, int slot, off_t size, Clock::time_point started) {
    SCOPED_TRACE(path);
    struct stat info;
    ASSERT_EQ(0, lstat(path.c_str(), &info)) << strerror(errno);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(0600u, info.st_mode & 07777);
    EXPECT_EQ(geteuid(), info.st_uid);
    EXPECT_EQ(size, info.st_size);
    std::vector<unsigned char> head = board_head(path);
    ASSERT_EQ(64u, head.size());
    EXPECT_EQ(0, memcmp(head.data(), "NOXBOARD", 8));
    EXPECT_EQ(static_cast<uint64_t>(pid), little_endian(head.data() + 8, 4));
    EXPECT_EQ(static_cast<uint64_t>(slot), little_endian(head.data() + 12, 4));
    EXPECT_EQ(static_cast<uint64_t>(size), little_endian(head.data() + 32, 4));
    for (size_t i = 36; i < head.size(); i++) EXPECT_EQ(0, head[i]) << "byte " << i;

    // The counter ticks about every 10 ms on a fixed schedule: over 300 ms it moves by at least
    // a handful of ticks, and tick k comes no earlier than 10 k ms after the board was made, so
    // it never runs ahead of the time since vmsim was started (a late thread may catch up).
    uint64_t first = counter_of(path);
    uint64_t ms_before = realtime_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    uint64_t second = counter_of(path);
    auto since_start = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started);
    EXPECT_GE(second, first + 5);
    EXPECT_LE(second, static_cast<uint64_t>(since_start.count()) / 10 + 1);
    uint64_t tick_time = little_endian(board_head(path).data() + 24, 8);
    EXPECT_GE(tick_time + 50, ms_before);  // a tick of the last few ms, give or take a late one
    EXPECT_LE(tick_time, realtime_ms());
}

// A connected client of a profiling server; its reads give up after ten seconds.
class Client {
public:
    explicit Client(const std::string& path) : _fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_un address;
        memset(&address, 0, sizeof address);
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        struct timeval limit = {10, 0};
        setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        _connected = connect(_fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() { close(_fd); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool connected() const { return _connected; }
    bool send_text(const std::string& text) {
        return send(_fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    void end_output() { shutdown(_fd, SHUT_WR); }
    // The next line without its newline; "<eof>" or "<error>" when there is none.
    std::string line() {
        for (;;) {
            size_t newline = _buffer.find('\n');
            if (newline != std::string::npos) {
                std::string out = _buffer.substr(0, newline);
                _buffer.erase(0, newline + 1);
                return out;
            }
            char chunk[512];
            ssize_t n = read(_fd, chunk, sizeof chunk);
            if (n == 0) return "<eof>";
            if (n < 0) return "<error>";
            _buffer.append(chunk, static_cast<size_t>(n));
        }
    }

private:
    int _fd;
    bool _connected;
    std::string _buffer;
};

void expect_server(const std::string& path) {
    SCOPED_TRACE(path);
    struct stat info;
    ASSERT_EQ(0, lstat(path.c_str(), &info)) << strerror(errno);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(0600u, info.st_mode & 07777);
    EXPECT_EQ(geteuid(), info.st_uid);
    Client client(path);
    ASSERT_TRUE(client.connected()) << strerror(errno);
    ASSERT_TRUE(client.send_text("ping\n"));
    EXPECT_EQ("PONG ping", client.line());
}

void raise_exit(ControlAreaManager_CL& manager, int slot, int code) {
    ASSERT_TRUE(manager.is_valid());
    ControlArea_CL* view = manager.get_control_area(slot, true);
    ASSERT_NE(nullptr, view);
    view->exit(code);
}

}  // namespace

// No board or server unless asked for, and not one of less than the 64-byte header. With them,
// one board and server per live VM of an instance cluster, none for the ended VM in slot 1 or for
// vmsim; a server answers every line of each connection, and an open, silent connection does not
// hold its VM up. A VM that leaves on request or is killed takes its own files, the others' stay;
// the last one leaving ends the cluster with nothing left.
TEST(VmsimBoard, OneBoardAndServerPerLiveVmUntilItEnds) {
    {
        Vmsim plain({"--type", "process"});
        EXPECT_EQ("-", plain.field("boards"));
        EXPECT_EQ("-", plain.field("servers"));
        EXPECT_FALSE(noxtest::path_exists(expected_path("monitoringboard_", plain.pid())));
        EXPECT_FALSE(noxtest::path_exists(expected_path("profiling_server_", plain.pid())));
    }
    EXPECT_THROW(Vmsim({"--type", "process", "--board", "63"}), std::runtime_error);
    Clock::time_point started = Clock::now();
    Vmsim vm({"--type", "instance", "--id", "65", "--slots", "4", "--live", "0,2,3", "--dead", "1", "--board", "8192",
              "--profiling-server"});
    std::vector<int> pids = vm.slot_pids();
    ASSERT_EQ(4u, pids.size());
    std::vector<std::string> boards = paths_of(vm.field("boards")), servers = paths_of(vm.field("servers"));
    const int live[] = {0, 2, 3};  // in slot order
    ASSERT_EQ(3u, boards.size());
    ASSERT_EQ(3u, servers.size());
    for (size_t i = 0; i < 3; i++) {
        int pid = pids[live[i]];
        EXPECT_EQ(expected_path("monitoringboard_", pid), boards[i]);
        EXPECT_EQ(expected_path("profiling_server_", pid), servers[i]);
        expect_board(boards[i], pid, live[i], 8192, started);
        expect_server(servers[i]);
    }
    EXPECT_FALSE(noxtest::path_exists(expected_path("monitoringboard_", pids[1])));
    EXPECT_FALSE(noxtest::path_exists(expected_path("monitoringboard_", vm.pid())));

    Client first(servers[1]), second(servers[1]);
    // Lines split across writes and several lines in one write are answered one by one; a last
    // line without newline is answered when the client ends its output.
    ASSERT_TRUE(first.send_text("hel") && second.send_text("one\ntwo\n") && first.send_text("lo\n\nlast"));
    EXPECT_EQ("PONG one", second.line());
    EXPECT_EQ("PONG two", second.line());
    EXPECT_EQ("PONG hello", first.line());
    EXPECT_EQ("PONG ", first.line());
    first.end_output();
    EXPECT_EQ("PONG last", first.line());
    EXPECT_EQ("<eof>", first.line());

    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, 65));
    ASSERT_TRUE(manager.is_valid());
    ASSERT_NE(nullptr, manager.get_control_area(0, true));
    EXPECT_TRUE(manager.get_control_area(0, true)->get_run_with_monitoring_board());
    raise_exit(manager, 2, 4);
    EXPECT_EQ("EXITED slot=2 pid=" + std::to_string(pids[2]) + " code=4", vm.wait_for("EXITED"));
    EXPECT_EQ("<eof>", second.line());
    ASSERT_EQ(0, kill(pids[0], SIGKILL));
    EXPECT_EQ("EXITED slot=0 pid=" + std::to_string(pids[0]) + " code=" + std::to_string(128 + SIGKILL),
              vm.wait_for("EXITED"));
    for (int i : {0, 1}) EXPECT_FALSE(noxtest::path_exists(boards[i]) || noxtest::path_exists(servers[i])) << i;
    EXPECT_TRUE(noxtest::path_exists(boards[2]) && noxtest::path_exists(servers[2]));
    raise_exit(manager, 3, 0);
    EXPECT_EQ("EXITED slot=3 pid=" + std::to_string(pids[3]) + " code=0", vm.wait_for("EXITED"));
    EXPECT_EQ(0, vm.wait_exit());
    EXPECT_FALSE(noxtest::path_exists(boards[2]) || noxtest::path_exists(servers[2]));
}
