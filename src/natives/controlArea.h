// One VM's per-VM control area: reads what the VM publishes and raises requests in it.
//
// Older VMs publish a shorter per-VM area, so every field access first compares the published
// size with the field's offset (not its end: an area that reaches a field's first byte has that
// field read) and yields a default when the area is too small. Besides that, a view never
// touches a byte outside the memory it was made over: the manager tells it how many bytes it
// may read from its start; a number whose bytes reach beyond them is treated as absent, and a
// text is read up to its terminator, its capacity or the end of those bytes, whichever is first.
//
// Stores go straight into that memory, or, when the view was given a writer (the memory is a
// copy of a file that its owner may cut), to the writer, which puts them into the file.
#ifndef NOX_NATIVES_CONTROL_AREA_H
#define NOX_NATIVES_CONTROL_AREA_H

#include "blockWriter.h"
#include "controlAreaLayout.h"

#include <cstddef>
#include <cstdint>

class ControlArea_CL {
public:
    // The request flags; each names one int32 field of the per-VM area. The layout order of the
    // fields is not this order.
    enum ControlAreaFlags : int {
        ZUL_CONTROLS_START_DEBUGGING = 0,
        ZUL_CONTROLS_STOP_DEBUGGING = 1,
        ZUL_CONTROLS_DUMP_STACKS = 2,
        ZUL_CONTROLS_DUMP_HEAP = 3,
        ZUL_CONTROLS_DUMP_GC_HISTORY = 4,
        ZUL_CONTROLS_DUMP_CLASS_STATISTIC = 5,
        ZUL_CONTROLS_DUMP_DETAILED_CLASS_STATISTIC = 6,
        ZUL_CONTROLS_DUMP_SYMBOL_INFO = 7,
        ZUL_CONTROLS_DUMP_DETAILED_SYMBOL_INFO = 8,
        ZUL_CONTROLS_DUMP_SHARED_HEAP = 9,
        ZUL_CONTROLS_DUMP_LOCAL_HEAP = 10,
        ZUL_CONTROLS_DUMP_HS_ERR_INFO = 11,
        ZUL_CONTROLS_DUMP_SHARED_MUTEXES = 12,
        ZUL_CONTROLS_CRASH_VM = 13,
        ZUL_CONTROLS_DUMP_DLL_INFO = 14,
        ZUL_CONTROLS_DUMP_SAFEPOINT_STATE = 15,
        ZUL_CONTROLS_EXIT = 16,
        ZUL_CONTROLS_GC = 17,
        ZUL_CONTROLS_MAXIMUM_COMPACTION_GC = 18,
        ZUL_CONTROLS_SET_TRACE_FLAGS = 19,
        ZUL_CONTROLS_SET_METHOD_TRACE_FILTER = 20,
        ZUL_CONTROLS_CHANGE_COMMAND_LINE_FLAG = 21,
        ZUL_CONTROLS_STOP_COMMAND_LINE_PROFILING = 22,
        ZUL_CONTROLS_TRIGGER_RESTRICTED_DEBUGGING_EVENT = 23,
        ZUL_CONTROLS_DUMP_CODEBLOBS = 24,
        ZUL_CONTROLS_START_ATTACH_SERVER = 25,
        ZUL_CONTROLS_ATTACH_SERVER_STARTED = 26,
        ZUL_CONTROLS_ENQUEUE_OPERATION = 27,
        ZUL_CONTROLS_NR_OF_FLAGS = 28
    };

