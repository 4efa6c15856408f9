// Process facts and the names of the files under /tmp through which VMs announce themselves.
#ifndef NOX_SHARED_SHARED_UTILS_H
#define NOX_SHARED_SHARED_UTILS_H

#include "cstring.h"

#include <cstdint>
#include <sys/types.h>

namespace J2SE {

// What one reading of /proc/<pid>/stat tells about a process.
struct ProcessFacts {
    int exists;        // as process_exists answers: 1 exists (or may), 0 certainly not
    bool owner_known;  // `owner` holds the owner of /proc/<pid>
    uid_t owner;
    uint64_t start;    // as creationtime_of_process answers: 0 when unknown
};

class SharedUtils {
public:
    // 1 if the process exists (or may exist), 0 if it certainly does not. A pid of 0 or below
    // is never alive: kill(0, 0) and kill(-1, 0) would probe process groups, not a process.
    static int process_exists(int pid);

    // Caches the own pid and the clock facts used by creationtime_of_process.
    static void init();

    // The cached own pid, or getpid() while the cache is not yet set.
    static int get_own_pid();

    // Start time of a process in whole seconds since the epoch, 0 on any failure.
    static uint64_t creationtime_of_process(int pid);

    // Existence, owner (only when `with_owner`) and start of a process from one open of
    // /proc/<pid>/stat: the open answers "exists", an fstat of it "owned by whom" (the files of
    // /proc/<pid> carry the owner of /proc/<pid>), its text the start. When the file cannot be
    // opened (the process has ended, or /proc hides or lacks it) process_exists, a stat of
    // /proc/<pid> and creationtime_of_process answer, as they do alone.
    static ProcessFacts process_facts(int pid, bool with_owner);

    // Configured (not online) processors.
    static int get_num_cpu();

    static bool could_elevate() { return false; }

    static int _own_pid_;
    static int _clock_tics_per_sec_;
    static int64_t _reboot_since_epoch_;
};

// Runs at library load: caches the own pid and returns 1.
int initSharedUtils();

// The single-method probes that process_exists combines: 1 exists, 0 does not, -1 undecided.
int test_process_by_ps(int pid);
int test_process_by_kill(int pid);
int test_process_by_proc(int pid);

// Name patterns of the file families, used both to build and to parse names.
cstring get_controlarea_format_string();
cstring get_monitor_board_format_string();
cstring get_profiling_server_format_string();
cstring get_noxfile_format_string();

// The names carry the user id first and the pid second, although the arguments are (pid, uid).
cstring get_controlarea_string(int pid, int uid);
cstring get_monitor_board_string(int pid, int uid);
cstring get_profiling_server_string(int pid, int uid);

// The existing profiling-server file of `pid`, found by a scan of /tmp that also deletes the
// files of dead processes; the empty string when there is none.
cstring get_profiling_server_string(int pid);

// Parses `path` against a name pattern made of literal text and two "%d" conversions. Unlike
// sscanf it accepts only plain decimal digits, refuses numbers that overflow an int, and
// requires that nothing follows the last number. Returns how many numbers were read (2 when
// the whole name matches).
int parse_file_name(const char* path, const char* pattern, int* first, int* second);

// Decides whether a listed file is left over from a dead process, and what to do with it.
class StaleSharedFileHandler {
public:
    virtual bool is_stale(const cstring& file_name, int pid) const = 0;
    virtual void on_stale(const cstring& file_name, int pid) const = 0;
    virtual ~StaleSharedFileHandler() {}
};

// A file is stale when its owner process no longer exists; a stale file is deleted.
class StdStaleSharedFileHandler : public StaleSharedFileHandler {
public:
    bool is_stale(const cstring& file_name, int pid) const override;
    void on_stale(const cstring& file_name, int pid) const override;
};

}  // namespace J2SE

#endif
