// Attachment to an existing System V shared-memory segment whose key a VM publishes. The
// inspector never creates or removes segments.
#ifndef NOX_SHARED_SHARED_MEMORY_H
#define NOX_SHARED_SHARED_MEMORY_H

#include "sharedFile.h"
#include "traceOutput.h"

#include <cstddef>

namespace J2SE {

class SharedMemory {
public:
    enum SharedMemoryKey {
        SHARED_MEMORY_KEY_CONTROLS = 0,
        SHARED_MEMORY_KEY_SHARED_POOL = 1,
        SHARED_MEMORY_KEY_MAX = 2
    };

    SharedMemory() : _key(0), _handle(nullptr), _map_size(0), _map_address(nullptr) {}
    explicit SharedMemory(int key) : _key(key), _handle(nullptr), _map_size(0), _map_address(nullptr) {}

    // Attaches read-write at `address` (null lets the system choose). The bool is accepted and
    // has no effect. Key 0 means "no segment": false without a message.
    bool attach(bool flag, void* address, const TraceOutput* trace);
    // Detaches; the key is kept so that the object can attach again.
    bool detach();

    int get_key() const { return _key; }
    HANDLE get_handle() const { return _handle; }
    size_t get_map_size() const { return _map_size; }
    void* get_map_address() const { return _map_address; }

    // Takes over the attachment of `other`, whose fields are cleared so that it detaches nothing.
    void take_over(SharedMemory& other);

private:
    int _key;
    HANDLE _handle;
    size_t _map_size;
    void* _map_address;
};

}  // namespace J2SE

#endif
