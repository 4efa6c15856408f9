#include "sharedEvent.h"

#include "errorText.h"

#include <cerrno>
#include <sys/ipc.h>
#include <sys/sem.h>

namespace J2SE {

// Linux leaves the declaration of this argument type of semctl to its callers.
union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

bool SharedEvent::attach(const TraceOutput* trace) {
    if (_handle != -1) return false;
    if (_key == 0) return false;  // IPC_PRIVATE: semget would create a set, not find one
    // Look the set up without creating it; the mode asks for read and alter, what signal needs
    // (Linux checks it against the set's mode even for the owner).
    int id = semget(_key, 1, 0600);
    if (id != -1) {
        _handle = id;
        return true;
    }
    int err = errno;
    if (trace != nullptr) {
        cstring msg =
            cstring::printf("%s: semget failed (key=%d) (%d: %s)", "SharedEvent::attach", _key, err, error_text(err));
        trace->trace_error(msg.c_str());
    }
    return false;
}

bool SharedEvent::signal() {
    if (_handle == -1) return false;
    union semun value;
    value.val = 0;
    return semctl(_handle, 0, SETVAL, value) == 0;
}

void SharedEvent::take_over(SharedEvent& other) {
    if (this == &other) return;
    _name = other._name;
    _key = other._key;
    _handle = other._handle;
    other._handle = -1;
}

}  // namespace J2SE
