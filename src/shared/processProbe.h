// What /proc tells about the host's processes, as the HotSpot reader needs it: the owner, the
// mount namespace (a VM in a container has its own /tmp), the pid a process knows itself by in
// its own pid namespace, whether it maps HotSpot's libjvm.so, and its command line.
//
// Each probe reads one small /proc file or link. The kernel lets a caller read these for its own
// processes and, as root, for every process; a probe the kernel refuses reports "unknown", never
// a guess. /proc text is the kernel's, but file names in maps and the command line are chosen by
// the process: they are only searched or copied, never trusted for anything else.
#ifndef NOX_SHARED_PROCESS_PROBE_H
#define NOX_SHARED_PROCESS_PROBE_H

#include "cstring.h"
#include "cvector.h"

#include <cstddef>
#include <cstdint>

namespace J2SE {

// A name that is a pid and nothing else (digits only, no sign, no leading zero, 1 to INT_MAX);
// 0 when it is not one.
int pid_of_name(const char* name);

// The owner of process `pid` (the owner of /proc/<pid>); false when there is no such process.
bool process_owner(int pid, unsigned* uid);

// Identity of the mount namespace of `pid` (the number in the link /proc/<pid>/ns/mnt), or of
// the caller when `pid` is 0; false when the caller may not see it.
bool process_mount_namespace(int pid, uint64_t* id);

// The pid that `pid` knows itself by: the last field of NSpid in /proc/<pid>/status (the pid of
// its innermost pid namespace; `pid` itself on a kernel that shows no NSpid); 0 when the status
// cannot be read.
int process_namespace_pid(int pid);

// The last NSpid field of the text of a status file: 0 when the text has no NSpid line, or one
// whose fields are not all pids.
int namespace_pid_of_status(const char* text, size_t length);

// Opens the /tmp of the mount namespace of `pid`: /proc/<pid>/root, then its "tmp", following no
// link below that root (an absolute link inside would resolve against the caller's root, not the
// process's). A folder descriptor, or -1.
int open_process_tmp(int pid);

// True when the executable of `pid` is named "java", the JDK's launcher: the processes whose
// maps are worth reading to find a VM that publishes no performance data.
bool process_runs_java(int pid);

// True when the process maps a file named libjvm.so (the HotSpot VM's library).
bool process_maps_libjvm(int pid);

// The same for a process that started at `start` (seconds since the epoch, 0 when unknown),
// remembering the answer when it is yes: a JVM's maps run to hundreds of lines (100 to 200 us to
// read) and a VM never unmaps its library, so a process known by its pid and start to map it is
// not read again. A process that does not map it yet (a launcher starting up) is read again at
// the next call. Safe to call from many threads.
bool process_maps_libjvm_remembered(int pid, uint64_t start);

// True when the text of a maps file, read from `fd` to its end, names libjvm.so.
bool maps_name_libjvm(int fd);

// The command line of `pid`: its arguments separated by NUL bytes (an argument may hold blanks,
// never a NUL), cut at `limit` bytes; empty when it cannot be read (a kernel thread, another
// user's process).
cstring process_command_line(int pid, size_t limit);

// One process of the host as a scan of /proc found it.
struct ProcessEntry {
    int pid;
    uint64_t mount_namespace;
    int namespace_pid;  // 0 until namespace_pid() has read it
};

// Every process of the host whose mount namespace the caller may see, read by one scan of /proc
// (a readdir and one stat per process); the namespace pids are read only when asked for.
class ProcessTable {
public:
    ProcessTable();

    // Reads /proc afresh; false when /proc or the caller's own namespace cannot be read.
    bool scan();

    uint64_t own_mount_namespace() const { return _own_namespace; }
    int size() const { return _entries.size(); }
    const ProcessEntry& at(int index) const { return _entries[index]; }

    // The pid that entry `index` knows itself by; read from its status at the first call.
    int namespace_pid(int index);

private:
    cvector<ProcessEntry> _entries;
    uint64_t _own_namespace;
};

}  // namespace J2SE

#endif
