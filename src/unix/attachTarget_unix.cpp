// What /proc tells about a process before anything is sent to it: who it is in its own pid
// namespace, whose it is, where its /tmp is, whether it is a HotSpot VM and whether a SIGQUIT
// would start its attach listener.
#include "attachClient.h"
#include "cvector.h"
#include "errorText.h"
#include "perfDataHost.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

namespace J2SE {

bool AttachError::set(AttachReason why, const cstring& text) {
    reason = why;
    message = text;
    return false;
}

namespace {

// /proc files are produced by the kernel on read; a status file is about 1.5 KiB.
const size_t STATUS_LIMIT = 64 * 1024;
// A command line is at most ARG_MAX (2 MiB by default) long.
const size_t COMMAND_LINE_LIMIT = 4 * 1024 * 1024;

// Reads a /proc file whole, at most `limit` bytes, into `text` (NUL-terminated). False with
// errno when it cannot be opened or read.
bool read_proc_file(const char* path, size_t limit, cvector<char>* text) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char chunk[4096];
    bool ok = true;
    for (;;) {
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) ok = false;
        if (got <= 0) break;
        for (ssize_t i = 0; i < got && static_cast<size_t>(text->size()) < limit; i++) text->push_back(chunk[i]);
    }
    int error = errno;
    close(fd);  // never retried
    text->push_back('\0');
    errno = error;
    return ok;
}

// The rest of the first line that starts with `key`, without the key. False when no line does.
bool line_after(const char* text, size_t length, const char* key, const char** rest, size_t* rest_length) {
    size_t key_length = strlen(key);
    for (size_t start = 0; start < length;) {
        const char* line = text + start;
        const char* end = static_cast<const char*>(memchr(line, '\n', length - start));
        size_t line_length = end != nullptr ? static_cast<size_t>(end - line) : length - start;
        if (line_length > key_length && memcmp(line, key, key_length) == 0) {
            *rest = line + key_length;
            *rest_length = line_length - key_length;
            return true;
        }
        start += line_length + 1;
    }
    return false;
}

// The number after `key` at the start of a line ("Pid:\t42"); `index` picks one of several
// numbers on the line (0 the first, -1 the last). False when there is none.
bool field_of(const char* text, size_t length, const char* key, int index, long long* value) {
    const char* line;
    size_t line_length;
    if (!line_after(text, length, key, &line, &line_length)) return false;
    bool found = false;
    int seen = 0;
    for (size_t i = 0; i < line_length;) {
        while (i < line_length && (line[i] == ' ' || line[i] == '\t')) i++;
        size_t digits = i;
        long long number = 0;
        while (i < line_length && line[i] >= '0' && line[i] <= '9' && i - digits < 10) {
            number = number * 10 + (line[i++] - '0');
        }
        if (i == digits || (i < line_length && line[i] != ' ' && line[i] != '\t')) return found;
        if (index < 0 || seen++ == index) {
            *value = number;
            found = true;
        }
    }
    return found;
}

// The hexadecimal mask after `key` at the start of a line ("SigCgt:\t0000000000004a02").
bool mask_of(const char* text, size_t length, const char* key, uint64_t* mask) {
    const char* line;
    size_t line_length;
    if (!line_after(text, length, key, &line, &line_length)) return false;
    size_t i = 0;
    while (i < line_length && (line[i] == ' ' || line[i] == '\t')) i++;
    if (i == line_length || line_length - i > 16) return false;
    uint64_t value = 0;
    for (; i < line_length; i++) {
        char c = line[i];
        int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (digit < 0) return false;
        value = value << 4 | static_cast<uint64_t>(digit);
    }
    *mask = value;
    return true;
}

bool same_mount_namespace(int pid) {
    char path[64];
    char own[128];
    char theirs[128];
    snprintf(path, sizeof path, "/proc/%d/ns/mnt", pid);
    ssize_t own_length = readlink("/proc/self/ns/mnt", own, sizeof own - 1);
    ssize_t their_length = readlink(path, theirs, sizeof theirs - 1);
    if (own_length <= 0 || their_length <= 0) return true;
    return own_length == their_length && memcmp(own, theirs, static_cast<size_t>(own_length)) == 0;
}

}  // namespace

bool parse_proc_status(const char* text, size_t length, ProcStatus* status) {
    long long pid = 0, tgid = 0, euid = 0, egid = 0, nspid = 0;
    uint64_t caught = 0;
    if (!field_of(text, length, "Pid:", 0, &pid) || !field_of(text, length, "Tgid:", 0, &tgid) ||
        !field_of(text, length, "Uid:", 1, &euid) || !field_of(text, length, "Gid:", 1, &egid) ||
        !mask_of(text, length, "SigCgt:", &caught)) {
        return false;
    }
    if (!field_of(text, length, "NSpid:", -1, &nspid)) nspid = pid;  // kernels before 4.1
    if (pid <= 0 || pid > INT_MAX || tgid <= 0 || tgid > INT_MAX || nspid <= 0 || nspid > INT_MAX ||
        euid > UINT_MAX || egid > UINT_MAX) {
        return false;
    }
    status->pid = static_cast<int>(pid);
    status->tgid = static_cast<int>(tgid);
    status->euid = static_cast<unsigned>(euid);
    status->egid = static_cast<unsigned>(egid);
    status->nspid = static_cast<int>(nspid);
    status->catches_quit = (caught >> (SIGQUIT - 1) & 1) != 0;
    return true;
}

