// The control-area block that a VM publishes in shared memory, for VMs built for 32-bit and for
// 64-bit addresses. The library itself is always 64-bit and must read both widths, so every
// structure below is written with fixed-width types that reproduce the VM's offsets on x86-64:
// a 32-bit pointer or size is an int32_t, and an int64 is aligned to 8 in both widths. The
// static_asserts at the end make the compiler prove every offset and every structure size.
//
// A block is the instance control area (which begins with the basic header) followed directly by
// _max_vm_nr per-VM control areas of equal size. All values are little-endian. Pointer fields are
// addresses inside the VM and are never followed.
#ifndef NOX_NATIVES_CONTROL_AREA_LAYOUT_H
#define NOX_NATIVES_CONTROL_AREA_LAYOUT_H

#include "controlAreaString.h"

#include <cstddef>
#include <cstdint>

enum ArchType_CL : int { Bit32 = 0, Bit64 = 1, UNKNOWN = 2 };

enum ClusterType_CL : int {
    CLUSTER_TYPE_UNKNOWN = 0,
    CLUSTER_TYPE_PROCESS = 1,   // one VM, its block in its own /tmp control-area file
    CLUSTER_TYPE_INSTANCE = 2   // several VMs sharing one block in a System V segment
};

enum ZULDebuggingState_CL : int {
    ZUL_DEBUGGING_STATE_UNKNOWN = 0,
    ZUL_DEBUGGING_STATE_NOT_ACTIVE = 1,
    ZUL_DEBUGGING_STATE_REQUESTED = 2,
    ZUL_DEBUGGING_STATE_STARTING = 3,
    ZUL_DEBUGGING_STATE_WAIT_FOR_DEBUGGER = 4,
    ZUL_DEBUGGING_STATE_DEBUGGER_ATTACHED = 5,
    ZUL_DEBUGGING_STATE_STOPPING = 6
};

// Heap areas. The ranges overlap on purpose: each is a begin value and an exclusive end value.
enum ZULHeapArea_CL : int {
    ZULHeapLocalBegin = 0,
    ZULHeapLocalMisc = 0,
    ZULHeapLocalEnd = 1,
    ZULHeapSharedBegin = 1,
    ZULHeapSharedClasses = 1,
    ZULHeapSharedEquiClasses = 2,
    ZULHeapSharedData = 3,
    ZULHeapSharedCopyOnlyData = 4,
    ZULHeapSharedMisc = 5,
    ZULHeapSharedEnd = 6,
    ZULHeapSpecialBegin = 6,
    ZULHeapSharedBootstrap = 7,
    ZULHeapSpecialEnd = 8
};

// Magic values and the version this library is built for (major 3, minor 17, bit size 0).
const uint32_t INSTANCE_CONTROL_AREA_EYECATCHER = 0xFADEBABEu;
const uint32_t CONTROL_AREA_EYECATCHER = 0xDEADBEEFu;
const uint32_t CONTROL_AREA_VERSION = 0x00060022u;
const uint32_t CONTROL_AREA_MAJOR_VERSION = 3;

// A boolean of the block is one byte, nonzero meaning true. It is kept as a byte and never read
// as a C++ bool, because a VM may store any nonzero value.
typedef uint8_t boolean_CL;
// An enumeration value of the block: four bytes, any value may appear.
typedef int32_t enum_type_CL;

template <ArchType_CL arch>
struct ArchTraits_CL;

template <>
struct ArchTraits_CL<Bit32> {
    typedef uint32_t pointer_type;  // 4 bytes, aligned 4
    typedef int32_t size_type;      // read as signed and widened to 64 bits
};

template <>
struct ArchTraits_CL<Bit64> {
    typedef uint64_t pointer_type;
    typedef uint64_t size_type;
};

// Widens a size field of either width to the library's size_t; a 32-bit size is signed, so a
// negative value becomes a huge size that no mapping can hold.
inline size_t widen_size_CL(int32_t value) {
    return static_cast<size_t>(static_cast<int64_t>(value));
}
inline size_t widen_size_CL(uint64_t value) {
    return static_cast<size_t>(value);
}

