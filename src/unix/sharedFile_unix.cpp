// Linux side of SharedFile: creating, mapping, listing and deleting shared files under /tmp.
#include "sharedFile.h"

#include "errorText.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace J2SE {

SharedFile::SharedFile()
    : _pid(0), _file_name(), _handle(nullptr), _map_size(0), _map_address(nullptr), _map_offset(0) {}

SharedFile::SharedFile(int pid, const cstring& file_name)
    : _pid(pid), _file_name(file_name), _handle(nullptr), _map_size(0), _map_address(nullptr), _map_offset(0) {}

SharedFile::SharedFile(SharedFile&& other)
    : _pid(other._pid),
      _file_name(other._file_name),
      _handle(other._handle),
      _map_size(other._map_size),
      _map_address(other._map_address),
      _map_offset(other._map_offset) {
    other.clear_mapping();
}

SharedFile& SharedFile::operator=(SharedFile&& other) {
    if (this == &other) return *this;
    if (is_attached()) detach();
    _pid = other._pid;
    _file_name = other._file_name;
    update_mapping(other._handle, other._map_size, other._map_address, other._map_offset);
    other.clear_mapping();
    return *this;
}

SharedFile::~SharedFile() {
    detach();
}

void SharedFile::update_mapping(HANDLE handle, size_t size, void* address, size_t offset) {
    _handle = handle;
    _map_size = size;
    _map_address = address;
    _map_offset = offset;
}

void SharedFile::clear_mapping() {
    update_mapping(nullptr, 0, nullptr, 0);
}

bool SharedFile::operator<(const SharedFile& other) const {
    if (_pid != other._pid) return _pid < other._pid;
    return strcmp(_file_name.c_str(), other._file_name.c_str()) < 0;
}

bool SharedFile::attach(bool need_write_access, const TraceOutput* trace) {
    if (_file_name.is_empty()) return false;
    // The file lies in /tmp, where anyone may plant a link or a FIFO: follow no link, never
    // block on open, and accept only a regular file.
    int flags = (need_write_access ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int fd = open(_file_name.c_str(), flags, need_write_access ? 0600 : 0400);
    if (fd < 0) return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) {
        close(fd);
        return false;
    }
    size_t size = static_cast<size_t>(st.st_size);
    int protection = need_write_access ? (PROT_READ | PROT_WRITE) : PROT_READ;
    // The mapping covers the file as it is now. Should its owner truncate it later, touching the
    // lost pages raises SIGBUS; readers check every offset against _map_size, which is all that
    // can be done from this side.
    void* address = mmap(nullptr, size, protection, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
        int err = errno;
        if (trace != nullptr) {
            cstring msg = cstring::printf("%s: mmap failed (size=%u) (%d: %s)", "SharedFile::attach_shared_file",
                                          static_cast<unsigned>(size), err, error_text(err));
            trace->trace_error(msg.c_str());
        }
        close(fd);
        return false;
    }
    _map_size = size;
    _map_address = address;
    close(fd);
    return true;
}

bool SharedFile::detach() {
    if (_map_address == nullptr || _map_size == 0) return false;
    if (munmap(_map_address, _map_size) != 0) return false;
    _handle = nullptr;
    _map_size = 0;
    _map_address = nullptr;
    _map_offset = 0;
    return true;
}

