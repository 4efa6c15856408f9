// The control-area files of a host for a pass that reads each of them once: one listing of their
// folder, then per file, in ascending pid order, one reading of its process's /proc/<pid>/stat
// (alive? owned by whom? started when?) and one copy of the file (ControlAreaCopy: open, fstat,
// one pread), with no other system call for a live VM's file.
//
// The rules are those of every scan of these files (SharedFile::get_shared_files): a name counts
// only when it matches the pattern whole, with a pid above 0; only regular files and sockets are
// considered; a file is its process's only when the process's owner owns it; the file of an
// ended process is deleted when the caller owns it. Several files of one pid are rare (a VM's
// file beside an older or a planted one): such a folder is listed by get_shared_files instead,
// which keeps the newest file of each owner and deletes the caller's older ones. A file is
// opened for reading and writing, as a request needs, so a file that refuses that is skipped.
#ifndef NOX_SHARED_CONTROL_AREA_SCAN_H
#define NOX_SHARED_CONTROL_AREA_SCAN_H

#include "controlAreaCopy.h"
#include "cstring.h"
#include "cvector.h"

#include <cstddef>
#include <cstdint>
#include <dirent.h>

namespace J2SE {

class ControlAreaScan {
public:
    // Lists the folder of `path_pattern` (a /tmp name family, "/tmp/nox_jvm_%d_%d").
    explicit ControlAreaScan(const cstring& path_pattern);
    ~ControlAreaScan();
    ControlAreaScan(const ControlAreaScan&) = delete;
    ControlAreaScan& operator=(const ControlAreaScan&) = delete;

    // The next live process's file: its pid, the process's start (seconds since the epoch, 0
    // when unknown) and `copy` holding the first `first_bytes` bytes of its block, the file
    // still open. False when no file is left.
    bool next(size_t first_bytes, int* pid, uint64_t* process_start, ControlAreaCopy* copy);

private:
    struct Entry {
        int pid;
        int name;  // position of the file's name in _names
    };

    void list_folder(const char* name_pattern);
    void list_with_full_scan(const cstring& path_pattern);
    void add(int pid, const char* name);
    void order_by_pid();
    bool has_repeated_pid() const;
    void remove_if_stale(const char* name) const;

    cstring _directory;
    DIR* _dir;
    cvector<Entry> _entries;
    cvector<char> _names;  // the names one after the other, each ending with NUL
    int _next;
};

}  // namespace J2SE

#endif
