// One shared file under /tmp seen from this process: its owner's pid, its path and the current
// mapping; plus the static operations that create, list and delete such files.
#ifndef NOX_SHARED_SHARED_FILE_H
#define NOX_SHARED_SHARED_FILE_H

#include "cstring.h"
#include "cvector.h"
#include "sharedUtils.h"
#include "traceOutput.h"

#include <cstddef>

namespace J2SE {

typedef void* HANDLE;

class SharedFile {
public:
    SharedFile();
    SharedFile(int pid, const cstring& file_name);

    // A SharedFile is the one owner of its mapping. It cannot be copied; moving hands the
    // mapping over: the source keeps its pid and name but is left unmapped (its mapping fields
    // cleared, nothing unmapped), so that destroying it releases nothing. A move assignment
    // first unmaps the target's own mapping.
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;
    SharedFile(SharedFile&& other);
    SharedFile& operator=(SharedFile&& other);
    ~SharedFile();

    const cstring& get_file_name() const { return _file_name; }
    int get_pid() const { return _pid; }
    size_t get_map_size() const { return _map_size; }
    void* get_map_address() const { return _map_address; }
    size_t get_map_offset() const { return _map_offset; }
    void set_mapping_offset(size_t offset) { _map_offset = offset; }
    bool is_attached() const { return _map_address != nullptr && _map_size != 0; }

    // Records a mapping made elsewhere; clear_mapping forgets it without unmapping.
    void update_mapping(HANDLE handle, size_t size, void* address, size_t offset);
    void clear_mapping();

    // Orders by pid, then by name.
    bool operator<(const SharedFile& other) const;

    // Maps the whole file, read-write or read-only. An existing mapping is not released first.
    bool attach(bool need_write_access, const TraceOutput* trace);
    // Unmaps; false when nothing is mapped or munmap fails.
    bool detach();
    // Gives the mapping up without leaving a hole: zero pages of the same size take its place
    // and stay for the life of the process. For a mapping that other code may still read (a
    // ByteBuffer handed to Java) after its file is gone or cut: a read then sees zeros instead
    // of faulting. False, and the mapping kept as it is (never unmapped either), when the zero
    // pages cannot be made.
    bool retire();

    // Creates the file (replacing an existing one) with its space reserved; returns an open
    // read-write descriptor, or -1 after a message to `trace`.
    static int create_file(const cstring& file_name, size_t size, bool restricted, bool local,
                           const TraceOutput& trace);
    // Creates the file and maps `size` zeroed bytes read-write; on failure a SharedFile with
    // pid -1, an empty name and no mapping.
    static SharedFile create_shared_file(const cstring& file_name, size_t size, bool restricted,
                                         bool local, const TraceOutput& trace);
    static void destroy_shared_file(const cstring& file_name);

    // Fills `files` with the files of live processes that match `path_pattern` (a /tmp name
    // family), newest file per pid and owner, unmapped. Files of dead processes and older
    // duplicates are handed to `handler` or deleted on the way, but only when the calling user
    // owns them. Only `write_access` and `handler` have an effect; the other three arguments
    // are accepted for the callers' sake. Returns the new cache value: always null here.
    static void* get_shared_files(cvector<SharedFile>& files, const cstring& path_pattern,
                                  bool write_access, bool unused_2, void* unused_3, bool unused_4,
                                  const StaleSharedFileHandler& handler);
    static void remove_stale_files(const cstring& path_pattern);
    static void* create_shared_files_cache() { return nullptr; }

private:
    int _pid;
    cstring _file_name;
    HANDLE _handle;
    size_t _map_size;
    void* _map_address;
    size_t _map_offset;
};

}  // namespace J2SE

#endif
