// The host's HotSpot VMs: which performance-data files count, whose they are, and the VMs that
// publish none.
//
// A VM writes <its /tmp>/hsperfdata_<user>/<its pid>. Anyone can create names in /tmp, so:
// - a folder counts only when it is a real folder (not a link), writable by nobody but its
//   owner; in our own /tmp it must also be owned by the user it names;
// - a file only when its name is a pid and nothing more, the live process behind that pid
//   belongs to the folder's owner (checked before the file is even opened, so that files planted
//   under pids of nobody's cost nothing), and the file itself is a regular file of that owner;
// - a copied block only when the VM marked it accessible and the process did not start after the
//   VM began (a pid that the kernel gave to a new process after the VM ended).
// A VM in a container has its own /tmp and knows itself by the pid of its own pid namespace:
// its files are found through /proc/<pid>/root/tmp for every mount namespace other than ours, the
// file's name is mapped back to the host's pid through NSpid, and the same rules apply. A process
// that maps libjvm.so but publishes no file the caller can read (-XX:-UsePerfData) is reported as
// such, with what /proc tells of it.
#ifndef NOX_SHARED_PERF_DATA_HOST_H
#define NOX_SHARED_PERF_DATA_HOST_H

#include "cstring.h"
#include "perfDataBuffer.h"
#include "perfDataFile.h"

#include <cstddef>
#include <cstdint>

namespace J2SE {

// A live VM whose file was read.
struct PerfDataVmRef {
    int pid = 0;                 // in our pid namespace
    int namespace_pid = 0;       // in the VM's own (its file's name); equals pid outside containers
    unsigned uid = 0;
    cstring user;                // as the folder names it (in a container, the container's name)
    uint64_t process_start = 0;  // seconds since the epoch; 0 when unknown
};

// A process that maps libjvm.so and publishes no performance data the caller could read.
struct JvmProcessRef {
    int pid = 0;
    int namespace_pid = 0;
    unsigned uid = 0;
    cstring user;                // the host's name of the owner; empty when the host has none
    uint64_t process_start = 0;
    cstring command_line;        // arguments separated by NUL bytes, cut at COMMAND_LINE_LIMIT bytes
};

class PerfDataHost {
public:
    static const size_t COMMAND_LINE_LIMIT = 4000;

    // The host as it is: our /tmp, the /tmp of every other mount namespace the caller may read,
    // and the processes of /proc.
    PerfDataHost();
    // Only the hsperfdata_<user> folders under `temp_root`, as our /tmp (a test's own folder):
    // no other namespace and no process scan.
    explicit PerfDataHost(const char* temp_root);

    // Called for each live VM with its copied block; return false to stop the walk.
    typedef bool (*Visitor)(const PerfDataVmRef& vm, const PerfDataBuffer& block, void* context);
    // Called for each process that maps libjvm.so without a readable file; false stops.
    typedef bool (*ProcessVisitor)(const JvmProcessRef& process, void* context);

    // Visits every live VM whose file the caller may read, each file copied once. Returns the
    // number visited.
    int for_each_vm(Visitor visitor, void* context) const;

    // The same, then every VM without performance data (one scan of /proc serves both); a null
    // `processes` visits none.
    int for_each_jvm(Visitor visitor, ProcessVisitor processes, void* context) const;

    // Reads the file of one VM into `file`: in the folder of the user who owns the process, in
    // the /tmp of its mount namespace. False when the process does not exist, publishes no
    // readable file, or has ended.
    bool read_vm(int pid, PerfDataFile* file, PerfDataVmRef* vm) const;

private:
    cstring _root;
    bool _whole_host;
};

}  // namespace J2SE

#endif
