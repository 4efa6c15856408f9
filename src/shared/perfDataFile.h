// One HotSpot VM's performance-data file, copied defensively.
//
// A HotSpot VM publishes its counters in <temp>/hsperfdata_<user>/<pid>, a file it maps and
// updates while it runs. The file is copied with pread into our own buffer: a mapping of a file
// that someone cuts would raise SIGBUS in the JVM that reads it. Anyone who may write the folder
// can plant files there, so the copy is taken in two steps: the 32-byte prologue first, and only
// when it is a VM's prologue, the bytes it says are used, never more. Which folders and names
// count, and whether the process behind a file is alive, is decided by the caller before any
// read (see perfDataHost.h).
#ifndef NOX_SHARED_PERF_DATA_FILE_H
#define NOX_SHARED_PERF_DATA_FILE_H

#include "perfDataBuffer.h"
#include "processProbe.h"

#include <cstddef>
#include <cstdint>

namespace J2SE {

// Reusable: a later read() replaces the copy and keeps the buffer when it is large enough, so a
// listing pays for few allocations.
class PerfDataFile {
public:
    // Larger files are refused: HotSpot's default is 32 KiB (-XX:PerfDataMemorySize), and a
    // planted file of gigabytes must not make us allocate that much.
    static const size_t LARGEST_FILE = 16 * 1024 * 1024;

    PerfDataFile();
    ~PerfDataFile();
    PerfDataFile(const PerfDataFile&) = delete;
    PerfDataFile& operator=(const PerfDataFile&) = delete;

    // Copies the file named `name_pid` in the folder open as `folder_fd` when it is a regular
    // file (not a link, not a FIFO) owned by `uid`, no larger than LARGEST_FILE, whose prologue
    // is a VM's. True when the used part was copied whole.
    bool read_in_folder(int folder_fd, unsigned uid, int name_pid);

    // The copy of the last successful read: the used part of the block.
    const unsigned char* data() const { return _buffer; }
    size_t size() const { return _size; }
    PerfDataBuffer block() const { return PerfDataBuffer(_buffer, _size); }
    // The file's size when it was opened (what the VM reserved; the copy holds its used part).
    size_t file_size() const { return _file_size; }

private:
    bool reserve(size_t size);
    bool copy_used(int fd);

    unsigned char* _buffer;
    size_t _size;
    size_t _capacity;
    size_t _file_size;
};

// Parses a file name that must be a pid and nothing else; 0 when it is not one.
inline int perf_data_pid_of_name(const char* name) {
    return pid_of_name(name);
}

}  // namespace J2SE

#endif
