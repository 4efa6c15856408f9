// The performance-data files of the host's HotSpot VMs, found and copied defensively.
//
// A HotSpot VM publishes its counters in <temp>/hsperfdata_<user>/<pid> (the temp folder is
// /tmp on Linux). Anyone can create names in /tmp, so a folder counts only when it is a real
// folder (not a link) owned by the user it names and writable by nobody else, and a file only
// when it is a regular file (not a link, not a FIFO) owned by that same user whose name is a
// pid and nothing more. The file is copied with pread into our own buffer: the VM rewrites it
// while it runs, and a mapping of a file that someone cuts would raise SIGBUS in the JVM that
// reads it. A file whose VM has ended (no process with its pid and owner, a process that started
// after the VM did, or a block the VM never marked accessible) is not taken for a live VM.
#ifndef NOX_SHARED_PERF_DATA_FILE_H
#define NOX_SHARED_PERF_DATA_FILE_H

#include "cstring.h"
#include "perfDataBuffer.h"

#include <cstddef>
#include <cstdint>

namespace J2SE {

// One VM's file, copied. Reusable: a later read() replaces the copy and keeps the buffer when it
// is large enough, so a listing pays for one allocation.
class PerfDataFile {
public:
    // Larger files are refused: HotSpot's default is 32 KiB (-XX:PerfDataMemorySize), and a
    // planted file of gigabytes must not make us allocate that much.
    static const size_t LARGEST_FILE = 16 * 1024 * 1024;

    PerfDataFile();
    ~PerfDataFile();
    PerfDataFile(const PerfDataFile&) = delete;
    PerfDataFile& operator=(const PerfDataFile&) = delete;

    // Reads the file of `pid` in the folder open as `folder_fd`, owned by `uid`. True when it
    // passes every check and was copied whole, with a valid prologue.
    bool read_in_folder(int folder_fd, unsigned uid, int pid);

    // The copy of the last successful read.
    const unsigned char* data() const { return _buffer; }
    size_t size() const { return _size; }
    PerfDataBuffer block() const { return PerfDataBuffer(_buffer, _size); }

private:
    unsigned char* _buffer;
    size_t _size;
    size_t _capacity;
};

// What the host's folders hold: the live VMs, each with its owner.
struct PerfDataVmRef {
    int pid;
    unsigned uid;
    cstring user;
};

class PerfDataHost {
public:
    // `temp_root` is the folder holding the hsperfdata_<user> folders; "/tmp" on Linux. Tests
    // pass a folder of their own.
    explicit PerfDataHost(const char* temp_root = "/tmp");

    // Called for each live VM with its copied block; return false to stop the walk.
    typedef bool (*Visitor)(const PerfDataVmRef& vm, const PerfDataBuffer& block, void* context);

    // Visits every live VM whose file the caller may read. Returns the number visited.
    int for_each_vm(Visitor visitor, void* context) const;

    // Reads the file of one VM into `file`: the folder of the user who owns the process. False
    // when the process does not exist, publishes no readable file, or has ended.
    bool read_vm(int pid, PerfDataFile* file, PerfDataVmRef* vm) const;

    // True when `block` belongs to the live process `pid` owned by `uid`: the process exists
    // with that owner, started no later than the VM says it began, and the VM marked the block
    // accessible.
    static bool is_live(int pid, unsigned uid, const PerfDataBuffer& block);

private:
    cstring _root;
};

// Parses a file name that must be a pid and nothing else (digits only, 1 to INT_MAX); 0 when it
// is not one.
int perf_data_pid_of_name(const char* name);

}  // namespace J2SE

#endif
