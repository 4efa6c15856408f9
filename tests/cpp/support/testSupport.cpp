#include "testSupport.h"

#include "sharedUtils.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdexcept>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace noxtest {

LiveChild::LiveChild() : _pid(fork()) {
    if (_pid == 0) {
        for (;;) pause();
    }
    if (_pid < 0) throw std::runtime_error("fork failed");
}

LiveChild::~LiveChild() {
    end();
}

void LiveChild::end() {
    if (_pid <= 0) return;
    kill(_pid, SIGKILL);
    while (waitpid(_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    _pid = -1;
}

pid_t reaped_child_pid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    if (pid < 0) throw std::runtime_error("fork failed");
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return pid;
}

ScopedPath::ScopedPath(std::string path) : _path(std::move(path)) {}

ScopedPath::~ScopedPath() {
    unlink(_path.c_str());
}

ScopedDir::ScopedDir() {
    char templ[] = "/tmp/noxtest_XXXXXX";
    if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
    _path = templ;
}

ScopedDir::~ScopedDir() {
    std::string command = "rm -rf '" + _path + "'";
    if (std::system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", _path.c_str());
}

std::string control_area_path(pid_t pid) {
    return J2SE::get_controlarea_string(pid, static_cast<int>(geteuid())).c_str();
}

bool write_file(const std::string& path, size_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return false;
    std::string bytes(size, 'a');
    bool ok = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    close(fd);
    return ok;
}

bool make_socket_file(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return false;
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    bool ok = bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return ok;
}

bool path_exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

int private_ipc_key(int n) {
    return 0x6e000000 + (static_cast<int>(getpid()) % 0x100000) * 16 + n;
}

TestSegment::TestSegment(int key, const std::vector<unsigned char>& bytes) : _id(-1), _errno(0) {
    _id = shmget(key, bytes.size(), IPC_CREAT | IPC_EXCL | 0600);
    if (_id == -1 && errno == EEXIST) {
        int stale = shmget(key, 0, 0);
        struct shmid_ds ds;
        if (stale != -1 && shmctl(stale, IPC_STAT, &ds) == 0 && ds.shm_nattch == 0) shmctl(stale, IPC_RMID, nullptr);
        _id = shmget(key, bytes.size(), IPC_CREAT | IPC_EXCL | 0600);
    }
    _errno = _id == -1 ? errno : 0;
    void* address = _id == -1 ? nullptr : shmat(_id, nullptr, 0);
    if (address == nullptr || address == reinterpret_cast<void*>(-1)) return;
    memcpy(address, bytes.data(), bytes.size());
    shmdt(address);
}

TestSegment::~TestSegment() {
    if (_id != -1) shmctl(_id, IPC_RMID, nullptr);
}

std::string TestSegment::error() const {
    return strerror(_errno);
}

TestSemaphore::TestSemaphore(int key, int value) : _id(semget(key, 1, IPC_CREAT | IPC_EXCL | 0600)) {
    if (_id >= 0) semctl(_id, 0, SETVAL, value);
}

TestSemaphore::~TestSemaphore() {
    if (_id >= 0) semctl(_id, 0, IPC_RMID);
}

int TestSemaphore::value() const {
    return semctl(_id, 0, GETVAL);
}

namespace {

// The mapping of this process (a line of /proc/self/maps) that `test` accepts, by its start and
// end; its path ("-" when there is none) or, with `permissions`, its permissions.
template <typename Test>
std::string find_mapping(Test test, int* count, bool permissions = false) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    std::string found = "-";
    while (std::getline(maps, line)) {
        unsigned long long begin = 0, end = 0;
        char perms[5] = {0};
        int consumed = 0;
        if (sscanf(line.c_str(), "%llx-%llx %4s %*s %*s %*s%n", &begin, &end, perms, &consumed) < 3) continue;
        size_t path = line.find_first_not_of(' ', static_cast<size_t>(consumed));
        if (!test(static_cast<uintptr_t>(begin), static_cast<uintptr_t>(end))) continue;
        if (count != nullptr) ++*count;
        if (found != "-") continue;
        found = permissions ? perms : path == std::string::npos ? "" : line.substr(path);
    }
    return found;
}

}  // namespace

int mapping_count(const void* address) {
    int count = 0;
    uintptr_t a = reinterpret_cast<uintptr_t>(address);
    find_mapping([a](uintptr_t begin, uintptr_t) { return begin == a; }, &count);
    return count;
}

std::string mapping_path(const void* address) {
    uintptr_t a = reinterpret_cast<uintptr_t>(address);
    return find_mapping([a](uintptr_t begin, uintptr_t end) { return begin <= a && a < end; }, nullptr);
}

std::string mapping_permissions(const void* address) {
    uintptr_t a = reinterpret_cast<uintptr_t>(address);
    return find_mapping([a](uintptr_t begin, uintptr_t end) { return begin <= a && a < end; }, nullptr, true);
}

std::string command_output(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[256];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) out += buffer;
    pclose(pipe);
    return out;
}

int32_t file_int32(const std::string& path, off_t offset) {
    int32_t value = -1;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    if (pread(fd, &value, sizeof value, offset) != static_cast<ssize_t>(sizeof value)) value = -1;
    close(fd);
    return value;
}

GuardedBytes::GuardedBytes(size_t size) : _size(size) {
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t pages = (size + page - 1) / page * page;
    _mapping_size = pages + page;
    _mapping = mmap(nullptr, _mapping_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (_mapping == MAP_FAILED || mprotect(static_cast<char*>(_mapping) + pages, page, PROT_NONE) != 0) {
        throw std::runtime_error("no guarded memory");
    }
    _data = static_cast<unsigned char*>(_mapping) + pages - size;
}

GuardedBytes::~GuardedBytes() {
    munmap(_mapping, _mapping_size);
}

std::string socket_path(const std::string& tag) {
    static std::atomic<int> counter{0};
    return "/tmp/noxfs_cpp_" + std::to_string(getpid()) + "_" + tag + "_" + std::to_string(++counter);
}

FullQueue::FullQueue() {
    server.bind(path.c_str(), 1, false, handler);
    for (int i = 0; i < 64 && !handler.time_out_occured(); i++) {
        queued.push_back(J2SE::FileSocket::create(handler));
        queued.back()->connect(path.c_str(), 20, handler);
    }
}

FullQueue::~FullQueue() {
    for (J2SE::FileSocket* s : queued) J2SE::FileSocket::destroy(s);
}

void fill(const J2SE::FileSocket& socket) {
    std::vector<char> chunk(64 * 1024, 'f');
    while (send(socket.socket_fd(), chunk.data(), chunk.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
}

char* TestPin::pin() {
    EXPECT_FALSE(_pinned) << "pinned twice without unpin";
    _pinned = true;
    return _bytes;
}

int race_rounds(int normal) {
    const char* text = getenv("NOX_RACE_ROUNDS");
    return text != nullptr && atoi(text) > 0 ? atoi(text) : normal;
}

}  // namespace noxtest
