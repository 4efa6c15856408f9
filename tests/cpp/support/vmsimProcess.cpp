#include "vmsimProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace noxtest {

namespace {

const char* vmsim_path() {
#ifdef NOX_VMSIM
    return NOX_VMSIM;
#else
    return "vmsim";
#endif
}

std::vector<int> int_list(const std::string& text) {
    std::vector<int> out;
    std::istringstream items(text == "-" ? "" : text);
    std::string item;
    while (std::getline(items, item, ',')) out.push_back(std::atoi(item.c_str()));
    return out;
}

long long now_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

}  // namespace

Vmsim::Vmsim(const std::vector<std::string>& args) : _pid(-1), _in(-1), _out(-1), _reaped(false), _status(0) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]);
        close(in[1]);
        throw std::runtime_error("pipe failed");
    }
    std::vector<char*> argv;
    std::string path = vmsim_path();
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t parent = getpid();
    _pid = fork();
    if (_pid == 0) {
        // vmsim ends (and cleans up) when the test process dies, whatever way it dies.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(127);
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    if (_pid < 0) {
        close(in[1]);
        close(out[0]);
        throw std::runtime_error("fork failed");
    }
    _in = in[1];
    _out = out[0];
    _ready = wait_for("READY ");
    if (_ready.compare(0, 6, "READY ") != 0) {
        std::string what = _ready;
        terminate();
        throw std::runtime_error(what);
    }
    std::istringstream items(_ready);
    std::string item;
    while (items >> item) {
        size_t equals = item.find('=');
        if (equals != std::string::npos) _fields[item.substr(0, equals)] = item.substr(equals + 1);
    }
}

Vmsim::~Vmsim() {
    terminate();
    if (_in >= 0) close(_in);
    if (_out >= 0) close(_out);
}

bool Vmsim::send_input(const std::string& text) {
    return write(_in, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::string Vmsim::field(const std::string& key) const {
    auto it = _fields.find(key);
    return it == _fields.end() ? std::string() : it->second;
}

int Vmsim::id() const {
    return std::atoi(field("id").c_str());
}

std::vector<int> Vmsim::slot_pids() const {
    return int_list(field("pids"));
}

std::string Vmsim::next_line() {
    long long deadline = now_ms() + WAIT_MS;
    for (;;) {
        size_t newline = _buffer.find('\n');
        if (newline != std::string::npos) {
            std::string line = _buffer.substr(0, newline);
            _buffer.erase(0, newline + 1);
            return line;
        }
        long long left = deadline - now_ms();
        if (left <= 0) return std::string();
        struct pollfd p = {_out, POLLIN, 0};
        int ready = poll(&p, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::string();
        char chunk[4096];
        ssize_t got = read(_out, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::string();
        _buffer.append(chunk, static_cast<size_t>(got));
    }
}

std::string Vmsim::wait_for(const std::string& prefix) {
    long long deadline = now_ms() + WAIT_MS;
    while (now_ms() < deadline) {
        std::string line = next_line();
        if (line.compare(0, prefix.size(), prefix) == 0) return line;
        if (line.empty()) break;
    }
    return "(vmsim pid " + std::to_string(_pid) + " printed no line starting with \"" + prefix + "\" within " +
           std::to_string(WAIT_MS) + " ms)";
}

bool Vmsim::reap_within(int timeout_ms) {
    if (_reaped || _pid <= 0) return true;
    long long deadline = now_ms() + timeout_ms;
    for (;;) {
        pid_t got = waitpid(_pid, &_status, WNOHANG);
        if (got == _pid || (got < 0 && errno != EINTR)) {
            _reaped = true;
            return true;
        }
        if (now_ms() >= deadline) return false;
        usleep(2000);
    }
}

int Vmsim::wait_exit() {
    if (!reap_within(WAIT_MS)) {
        fprintf(stderr, "vmsim pid %d did not end within %d ms; ending it with SIGTERM\n", static_cast<int>(_pid),
                WAIT_MS);
        terminate();
        return -1;
    }
    if (WIFEXITED(_status)) return WEXITSTATUS(_status);
    if (WIFSIGNALED(_status)) return 128 + WTERMSIG(_status);
    return -1;
}

void Vmsim::terminate() {
    if (_reaped || _pid <= 0) return;
    kill(_pid, SIGTERM);  // vmsim removes its files, segments and semaphores
    if (reap_within(WAIT_MS)) return;
    fprintf(stderr, "vmsim pid %d did not end within %d ms of SIGTERM; killing it\n", static_cast<int>(_pid), WAIT_MS);
    kill(_pid, SIGKILL);
    reap_within(WAIT_MS);
}

}  // namespace noxtest
