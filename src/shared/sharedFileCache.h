// Book of shared-file mappings held by this process: per file name one address and size and
// the number of users, so that only the last release really unmaps. The cache maps and unmaps
// nothing itself, and it takes no lock: callers hold get_lock() around lookup-map-add and
// remove-unmap sequences.
#ifndef NOX_SHARED_SHARED_FILE_CACHE_H
#define NOX_SHARED_SHARED_FILE_CACHE_H

#include "cstring.h"

#include <cstddef>
#include <pthread.h>

namespace J2SE {

class SharedFileCache {
public:
    // The cached address for `name` (one more user), or null with `size` untouched.
    virtual void* lookup_mapping(const char* name, size_t& size) = 0;
    // Records a new mapping with one user; the newest entry of a name hides older ones.
    virtual void add_mapping(const char* name, size_t size, void* address) = 0;
    // One user fewer. True when it was the last: the caller must now unmap `size` bytes.
    virtual bool remove_mapping(void* address, size_t& size) = 0;
    virtual pthread_mutex_t& get_lock() = 0;
    virtual ~SharedFileCache() {}
};

class SharedFileCacheImpl : public SharedFileCache {
public:
    SharedFileCacheImpl();
    ~SharedFileCacheImpl() override;

    void* lookup_mapping(const char* name, size_t& size) override;
    void add_mapping(const char* name, size_t size, void* address) override;
    bool remove_mapping(void* address, size_t& size) override;
    pthread_mutex_t& get_lock() override { return _lock; }

private:
    struct SharedFileCacheEntry {
        cstring _name;
        void* _addr;
        size_t _size;
        int _attach_count;
        SharedFileCacheEntry* _next;
    };

    pthread_mutex_t _lock;
    SharedFileCacheEntry* _first_cached_memory_entry;
};

// The one cache of the process. Created on first use, which the library makes happen at load.
SharedFileCache& get_shared_file_cache();

}  // namespace J2SE

#endif
