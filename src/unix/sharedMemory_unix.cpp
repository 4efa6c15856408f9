#include "sharedMemory.h"

#include "errorText.h"

#include <cerrno>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace J2SE {

SharedMemory::SharedMemory(SharedMemory&& other)
    : _key(other._key),
      _handle(other._handle),
      _map_size(other._map_size),
      _map_address(other._map_address),
      _unsized_address(other._unsized_address) {
    other._handle = nullptr;
    other._map_size = 0;
    other._map_address = nullptr;
    other._unsized_address = nullptr;
}

SharedMemory& SharedMemory::operator=(SharedMemory&& other) {
    if (this == &other) return *this;
    detach();
    release_unsized();
    _key = other._key;
    _handle = other._handle;
    _map_size = other._map_size;
    _map_address = other._map_address;
    _unsized_address = other._unsized_address;
    other._handle = nullptr;
    other._map_size = 0;
    other._map_address = nullptr;
    other._unsized_address = nullptr;
    return *this;
}

SharedMemory::~SharedMemory() {
    detach();
    release_unsized();
}

void SharedMemory::release_unsized() {
    if (_unsized_address == nullptr) return;
    shmdt(_unsized_address);
    _unsized_address = nullptr;
}

bool SharedMemory::attach(bool, void* address, const TraceOutput* trace) {
    if (_key == 0) return false;
    // Look the segment up without creating it. The mode asks for read and write, which is what
    // the attach needs: Linux checks a mode given here against the segment's mode even for its
    // owner, so asking for more (execute bits) would refuse a 0600 segment.
    int id = shmget(_key, 0, 0600);
    if (id == -1) {
        int err = errno;
        if (trace != nullptr) {
            cstring msg = cstring::printf("%s: shmget failed (key=%d) (%d: %s)", "SharedMemory::attach", _key, err,
                                          error_text(err));
            trace->trace_error(msg.c_str());
        }
        return false;
    }
    void* attached = shmat(id, address, SHM_RND);
    if (attached == reinterpret_cast<void*>(-1)) {
        int err = errno;
        if (trace != nullptr) {
            cstring msg = cstring::printf("%s: shmat failed (key=%d, addr=%p) (%d: %s)", "SharedMemory::attach", _key,
                                          address, err, error_text(err));
            trace->trace_error(msg.c_str());
        }
        return false;
    }
    struct shmid_ds info;
    if (shmctl(id, IPC_STAT, &info) != 0) {
        // The call fails, but the segment stays attached: that is the attach's contract, and a
        // caller may not rely on anything else. It is not handed out (without its size nothing
        // can read it) and is kept apart, so that detach() and the destructor release it; an
        // earlier one of the same kind is released first, so that an object never holds more
        // than one.
        release_unsized();
        _unsized_address = attached;
        if (trace != nullptr) {
            cstring msg = cstring::printf("%s: Could not determine size of shared memory segment (key=%d)",
                                          "SharedMemory::attach", _key);
            trace->trace_error(msg.c_str());
        }
        return false;
    }
    _handle = nullptr;
    _map_address = attached;
    _map_size = info.shm_segsz;
    return true;
}

bool SharedMemory::detach() {
    release_unsized();
    if (_map_address == nullptr || _map_size == 0) return false;
    if (shmdt(_map_address) != 0) return false;
    _handle = nullptr;
    _map_size = 0;
    _map_address = nullptr;
    return true;
}

}  // namespace J2SE
