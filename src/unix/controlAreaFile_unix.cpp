// Linux side of ControlAreaFile and the process-wide pid-to-file-name cache.
#include "controlAreaFile.h"

#include "sharedUtils.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace J2SE {

int unix_get_shared_memory_key(int nr, SharedMemory::SharedMemoryKey key) {
    int64_t result = static_cast<int64_t>(key) + static_cast<int64_t>(nr) * 100 + 4500000;
    if (result < INT_MIN || result > INT_MAX) return 0;
    return static_cast<int>(result);
}

int unix_get_event_key(int pid, int key) {
    if (pid <= 0) return 0;
    int64_t result = static_cast<int64_t>(key) + static_cast<int64_t>(pid) * 100 + 5000000;
    if (result < INT_MIN || result > INT_MAX) return 0;
    return static_cast<int>(result);
}

// The cache lives on the heap from library load until release(): at process exit it is left
// alone, because JVM threads may still be inside a native call while exit handlers run.
static pthread_mutex_t names_lock = PTHREAD_MUTEX_INITIALIZER;
static cvector<SharedFile>* filename2pid = nullptr;
static std::atomic<int> names_scans(0);

void ControlAreaFileNames::create() {
    pthread_mutex_lock(&names_lock);
    if (filename2pid == nullptr) {
        void* memory = wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/unix/controlAreaFile_unix.cpp:create"),
                                   sizeof(cvector<SharedFile>));
        if (memory != nullptr) filename2pid = new (memory) cvector<SharedFile>(8);
    }
    pthread_mutex_unlock(&names_lock);
}

void ControlAreaFileNames::release() {
    pthread_mutex_lock(&names_lock);
    if (filename2pid != nullptr) {
        filename2pid->~cvector<SharedFile>();  // detaches each entry and frees its name
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/unix/controlAreaFile_unix.cpp:release"), filename2pid);
        filename2pid = nullptr;
    }
    pthread_mutex_unlock(&names_lock);
}

cstring ControlAreaFileNames::lookup(int pid) {
    cstring name;
    pthread_mutex_lock(&names_lock);
    if (filename2pid != nullptr) {
        for (int i = 0; i < filename2pid->size(); i++) {
            if ((*filename2pid)[i].get_pid() == pid) {
                name = (*filename2pid)[i].get_file_name();
                break;
            }
        }
    }
    pthread_mutex_unlock(&names_lock);
    return name;
}

void ControlAreaFileNames::replace(const cvector<SharedFile>& fresh) {
    pthread_mutex_lock(&names_lock);
    if (filename2pid != nullptr) {
        filename2pid->clear();
        for (int i = 0; i < fresh.size(); i++) {
            filename2pid->push_back(SharedFile(fresh[i].get_pid(), fresh[i].get_file_name()));
        }
    }
    pthread_mutex_unlock(&names_lock);
    names_scans++;
}

int ControlAreaFileNames::scan_count() {
    return names_scans.load();
}

// Runs when the library is loaded: the cache starts empty.
static int create_names_cache() {
    ControlAreaFileNames::create();
    return 1;
}
static int names_cache_created = create_names_cache();

static void scan_control_area_files(cvector<SharedFile>& files, const StaleSharedFileHandler& handler) {
    SharedFile::get_shared_files(files, get_controlarea_format_string(), true, false, nullptr, true, handler);
}

// The cached file name of `pid`; on a miss the cache is refreshed from one scan of /tmp (which
// also removes stale files) and asked again. Empty when the pid has no file.
static cstring find_control_area_name(int pid) {
    cstring name = ControlAreaFileNames::lookup(pid);
    if (name.is_empty()) {
        cvector<SharedFile> fresh(8);
        StdStaleSharedFileHandler handler;
        scan_control_area_files(fresh, handler);
        ControlAreaFileNames::replace(fresh);
        name = ControlAreaFileNames::lookup(pid);
    }
    return name;
}