    // The flag's field, or null when the flag is unknown (a line is printed on standard output)
    // or the area is too small for it.
    virtual int* get_flag_address(ControlAreaFlags flag) const = 0;
    virtual ~ControlArea_CL() {}
    // The area is in use: its eyecatcher is 0xDEADBEEF. Read without a size test.
    virtual bool is_valid() const = 0;
    // Stores 1 in the flag's field and wakes the VM through its semaphore.
    virtual void set_flag(ControlAreaFlags flag) = 0;
    virtual int get_pid() const = 0;
    virtual int get_vm_index() const = 0;
    virtual int get_vm_id() const = 0;
    virtual ControlAreaText_CL<64> get_vm_tag() const = 0;
    virtual bool can_debug_on_demand() const = 0;
    virtual ZULDebuggingState_CL get_debugging_state() const = 0;
    virtual void get_default_port_range(int* from_port, int* to_port) const = 0;
    virtual int get_current_debug_port() const = 0;
    virtual ControlAreaText_CL<256> get_debugging_client() const = 0;
    virtual bool get_debugging_locally() const = 0;
    virtual ControlAreaText_CL<4096> get_vm_flags() const = 0;
    virtual ControlAreaText_CL<4096> get_vm_args() const = 0;
    virtual ControlAreaText_CL<4096> get_vm_java_args() const = 0;
    virtual ControlAreaText_CL<4096> get_splittable_vm_java_args() const = 0;
    virtual ControlAreaText_CL<4096> get_jar_main_class() const = 0;
    virtual ControlAreaText_CL<1024> get_vm_work_dir() const = 0;
    virtual ControlAreaText_CL<256> get_vm_version() const = 0;
    // Stores the suspend policy, then raises the start-debugging flag.
    virtual void start_debugging(int suspend) = 0;
    virtual void get_process_time_info(long* system_time, long* user_time, long* processing_time) const = 0;
    virtual int64_t get_committed_class_pool_size() const = 0;
    virtual int64_t get_committed_java_heap_size() const = 0;
    virtual int64_t get_committed_code_cache_size() const = 0;
    // Stores the exit code, then raises the exit flag.
    virtual void exit(int exit_code) = 0;
    virtual int64_t get_number_of_gcs() const = 0;
    virtual int64_t get_number_of_full_gcs() const = 0;
    virtual int64_t get_duration_of_gcs() const = 0;
    virtual int64_t get_duration_of_full_gcs() const = 0;
    virtual int64_t get_duration_of_concurrent_gcs() const = 0;
    virtual int64_t get_work_time_of_gcs() const = 0;
    virtual int64_t get_work_time_of_full_gcs() const = 0;
    virtual int get_java_heap_memory_shortages() const = 0;
    virtual int get_perm_gen_memory_shortages() const = 0;
    virtual int get_gc_spinning_due_to_java_heap() const = 0;
    virtual int get_gc_spinning_due_to_perm_gen() const = 0;
    virtual int get_out_of_memory_error_count() const = 0;
    virtual int64_t get_old_gen_usage_after_gc() const = 0;
    virtual int64_t get_perm_gen_usage_after_gc() const = 0;
    virtual int64_t get_max_old_gen_size() const = 0;
    virtual int64_t get_max_perm_gen_size() const = 0;
    virtual bool get_run_with_monitoring_board() const = 0;
    virtual bool get_has_metaspace() const = 0;
    // The two setters change the area without raising a flag or waking the VM.
    virtual void set_debug_on_demand(bool can_debug_on_demand) = 0;
    virtual void set_current_debug_port(int port) = 0;
    virtual ControlAreaText_CL<2048> get_virtualization_info() const = 0;

    void stop_debugging() { set_flag(ZUL_CONTROLS_STOP_DEBUGGING); }
};

template <ArchType_CL arch>
class ControlAreaImpl_CL : public ControlArea_CL {
public:
    typedef ControlAreaLayout_CL<arch> Layout;

    // A view over a whole per-VM layout: `ca` must point to at least sizeof(Layout) bytes.
    // `ca_size` is the published size against which every field is guarded.
    ControlAreaImpl_CL(void* ca, size_t ca_size);
    // A view over `readable` bytes from `ca`; fields reaching beyond them read as absent.
    ControlAreaImpl_CL(void* ca, size_t ca_size, size_t readable);
    // As above, with every store handed to `writer` at `block_offset` (the area's offset in its
    // block) plus the field's offset, instead of being made in the memory at `ca`.
    ControlAreaImpl_CL(void* ca, size_t ca_size, size_t readable, BlockWriter_CL* writer, size_t block_offset);

