// Starting a VM's attach listener: the trigger file, SIGQUIT, and a bounded wait for the socket.
//
// The process is held by a pidfd (Linux 5.3 and later), so the signal can only reach the process
// that was checked, never a newcomer that got its pid, and its end wakes the wait at once. The
// socket's appearance wakes it through inotify on the VM's /tmp. Where either is missing the
// wait looks again every few milliseconds.
#include "attachClient.h"
#include "errorText.h"
#include "fileSocket.h"
#include "sharedUtils.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace J2SE {

namespace {

// How long one look may sleep when nothing can wake it (no inotify, no pidfd).
const int SLICE_MS = 20;

// One process, also after its pid has been given to another: its pidfd, or else its pid and
// start time.
class ProcessHandle {
public:
    explicit ProcessHandle(int pid) : _pid(pid), _pidfd(-1), _start(SharedUtils::creationtime_of_process(pid)) {
#ifdef SYS_pidfd_open
        _pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#endif
    }
    ~ProcessHandle() {
        if (_pidfd >= 0) ::close(_pidfd);
    }
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;

    // The descriptor that becomes readable when the process ends; -1 when there is none.
    int end_fd() const { return _pidfd; }

    bool alive() const {
        if (_pidfd >= 0) {
            pollfd end = {_pidfd, POLLIN, 0};
            return poll(&end, 1, 0) == 0;
        }
        return _start != 0 && SharedUtils::process_exists(_pid) && SharedUtils::creationtime_of_process(_pid) == _start;
    }

    // False when the process has ended (or could not be signalled; errno says why).
    bool signal(int sig) const {
#ifdef SYS_pidfd_send_signal
        if (_pidfd >= 0) return syscall(SYS_pidfd_send_signal, _pidfd, sig, nullptr, 0) == 0;
#endif
        return alive() && kill(_pid, sig) == 0;
    }

private:
    int _pid;
    int _pidfd;
    uint64_t _start;
};

// The trigger .attach_pid<nspid>, created anew in a folder held open, so that it is removed from
// that folder even after the VM (and with it /proc/<pid>/cwd) has gone; removed only while it
// is still the file made here.
class TriggerFile {
public:
    TriggerFile() : _folder(-1), _device(0), _inode(0), _ours(false) {}
    ~TriggerFile() { remove(); }
    TriggerFile(const TriggerFile&) = delete;
    TriggerFile& operator=(const TriggerFile&) = delete;

