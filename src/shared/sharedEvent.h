// A VM's wake-up event: a System V set of one semaphore that the VM waits on for zero. The
// inspector signals it by driving the semaphore to 0; it never creates or removes the set.
#ifndef NOX_SHARED_SHARED_EVENT_H
#define NOX_SHARED_SHARED_EVENT_H

#include "cstring.h"
#include "traceOutput.h"

namespace J2SE {

typedef int EventHandle;

class SharedEvent {
public:
    enum SharedEventKey {
        SHARED_EVENT_KEY_CONTROLS = 0,
        SHARED_EVENT_KEY_MAX = 1
    };

    SharedEvent() : _name(), _key(0), _handle(-1) {}
    SharedEvent(const cstring& name, int key) : _name(name), _key(key), _handle(-1) {}

    // Looks the set up; false when already attached (attaching twice is refused), when the key
    // is 0 (IPC_PRIVATE would create a new set instead of finding one), or when there is no set.
    bool attach(const TraceOutput* trace);
    // Does nothing: the id is kept and the set is never removed.
    void detach() {}
    // Sets semaphore 0 to 0, releasing the VM's threads waiting for zero.
    bool signal();

    const cstring& get_name() const { return _name; }
    int get_key() const { return _key; }
    EventHandle get_handle() const { return _handle; }

    // Takes over name, key and handle of `other`, whose handle becomes -1.
    void take_over(SharedEvent& other);

private:
    cstring _name;
    int _key;
    EventHandle _handle;
};

}  // namespace J2SE

#endif