    int* get_flag_address(ControlAreaFlags flag) const override;
    bool is_valid() const override;
    void set_flag(ControlAreaFlags flag) override;
    int get_pid() const override;
    int get_vm_index() const override;
    int get_vm_id() const override;
    ControlAreaText_CL<64> get_vm_tag() const override;
    bool can_debug_on_demand() const override;
    ZULDebuggingState_CL get_debugging_state() const override;
    void get_default_port_range(int* from_port, int* to_port) const override;
    int get_current_debug_port() const override;
    ControlAreaText_CL<256> get_debugging_client() const override;
    bool get_debugging_locally() const override;
    ControlAreaText_CL<4096> get_vm_flags() const override;
    ControlAreaText_CL<4096> get_vm_args() const override;
    ControlAreaText_CL<4096> get_vm_java_args() const override;
    ControlAreaText_CL<4096> get_splittable_vm_java_args() const override;
    ControlAreaText_CL<4096> get_jar_main_class() const override;
    ControlAreaText_CL<1024> get_vm_work_dir() const override;
    ControlAreaText_CL<256> get_vm_version() const override;
    void start_debugging(int suspend) override;
    void get_process_time_info(long* system_time, long* user_time, long* processing_time) const override;
    int64_t get_committed_class_pool_size() const override;
    int64_t get_committed_java_heap_size() const override;
    int64_t get_committed_code_cache_size() const override;
    void exit(int exit_code) override;
    int64_t get_number_of_gcs() const override;
    int64_t get_number_of_full_gcs() const override;
    int64_t get_duration_of_gcs() const override;
    int64_t get_duration_of_full_gcs() const override;
    int64_t get_duration_of_concurrent_gcs() const override;
    int64_t get_work_time_of_gcs() const override;
    int64_t get_work_time_of_full_gcs() const override;
    int get_java_heap_memory_shortages() const override;
    int get_perm_gen_memory_shortages() const override;
    int get_gc_spinning_due_to_java_heap() const override;
    int get_gc_spinning_due_to_perm_gen() const override;
    int get_out_of_memory_error_count() const override;
    int64_t get_old_gen_usage_after_gc() const override;
    int64_t get_perm_gen_usage_after_gc() const override;
    int64_t get_max_old_gen_size() const override;
    int64_t get_max_perm_gen_size() const override;
    bool get_run_with_monitoring_board() const override;
    bool get_has_metaspace() const override;
    void set_debug_on_demand(bool can_debug_on_demand) override;
    void set_current_debug_port(int port) override;
    ControlAreaText_CL<2048> get_virtualization_info() const override;

    size_t get_ca_size() const { return _ca_size; }
    Layout* get_ca_pointer() const { return _ca; }

    // Offset of a flag's field in this width, or 0 for a value that names no flag.
    static size_t flag_offset(int flag);

private:
    bool reaches(size_t threshold, size_t offset, size_t width) const;
    bool field_present(size_t offset, size_t width) const { return reaches(offset, offset, width); }
    template <typename T>
    T load(size_t offset) const;
    template <typename T>
    bool store(size_t offset, T value);
    int32_t guarded_int(size_t offset, int32_t absent) const;
    int64_t guarded_long(size_t offset, int64_t absent) const;
    bool guarded_boolean(size_t threshold, size_t offset) const;
    template <int N>
    ControlAreaText_CL<N> guarded_text(size_t offset) const;

    Layout* _ca;
    const size_t _ca_size;
    const size_t _readable;
    BlockWriter_CL* const _writer;
    const size_t _block_offset;
};

#endif
