#include "sharedFileCache.h"

#include "allocations.h"

#include <new>

namespace J2SE {

SharedFileCacheImpl::SharedFileCacheImpl() : _first_cached_memory_entry(nullptr) {
    pthread_mutex_init(&_lock, nullptr);
}

SharedFileCacheImpl::~SharedFileCacheImpl() {
    while (_first_cached_memory_entry != nullptr) {
        SharedFileCacheEntry* entry = _first_cached_memory_entry;
        _first_cached_memory_entry = entry->_next;
        entry->~SharedFileCacheEntry();
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/unix/sharedFileCache_unix.cpp:~SharedFileCacheImpl"), entry);
    }
    pthread_mutex_destroy(&_lock);
}

void* SharedFileCacheImpl::lookup_mapping(const char* name, size_t& size) {
    cstring wanted(name);
    if (wanted.is_empty()) return nullptr;
    for (SharedFileCacheEntry* entry = _first_cached_memory_entry; entry != nullptr; entry = entry->_next) {
        if (entry->_name == wanted) {
            size = entry->_size;
            entry->_attach_count++;
            return entry->_addr;
        }
    }
    return nullptr;
}

void SharedFileCacheImpl::add_mapping(const char* name, size_t size, void* address) {
    void* memory =
        wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/unix/sharedFileCache_unix.cpp:add_mapping"),
                    sizeof(SharedFileCacheEntry));
    if (memory == nullptr) return;
    SharedFileCacheEntry* entry = new (memory) SharedFileCacheEntry();
    entry->_name = cstring(name);
    entry->_addr = address;
    entry->_size = size;
    entry->_attach_count = 1;
    entry->_next = _first_cached_memory_entry;
    _first_cached_memory_entry = entry;
}

bool SharedFileCacheImpl::remove_mapping(void* address, size_t& size) {
    size = 0;
    SharedFileCacheEntry** link = &_first_cached_memory_entry;
    while (*link != nullptr && (*link)->_addr != address) link = &(*link)->_next;
    SharedFileCacheEntry* entry = *link;
    if (entry == nullptr) return false;
    int before = entry->_attach_count;
    entry->_attach_count--;
    if (before != 1) return false;
    size = entry->_size;
    *link = entry->_next;
    entry->~SharedFileCacheEntry();
    wrap_free(alloc_site("(libnoxjvm_inspector.so) src/unix/sharedFileCache_unix.cpp:remove_mapping"), entry);
    return true;
}

// The instance lives in static storage and is never torn down, so that a thread still using
// it while the process exits never meets a destroyed mutex.
alignas(SharedFileCacheImpl) static unsigned char cache_storage[sizeof(SharedFileCacheImpl)];
static SharedFileCacheImpl* cache_instance = nullptr;

SharedFileCache& get_shared_file_cache() {
    if (cache_instance == nullptr) {
        cache_instance = new (cache_storage) SharedFileCacheImpl();
    }
    return *cache_instance;
}

// Created at library load, before threads can race for it.
static SharedFileCache& load_time_cache = get_shared_file_cache();

}  // namespace J2SE
