// Linux side of SharedUtils: process existence, own pid, start time, processor count, and the
// names of the /tmp file families.
#include "sharedUtils.h"

#include "sharedFile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace J2SE {

int SharedUtils::_own_pid_ = -1;
int SharedUtils::_clock_tics_per_sec_ = 100;
int64_t SharedUtils::_reboot_since_epoch_ = 0;

// Reads "btime <seconds>" from /proc/stat: the boot time in seconds since the epoch, 0 if unknown.
static int64_t read_boot_time() {
    FILE* stat_file = fopen("/proc/stat", "re");
    if (stat_file == nullptr) return 0;
    char line[256];
    int64_t boot_time = 0;
    while (fgets(line, sizeof line, stat_file) != nullptr) {
        if (strncmp(line, "btime ", 6) == 0) {
            char* end = nullptr;
            long long value = strtoll(line + 6, &end, 10);
            if (end != line + 6 && value > 0) boot_time = value;
            break;
        }
    }
    fclose(stat_file);
    return boot_time;
}

void SharedUtils::init() {
    _own_pid_ = getpid();
    long tics = sysconf(_SC_CLK_TCK);
    if (tics > 0 && tics <= INT_MAX) _clock_tics_per_sec_ = static_cast<int>(tics);
    _reboot_since_epoch_ = read_boot_time();
}

int initSharedUtils() {
    SharedUtils::init();
    return 1;
}

// Runs when the library is loaded, before any native method can be called.
static int shared_utils_initialised = initSharedUtils();

int SharedUtils::get_own_pid() {
    return _own_pid_ != -1 ? _own_pid_ : getpid();
}

int test_process_by_kill(int pid) {
    if (kill(pid, 0) == 0) return 1;
    if (errno == ESRCH) return 0;
    if (errno == EPERM) return 1;  // exists, but belongs to someone else
    return -1;
}

int test_process_by_proc(int pid) {
    char path[32];
    snprintf(path, sizeof path, "/proc/%d", pid);
    struct stat st;
    if (stat(path, &st) == 0) return 1;
    if (errno == ENOENT) return 0;
    return -1;
}

// Runs "ps -p <pid>" with its output sent to /dev/null. posix_spawnp is used instead of a shell
// so that the host JVM is not forked as a whole.
int test_process_by_ps(int pid) {
    char pid_text[16];
    snprintf(pid_text, sizeof pid_text, "%d", pid);
    char arg0[] = "ps";
    char arg1[] = "-p";
    char* argv[] = {arg0, arg1, pid_text, nullptr};

    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return 0;
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    int rc = posix_spawnp(&child, "ps", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return 0;

    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return 0;
    }
    return (WIFEXITED(status) && WEXITSTATUS(status) == 0) ? 1 : 0;
}

int SharedUtils::process_exists(int pid) {
    if (pid == get_own_pid()) return 1;
    if (pid <= 0) return 0;
    int by_kill = test_process_by_kill(pid);
    if (by_kill != -1) return by_kill;
    int by_proc = test_process_by_proc(pid);
    if (by_proc != -1) return by_proc;
    return test_process_by_ps(pid);
}

// Writes "/proc/<pid><suffix>" into `path` without printf: the pass builds one per VM.
static void proc_path(char (&path)[40], int pid, const char* suffix) {
    char digits[12];
    int count = 0;
    unsigned value = static_cast<unsigned>(pid);
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    memcpy(path, "/proc/", 6);
    char* at = path + 6;
    while (count > 0) *at++ = digits[--count];
    size_t room = sizeof path - static_cast<size_t>(at - path) - 1;
    strncpy(at, suffix, room);
    at[room] = '\0';
}