    // 1 created (or a file the VM accepts is there already), 0 the folder cannot take it (errno
    // set), -1 a file that is not the VM's holds the name (error set).
    int create(const cstring& folder, const cstring& name, unsigned vm_uid, AttachError* error);
    void remove();

private:
    int _folder;
    cstring _name;
    dev_t _device;
    ino_t _inode;
    bool _ours;
};

int TriggerFile::create(const cstring& folder, const cstring& name, unsigned vm_uid, AttachError* error) {
    remove();
    _folder = open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (_folder < 0) return 0;
    _name = name;
    int fd = openat(_folder, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    struct stat st;
    if (fd >= 0) {
        // Known by device and inode, so that only this file is ever removed.
        _ours = fstat(fd, &st) == 0;
        ::close(fd);
        if (!_ours) {
            unlinkat(_folder, name, 0);
            return 0;
        }
        _device = st.st_dev;
        _inode = st.st_ino;
        return 1;
    }
    if (errno != EEXIST) return 0;
    if (fstatat(_folder, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;  // gone again meanwhile
    // The VM takes a trigger of its own user or of root; and it looks no further than the first
    // folder that holds the name.
    if (S_ISREG(st.st_mode) && (st.st_uid == vm_uid || st.st_uid == 0)) return 1;
    error->set(ATTACH_FOREIGN_FILE, cstring::printf(
        "%s/%s is not a file of the VM's user (user id %u) and keeps the VM from starting its attach listener: not used",
        folder.c_str(), name.c_str(), static_cast<unsigned>(st.st_uid)));
    return -1;
}

void TriggerFile::remove() {
    struct stat st;
    if (_ours && fstatat(_folder, _name, &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_dev == _device &&
        st.st_ino == _inode) {
        unlinkat(_folder, _name, 0);
    }
    if (_folder >= 0) ::close(_folder);
    _folder = -1;
    _ours = false;
}

// The VM looks for the trigger in its working folder first, then in its /tmp.
bool create_trigger(const AttachTarget& target, TriggerFile* trigger, AttachError* error) {
    cstring name = cstring::printf(".attach_pid%d", target.nspid);
    cstring working = cstring::printf("/proc/%d/cwd", target.pid);
    int made = trigger->create(working, name, target.euid, error);
    if (made == 0) made = trigger->create(target.tmp_dir, name, target.euid, error);
    if (made == 0) {
        return error->set(ATTACH_IO, cstring::printf("cannot create the attach trigger %s/%s: %s",
                                                     target.tmp_dir.c_str(), name.c_str(), error_text(errno)));
    }
    return made > 0;
}

// Watches the VM's /tmp for new names; -1 when inotify is not available (then the wait looks
// every slice).
int watch_folder(const cstring& folder) {
    int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) return -1;
    if (inotify_add_watch(fd, folder, IN_CREATE | IN_MOVED_TO) < 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

void drain(int fd) {
    char events[4096];
    while (read(fd, events, sizeof events) > 0) {
    }
}

enum WaitOutcome { SOCKET_APPEARED, PROCESS_ENDED, TIME_PASSED };

// Waits until a file is at the socket's path, the process ends or the deadline passes. Halfway
// through, a second SIGQUIT gives a VM that missed the first one another chance.
WaitOutcome wait_for_socket(const AttachTarget& target, const ProcessHandle& process, int64_t deadline_ms) {
    int watch = watch_folder(target.tmp_dir);
    const int64_t halfway = FileSocketHelperUnix::now_ms() + (deadline_ms - FileSocketHelperUnix::now_ms()) / 2;
    bool repeated = false;
    WaitOutcome outcome = TIME_PASSED;
    for (;;) {
        struct stat st;
        if (lstat(target.socket_path, &st) == 0) {
            outcome = SOCKET_APPEARED;
            break;
        }
        if (!process.alive()) {
            outcome = PROCESS_ENDED;
            break;
        }
        int64_t now = FileSocketHelperUnix::now_ms();
        if (now >= deadline_ms) break;
        if (!repeated && now >= halfway) {
            process.signal(SIGQUIT);  // the end of the process, if that is why it fails, is seen next
            repeated = true;
        }
        pollfd fds[2] = {{watch, POLLIN, 0}, {process.end_fd(), POLLIN, 0}};
        int64_t slice = deadline_ms - now;
        if (watch < 0 || process.end_fd() < 0) slice = slice < SLICE_MS ? slice : SLICE_MS;
        if (!repeated && halfway - now < slice) slice = halfway - now;
        poll(fds, 2, static_cast<int>(slice > 0 ? slice : 0));  // negative descriptors are skipped
        if (watch >= 0) drain(watch);
    }
    if (watch >= 0) ::close(watch);
    return outcome;
}

}  // namespace

bool start_attach_listener(const AttachTarget& target, int64_t deadline_ms, AttachError* error) {
    ProcessHandle process(target.pid);
    if (!process.alive()) return error->set(ATTACH_GONE, cstring::printf("VM pid %d has ended", target.pid));
    if (!target.check_signal_safe(error)) return false;
    TriggerFile trigger;
    if (!create_trigger(target, &trigger, error)) return false;
    if (!process.signal(SIGQUIT)) {
        return error->set(ATTACH_GONE, cstring::printf("VM pid %d ended before it could be signalled", target.pid));
    }
    switch (wait_for_socket(target, process, deadline_ms)) {
    case SOCKET_APPEARED:
        return true;
    case PROCESS_ENDED:
        return error->set(ATTACH_GONE, cstring::printf("VM pid %d ended during the attach", target.pid));
    case TIME_PASSED:
        break;
    }
    return error->set(ATTACH_NO_ANSWER, cstring::printf(
        "VM pid %d started no attach listener within the time-out (it may be too busy, stopped, or "
        "run with -XX:+DisableAttachMechanism)", target.pid));
}

}  // namespace J2SE
