// Linux side of the process probes: the files and links under /proc/<pid>.
#include "processProbe.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace J2SE {

namespace {

const char NSPID_KEY[] = "\nNSpid:";
// A status file is about 1.5 KB; NSpid comes within its first kilobyte.
const size_t STATUS_ROOM = 4096;
// Maps are read in chunks of this size; a needle cut by a chunk's end is found in the next one.
const size_t MAPS_CHUNK = 16384;
const char* const LIBJVM_NEEDLES[] = {"/libjvm.so\n", "/libjvm.so (deleted)\n"};
const size_t LONGEST_NEEDLE = 21;

// The processes found to map libjvm.so, by pid and start; the oldest entry makes room.
struct KnownJvm {
    int pid;
    uint64_t start;
};
const int KNOWN_JVMS = 256;
KnownJvm known_jvms[KNOWN_JVMS];
int next_known_jvm = 0;
pthread_mutex_t known_jvms_lock = PTHREAD_MUTEX_INITIALIZER;

bool is_known_jvm(int pid, uint64_t start) {
    bool known = false;
    pthread_mutex_lock(&known_jvms_lock);
    for (int i = 0; i < KNOWN_JVMS && !known; i++) known = known_jvms[i].pid == pid && known_jvms[i].start == start;
    pthread_mutex_unlock(&known_jvms_lock);
    return known;
}

void remember_jvm(int pid, uint64_t start) {
    pthread_mutex_lock(&known_jvms_lock);
    known_jvms[next_known_jvm] = KnownJvm{pid, start};
    next_known_jvm = (next_known_jvm + 1) % KNOWN_JVMS;
    pthread_mutex_unlock(&known_jvms_lock);
}

// Reads up to `room` - 1 bytes of a small /proc file and terminates them; the length, or -1.
ssize_t read_small(const char* path, char* into, size_t room) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    size_t total = 0;
    while (total < room - 1) {
        ssize_t got = read(fd, into + total, room - 1 - total);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        total += static_cast<size_t>(got);
    }
    close(fd);  // never retried
    into[total] = '\0';
    return static_cast<ssize_t>(total);
}

bool names_libjvm(const char* text, size_t length) {
    for (const char* needle : LIBJVM_NEEDLES) {
        if (memmem(text, length, needle, strlen(needle)) != nullptr) return true;
    }
    return false;
}

// The link's text ("mnt:[4026531841]") rather than a stat of what it names: on a host of a
// thousand processes, reading the link costs half as much as following it.
bool mount_namespace_of(const char* path, uint64_t* id) {
    char link[64];
    ssize_t length = readlink(path, link, sizeof link - 1);
    if (length <= 0) return false;
    link[length] = '\0';
    const char PREFIX[] = "mnt:[";
    if (strncmp(link, PREFIX, sizeof PREFIX - 1) != 0) return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(link + sizeof PREFIX - 1, &end, 10);
    if (errno != 0 || end == link + sizeof PREFIX - 1 || strcmp(end, "]") != 0) return false;
    *id = static_cast<uint64_t>(value);
    return true;
}

}  // namespace

int pid_of_name(const char* name) {
    if (name == nullptr || name[0] < '1' || name[0] > '9') return 0;  // no sign, no blank, no leading zero
    for (const char* p = name; *p != '\0'; p++) {
        if (*p < '0' || *p > '9') return 0;
    }
    errno = 0;
    char* end = nullptr;
    long value = strtol(name, &end, 10);
    if (errno != 0 || end == name || *end != '\0' || value <= 0 || value > INT_MAX) return 0;
    return static_cast<int>(value);
}

bool process_owner(int pid, unsigned* uid) {
    if (pid <= 0) return false;
    char path[32];
    snprintf(path, sizeof path, "/proc/%d", pid);
    struct stat st;
    if (stat(path, &st) != 0) return false;
    *uid = static_cast<unsigned>(st.st_uid);
    return true;
}

// The caller's own namespace is read once: a process that changed it would have to call
// unshare or setns, which no JVM does.
bool process_mount_namespace(int pid, uint64_t* id) {
    if (pid < 0) return false;
    if (pid == 0) {
        static uint64_t own = 0;
        static const bool known = mount_namespace_of("/proc/self/ns/mnt", &own);
        *id = own;
        return known;
    }
    char path[40];
    snprintf(path, sizeof path, "/proc/%d/ns/mnt", pid);
    return mount_namespace_of(path, id);
}