typedef ControlAreaString_CL<32> OperationName;
typedef ControlAreaString_CL<64> VmTag;
typedef ControlAreaString_CL<256> DebuggingClient;
typedef ControlAreaString_CL<256> Version;
typedef ControlAreaString_CL<256> CommandLineFlag;
typedef ControlAreaString_CL<256> PipeName;
typedef ControlAreaString_CL<1024> Path;
typedef ControlAreaString_CL<1024> Info;
typedef ControlAreaString_CL<2048> OperationArg;
typedef ControlAreaString_CL<2048> Virtualization;
typedef ControlAreaString_CL<4096> Argument;
typedef ControlAreaString_CL<4096> Filter;
typedef ControlAreaString_CL<4096> ClassAndMethodName;

// The VM's set of trace flags.
struct TraceSet_CL {
    char _flags[512];
};

// The version word: bit 0 is the layout width (1 = Bit64), bits 1..16 the minor version, bits
// 17..24 the major version.
struct VersionWord_CL {
    static ArchType_CL arch_type(uint32_t word) { return (word & 1u) != 0 ? Bit64 : Bit32; }
    static uint32_t major(uint32_t word) { return (word >> 17) & 0xFFu; }
    static uint32_t minor(uint32_t word) { return (word >> 1) & 0xFFFFu; }
};

// The basic header: the first three fields lie at the same offsets in both widths, so the
// eyecatcher, the version word and the slot count can be read before the width is known.
template <ArchType_CL arch>
struct BasicInstanceControlAreaLayout_CL {
    int32_t _eyecatcher;
    int32_t _version;
    int32_t _max_vm_nr;
    typename ArchTraits_CL<arch>::size_type _instance_control_area_size;
    typename ArchTraits_CL<arch>::size_type _control_area_size;

    ArchType_CL get_arch_type() const { return VersionWord_CL::arch_type(static_cast<uint32_t>(_version)); }
};

// The instance control area. The four heap arrays have one entry per shared heap area:
// entry k belongs to ZULHeapArea_CL value k + 1.
template <ArchType_CL arch>
struct InstanceControlAreaLayout_CL {
    BasicInstanceControlAreaLayout_CL<arch> _bica;
    typename ArchTraits_CL<arch>::pointer_type _mutex;
    int32_t _unique_id;
    int32_t _attach_count;
    typename ArchTraits_CL<arch>::pointer_type _shared_pool;
    typename ArchTraits_CL<arch>::pointer_type _shared_pool_shm;
    typename ArchTraits_CL<arch>::size_type _shared_pool_size;
    typename ArchTraits_CL<arch>::size_type _heap_size[5];
    typename ArchTraits_CL<arch>::size_type _heap_size_allocated[5];
    typename ArchTraits_CL<arch>::size_type _heap_size_peak[5];
    typename ArchTraits_CL<arch>::size_type _heap_size_allocated_peak[5];
    typename ArchTraits_CL<arch>::pointer_type _shared_mutex_list;
    typename ArchTraits_CL<arch>::pointer_type _bootstrap_heap_handle;
    typename ArchTraits_CL<arch>::pointer_type _equivalent_classes_start_addr;
    typename ArchTraits_CL<arch>::pointer_type _equivalent_classes_end_addr;
    typename ArchTraits_CL<arch>::pointer_type _equivalent_classes_data;
    typename ArchTraits_CL<arch>::pointer_type _equivalent_classes_base;
    typename ArchTraits_CL<arch>::size_type _equivalent_classes_granularity;
};

