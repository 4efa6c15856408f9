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
    return file;  // moved out: the caller owns the mapping
}

ControlAreaCopy ControlAreaFile::copy_control_area(int pid, size_t first_bytes) {
    ControlAreaCopy copy;
    cstring name = find_control_area_name(pid);
    if (!name.is_empty()) copy.open_and_copy(name, first_bytes);
    return copy;
}

bool ControlAreaFile::read_control_area_header(int pid, void* buffer, size_t wanted, size_t* available) {
    *available = 0;
    ControlAreaCopy copy = copy_control_area(pid, wanted);
    if (!copy.is_open()) return false;
    if (copy.size() > 0) memcpy(buffer, copy.block(), copy.size());
    *available = copy.size();
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
    SharedMemory result(unix_get_shared_memory_key(nr, key));
    result.attach(true, addr, tracer);
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