bool SharedFile::retire() {
    if (_map_address == nullptr || _map_size == 0) return false;
    // MAP_FIXED replaces the file's pages in one step: there is no moment at which the range is
    // unmapped and could be handed to another mapping of this process.
    void* zeros = mmap(_map_address, _map_size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (zeros == MAP_FAILED) {
        clear_mapping();  // left mapped for good: still readable, as long as the file lasts
        return false;
    }
    clear_mapping();
    return true;
}

static void unlink_retrying(const char* path) {
    while (unlink(path) != 0 && errno == EINTR) {
    }
}

// Closes the stream of create_file when the function returns; the descriptor itself is left
// open, since it is handed to the caller on success.
class FileHandleGuard {
public:
    explicit FileHandleGuard(int fd) : _fd(fd), _file(nullptr) {}
    ~FileHandleGuard() {
        if (_file != nullptr) fclose(_file);
    }
    void set_file(FILE* file) { _file = file; }
    FILE* file() const { return _file; }
    int fd() const { return _fd; }

private:
    const int _fd;
    FILE* _file;
};

static void trace_size_failure(const TraceOutput& trace, const char* format, const cstring& file_name,
                               size_t length, int err) {
    cstring msg = cstring::printf(format, "SharedFile::create_file", file_name.c_str(),
                                  static_cast<unsigned>(length), err, error_text(err));
    trace.trace_error(msg.c_str());
}

int SharedFile::create_file(const cstring& file_name, size_t size, bool restricted, bool local,
                            const TraceOutput& trace) {
    unlink_retrying(file_name.c_str());
    mode_t mode = (restricted && !local) ? 0644 : 0600;
    // O_EXCL and O_NOFOLLOW: a link or file planted between the unlink and here is not used.
    int fd = open(file_name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        int err = errno;
        cstring msg = cstring::printf("%s: Could not create shared memory file %s (%d: %s)", "SharedFile::create_file",
                                      file_name.c_str(), err, error_text(err));
        trace.trace_error(msg.c_str());
        return -1;
    }
    FileHandleGuard guard(fd);

    long page = sysconf(_SC_PAGESIZE);
    size_t page_size = page > 0 ? static_cast<size_t>(page) : 4096;
    size_t length = (size + page_size - 1) & ~(page_size - 1);

    if (ftruncate(fd, static_cast<off_t>(length)) != 0) {
        trace_size_failure(trace, "%s: ftruncate of open shared memory file %s failed (size=%u) (%d: %s)",
                           file_name, length, errno);
        return -1;
    }
    // Reserve the blocks now, so that a full /tmp fails here with ENOSPC and never later with
    // SIGBUS when a page of the mapping is first written.
    if (length > 0) {
        int rc = posix_fallocate(fd, 0, static_cast<off_t>(length));
        if (rc != 0) {
            trace_size_failure(trace, "%s: ftruncate of open shared memory file %s failed (size=%u) (%d: %s)",
                               file_name, length, rc);
            return -1;
        }
    }
    FILE* check_file = fopen(file_name.c_str(), "r+e");
    if (check_file == nullptr) {
        trace_size_failure(trace, "%s:  fopen (filename.c_str(), 'w');  %s failed (size=%u) (%d: %s)", file_name,
                           length, errno);
        return -1;
    }
    guard.set_file(check_file);
    if (fseek(check_file, static_cast<long>(length) - 2, SEEK_SET) != 0) {
        trace_size_failure(trace, "%s: fseek(checkFileSize, size -2, SEEK_SET ) %s failed (size=%u) (%d: %s)",
                           file_name, length, errno);
        return -1;
    }
    char byte = 'x';
    if (fwrite(&byte, 1, 1, check_file) != 1) {
        trace_size_failure(trace, "%s: fwrite(buffer, 1, 1, checkFileSize)  %s failed (size=%u) (%d: %s)",
                           file_name, length, errno);
        return -1;
    }
    return fd;  // the guard closes the stream
}

SharedFile SharedFile::create_shared_file(const cstring& file_name, size_t size, bool restricted, bool local,
                                          const TraceOutput& trace) {
    SharedFile failed(-1, cstring());
    int fd = create_file(file_name, size, restricted, local, trace);
    if (fd == -1) {
        cstring msg = cstring::printf("%s: create_file failed ", "SharedFile::create_shared_memory");
        trace.trace_error(msg.c_str());
        return failed;
    }
    void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
        int err = errno;
        cstring msg = cstring::printf("%s: mmap failed (size=%u) (%d: %s)", "SharedFile::create_shared_memory",
                                      static_cast<unsigned>(size), err, error_text(err));
        trace.trace_error(msg.c_str());
        close(fd);
        return failed;
    }
    memset(address, 0, size);
    close(fd);
    SharedFile result(SharedUtils::get_own_pid(), file_name);
    result.update_mapping(nullptr, size, address, 0);
    return result;
}

void SharedFile::destroy_shared_file(const cstring& file_name) {
    unlink_retrying(file_name.c_str());
}

