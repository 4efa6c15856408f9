// The attach client against fake VMs: child processes that map a file named libjvm.so, catch
// SIGQUIT and, when they find the trigger file, serve /tmp/.java_pid<pid> as a VM's attach
// listener does (or misbehave on purpose). Real JDK VMs are tried by the Java tests.
#include "attachClient.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using J2SE::AttachConnection;
using J2SE::AttachError;
using J2SE::AttachReplyParser;
using J2SE::AttachRequest;

namespace {

// ---------------------------------------------------------------- the fake VM

enum class Behaviour {
    ANSWER,        // starts its listener when triggered and answers requests
    IGNORE,        // catches SIGQUIT but never starts a listener (a VM that does not answer)
    EXIT_ON_QUIT,  // ends when signalled (a VM that ends during the attach)
    NO_HANDLER,    // maps libjvm.so but catches no SIGQUIT (a VM starting up, or -Xrs)
    OTHER_SERVER   // a child of it serves the socket (a listener that is not the VM)
};

volatile sig_atomic_t quits = 0;
void on_quit(int) { quits = quits + 1; }

void say(int fd, char what) {
    if (write(fd, &what, 1) != 1) _exit(4);
}

int listen_at(const std::string& path) {
    std::string initial = path + ".tmp";
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, initial.c_str(), sizeof address.sun_path - 1);
    unlink(initial.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 5) != 0 ||
        chmod(initial.c_str(), 0600) != 0 || rename(initial.c_str(), path.c_str()) != 0) {
        _exit(3);
    }
    return fd;
}

// Reads one request (five NUL-terminated strings) and answers it by its command name: "echo"
// with the request (NULs as '|'), "silent" never, the others with a reply of their own.
void answer_one(int listener) {
    int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) return;
    std::string request;
    char c;
    for (int strings = 0; strings < 5 && read(fd, &c, 1) == 1; strings += c == '\0') request += c;
    std::string name = request.size() > 2 ? std::string(request.c_str() + 2) : "";
    std::string reply = name == "echo" ? "0\n" + request
                        : name == "fail" ? "-1\nit failed\n"
                        : name == "garbage" ? "x1\n"
                        : name == "big" ? "0\n" + std::string(1 << 20, 'b') : "";
    for (char& r : reply) r = r == '\0' ? '|' : r;
    while (name == "silent" && read(fd, &c, 1) > 0) {
    }
    for (size_t done = 0; done < reply.size();) {
        ssize_t n = write(fd, reply.data() + done, reply.size() - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    close(fd);
}

bool trigger_present() {
    std::string name = ".attach_pid" + std::to_string(getpid());
    struct stat st;
    return stat(name.c_str(), &st) == 0 || stat(("/tmp/" + name).c_str(), &st) == 0;
}

// The child's life: reports 'R' when ready, then per SIGQUIT 'Q' and 'T' if the trigger was there.
[[noreturn]] void fake_vm_main(Behaviour behaviour, const std::string& library, const std::string& folder, int report) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int lib = open(library.c_str(), O_RDONLY);
    if (lib < 0 || mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, lib, 0) == MAP_FAILED || chdir(folder.c_str()) != 0) {
        _exit(2);
    }
    if (behaviour != Behaviour::NO_HANDLER) {
        struct sigaction action = {};
        action.sa_handler = on_quit;
        sigaction(SIGQUIT, &action, nullptr);
    }
    say(report, 'R');
    const std::string socket_path = "/tmp/.java_pid" + std::to_string(getpid());
    int listener = -1;
    int seen = 0;
    for (;;) {
        pollfd ready = {listener, POLLIN, 0};
        if (poll(&ready, 1, 10) > 0) answer_one(listener);
        if (quits == seen) continue;
        seen = quits;
        bool triggered = trigger_present();
        say(report, 'Q');
        if (triggered) say(report, 'T');
        if (behaviour == Behaviour::EXIT_ON_QUIT) _exit(0);
        if (!triggered || listener >= 0 || behaviour == Behaviour::IGNORE) continue;
        if (behaviour == Behaviour::OTHER_SERVER && fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (int other = listen_at(socket_path);;) answer_one(other);
        }
        if (behaviour == Behaviour::ANSWER) listener = listen_at(socket_path);
    }
}

