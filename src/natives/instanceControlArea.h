// The instance control area of an attached block: its header facts, the attach count and the
// shared heap figures. InstanceControlAreaImpl_CL reads the layout of one width. A block may be
// shorter than that layout (a header is accepted as soon as the basic header fits), so the view
// knows how many bytes it may read: a field beyond them reads as 0 and is never written.
#ifndef NOX_NATIVES_INSTANCE_CONTROL_AREA_H
#define NOX_NATIVES_INSTANCE_CONTROL_AREA_H

#include "controlAreaLayout.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

class InstanceControlArea_CL {
public:
    virtual ~InstanceControlArea_CL() {}
    virtual size_t get_instance_control_area_size() const = 0;
    virtual size_t get_control_area_size() const = 0;
    virtual int get_eyecatcher() const = 0;
    virtual int get_bca_version() const = 0;
    virtual bool is_valid() const = 0;
    virtual bool is_compatible() const = 0;
    virtual int get_max_vm_number() const = 0;
    virtual int get_attach_count() const = 0;
    virtual size_t get_global_memory() const = 0;
    virtual size_t get_global_allocated_memory() const = 0;
    virtual size_t get_shared_pool_size() const = 0;
    virtual size_t get_global_memory_peak() const = 0;

    // The version word this library is built for: major 3, minor 17, bit size 0.
    static int get_version() { return static_cast<int>(CONTROL_AREA_VERSION); }
};

template <ArchType_CL arch>
class InstanceControlAreaImpl_CL : public InstanceControlArea_CL {
    typedef InstanceControlAreaLayout_CL<arch> Layout;
    typedef BasicInstanceControlAreaLayout_CL<arch> Header;
    typedef typename ArchTraits_CL<arch>::pointer_type pointer_type;
    typedef typename ArchTraits_CL<arch>::size_type size_type;

public:
    // A view over a block whose owner vouches for every byte the view reads or writes
    // (including the whole block that destroy() zeroes).
    explicit InstanceControlAreaImpl_CL(void* ica) : _ica(static_cast<Layout*>(ica)), _readable(SIZE_MAX) {}
    // A view over `readable` bytes from `ica`; fields reaching beyond them read as 0.
    InstanceControlAreaImpl_CL(void* ica, size_t readable) : _ica(static_cast<Layout*>(ica)), _readable(readable) {}

    size_t get_instance_control_area_size() const override {
        return widen_size_CL(load<size_type>(offsetof(Layout, _bica) + offsetof(Header, _instance_control_area_size)));
    }
    size_t get_control_area_size() const override {
        return widen_size_CL(load<size_type>(offsetof(Layout, _bica) + offsetof(Header, _control_area_size)));
    }
    int get_eyecatcher() const override { return load<int32_t>(offsetof(Layout, _bica) + offsetof(Header, _eyecatcher)); }
    int get_bca_version() const override { return load<int32_t>(offsetof(Layout, _bica) + offsetof(Header, _version)); }
    int get_max_vm_number() const override { return load<int32_t>(offsetof(Layout, _bica) + offsetof(Header, _max_vm_nr)); }

    // Valid means this exact version word: a 64-bit VM's word (bit 0 set) or another minor
    // version is compatible but never valid.
    bool is_valid() const override {
        return static_cast<uint32_t>(get_eyecatcher()) == INSTANCE_CONTROL_AREA_EYECATCHER &&
               static_cast<uint32_t>(get_bca_version()) == CONTROL_AREA_VERSION;
    }
    bool is_compatible() const override {
        return static_cast<uint32_t>(get_eyecatcher()) == INSTANCE_CONTROL_AREA_EYECATCHER &&
               VersionWord_CL::major(static_cast<uint32_t>(get_bca_version())) == CONTROL_AREA_MAJOR_VERSION;
    }

    // The attach count is changed with a plain read-modify-write, as the VMs do: concurrent
    // changes from several processes can lose updates.
    int get_attach_count() const override { return load<int32_t>(offsetof(Layout, _attach_count)); }
    void inc_attach_count() { store<int32_t>(offsetof(Layout, _attach_count), get_attach_count() + 1); }
    void dec_attach_count() { store<int32_t>(offsetof(Layout, _attach_count), get_attach_count() - 1); }