// One VM's control area. The VM writes almost every field; other processes write only the
// request flags and the few request parameters (_suspend_policy, _requested_exit_code) and the
// two settings _can_debug_on_demand and _current_debug_port.
template <ArchType_CL arch>
struct ControlAreaLayout_CL {
    int32_t _eyecatcher;
    int32_t _start_debugging;
    int32_t _stop_debugging;
    int32_t _dump_stacks;
    int32_t _dump_heap;
    int32_t _dump_gc_history;
    int32_t _dump_class_statistic;
    int32_t _dump_detailed_class_statistic;
    int32_t _dump_symbol_info;
    int32_t _dump_detailed_symbol_info;
    int32_t _dump_shared_heap;
    int32_t _dump_local_heap;
    int32_t _dump_hs_err_info;
    int32_t _dump_shared_mutexes;
    int32_t _crash_vm;
    int32_t _dump_dll_info;
    int32_t _dump_safepoint_state;
    int32_t _set_method_trace_filter;
    int32_t _change_command_line_flag;
    int32_t _exit;
    int32_t _gc;
    int32_t _maximum_compaction_gc;
    int32_t _set_trace_flags;
    int32_t _stop_command_line_profiling;
    int32_t _trigger_restricted_debugging_event;
    typename ArchTraits_CL<arch>::pointer_type _instance_control_area_offset;
    int32_t _pid;
    int32_t _vm_index;
    int32_t _vm_id;
    int32_t _current_debug_port;
    DebuggingClient _debugging_client;
    enum_type_CL _debugging_state;
    int32_t _suspend_policy;
    int32_t _from_port;
    int32_t _to_port;
    boolean_CL _can_debug_on_demand;
    int32_t _requested_exit_code;
    TraceSet_CL _trace_flags;
    int64_t _committed_java_heap_size;
    int64_t _committed_class_pool_size;
    int64_t _committed_code_cache_size;
    int64_t _system_time;
    int64_t _user_time;
    int64_t _processing_time;
    Argument _vm_args;
    Argument _vm_flags;
    Argument _vm_java_args;
    Path _vm_work_dir;
    Version _vm_version;
    Filter _curr_method_trace_filter;
    Filter _new_method_trace_filter;
    CommandLineFlag _command_line_flag;
    enum_type_CL _shared_heap;
    enum_type_CL _local_heap;
    Info _stack_dump_info;
    Info _heap_dump_info;
    typename ArchTraits_CL<arch>::size_type _heap_size[1];
    typename ArchTraits_CL<arch>::size_type _heap_size_allocated[1];
    typename ArchTraits_CL<arch>::size_type _heap_size_peak[1];
    typename ArchTraits_CL<arch>::size_type _heap_size_allocated_peak[1];
    int64_t _number_of_gcs;
    int64_t _number_of_full_gcs;
    int32_t _number_of_locked_shared_mutexes;
    int32_t _dump_codeblobs;
    ClassAndMethodName _dump_codeblobs_name;
    boolean_CL _dump_codeblobs_show_details;
    int32_t _nr_of_active_profiling_runs;
    boolean_CL _is_command_line_profiling_enabled;
    boolean_CL _has_attachable_profiling_run;
    boolean_CL _is_profiler_attached;
    int32_t _start_attach_server;
    int32_t _attach_server_started;
    int64_t _duration_of_gcs;
    OperationArg _arg0;
    OperationArg _arg1;
    OperationArg _arg2;
    int32_t _enqueue_operation;
    OperationName _operation_name;
    PipeName _pipe_name;
    int64_t _duration_of_full_gcs;
    int64_t _duration_of_concurrent_gcs;
    int64_t _work_time_of_gcs;
    int64_t _work_time_of_full_gcs;
    int32_t _java_heap_memory_shortages;
    int32_t _perm_gen_memory_shortages;
    int32_t _gc_spinning_due_to_java_heap;
    int32_t _gc_spinning_due_to_perm_gen;
    int32_t _out_of_memory_error_count;
    int32_t _set_core_size_to_max;
    VmTag _vm_tag;
    Argument _splittable_vm_java_args;
    Argument _jar_main_class;
    Virtualization _splittable_virtualization_info;
    int64_t _old_gen_usage_after_gc;
    int64_t _perm_gen_usage_after_gc;
    int64_t _max_old_gen_size;
    int64_t _max_perm_gen_size;
    boolean_CL _run_with_monitoring_board;
    int32_t _start_local_debugging;
    boolean_CL _has_metaspace;
};

