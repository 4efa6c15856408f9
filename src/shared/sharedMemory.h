// Attachment to an existing System V shared-memory segment whose key a VM publishes. The
// inspector never creates or removes segments.
#ifndef NOX_SHARED_SHARED_MEMORY_H
#define NOX_SHARED_SHARED_MEMORY_H

#include "sharedFile.h"
#include "traceOutput.h"

#include <cstddef>

namespace J2SE {

// A SharedMemory is the one owner of its attachment: it cannot be copied, moving hands the
// attachment over (the source keeps its key and detaches nothing), and destroying it detaches.
class SharedMemory {
public:
    enum SharedMemoryKey {
        SHARED_MEMORY_KEY_CONTROLS = 0,
        SHARED_MEMORY_KEY_SHARED_POOL = 1,
        SHARED_MEMORY_KEY_MAX = 2
    };

    SharedMemory() : _key(0), _handle(nullptr), _map_size(0), _map_address(nullptr), _unsized_address(nullptr) {}
    explicit SharedMemory(int key)
        : _key(key), _handle(nullptr), _map_size(0), _map_address(nullptr), _unsized_address(nullptr) {}
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    SharedMemory(SharedMemory&& other);
    SharedMemory& operator=(SharedMemory&& other);
    ~SharedMemory();

    // Attaches read-write at `address` (null lets the system choose). The bool is accepted and
    // has no effect. Key 0 means "no segment": false without a message.
    //
    // When the segment's size cannot be learned after it was attached, the result is false and
    // the segment stays attached, unusable, until this object detaches or is destroyed: the
    // attachment is not undone at once, but it never outlives its owner.
    bool attach(bool flag, void* address, const TraceOutput* trace);
    // Detaches; the key is kept so that the object can attach again.
    bool detach();

    int get_key() const { return _key; }
    HANDLE get_handle() const { return _handle; }
    size_t get_map_size() const { return _map_size; }
    void* get_map_address() const { return _map_address; }

private:
    void release_unsized();

    int _key;
    HANDLE _handle;
    size_t _map_size;
    void* _map_address;
    // An attachment made by a call of attach() that then failed to learn the segment's size.
    void* _unsized_address;
};

}  // namespace J2SE

#endif