    size_t get_global_memory() const override { return heap_entry(offsetof(Layout, _heap_size), 0); }
    size_t get_global_allocated_memory() const override { return heap_entry(offsetof(Layout, _heap_size_allocated), 0); }
    size_t get_shared_pool_size() const override { return widen_size_CL(load<size_type>(offsetof(Layout, _shared_pool_size))); }
    size_t get_global_memory_peak() const override { return heap_entry(offsetof(Layout, _heap_size_peak), 0); }

    bool init() { return true; }

    // Only the VM that owns a block hands out unique ids; this library never does.
    int create_unique_id() {
        if (!is_local_control_area()) return 0;
        int id = load<int32_t>(offsetof(Layout, _unique_id));
        store<int32_t>(offsetof(Layout, _unique_id), id + 1);
        return id;
    }

    // Zeroes the instance area and every per-VM area, as the owner of a block does when it
    // tears it down. Nothing is written when the published sizes overflow or reach beyond the
    // bytes the view may touch.
    void destroy() {
        int slots = get_max_vm_number();
        size_t per_vm = 0;
        size_t total = 0;
        if (slots < 0) return;
        if (__builtin_mul_overflow(get_control_area_size(), static_cast<size_t>(slots), &per_vm)) return;
        if (__builtin_add_overflow(per_vm, get_instance_control_area_size(), &total)) return;
        if (total > _readable) return;
        memset(_ica, 0, total);
    }

    bool is_local_control_area() const { return false; }

    void set_shared_pool(void* pool) { store_pointer(offsetof(Layout, _shared_pool), pool); }
    void set_shared_pool_shm(void* shm) { store_pointer(offsetof(Layout, _shared_pool_shm), shm); }
    void set_shared_pool_size(size_t size) {
        store<size_type>(offsetof(Layout, _shared_pool_size), static_cast<size_type>(size));
    }
    void set_bootstrap_heap_handle(void* handle) { store_pointer(offsetof(Layout, _bootstrap_heap_handle), handle); }

    // Entry area - 1 of the heap arrays for the shared areas ZULHeapSharedClasses to
    // ZULHeapSharedMisc; 0 for every other area.
    size_t get_global_memory(ZULHeapArea_CL area) const { return shared_heap(offsetof(Layout, _heap_size), area); }
    size_t get_global_allocated_memory(ZULHeapArea_CL area) const {
        return shared_heap(offsetof(Layout, _heap_size_allocated), area);
    }
    size_t get_global_memory_peak(ZULHeapArea_CL area) const { return shared_heap(offsetof(Layout, _heap_size_peak), area); }
    size_t get_global_allocated_memory_peak(ZULHeapArea_CL area) const {
        return shared_heap(offsetof(Layout, _heap_size_allocated_peak), area);
    }

    Layout* get_ica_pointer() const { return _ica; }

private:
    // Each value is read and written once with a plain access; memcpy keeps the access legal
    // whatever the block's alignment.
    bool holds(size_t offset, size_t width) const { return offset <= _readable && width <= _readable - offset; }
    template <typename T>
    T load(size_t offset) const {
        T value;
        if (!holds(offset, sizeof value)) return T(0);
        memcpy(&value, reinterpret_cast<const char*>(_ica) + offset, sizeof value);
        return value;
    }
    template <typename T>
    void store(size_t offset, T value) {
        if (!holds(offset, sizeof value)) return;
        memcpy(reinterpret_cast<char*>(_ica) + offset, &value, sizeof value);
    }
    void store_pointer(size_t offset, void* value) {
        store<pointer_type>(offset, static_cast<pointer_type>(reinterpret_cast<uintptr_t>(value)));
    }
    size_t heap_entry(size_t array_offset, int entry) const {
        return widen_size_CL(load<size_type>(array_offset + static_cast<size_t>(entry) * sizeof(size_type)));
    }
    size_t shared_heap(size_t array_offset, ZULHeapArea_CL area) const {
        int entry = static_cast<int>(area) - 1;
        if (entry < 0 || entry > 4) return 0;
        return heap_entry(array_offset, entry);
    }

    Layout* _ica;
    // Bytes from _ica that the view may read and write.
    const size_t _readable;
};

#endif