// The directory of a name pattern: the text before its last '/', or the whole pattern when it
// has none.
static cstring directory_of(const cstring& path_pattern) {
    const char* text = path_pattern.c_str();
    const char* slash = strrchr(text, '/');
    if (slash == nullptr) return path_pattern;
    return cstring(text, slash);
}

// The owner of a running process, from its /proc folder; false when there is no such process.
static bool stat_process(int pid, struct stat* st) {
    char path[32];
    snprintf(path, sizeof path, "/proc/%d", pid);
    return stat(path, st) == 0;
}

// Applies the rule "newest file per pid" to a new `path` whose pid is already listed. Only files
// of one owner are compared, and a file is deleted only when the calling user owns it.
// Returns true when the new path was dealt with (listed in place of the old or dropped), false
// when no listed file of the same owner exists and the path is to be appended.
static bool resolve_duplicate(cvector<SharedFile>& files, const char* path, int pid, const struct stat& st) {
    for (int i = 0; i < files.size(); i++) {
        if (files[i].get_pid() != pid) continue;
        const cstring& listed_name = files[i].get_file_name();
        if (strcmp(listed_name.c_str(), path) == 0) return true;
        struct stat listed;
        if (lstat(listed_name.c_str(), &listed) != 0) return true;  // leave both files alone
        if (listed.st_uid != st.st_uid) continue;

        bool ours = st.st_uid == geteuid();
        if (listed.st_ctime < st.st_ctime) {
            if (ours) unlink_retrying(listed_name.c_str());
            files[i] = SharedFile(pid, cstring(path));
        } else if (ours) {
            unlink_retrying(path);
        }
        return true;
    }
    return false;
}

void* SharedFile::get_shared_files(cvector<SharedFile>& files, const cstring& path_pattern, bool write_access,
                                   bool, void*, bool, const StaleSharedFileHandler& handler) {
    files.clear();
    cstring directory = directory_of(path_pattern);
    if (directory.is_empty()) return nullptr;

    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) return nullptr;

    long path_max = pathconf(directory.c_str(), _PC_PATH_MAX);
    if (path_max < 1024) path_max = 1024;
    size_t length = static_cast<size_t>(path_max);
    char* path = static_cast<char*>(
        wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/unix/sharedFile_unix.cpp:get_shared_files"), length + 1));
    if (path == nullptr) {
        closedir(dir);
        return nullptr;
    }

    uid_t own_uid = geteuid();
    // readdir on a stream that only this call uses is safe from other threads.
    struct dirent* entry;
    while ((entry = readdir(dir)) != nullptr) {
        int written = snprintf(path, length, "%s/%s", directory.c_str(), entry->d_name);
        if (written < 0 || static_cast<size_t>(written) >= length) continue;

        int uid = 0;
        int pid = 0;
        if (parse_file_name(path, path_pattern.c_str(), &uid, &pid) != 2) continue;
        if (pid <= 0) continue;

        struct stat st;
        int rc;
        do {
            rc = lstat(path, &st);
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) continue;  // vanished meanwhile, or not ours to see

        if (S_ISREG(st.st_mode)) {
            if (write_access) {
                int fd = open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
                if (fd < 0) continue;
                close(fd);
            }
        } else if (!S_ISSOCK(st.st_mode)) {
            continue;  // directories, links, pipes and devices are never a VM's file
        }

        // A file is a process's file only when the process's owner owns it: a file that another
        // user planted under a VM's pid is neither listed nor ever taken for the VM's own.
        struct stat process;
        if (stat_process(pid, &process) && process.st_uid != st.st_uid) continue;

        cstring file_name(path);
        if (handler.is_stale(file_name, pid)) {
            if (st.st_uid == own_uid) handler.on_stale(file_name, pid);
            continue;
        }
        if (resolve_duplicate(files, path, pid, st)) continue;
        files.push_back(SharedFile(pid, file_name));
    }
    closedir(dir);
    wrap_free(alloc_site("(libnoxjvm_inspector.so) src/unix/sharedFile_unix.cpp:get_shared_files"), path);
    return nullptr;
}

void SharedFile::remove_stale_files(const cstring& path_pattern) {
    cvector<SharedFile> files;
    StdStaleSharedFileHandler handler;
    get_shared_files(files, path_pattern, true, false, nullptr, false, handler);
}

}  // namespace J2SE