static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit32>, _eyecatcher) == 0, "Bit32 _eyecatcher");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit32>, _version) == 4, "Bit32 _version");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit32>, _max_vm_nr) == 8, "Bit32 _max_vm_nr");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit32>, _instance_control_area_size) == 12, "Bit32 _instance_control_area_size");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit32>, _control_area_size) == 16, "Bit32 _control_area_size");
static_assert(sizeof(BasicInstanceControlAreaLayout_CL<Bit32>) == 20, "Bit32 size");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit64>, _eyecatcher) == 0, "Bit64 _eyecatcher");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit64>, _version) == 4, "Bit64 _version");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit64>, _max_vm_nr) == 8, "Bit64 _max_vm_nr");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit64>, _instance_control_area_size) == 16, "Bit64 _instance_control_area_size");
static_assert(offsetof(BasicInstanceControlAreaLayout_CL<Bit64>, _control_area_size) == 24, "Bit64 _control_area_size");
static_assert(sizeof(BasicInstanceControlAreaLayout_CL<Bit64>) == 32, "Bit64 size");

static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _bica) == 0, "Bit32 _bica");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _mutex) == 20, "Bit32 _mutex");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _unique_id) == 24, "Bit32 _unique_id");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _attach_count) == 28, "Bit32 _attach_count");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _shared_pool) == 32, "Bit32 _shared_pool");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _shared_pool_shm) == 36, "Bit32 _shared_pool_shm");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _shared_pool_size) == 40, "Bit32 _shared_pool_size");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _heap_size) == 44, "Bit32 _heap_size");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _heap_size_allocated) == 64, "Bit32 _heap_size_allocated");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _heap_size_peak) == 84, "Bit32 _heap_size_peak");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _heap_size_allocated_peak) == 104, "Bit32 _heap_size_allocated_peak");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _shared_mutex_list) == 124, "Bit32 _shared_mutex_list");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _bootstrap_heap_handle) == 128, "Bit32 _bootstrap_heap_handle");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _equivalent_classes_start_addr) == 132, "Bit32 _equivalent_classes_start_addr");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _equivalent_classes_end_addr) == 136, "Bit32 _equivalent_classes_end_addr");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _equivalent_classes_data) == 140, "Bit32 _equivalent_classes_data");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _equivalent_classes_base) == 144, "Bit32 _equivalent_classes_base");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit32>, _equivalent_classes_granularity) == 148, "Bit32 _equivalent_classes_granularity");
static_assert(sizeof(InstanceControlAreaLayout_CL<Bit32>) == 152, "Bit32 size");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _bica) == 0, "Bit64 _bica");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _mutex) == 32, "Bit64 _mutex");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _unique_id) == 40, "Bit64 _unique_id");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _attach_count) == 44, "Bit64 _attach_count");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _shared_pool) == 48, "Bit64 _shared_pool");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _shared_pool_shm) == 56, "Bit64 _shared_pool_shm");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _shared_pool_size) == 64, "Bit64 _shared_pool_size");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _heap_size) == 72, "Bit64 _heap_size");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _heap_size_allocated) == 112, "Bit64 _heap_size_allocated");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _heap_size_peak) == 152, "Bit64 _heap_size_peak");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _heap_size_allocated_peak) == 192, "Bit64 _heap_size_allocated_peak");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _shared_mutex_list) == 232, "Bit64 _shared_mutex_list");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _bootstrap_heap_handle) == 240, "Bit64 _bootstrap_heap_handle");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _equivalent_classes_start_addr) == 248, "Bit64 _equivalent_classes_start_addr");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _equivalent_classes_end_addr) == 256, "Bit64 _equivalent_classes_end_addr");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _equivalent_classes_data) == 264, "Bit64 _equivalent_classes_data");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _equivalent_classes_base) == 272, "Bit64 _equivalent_classes_base");
static_assert(offsetof(InstanceControlAreaLayout_CL<Bit64>, _equivalent_classes_granularity) == 280, "Bit64 _equivalent_classes_granularity");
static_assert(sizeof(InstanceControlAreaLayout_CL<Bit64>) == 288, "Bit64 size");