int namespace_pid_of_status(const char* text, size_t length) {
    const char* key = static_cast<const char*>(memmem(text, length, NSPID_KEY, sizeof NSPID_KEY - 1));
    if (key == nullptr) return 0;
    const char* p = key + sizeof NSPID_KEY - 1;
    const char* end = text + length;
    int last = 0;
    while (p < end && *p != '\n') {
        while (p < end && (*p == ' ' || *p == '\t')) p++;
        if (p == end || *p == '\n') break;
        char field[16];
        size_t n = 0;
        while (p < end && *p >= '0' && *p <= '9' && n < sizeof field - 1) field[n++] = *p++;
        field[n] = '\0';
        if (p < end && *p != ' ' && *p != '\t' && *p != '\n') return 0;  // not a pid, or too long
        last = pid_of_name(field);
        if (last == 0) return 0;
    }
    return last;
}

int process_namespace_pid(int pid) {
    if (pid <= 0) return 0;
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/status", pid);
    char text[STATUS_ROOM];
    // A leading newline lets the key match on the first line as on any other.
    text[0] = '\n';
    ssize_t length = read_small(path, text + 1, sizeof text - 1);
    if (length <= 0) return 0;
    int nspid = namespace_pid_of_status(text, static_cast<size_t>(length) + 1);
    if (nspid == 0 && memmem(text, static_cast<size_t>(length) + 1, NSPID_KEY, sizeof NSPID_KEY - 1) == nullptr) {
        return pid;  // a kernel before 4.1 shows no NSpid: one pid namespace
    }
    return nspid;
}

int open_process_tmp(int pid) {
    if (pid <= 0) return -1;
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/root", pid);
    // The magic link itself is followed (it is the process's root); nothing below it is.
    int root = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (root < 0) return -1;
    int tmp = openat(root, "tmp", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    close(root);
    return tmp;
}

bool process_runs_java(int pid) {
    if (pid <= 0) return false;
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/exe", pid);
    char target[PATH_MAX];
    ssize_t length = readlink(path, target, sizeof target - 1);
    if (length <= 0) return false;
    target[length] = '\0';
    const char DELETED[] = " (deleted)";  // the launcher was replaced since the process started
    size_t n = static_cast<size_t>(length);
    if (n >= sizeof DELETED - 1 && strcmp(target + n - (sizeof DELETED - 1), DELETED) == 0) {
        n -= sizeof DELETED - 1;
        target[n] = '\0';
    }
    const char* slash = strrchr(target, '/');
    return strcmp(slash != nullptr ? slash + 1 : target, "java") == 0;
}

bool maps_name_libjvm(int fd) {
    char chunk[MAPS_CHUNK + LONGEST_NEEDLE];
    size_t kept = 0;  // the end of the previous chunk, where a needle may begin
    for (;;) {
        ssize_t got = read(fd, chunk + kept, MAPS_CHUNK);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        size_t length = kept + static_cast<size_t>(got);
        if (names_libjvm(chunk, length)) return true;
        kept = length < LONGEST_NEEDLE - 1 ? length : LONGEST_NEEDLE - 1;
        memmove(chunk, chunk + length - kept, kept);
    }
}

bool process_maps_libjvm(int pid) {
    if (pid <= 0) return false;
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/maps", pid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool found = maps_name_libjvm(fd);
    close(fd);
    return found;
}

bool process_maps_libjvm_remembered(int pid, uint64_t start) {
    if (pid <= 0) return false;
    if (start == 0) return process_maps_libjvm(pid);
    if (is_known_jvm(pid, start)) return true;
    if (!process_maps_libjvm(pid)) return false;
    remember_jvm(pid, start);
    return true;
}

cstring process_command_line(int pid, size_t limit) {
    if (pid <= 0 || limit == 0) return cstring();
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    char text[4096];
    size_t room = limit + 1 < sizeof text ? limit + 1 : sizeof text;
    ssize_t length = read_small(path, text, room);
    while (length > 0 && text[length - 1] == '\0') length--;  // the terminator of the last argument
    return length <= 0 ? cstring() : cstring(text, text + length);
}

// ---------------------------------------------------------------- ProcessTable

ProcessTable::ProcessTable() : _own_namespace(0) {}

bool ProcessTable::scan() {
    _entries = cvector<ProcessEntry>();
    if (!process_mount_namespace(0, &_own_namespace)) return false;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return false;
    // readdir on a stream that only this call uses is safe.
    for (struct dirent* entry = readdir(proc); entry != nullptr; entry = readdir(proc)) {
        ProcessEntry process;
        process.pid = pid_of_name(entry->d_name);
        process.namespace_pid = 0;
        if (process.pid == 0 || !process_mount_namespace(process.pid, &process.mount_namespace)) continue;
        _entries.push_back(process);
    }
    closedir(proc);
    return true;
}

int ProcessTable::namespace_pid(int index) {
    ProcessEntry& entry = _entries[index];
    if (entry.namespace_pid == 0) entry.namespace_pid = process_namespace_pid(entry.pid);
    return entry.namespace_pid;
}

}  // namespace J2SE