AttachTarget::AttachTarget() : pid(0), nspid(0), euid(0), egid(0), other_mounts(false) {}

namespace {

bool read_status(int pid, ProcStatus* status) {
    cvector<char> text;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/status", pid);
    return pid > 0 && read_proc_file(path, STATUS_LIMIT, &text) &&
           parse_proc_status(text.as_array(), static_cast<size_t>(text.size() - 1), status);
}

}  // namespace

bool AttachTarget::resolve(int wanted, AttachError* error) {
    ProcStatus status;
    if (!read_status(wanted, &status)) {
        return error->set(ATTACH_NO_PROCESS, cstring::printf("no process with pid %d", wanted));
    }
    if (status.tgid != status.pid) {
        return error->set(ATTACH_NO_PROCESS, cstring::printf("%d is a thread of process %d, not a process",
                                                             wanted, status.tgid));
    }
    unsigned caller_uid = geteuid();
    unsigned caller_gid = getegid();
    if (caller_uid != 0 && status.euid != caller_uid) {
        return error->set(ATTACH_NOT_PERMITTED, cstring::printf(
            "process %d belongs to user id %u; only its own user (%u here) or root may attach to it",
            wanted, status.euid, caller_uid));
    }
    if (caller_uid != 0 && status.egid != caller_gid) {
        return error->set(ATTACH_NOT_PERMITTED, cstring::printf(
            "process %d runs with group id %u and this one with %u: a VM answers only its own user and group, or root",
            wanted, status.egid, caller_gid));
    }
    pid = wanted;
    nspid = status.nspid;
    euid = status.euid;
    egid = status.egid;
    other_mounts = !same_mount_namespace(wanted);
    tmp_dir = other_mounts ? cstring::printf("/proc/%d/root/tmp", wanted) : cstring("/tmp");
    socket_path = tmp_dir + cstring::printf("/.java_pid%d", nspid);
    return true;
}

// ---------------------------------------------------------------- before a signal

namespace {

// True when the process maps the HotSpot library. The maps of a VM with many threads run to
// megabytes, so they are searched in chunks; the needles are whole line ends.
bool maps_libjvm(int pid) {
    static const char* const NEEDLES[] = {"/libjvm.so\n", "/libjvm.so (deleted)\n"};
    const size_t CARRY = 24;  // longer than the longest needle
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/maps", pid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buffer[16384 + CARRY];
    size_t kept = 0;
    bool found = false;
    while (!found) {
        ssize_t got = read(fd, buffer + kept, sizeof buffer - kept);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        size_t total = kept + static_cast<size_t>(got);
        for (const char* needle : NEEDLES) {
            if (memmem(buffer, total, needle, strlen(needle)) != nullptr) found = true;
        }
        kept = total < CARRY ? total : CARRY;
        memmove(buffer, buffer + total - kept, kept);
    }
    close(fd);
    return found;
}


bool word_is(const char* word, size_t length, const char* expected) {
    return length == strlen(expected) && memcmp(word, expected, length) == 0;
}

// Whether the words (VM options) end with -XX:+DisableAttachMechanism in force: the last one wins.
void scan_words(const char* text, size_t length, char separator, bool* attach_disabled) {
    for (size_t start = 0; start < length;) {
        const char* word = text + start;
        const char* end = static_cast<const char*>(memchr(word, separator, length - start));
        size_t word_length = end != nullptr ? static_cast<size_t>(end - word) : length - start;
        if (word_is(word, word_length, "-XX:+DisableAttachMechanism")) *attach_disabled = true;
        if (word_is(word, word_length, "-XX:-DisableAttachMechanism")) *attach_disabled = false;
        start += word_length + 1;
    }
}

// From the capability flag of the VM's performance data (the one the JDK's own client checks)
// when it publishes them, else from its command line.
bool attach_disabled(int pid) {
    PerfDataFile file;
    PerfDataVmRef ref;
    PerfCounter capabilities;
    if (PerfDataHost().read_vm(pid, &file, &ref) && file.block().find("sun.rt.jvmCapabilities", &capabilities) &&
        capabilities.is_bytes() && capabilities.bytes_length > 0) {
        return capabilities.bytes[0] == '0';
    }
    bool disabled = false;
    cvector<char> text;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    if (read_proc_file(path, COMMAND_LINE_LIMIT, &text)) {
        scan_words(text.as_array(), static_cast<size_t>(text.size() - 1), '\0', &disabled);
    }
    return disabled;
}

}  // namespace

bool AttachTarget::check_signal_safe(AttachError* error) const {
    if (!maps_libjvm(pid)) {
        return error->set(ATTACH_NOT_A_VM, cstring::printf(
            "process %d is not a Java VM (it maps no libjvm.so): not signalled", pid));
    }
    ProcStatus status;
    if (!read_status(pid, &status)) return error->set(ATTACH_GONE, cstring::printf("VM pid %d has ended", pid));
    if (attach_disabled(pid)) {
        return error->set(ATTACH_DISABLED, cstring::printf(
            "VM pid %d does not accept attach requests (it runs with -XX:+DisableAttachMechanism): not signalled", pid));
    }
    if (!status.catches_quit) {
        return error->set(ATTACH_DISABLED, cstring::printf(
            "VM pid %d has no attach listener and does not handle SIGQUIT (it is starting, or runs with -Xrs), "
            "which would end it: not signalled", pid));
    }
    return true;
}

}  // namespace J2SE