SharedFile ControlAreaFile::attach_control_area(int pid, const TraceOutput* tracer) {
    cstring name = find_control_area_name(pid);
    if (name.is_empty()) {
        if (tracer != nullptr) {
            cstring msg = cstring::printf("%s: Could not find control area filename for pid %d\n",
                                          "ControlAreaFile::attach_control_area", pid);
            tracer->trace_error(msg.c_str());
        }
        return SharedFile(-1, cstring());
    }
    SharedFile file(pid, name);
    if (file.attach(true, tracer)) file.set_mapping_offset(CONTROL_AREA_OFFSET);
    return file;  // the copy takes the mapping over
}

// Above this size the header is read through a mapping as attach_control_area would, so that a
// file too large to map (a sparse file planted in /tmp) is refused exactly as before; a real
// control-area file is a few dozen KB.
static const off_t LARGEST_FILE_READ_BY_COPY = 1 << 20;

// Mapping and unmapping the whole file only to read its first bytes costs tens of microseconds
// (mostly the munmap); one pread of the lead-in and header costs about one. The descriptor is
// opened and checked exactly as SharedFile::attach does, so the same files are accepted.
bool ControlAreaFile::read_control_area_header(int pid, void* buffer, size_t wanted, size_t* available) {
    *available = 0;
    cstring name = find_control_area_name(pid);
    if (name.is_empty()) return false;
    // /tmp is writable by anyone: follow no link, never block on a FIFO, accept a regular file.
    int fd = open(name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) {
        close(fd);
        return false;
    }
    if (st.st_size > LARGEST_FILE_READ_BY_COPY) {
        close(fd);
        SharedFile file(pid, name);
        if (!file.attach(true, nullptr)) return false;
        size_t size = file.get_map_size();
        if (size > CONTROL_AREA_OFFSET) {
            *available = size - CONTROL_AREA_OFFSET < wanted ? size - CONTROL_AREA_OFFSET : wanted;
            memcpy(buffer, static_cast<char*>(file.get_map_address()) + CONTROL_AREA_OFFSET, *available);
        }
        file.detach();
        return true;
    }
    // Only the bytes the file had at fstat count, as with a mapping of that size; a file that
    // shrinks meanwhile yields a short read here, where a mapping would have raised SIGBUS.
    size_t size = static_cast<size_t>(st.st_size);
    if (size > CONTROL_AREA_OFFSET) {
        size_t want = size - CONTROL_AREA_OFFSET < wanted ? size - CONTROL_AREA_OFFSET : wanted;
        ssize_t got;
        do {
            got = pread(fd, buffer, want, static_cast<off_t>(CONTROL_AREA_OFFSET));
        } while (got < 0 && errno == EINTR);
        if (got > 0) *available = static_cast<size_t>(got);
    }
    close(fd);
    return true;
}

void ControlAreaFile::destroy_control_area() {
    SharedFile::destroy_shared_file(get_controlarea_string(getpid(), static_cast<int>(geteuid())));
}

void ControlAreaFile::remove_stale_control_areas(const StaleSharedFileHandler& stale_handler) {
    cvector<SharedFile> files(8);
    scan_control_area_files(files, stale_handler);
}

SharedMemory ControlAreaFile::attach_shared_memory(int nr, SharedMemory::SharedMemoryKey key, void* addr,
                                                   const TraceOutput* tracer) {
    SharedMemory local(unix_get_shared_memory_key(nr, key));
    local.attach(true, addr, tracer);
    SharedMemory result;
    result.take_over(local);
    return result;
}

SharedEvent ControlAreaFile::attach_shared_event(int pid, SharedEvent::SharedEventKey key) {
    SharedEvent local(cstring(), unix_get_event_key(pid, key));
    local.attach(nullptr);
    SharedEvent result;
    result.take_over(local);
    local.detach();
    return result;
}

}  // namespace J2SE