static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _eyecatcher) == 0, "Bit32 _eyecatcher");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _start_debugging) == 4, "Bit32 _start_debugging");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _stop_debugging) == 8, "Bit32 _stop_debugging");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_stacks) == 12, "Bit32 _dump_stacks");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_heap) == 16, "Bit32 _dump_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_gc_history) == 20, "Bit32 _dump_gc_history");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_class_statistic) == 24, "Bit32 _dump_class_statistic");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_detailed_class_statistic) == 28, "Bit32 _dump_detailed_class_statistic");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_symbol_info) == 32, "Bit32 _dump_symbol_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_detailed_symbol_info) == 36, "Bit32 _dump_detailed_symbol_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_shared_heap) == 40, "Bit32 _dump_shared_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_local_heap) == 44, "Bit32 _dump_local_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_hs_err_info) == 48, "Bit32 _dump_hs_err_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_shared_mutexes) == 52, "Bit32 _dump_shared_mutexes");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _crash_vm) == 56, "Bit32 _crash_vm");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_dll_info) == 60, "Bit32 _dump_dll_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_safepoint_state) == 64, "Bit32 _dump_safepoint_state");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _set_method_trace_filter) == 68, "Bit32 _set_method_trace_filter");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _change_command_line_flag) == 72, "Bit32 _change_command_line_flag");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _exit) == 76, "Bit32 _exit");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _gc) == 80, "Bit32 _gc");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _maximum_compaction_gc) == 84, "Bit32 _maximum_compaction_gc");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _set_trace_flags) == 88, "Bit32 _set_trace_flags");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _stop_command_line_profiling) == 92, "Bit32 _stop_command_line_profiling");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _trigger_restricted_debugging_event) == 96, "Bit32 _trigger_restricted_debugging_event");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _instance_control_area_offset) == 100, "Bit32 _instance_control_area_offset");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _pid) == 104, "Bit32 _pid");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _vm_index) == 108, "Bit32 _vm_index");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _vm_id) == 112, "Bit32 _vm_id");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _current_debug_port) == 116, "Bit32 _current_debug_port");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _debugging_client) == 120, "Bit32 _debugging_client");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _debugging_state) == 376, "Bit32 _debugging_state");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _suspend_policy) == 380, "Bit32 _suspend_policy");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _from_port) == 384, "Bit32 _from_port");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _to_port) == 388, "Bit32 _to_port");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _can_debug_on_demand) == 392, "Bit32 _can_debug_on_demand");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _requested_exit_code) == 396, "Bit32 _requested_exit_code");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _trace_flags) == 400, "Bit32 _trace_flags");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _committed_java_heap_size) == 912, "Bit32 _committed_java_heap_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _committed_class_pool_size) == 920, "Bit32 _committed_class_pool_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _committed_code_cache_size) == 928, "Bit32 _committed_code_cache_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _system_time) == 936, "Bit32 _system_time");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _user_time) == 944, "Bit32 _user_time");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _processing_time) == 952, "Bit32 _processing_time");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _vm_args) == 960, "Bit32 _vm_args");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _vm_flags) == 5056, "Bit32 _vm_flags");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _vm_java_args) == 9152, "Bit32 _vm_java_args");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _vm_work_dir) == 13248, "Bit32 _vm_work_dir");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _vm_version) == 14272, "Bit32 _vm_version");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _curr_method_trace_filter) == 14528, "Bit32 _curr_method_trace_filter");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _new_method_trace_filter) == 18624, "Bit32 _new_method_trace_filter");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _command_line_flag) == 22720, "Bit32 _command_line_flag");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _shared_heap) == 22976, "Bit32 _shared_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _local_heap) == 22980, "Bit32 _local_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _stack_dump_info) == 22984, "Bit32 _stack_dump_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _heap_dump_info) == 24008, "Bit32 _heap_dump_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _heap_size) == 25032, "Bit32 _heap_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _heap_size_allocated) == 25036, "Bit32 _heap_size_allocated");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _heap_size_peak) == 25040, "Bit32 _heap_size_peak");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _heap_size_allocated_peak) == 25044, "Bit32 _heap_size_allocated_peak");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _number_of_gcs) == 25048, "Bit32 _number_of_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _number_of_full_gcs) == 25056, "Bit32 _number_of_full_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _number_of_locked_shared_mutexes) == 25064, "Bit32 _number_of_locked_shared_mutexes");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_codeblobs) == 25068, "Bit32 _dump_codeblobs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_codeblobs_name) == 25072, "Bit32 _dump_codeblobs_name");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _dump_codeblobs_show_details) == 29168, "Bit32 _dump_codeblobs_show_details");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _nr_of_active_profiling_runs) == 29172, "Bit32 _nr_of_active_profiling_runs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _is_command_line_profiling_enabled) == 29176, "Bit32 _is_command_line_profiling_enabled");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _has_attachable_profiling_run) == 29177, "Bit32 _has_attachable_profiling_run");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _is_profiler_attached) == 29178, "Bit32 _is_profiler_attached");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _start_attach_server) == 29180, "Bit32 _start_attach_server");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _attach_server_started) == 29184, "Bit32 _attach_server_started");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _duration_of_gcs) == 29192, "Bit32 _duration_of_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _arg0) == 29200, "Bit32 _arg0");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _arg1) == 31248, "Bit32 _arg1");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _arg2) == 33296, "Bit32 _arg2");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _enqueue_operation) == 35344, "Bit32 _enqueue_operation");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _operation_name) == 35348, "Bit32 _operation_name");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _pipe_name) == 35380, "Bit32 _pipe_name");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _duration_of_full_gcs) == 35640, "Bit32 _duration_of_full_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _duration_of_concurrent_gcs) == 35648, "Bit32 _duration_of_concurrent_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _work_time_of_gcs) == 35656, "Bit32 _work_time_of_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _work_time_of_full_gcs) == 35664, "Bit32 _work_time_of_full_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _java_heap_memory_shortages) == 35672, "Bit32 _java_heap_memory_shortages");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _perm_gen_memory_shortages) == 35676, "Bit32 _perm_gen_memory_shortages");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _gc_spinning_due_to_java_heap) == 35680, "Bit32 _gc_spinning_due_to_java_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _gc_spinning_due_to_perm_gen) == 35684, "Bit32 _gc_spinning_due_to_perm_gen");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _out_of_memory_error_count) == 35688, "Bit32 _out_of_memory_error_count");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _set_core_size_to_max) == 35692, "Bit32 _set_core_size_to_max");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _vm_tag) == 35696, "Bit32 _vm_tag");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _splittable_vm_java_args) == 35760, "Bit32 _splittable_vm_java_args");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _jar_main_class) == 39856, "Bit32 _jar_main_class");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _splittable_virtualization_info) == 43952, "Bit32 _splittable_virtualization_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _old_gen_usage_after_gc) == 46000, "Bit32 _old_gen_usage_after_gc");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _perm_gen_usage_after_gc) == 46008, "Bit32 _perm_gen_usage_after_gc");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _max_old_gen_size) == 46016, "Bit32 _max_old_gen_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _max_perm_gen_size) == 46024, "Bit32 _max_perm_gen_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _run_with_monitoring_board) == 46032, "Bit32 _run_with_monitoring_board");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _start_local_debugging) == 46036, "Bit32 _start_local_debugging");
static_assert(offsetof(ControlAreaLayout_CL<Bit32>, _has_metaspace) == 46040, "Bit32 _has_metaspace");
static_assert(sizeof(ControlAreaLayout_CL<Bit32>) == 46048, "Bit32 size");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _eyecatcher) == 0, "Bit64 _eyecatcher");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _start_debugging) == 4, "Bit64 _start_debugging");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _stop_debugging) == 8, "Bit64 _stop_debugging");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_stacks) == 12, "Bit64 _dump_stacks");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_heap) == 16, "Bit64 _dump_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_gc_history) == 20, "Bit64 _dump_gc_history");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_class_statistic) == 24, "Bit64 _dump_class_statistic");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_detailed_class_statistic) == 28, "Bit64 _dump_detailed_class_statistic");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_symbol_info) == 32, "Bit64 _dump_symbol_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_detailed_symbol_info) == 36, "Bit64 _dump_detailed_symbol_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_shared_heap) == 40, "Bit64 _dump_shared_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_local_heap) == 44, "Bit64 _dump_local_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_hs_err_info) == 48, "Bit64 _dump_hs_err_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_shared_mutexes) == 52, "Bit64 _dump_shared_mutexes");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _crash_vm) == 56, "Bit64 _crash_vm");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_dll_info) == 60, "Bit64 _dump_dll_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_safepoint_state) == 64, "Bit64 _dump_safepoint_state");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _set_method_trace_filter) == 68, "Bit64 _set_method_trace_filter");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _change_command_line_flag) == 72, "Bit64 _change_command_line_flag");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _exit) == 76, "Bit64 _exit");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _gc) == 80, "Bit64 _gc");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _maximum_compaction_gc) == 84, "Bit64 _maximum_compaction_gc");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _set_trace_flags) == 88, "Bit64 _set_trace_flags");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _stop_command_line_profiling) == 92, "Bit64 _stop_command_line_profiling");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _trigger_restricted_debugging_event) == 96, "Bit64 _trigger_restricted_debugging_event");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _instance_control_area_offset) == 104, "Bit64 _instance_control_area_offset");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _pid) == 112, "Bit64 _pid");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _vm_index) == 116, "Bit64 _vm_index");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _vm_id) == 120, "Bit64 _vm_id");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _current_debug_port) == 124, "Bit64 _current_debug_port");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _debugging_client) == 128, "Bit64 _debugging_client");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _debugging_state) == 384, "Bit64 _debugging_state");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _suspend_policy) == 388, "Bit64 _suspend_policy");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _from_port) == 392, "Bit64 _from_port");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _to_port) == 396, "Bit64 _to_port");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _can_debug_on_demand) == 400, "Bit64 _can_debug_on_demand");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _requested_exit_code) == 404, "Bit64 _requested_exit_code");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _trace_flags) == 408, "Bit64 _trace_flags");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _committed_java_heap_size) == 920, "Bit64 _committed_java_heap_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _committed_class_pool_size) == 928, "Bit64 _committed_class_pool_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _committed_code_cache_size) == 936, "Bit64 _committed_code_cache_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _system_time) == 944, "Bit64 _system_time");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _user_time) == 952, "Bit64 _user_time");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _processing_time) == 960, "Bit64 _processing_time");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _vm_args) == 968, "Bit64 _vm_args");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _vm_flags) == 5064, "Bit64 _vm_flags");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _vm_java_args) == 9160, "Bit64 _vm_java_args");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _vm_work_dir) == 13256, "Bit64 _vm_work_dir");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _vm_version) == 14280, "Bit64 _vm_version");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _curr_method_trace_filter) == 14536, "Bit64 _curr_method_trace_filter");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _new_method_trace_filter) == 18632, "Bit64 _new_method_trace_filter");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _command_line_flag) == 22728, "Bit64 _command_line_flag");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _shared_heap) == 22984, "Bit64 _shared_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _local_heap) == 22988, "Bit64 _local_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _stack_dump_info) == 22992, "Bit64 _stack_dump_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _heap_dump_info) == 24016, "Bit64 _heap_dump_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _heap_size) == 25040, "Bit64 _heap_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _heap_size_allocated) == 25048, "Bit64 _heap_size_allocated");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _heap_size_peak) == 25056, "Bit64 _heap_size_peak");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _heap_size_allocated_peak) == 25064, "Bit64 _heap_size_allocated_peak");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _number_of_gcs) == 25072, "Bit64 _number_of_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _number_of_full_gcs) == 25080, "Bit64 _number_of_full_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _number_of_locked_shared_mutexes) == 25088, "Bit64 _number_of_locked_shared_mutexes");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_codeblobs) == 25092, "Bit64 _dump_codeblobs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_codeblobs_name) == 25096, "Bit64 _dump_codeblobs_name");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _dump_codeblobs_show_details) == 29192, "Bit64 _dump_codeblobs_show_details");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _nr_of_active_profiling_runs) == 29196, "Bit64 _nr_of_active_profiling_runs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _is_command_line_profiling_enabled) == 29200, "Bit64 _is_command_line_profiling_enabled");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _has_attachable_profiling_run) == 29201, "Bit64 _has_attachable_profiling_run");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _is_profiler_attached) == 29202, "Bit64 _is_profiler_attached");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _start_attach_server) == 29204, "Bit64 _start_attach_server");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _attach_server_started) == 29208, "Bit64 _attach_server_started");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _duration_of_gcs) == 29216, "Bit64 _duration_of_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _arg0) == 29224, "Bit64 _arg0");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _arg1) == 31272, "Bit64 _arg1");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _arg2) == 33320, "Bit64 _arg2");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _enqueue_operation) == 35368, "Bit64 _enqueue_operation");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _operation_name) == 35372, "Bit64 _operation_name");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _pipe_name) == 35404, "Bit64 _pipe_name");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _duration_of_full_gcs) == 35664, "Bit64 _duration_of_full_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _duration_of_concurrent_gcs) == 35672, "Bit64 _duration_of_concurrent_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _work_time_of_gcs) == 35680, "Bit64 _work_time_of_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _work_time_of_full_gcs) == 35688, "Bit64 _work_time_of_full_gcs");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _java_heap_memory_shortages) == 35696, "Bit64 _java_heap_memory_shortages");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _perm_gen_memory_shortages) == 35700, "Bit64 _perm_gen_memory_shortages");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _gc_spinning_due_to_java_heap) == 35704, "Bit64 _gc_spinning_due_to_java_heap");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _gc_spinning_due_to_perm_gen) == 35708, "Bit64 _gc_spinning_due_to_perm_gen");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _out_of_memory_error_count) == 35712, "Bit64 _out_of_memory_error_count");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _set_core_size_to_max) == 35716, "Bit64 _set_core_size_to_max");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _vm_tag) == 35720, "Bit64 _vm_tag");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _splittable_vm_java_args) == 35784, "Bit64 _splittable_vm_java_args");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _jar_main_class) == 39880, "Bit64 _jar_main_class");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _splittable_virtualization_info) == 43976, "Bit64 _splittable_virtualization_info");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _old_gen_usage_after_gc) == 46024, "Bit64 _old_gen_usage_after_gc");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _perm_gen_usage_after_gc) == 46032, "Bit64 _perm_gen_usage_after_gc");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _max_old_gen_size) == 46040, "Bit64 _max_old_gen_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _max_perm_gen_size) == 46048, "Bit64 _max_perm_gen_size");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _run_with_monitoring_board) == 46056, "Bit64 _run_with_monitoring_board");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _start_local_debugging) == 46060, "Bit64 _start_local_debugging");
static_assert(offsetof(ControlAreaLayout_CL<Bit64>, _has_metaspace) == 46064, "Bit64 _has_metaspace");
static_assert(sizeof(ControlAreaLayout_CL<Bit64>) == 46072, "Bit64 size");


#endif
