// Finding and attaching the shared memory behind a VM's control area: the /tmp file of a
// process cluster (by pid, through a process-wide pid-to-name cache), the System V segment of an
// instance cluster, and the semaphore through which a VM is woken for a request.
#ifndef NOX_SHARED_CONTROL_AREA_FILE_H
#define NOX_SHARED_CONTROL_AREA_FILE_H

#include "controlAreaCopy.h"
#include "cstring.h"
#include "cvector.h"
#include "sharedEvent.h"
#include "sharedFile.h"
#include "sharedMemory.h"
#include "traceOutput.h"

namespace J2SE {

// Key of segment `key` of instance cluster `nr`: key + nr * 100 + 4500000. 0 (no segment)
// when the result does not fit an int.
int unix_get_shared_memory_key(int nr, SharedMemory::SharedMemoryKey key);

// Key of event `key` of the VM with `pid`: key + pid * 100 + 5000000. 0 for a pid of 0 or
// below and for a result outside int: such a key must never reach semget, where 0 would be
// IPC_PRIVATE and create a new set.
int unix_get_event_key(int pid, int key);

class ControlAreaFile {
public:
    // Offset of the control area inside its file; the first 8 bytes are a lead-in.
    static const size_t CONTROL_AREA_OFFSET = ControlAreaCopy::BLOCK_OFFSET;

    // The control-area file of `pid`, attached read-write with map offset 8; or a SharedFile
    // with pid -1 when no file is known for the pid even after one rescan of /tmp, or with the
    // pid and name but no mapping when the file could not be mapped. The library's own readers
    // never map a control-area file (its owner may cut it: see copy_control_area); this is for
    // callers that own the file or can afford a SIGBUS.
    static SharedFile attach_control_area(int pid, const TraceOutput* tracer);
    // Finds the file of `pid` as attach_control_area does, opens it and copies the first
    // `first_bytes` bytes of its block (fewer when the block is shorter). The result is not
    // open when no file is known for the pid, the file cannot be opened as a regular file, or it
    // was cut while being read.
    static ControlAreaCopy copy_control_area(int pid, size_t first_bytes);
    // Copies up to `wanted` bytes of the block of `pid` into `buffer`, as copy_control_area
    // does. True when the file could be read; `available` tells how many bytes were copied
    // (0 when the file holds no more than its lead-in).
    static bool read_control_area_header(int pid, void* buffer, size_t wanted, size_t* available);
    // Deletes the calling process's own control-area file.
    static void destroy_control_area();
    // Scans the control-area files; the scan hands stale ones to `stale_handler`.
    static void remove_stale_control_areas(const StaleSharedFileHandler& stale_handler);

    static SharedMemory attach_shared_memory(int nr, SharedMemory::SharedMemoryKey key, void* addr,
                                             const TraceOutput* tracer);
    static SharedEvent attach_shared_event(int pid, SharedEvent::SharedEventKey key);
};

// The process-wide cache from pid to control-area file name. Every read and every replacement
// holds one mutex; the directory scan that refreshes it runs outside the lock.
class ControlAreaFileNames {
public:
    // The cached name of `pid`, or the empty string.
    static cstring lookup(int pid);
    // Replaces the whole cache by the pids and names of `fresh`.
    static void replace(const cvector<SharedFile>& fresh);
    // How many times the cache was refreshed from a scan of /tmp since the library was loaded.
    static int scan_count();

    // Created at library load; release() frees every entry (at library unload).
    static void create();
    static void release();
};

}  // namespace J2SE

#endif