// Linux keeps the start time in /proc/<pid>/stat, field 22, in clock ticks after boot. The
// command name (field 2) may hold blanks and parentheses, so the fields are counted from the
// last ')'. The result is the boot time plus the whole seconds, as ps reports it; 0 when the
// text cannot be read or has no such field.
static uint64_t start_from_stat_file(int fd) {
    char buffer[1024];
    ssize_t n;
    do {
        n = read(fd, buffer, sizeof buffer - 1);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return 0;
    buffer[n] = '\0';

    const char* p = strrchr(buffer, ')');
    if (p == nullptr) return 0;
    p++;
    // After ')' come field 3 (state) to field 22 (starttime): skip 19 fields.
    for (int field = 3; field < 22; field++) {
        while (*p == ' ') p++;
        if (*p == '\0') return 0;
        while (*p != ' ' && *p != '\0') p++;
    }
    while (*p == ' ') p++;
    if (*p < '0' || *p > '9') return 0;
    char* end = nullptr;
    errno = 0;
    unsigned long long ticks = strtoull(p, &end, 10);
    if (errno != 0 || end == p) return 0;

    if (SharedUtils::_reboot_since_epoch_ == 0) SharedUtils::_reboot_since_epoch_ = read_boot_time();
    if (SharedUtils::_reboot_since_epoch_ == 0 || SharedUtils::_clock_tics_per_sec_ <= 0) return 0;
    return static_cast<uint64_t>(SharedUtils::_reboot_since_epoch_) +
           ticks / static_cast<unsigned>(SharedUtils::_clock_tics_per_sec_);
}

static int open_stat_file(int pid) {
    char path[40];
    proc_path(path, pid, "/stat");
    return open(path, O_RDONLY | O_CLOEXEC);
}

uint64_t SharedUtils::creationtime_of_process(int pid) {
    if (pid <= 0) return 0;
    int fd = open_stat_file(pid);
    if (fd < 0) return 0;
    uint64_t start = start_from_stat_file(fd);
    close(fd);
    return start;
}

static void read_owner(int pid, ProcessFacts* facts) {
    char path[40];
    proc_path(path, pid, "");
    struct stat st;
    if (stat(path, &st) != 0) return;
    facts->owner_known = true;
    facts->owner = st.st_uid;
}

ProcessFacts SharedUtils::process_facts(int pid, bool with_owner) {
    ProcessFacts facts = {0, false, 0, 0};
    if (pid <= 0) return facts;
    int fd = open_stat_file(pid);
    if (fd < 0) {
        facts.exists = process_exists(pid);
        if (with_owner) read_owner(pid, &facts);
        if (facts.exists != 0) facts.start = creationtime_of_process(pid);
        return facts;
    }
    struct stat st;
    if (with_owner && fstat(fd, &st) == 0) {
        facts.owner_known = true;
        facts.owner = st.st_uid;
    }
    facts.start = start_from_stat_file(fd);
    close(fd);
    facts.exists = 1;
    if (with_owner && !facts.owner_known) read_owner(pid, &facts);
    return facts;
}

int SharedUtils::get_num_cpu() {
    return static_cast<int>(sysconf(_SC_NPROCESSORS_CONF));
}

cstring get_controlarea_format_string() {
    return cstring("/tmp/nox_jvm_%d_%d");
}

cstring get_monitor_board_format_string() {
    return cstring("/tmp/nox_jvm_monitoringboard_%d_%d");
}

cstring get_profiling_server_format_string() {
    return cstring("/tmp/nox_jvm_profiling_server_%d_%d");
}

cstring get_noxfile_format_string() {
    return cstring("/tmp/nox_jvm_%255s");
}

cstring get_controlarea_string(int pid, int uid) {
    return cstring::printf(get_controlarea_format_string().c_str(), uid, pid);
}

cstring get_monitor_board_string(int pid, int uid) {
    return cstring::printf(get_monitor_board_format_string().c_str(), uid, pid);
}

cstring get_profiling_server_string(int pid, int uid) {
    return cstring::printf(get_profiling_server_format_string().c_str(), uid, pid);
}

cstring get_profiling_server_string(int pid) {
    cvector<SharedFile> files;
    StdStaleSharedFileHandler handler;
    SharedFile::get_shared_files(files, get_profiling_server_format_string(), false, true, nullptr, false, handler);
    cstring result;
    for (int i = 0; i < files.size(); i++) {
        if (files[i].get_pid() == pid) {
            result = files[i].get_file_name();
            break;
        }
    }
    files.clear();  // detaches every entry and frees its name
    return result;
}

// Reads an unsigned decimal number that fits an int; returns the position after it, or null.
static const char* parse_int(const char* p, int* value) {
    if (*p < '0' || *p > '9') return nullptr;
    long long number = 0;
    while (*p >= '0' && *p <= '9') {
        number = number * 10 + (*p - '0');
        if (number > INT_MAX) return nullptr;
        p++;
    }
    *value = static_cast<int>(number);
    return p;
}

int parse_file_name(const char* path, const char* pattern, int* first, int* second) {
    int* targets[2] = {first, second};
    int count = 0;
    const char* p = path;
    const char* f = pattern;
    while (*f != '\0') {
        if (f[0] == '%' && f[1] == 'd') {
            if (count == 2) return count;
            int value = 0;
            const char* after = parse_int(p, &value);
            if (after == nullptr) return count;
            *targets[count] = value;
            count++;
            p = after;
            f += 2;
        } else if (f[0] == '%') {
            return count;  // only "%d" conversions name a number in a file name
        } else {
            if (*p != *f) return count;
            p++;
            f++;
        }
    }
    // Something after the last number ("nox_jvm_100_4711.bak") is not a name of the family.
    if (*p != '\0') return count > 0 ? count - 1 : 0;
    return count;
}

bool StdStaleSharedFileHandler::is_stale(const cstring&, int pid) const {
    return !SharedUtils::process_exists(pid);
}

void StdStaleSharedFileHandler::on_stale(const cstring& file_name, int) const {
    SharedFile::destroy_shared_file(file_name);
}

}  // namespace J2SE