class FakeVm {
public:
    explicit FakeVm(Behaviour behaviour) {
        std::string library = _dir.file("libjvm.so");
        noxtest::write_file(library, 4096);
        int fds[2];
        if (pipe(fds) != 0) throw std::runtime_error("pipe");
        _pid = fork();
        if (_pid == 0) {
            close(fds[0]);
            fake_vm_main(behaviour, library, _dir.path(), fds[1]);
        }
        close(fds[1]);
        _report = fds[0];
        _socket = "/tmp/.java_pid" + std::to_string(_pid);
        if (next_report(5000) != 'R') throw std::runtime_error("the fake VM did not start");
    }
    ~FakeVm() {
        kill(_pid, SIGKILL);
        while (waitpid(_pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        close(_report);
        unlink(_socket.c_str());
        unlink(("/tmp/.attach_pid" + std::to_string(_pid)).c_str());
    }
    FakeVm(const FakeVm&) = delete;
    FakeVm& operator=(const FakeVm&) = delete;

    int pid() const { return _pid; }
    const std::string& socket_path() const { return _socket; }
    const noxtest::ScopedDir& folder() const { return _dir; }

    // What the child has reported since the last call ('Q' per SIGQUIT, 'T' per trigger seen).
    std::string reports() {
        std::string all;
        for (char c = next_report(0); c != 0; c = next_report(0)) all += c;
        return all;
    }
    bool running() { return waitpid(_pid, nullptr, WNOHANG) == 0; }

private:
    char next_report(int wait_ms) {
        pollfd ready = {_report, POLLIN, 0};
        char c = 0;
        if (poll(&ready, 1, wait_ms) > 0 && read(_report, &c, 1) != 1) c = 0;
        return c;
    }

    noxtest::ScopedDir _dir;
    pid_t _pid = -1;
    int _report = -1;
    std::string _socket;
};

struct Outcome {
    J2SE::AttachReason reason;  // ATTACH_OK on success
    int status;
    std::string output;
    std::string message;
};

// Runs one command, reading its output `chunk` bytes at a time.
Outcome run(int pid, const char* name, std::vector<const char*> args = {}, int timeout_ms = 600, int chunk = 4096) {
    AttachRequest request;
    EXPECT_EQ(nullptr, request.build(name, args.data(), static_cast<int>(args.size())));
    AttachConnection connection;
    AttachError error;
    Outcome outcome{J2SE::ATTACH_OK, 0, "", ""};
    if (connection.open(pid, request, timeout_ms, &error)) {
        outcome.status = connection.status();
        std::vector<char> buffer(static_cast<size_t>(chunk));
        for (int n; (n = connection.read(buffer.data(), chunk, timeout_ms, &error)) > 0;) {
            outcome.output.append(buffer.data(), static_cast<size_t>(n));
        }
    }
    outcome.reason = error.reason;
    outcome.message = error.message.c_str();
    return outcome;
}

// The bytes of a literal, NUL bytes included, without the terminator.
template <size_t N>
std::string bytes(const char (&literal)[N]) {
    return std::string(literal, N - 1);
}

}  // namespace

// ---------------------------------------------------------------- the bytes

TEST(AttachProtocol, RequestsAreVersionNameAndThreeArguments) {
    struct Case {
        const char* name;
        std::vector<const char*> args;
        const char* problem;  // null: built
        std::string bytes;
    } cases[] = {
        {"jcmd", {"VM.version"}, nullptr, bytes("1\0jcmd\0VM.version\0\0\0")},
        {"load", {"instrument", "false", "/a.jar=x"}, nullptr, bytes("1\0load\0instrument\0false\0/a.jar=x\0")},
        {"properties", {}, nullptr, bytes("1\0properties\0\0\0\0")},
        {"threaddump", {nullptr, "b"}, nullptr, bytes("1\0threaddump\0\0b\0\0")},
        {"", {}, "the command name is empty", ""},
        {"a_name_of_17_byte", {}, "the command name is longer than 16 bytes", ""},
        {"jcmd", {"a", "b", "c", "d"}, "a command takes at most three arguments", ""},
    };
    for (const Case& c : cases) {
        AttachRequest request;
        const char* problem = request.build(c.name, c.args.data(), static_cast<int>(c.args.size()));
        EXPECT_STREQ(c.problem, problem) << c.name;
        EXPECT_EQ(c.bytes, std::string(request.bytes(), request.length())) << c.name;
    }
    std::string longest(AttachRequest::ARGUMENT_LENGTH_MAX, 'x');
    std::string too_long(AttachRequest::ARGUMENT_LENGTH_MAX + 1, 'x');
    const char* fits[] = {longest.c_str(), longest.c_str(), longest.c_str()};
    const char* over[] = {"a", too_long.c_str()};
    AttachRequest request;
    EXPECT_EQ(nullptr, request.build("a_name_of_16_byt", fits, 3));
    EXPECT_EQ(AttachRequest::CAPACITY, request.length());
    EXPECT_STREQ("an argument is longer than 1024 bytes", request.build("jcmd", over, 2));
    EXPECT_EQ(0u, request.length());
}

TEST(AttachProtocol, TheReplyStartsWithAStatusLineInAnyChunking) {
    struct Case {
        std::string reply;
        AttachReplyParser::State state;
        int status;
        std::string output;
    } cases[] = {
        {"0\nhello\n", AttachReplyParser::READING_OUTPUT, 0, "hello\n"},
        {"-1\njava.lang.IllegalArgumentException: Unknown diagnostic command\n", AttachReplyParser::READING_OUTPUT, -1,
         "java.lang.IllegalArgumentException: Unknown diagnostic command\n"},
        {"101\n", AttachReplyParser::READING_OUTPUT, 101, ""},
        {"0", AttachReplyParser::READING_OUTPUT, 0, ""},  // closed after the number
        {"2147483647\n", AttachReplyParser::READING_OUTPUT, 2147483647, ""},
        {"-2147483648\nx", AttachReplyParser::READING_OUTPUT, -2147483647 - 1, "x"},
        {"2147483648\n", AttachReplyParser::MALFORMED, 0, ""},
        {"12345678901\n", AttachReplyParser::MALFORMED, 0, ""},
        {"", AttachReplyParser::MALFORMED, 0, ""},
        {"\n", AttachReplyParser::MALFORMED, 0, ""},
        {"-\n", AttachReplyParser::MALFORMED, 0, ""},
        {"--1\n", AttachReplyParser::MALFORMED, 0, ""},
        {" 0\n", AttachReplyParser::MALFORMED, 0, ""},
        {"0 \n", AttachReplyParser::MALFORMED, 0, ""},
        {"return code: 0\n", AttachReplyParser::MALFORMED, 0, ""},
    };
    for (const Case& c : cases) {
        for (size_t chunk = 1; chunk <= c.reply.size() + 1; chunk++) {
            AttachReplyParser parser;
            std::string output;
            for (size_t at = 0; at < c.reply.size(); at += chunk) {
                size_t length = std::min(chunk, c.reply.size() - at);
                size_t used = 0;
                if (parser.feed(c.reply.data() + at, length, &used) == AttachReplyParser::READING_OUTPUT) {
                    output.append(c.reply, at + used, length - used);
                }
            }
            EXPECT_EQ(c.state, parser.finish()) << c.reply << " in chunks of " << chunk;
            if (c.state == AttachReplyParser::READING_OUTPUT) {
                EXPECT_EQ(c.status, parser.status()) << c.reply;
                EXPECT_EQ(c.output, output) << c.reply << " in chunks of " << chunk;
            } else {
                EXPECT_NE(nullptr, parser.problem());
            }
        }
    }
}

TEST(AttachProtocol, ProcStatusGivesThePidsOwnerAndSigquitHandler) {
    const std::string common = "Name:\tjava\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t4242\nNgid:\t0\n";
    struct Case {
        std::string text;
        bool parsed;
        int pid, tgid, nspid;
        unsigned euid, egid;
        bool catches_quit;
    } cases[] = {
        {common + "Pid:\t4242\nPPid:\t1\nUid:\t1000\t1001\t1002\t1003\nGid:\t50\t51\t52\t53\nNSpid:\t4242\t7\n"
                  "SigCgt:\t0000000181005ccf\n", true, 4242, 4242, 7, 1001, 51, true},
        {common + "Pid:\t4243\nUid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\nSigCgt:\t0000000000000000\n",
         true, 4243, 4242, 4243, 0, 0, false},  // a thread, and a kernel without NSpid
        {common + "Pid:\t4242\nUid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\n", false, 0, 0, 0, 0, 0, false},
        {common + "Pid:\t4242\nUid:\tx\t0\t0\t0\nGid:\t0\t0\t0\t0\nSigCgt:\t4\n", false, 0, 0, 0, 0, 0, false},
        {common + "Pid:\t99999999999\nUid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\nSigCgt:\t4\n", false, 0, 0, 0, 0, 0, false},
        {common + "Pid:\t4242\nUid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\nSigCgt:\t00000000000000004\n", false, 0, 0, 0, 0, 0, false},
    };
    for (const Case& c : cases) {
        J2SE::ProcStatus status = {};
        EXPECT_EQ(c.parsed, J2SE::parse_proc_status(c.text.data(), c.text.size(), &status)) << c.text;
        if (!c.parsed) continue;
        EXPECT_EQ(c.pid, status.pid);
        EXPECT_EQ(c.tgid, status.tgid);
        EXPECT_EQ(c.nspid, status.nspid);
        EXPECT_EQ(c.euid, status.euid);
        EXPECT_EQ(c.egid, status.egid);
        EXPECT_EQ(c.catches_quit, status.catches_quit);
    }
}

// ---------------------------------------------------------------- against fake VMs

TEST(AttachClient, RefusesWhatItMustNotSignalOrUse) {
    struct Case {
        const char* what;
        Behaviour behaviour;
        J2SE::AttachReason reason;
        const char* signals;  // what the fake VM reported
        const char* message;  // a part of the message
    } cases[] = {
        {"no handler", Behaviour::NO_HANDLER, J2SE::ATTACH_DISABLED, "", "does not handle SIGQUIT"},
        {"no answer", Behaviour::IGNORE, J2SE::ATTACH_NO_ANSWER, "QTQT", "started no attach listener"},
        {"ends", Behaviour::EXIT_ON_QUIT, J2SE::ATTACH_GONE, "QT", "ended during the attach"},
        {"other server", Behaviour::OTHER_SERVER, J2SE::ATTACH_FOREIGN_FILE, "QT", "not by VM pid"},
    };
    for (const Case& c : cases) {
        FakeVm vm(c.behaviour);
        auto start = std::chrono::steady_clock::now();
        Outcome o = run(vm.pid(), "echo");
        EXPECT_EQ(c.reason, o.reason) << c.what;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << c.what;
        EXPECT_NE(std::string::npos, o.message.find(c.message)) << c.what << ": " << o.message;
        EXPECT_EQ(c.signals, vm.reports()) << c.what;
        EXPECT_FALSE(noxtest::path_exists(vm.folder().file(".attach_pid" + std::to_string(vm.pid())))) << c.what;
        EXPECT_EQ(c.behaviour != Behaviour::EXIT_ON_QUIT, vm.running()) << c.what;
    }
    // A process that is no VM is never signalled: SIGQUIT would end this one.
    noxtest::LiveChild plain;
    Outcome o = run(plain.pid(), "echo");
    EXPECT_EQ(J2SE::ATTACH_NOT_A_VM, o.reason);
    EXPECT_NE(std::string::npos, o.message.find("is not a Java VM")) << o.message;
    EXPECT_EQ(0, waitpid(plain.pid(), nullptr, WNOHANG));
    EXPECT_EQ(J2SE::ATTACH_NO_PROCESS, run(noxtest::reaped_child_pid(), "echo").reason);
}

// The VM's socket name taken by a link to a socket, or by a socket of another user: neither is
// used and the VM is not signalled. With the name free again the VM runs commands as usual.
TEST(AttachClient, UsesNoSocketThatIsNotTheVms) {
    FakeVm vm(Behaviour::ANSWER);
    const char* path = vm.socket_path().c_str();
    noxtest::ScopedDir elsewhere;
    ASSERT_TRUE(noxtest::make_socket_file(elsewhere.file("s")));
    ASSERT_EQ(0, symlink(elsewhere.file("s").c_str(), path));
    Outcome o = run(vm.pid(), "echo");
    EXPECT_EQ(J2SE::ATTACH_FOREIGN_FILE, o.reason);
    EXPECT_NE(std::string::npos, o.message.find("not a socket but a link")) << o.message;
    unlink(path);
    if (geteuid() == 0) {
        ASSERT_TRUE(noxtest::make_socket_file(path));
        ASSERT_EQ(0, chown(path, 65534, 65534));
        ASSERT_EQ(0, chmod(path, 0600));
        o = run(vm.pid(), "echo");
        EXPECT_EQ(J2SE::ATTACH_FOREIGN_FILE, o.reason);
        EXPECT_NE(std::string::npos, o.message.find("belongs to user id 65534")) << o.message;
        unlink(path);
    } else {
        std::cout << "[ SKIPPED  ] a socket of another user: only root can give one" << std::endl;
    }
    EXPECT_EQ("", vm.reports());

    struct Case {
        const char* name;
        std::vector<const char*> args;
        J2SE::AttachReason reason;
        int status;
        std::string output;
    } cases[] = {
        {"echo", {"a", "b"}, J2SE::ATTACH_OK, 0, "1|echo|a|b||"},  // the first one starts the listener
        {"fail", {}, J2SE::ATTACH_OK, -1, "it failed\n"},
        {"big", {}, J2SE::ATTACH_OK, 0, std::string(1 << 20, 'b')},
        {"garbage", {}, J2SE::ATTACH_PROTOCOL, 0, ""},
        {"silent", {}, J2SE::ATTACH_TIMED_OUT, 0, ""},
    };
    for (const Case& c : cases) {
        o = run(vm.pid(), c.name, c.args, 300, 1000);
        EXPECT_EQ(c.reason, o.reason) << c.name;
        EXPECT_EQ(c.status, o.status) << c.name;
        EXPECT_EQ(c.output, o.output) << c.name;
    }
    // One signal, with the trigger in place when it came; the trigger is gone again.
    EXPECT_EQ("QT", vm.reports());
    EXPECT_FALSE(noxtest::path_exists(vm.folder().file(".attach_pid" + std::to_string(vm.pid()))));
    EXPECT_FALSE(noxtest::path_exists("/tmp/.attach_pid" + std::to_string(vm.pid())));
}
