// Linux side of PerfDataFile and PerfDataHost: the hsperfdata_<user> folders under /tmp, opened
// without following links, and each VM's file copied with pread.
#include "perfDataFile.h"

#include "allocations.h"
#include "sharedUtils.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace J2SE {

namespace {

const char* const FILE_SITE = "(libnoxjvm_inspector.so) src/unix/perfDataFile_unix.cpp";
const char FOLDER_PREFIX[] = "hsperfdata_";
// Room for getpwnam_r and getpwuid_r; a larger entry is not a user we can check.
const size_t PASSWD_ROOM = 4096;
// The process start time is known in whole seconds after boot, the VM's begin time in
// milliseconds: allow this much rounding between the two.
const int64_t START_SLACK_SECONDS = 2;

bool uid_of_user(const char* user, unsigned* uid) {
    struct passwd entry;
    struct passwd* found = nullptr;
    char room[PASSWD_ROOM];
    if (getpwnam_r(user, &entry, room, sizeof room, &found) != 0 || found == nullptr) return false;
    *uid = static_cast<unsigned>(found->pw_uid);
    return true;
}

bool user_of_uid(unsigned uid, cstring* user) {
    struct passwd entry;
    struct passwd* found = nullptr;
    char room[PASSWD_ROOM];
    if (getpwuid_r(static_cast<uid_t>(uid), &entry, room, sizeof room, &found) != 0 || found == nullptr) return false;
    *user = cstring(found->pw_name);
    return true;
}

// Opens <root>/hsperfdata_<user> when it is a folder (not a link) owned by `uid` and writable by
// no one else: a folder that another user created or opened up could hold files that are not
// the VM's. Returns the descriptor or -1.
int open_user_folder(const cstring& root, const char* user, unsigned uid) {
    cstring path = cstring::printf("%s/%s%s", root.c_str(), FOLDER_PREFIX, user);
    int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode) || static_cast<unsigned>(st.st_uid) != uid ||
        (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Reads exactly `length` bytes at offset 0; false on an error or a short read (the file was cut
// after it was measured: a copy read in part is never taken for the whole).
bool read_exactly(int fd, unsigned char* into, size_t length) {
    off_t offset = 0;
    while (length > 0) {
        ssize_t got = pread(fd, into, length, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        into += got;
        length -= static_cast<size_t>(got);
        offset += got;
    }
    return true;
}

// Owner of the process, from /proc/<pid>; false when there is no such process.
bool owner_of_process(int pid, unsigned* uid) {
    if (pid <= 0) return false;
    char path[32];
    snprintf(path, sizeof path, "/proc/%d", pid);
    struct stat st;
    if (stat(path, &st) != 0) return false;
    *uid = static_cast<unsigned>(st.st_uid);
    return true;
}

}  // namespace

int perf_data_pid_of_name(const char* name) {
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

// ---------------------------------------------------------------- PerfDataFile

PerfDataFile::PerfDataFile() : _buffer(nullptr), _size(0), _capacity(0) {}

PerfDataFile::~PerfDataFile() {
    if (_buffer != nullptr) wrap_free(alloc_site(FILE_SITE), _buffer);
}

bool PerfDataFile::read_in_folder(int folder_fd, unsigned uid, int pid) {
    _size = 0;
    if (pid <= 0) return false;
    char name[16];
    snprintf(name, sizeof name, "%d", pid);
    // Follow no link, never block on a FIFO planted under a pid's name.
    int fd = openat(folder_fd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<unsigned>(st.st_uid) != uid || st.st_size < 0 ||
        static_cast<uint64_t>(st.st_size) < PerfDataBuffer::PROLOGUE_SIZE ||
        static_cast<uint64_t>(st.st_size) > LARGEST_FILE) {
        close(fd);
        return false;
    }
    size_t size = static_cast<size_t>(st.st_size);
    if (size > _capacity) {
        unsigned char* grown = static_cast<unsigned char*>(wrap_malloc(alloc_site(FILE_SITE), size));
        if (grown == nullptr) {
            close(fd);
            return false;
        }
        if (_buffer != nullptr) wrap_free(alloc_site(FILE_SITE), _buffer);
        _buffer = grown;
        _capacity = size;
    }
    bool whole = read_exactly(fd, _buffer, size);
    close(fd);  // never retried: the descriptor is released even when close reports EINTR
    // A file shorter than the bytes its prologue says are used was cut, or is being written:
    // such a copy is not taken for the VM's counters.
    if (!whole || !PerfDataBuffer(_buffer, size).holds_used()) return false;
    _size = size;
    return true;
}

// ---------------------------------------------------------------- PerfDataHost

PerfDataHost::PerfDataHost(const char* temp_root) : _root(temp_root != nullptr ? temp_root : "/tmp") {}

bool PerfDataHost::is_live(int pid, unsigned uid, const PerfDataBuffer& block) {
    if (!block.is_accessible()) return false;
    unsigned owner = 0;
    if (!owner_of_process(pid, &owner) || owner != uid) return false;
    // A pid the kernel gave to a new process after the VM ended: the process started after the
    // VM began. The begin time is in milliseconds since the epoch.
    PerfCounter begin;
    if (block.find("sun.rt.createVmBeginTime", &begin) && begin.is_long() && begin.long_value > 0) {
        uint64_t started = SharedUtils::creationtime_of_process(pid);
        if (started > 0 && static_cast<int64_t>(started) > begin.long_value / 1000 + START_SLACK_SECONDS) return false;
    }
    return true;
}

int PerfDataHost::for_each_vm(Visitor visitor, void* context) const {
    DIR* root = opendir(_root.c_str());
    if (root == nullptr) return 0;
    int visited = 0;
    bool go_on = true;
    PerfDataFile file;
    // readdir on a stream that only this call uses is safe.
    for (struct dirent* entry = readdir(root); entry != nullptr && go_on; entry = readdir(root)) {
        if (strncmp(entry->d_name, FOLDER_PREFIX, sizeof FOLDER_PREFIX - 1) != 0) continue;
        const char* user = entry->d_name + sizeof FOLDER_PREFIX - 1;
        unsigned uid = 0;
        if (user[0] == '\0' || !uid_of_user(user, &uid)) continue;
        int folder_fd = open_user_folder(_root, user, uid);
        if (folder_fd < 0) continue;
        int listing_fd = dup(folder_fd);
        DIR* folder = listing_fd < 0 ? nullptr : fdopendir(listing_fd);
        if (folder == nullptr) {
            if (listing_fd >= 0) close(listing_fd);
            close(folder_fd);
            continue;
        }
        PerfDataVmRef vm;
        vm.uid = uid;
        vm.user = cstring(user);
        for (struct dirent* item = readdir(folder); item != nullptr && go_on; item = readdir(folder)) {
            int pid = perf_data_pid_of_name(item->d_name);
            if (pid == 0 || !file.read_in_folder(folder_fd, uid, pid)) continue;
            PerfDataBuffer block = file.block();
            if (!is_live(pid, uid, block)) continue;
            vm.pid = pid;
            visited++;
            go_on = visitor(vm, block, context);
        }
        closedir(folder);
        close(folder_fd);
    }
    closedir(root);
    return visited;
}

bool PerfDataHost::read_vm(int pid, PerfDataFile* file, PerfDataVmRef* vm) const {
    unsigned uid = 0;
    cstring user;
    if (!owner_of_process(pid, &uid) || !user_of_uid(uid, &user)) return false;
    int folder_fd = open_user_folder(_root, user.c_str(), uid);
    if (folder_fd < 0) return false;
    bool read = file->read_in_folder(folder_fd, uid, pid);
    close(folder_fd);
    if (!read || !is_live(pid, uid, file->block())) return false;
    vm->pid = pid;
    vm->uid = uid;
    vm->user = user;
    return true;
}

}  // namespace J2SE
