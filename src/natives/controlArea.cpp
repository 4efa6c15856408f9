#include "controlArea.h"

#include "controlAreaFile.h"
#include "sharedEvent.h"

#include <cstdio>
#include <cstring>

// Offsets of this width's layout, named once.
#define CA_OFFSET(field) offsetof(ControlAreaLayout_CL<arch>, field)

template <ArchType_CL arch>
ControlAreaImpl_CL<arch>::ControlAreaImpl_CL(void* ca, size_t ca_size)
    : _ca(static_cast<Layout*>(ca)),
      _ca_size(ca_size),
      _readable(ca != nullptr ? sizeof(Layout) : 0),
      _writer(nullptr),
      _block_offset(0) {}

template <ArchType_CL arch>
ControlAreaImpl_CL<arch>::ControlAreaImpl_CL(void* ca, size_t ca_size, size_t readable)
    : _ca(static_cast<Layout*>(ca)),
      _ca_size(ca_size),
      _readable(ca != nullptr ? readable : 0),
      _writer(nullptr),
      _block_offset(0) {}

template <ArchType_CL arch>
ControlAreaImpl_CL<arch>::ControlAreaImpl_CL(void* ca, size_t ca_size, size_t readable, BlockWriter_CL* writer,
                                             size_t block_offset)
    : _ca(static_cast<Layout*>(ca)),
      _ca_size(ca_size),
      _readable(ca != nullptr ? readable : 0),
      _writer(writer),
      _block_offset(block_offset) {}

// The published size must reach `threshold`, and the field's bytes must lie in the mapping.
template <ArchType_CL arch>
bool ControlAreaImpl_CL<arch>::reaches(size_t threshold, size_t offset, size_t width) const {
    return _ca_size >= threshold && offset <= _readable && width <= _readable - offset;
}

// Every value is read or written once with a plain access; memcpy keeps it legal whatever the
// alignment of a slot in a block laid out by a hostile header.
template <ArchType_CL arch>
template <typename T>
T ControlAreaImpl_CL<arch>::load(size_t offset) const {
    T value;
    memcpy(&value, reinterpret_cast<const char*>(_ca) + offset, sizeof value);
    return value;
}

// A store that could not be made (the writer found the file cut) returns false.
template <ArchType_CL arch>
template <typename T>
bool ControlAreaImpl_CL<arch>::store(size_t offset, T value) {
    if (_writer != nullptr) return _writer->write(_block_offset + offset, &value, sizeof value);
    memcpy(reinterpret_cast<char*>(_ca) + offset, &value, sizeof value);
    return true;
}

template <ArchType_CL arch>
int32_t ControlAreaImpl_CL<arch>::guarded_int(size_t offset, int32_t absent) const {
    return field_present(offset, sizeof(int32_t)) ? load<int32_t>(offset) : absent;
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::guarded_long(size_t offset, int64_t absent) const {
    return field_present(offset, sizeof(int64_t)) ? load<int64_t>(offset) : absent;
}

template <ArchType_CL arch>
bool ControlAreaImpl_CL<arch>::guarded_boolean(size_t threshold, size_t offset) const {
    return reaches(threshold, offset, sizeof(boolean_CL)) && load<boolean_CL>(offset) != 0;
}

// A text is there when the published size reaches its offset and it begins inside the readable
// bytes; it is read no further than they go, even when its capacity would.
template <ArchType_CL arch>
template <int N>
ControlAreaText_CL<N> ControlAreaImpl_CL<arch>::guarded_text(size_t offset) const {
    if (_ca_size < offset || offset >= _readable) return ControlAreaText_CL<N>();
    size_t room = _readable - offset;
    return ControlAreaText_CL<N>(reinterpret_cast<const char*>(_ca) + offset, room < static_cast<size_t>(N) ? static_cast<int>(room) : N);
}

template <ArchType_CL arch>
size_t ControlAreaImpl_CL<arch>::flag_offset(int flag) {
    switch (flag) {
        case ZUL_CONTROLS_START_DEBUGGING: return CA_OFFSET(_start_debugging);
        case ZUL_CONTROLS_STOP_DEBUGGING: return CA_OFFSET(_stop_debugging);
        case ZUL_CONTROLS_DUMP_STACKS: return CA_OFFSET(_dump_stacks);
        case ZUL_CONTROLS_DUMP_HEAP: return CA_OFFSET(_dump_heap);
        case ZUL_CONTROLS_DUMP_GC_HISTORY: return CA_OFFSET(_dump_gc_history);
        case ZUL_CONTROLS_DUMP_CLASS_STATISTIC: return CA_OFFSET(_dump_class_statistic);
        case ZUL_CONTROLS_DUMP_DETAILED_CLASS_STATISTIC: return CA_OFFSET(_dump_detailed_class_statistic);
        case ZUL_CONTROLS_DUMP_SYMBOL_INFO: return CA_OFFSET(_dump_symbol_info);
        case ZUL_CONTROLS_DUMP_DETAILED_SYMBOL_INFO: return CA_OFFSET(_dump_detailed_symbol_info);
        case ZUL_CONTROLS_DUMP_SHARED_HEAP: return CA_OFFSET(_dump_shared_heap);
        case ZUL_CONTROLS_DUMP_LOCAL_HEAP: return CA_OFFSET(_dump_local_heap);
        case ZUL_CONTROLS_DUMP_HS_ERR_INFO: return CA_OFFSET(_dump_hs_err_info);
        case ZUL_CONTROLS_DUMP_SHARED_MUTEXES: return CA_OFFSET(_dump_shared_mutexes);
        case ZUL_CONTROLS_CRASH_VM: return CA_OFFSET(_crash_vm);
        case ZUL_CONTROLS_DUMP_DLL_INFO: return CA_OFFSET(_dump_dll_info);
        case ZUL_CONTROLS_DUMP_SAFEPOINT_STATE: return CA_OFFSET(_dump_safepoint_state);
        case ZUL_CONTROLS_EXIT: return CA_OFFSET(_exit);
        case ZUL_CONTROLS_GC: return CA_OFFSET(_gc);
        case ZUL_CONTROLS_MAXIMUM_COMPACTION_GC: return CA_OFFSET(_maximum_compaction_gc);
        case ZUL_CONTROLS_SET_TRACE_FLAGS: return CA_OFFSET(_set_trace_flags);
        case ZUL_CONTROLS_SET_METHOD_TRACE_FILTER: return CA_OFFSET(_set_method_trace_filter);
        case ZUL_CONTROLS_CHANGE_COMMAND_LINE_FLAG: return CA_OFFSET(_change_command_line_flag);
        case ZUL_CONTROLS_STOP_COMMAND_LINE_PROFILING: return CA_OFFSET(_stop_command_line_profiling);
        case ZUL_CONTROLS_TRIGGER_RESTRICTED_DEBUGGING_EVENT: return CA_OFFSET(_trigger_restricted_debugging_event);
        case ZUL_CONTROLS_DUMP_CODEBLOBS: return CA_OFFSET(_dump_codeblobs);
        case ZUL_CONTROLS_START_ATTACH_SERVER: return CA_OFFSET(_start_attach_server);
        case ZUL_CONTROLS_ATTACH_SERVER_STARTED: return CA_OFFSET(_attach_server_started);
        case ZUL_CONTROLS_ENQUEUE_OPERATION: return CA_OFFSET(_enqueue_operation);
        default: return 0;
    }
}

template <ArchType_CL arch>
int* ControlAreaImpl_CL<arch>::get_flag_address(ControlAreaFlags flag) const {
    // Compared as unsigned, so a negative value is unsupported as well.
    if (static_cast<unsigned>(flag) > static_cast<unsigned>(ZUL_CONTROLS_ENQUEUE_OPERATION)) {
        printf("Flag %d not supported by the monitored VM", static_cast<int>(flag));
        fflush(stdout);
        return nullptr;
    }
    size_t offset = flag_offset(flag);
    if (!field_present(offset, sizeof(int32_t))) return nullptr;
    return reinterpret_cast<int*>(reinterpret_cast<char*>(_ca) + offset);
}

template <ArchType_CL arch>
bool ControlAreaImpl_CL<arch>::is_valid() const {
    // The eyecatcher has no size test; only the mapping bounds it.
    if (_ca == nullptr || _readable < sizeof(int32_t)) return false;
    return load<uint32_t>(CA_OFFSET(_eyecatcher)) == CONTROL_AREA_EYECATCHER;
}

template <ArchType_CL arch>
void ControlAreaImpl_CL<arch>::set_flag(ControlAreaFlags flag) {
    int* address = get_flag_address(flag);
    if (address == nullptr) return;
    size_t offset = static_cast<size_t>(reinterpret_cast<char*>(address) - reinterpret_cast<char*>(_ca));
    // A flag that could not be raised (its file was cut meanwhile) is not signalled either.
    if (!store<int32_t>(offset, 1)) return;
    if (!field_present(CA_OFFSET(_pid), sizeof(int32_t))) return;
    // A VM without an event finds the flag when it next looks; that is not an error.
    J2SE::SharedEvent event =
        J2SE::ControlAreaFile::attach_shared_event(load<int32_t>(CA_OFFSET(_pid)), J2SE::SharedEvent::SHARED_EVENT_KEY_CONTROLS);
    event.signal();
    event.detach();
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_pid() const {
    return guarded_int(CA_OFFSET(_pid), -1);
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_vm_index() const {
    return guarded_int(CA_OFFSET(_vm_index), -1);
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_vm_id() const {
    return guarded_int(CA_OFFSET(_vm_id), -1);
}

template <ArchType_CL arch>
ControlAreaText_CL<64> ControlAreaImpl_CL<arch>::get_vm_tag() const {
    return guarded_text<64>(CA_OFFSET(_vm_tag));
}

template <ArchType_CL arch>
bool ControlAreaImpl_CL<arch>::can_debug_on_demand() const {
    return guarded_boolean(CA_OFFSET(_can_debug_on_demand), CA_OFFSET(_can_debug_on_demand));
}

template <ArchType_CL arch>
ZULDebuggingState_CL ControlAreaImpl_CL<arch>::get_debugging_state() const {
    return static_cast<ZULDebuggingState_CL>(guarded_int(CA_OFFSET(_debugging_state), ZUL_DEBUGGING_STATE_UNKNOWN));
}

// Both ports or neither: each field's threshold is tested before either is read.
template <ArchType_CL arch>
void ControlAreaImpl_CL<arch>::get_default_port_range(int* from_port, int* to_port) const {
    *from_port = -1;
    *to_port = -1;
    if (!field_present(CA_OFFSET(_from_port), sizeof(int32_t))) return;
    if (!field_present(CA_OFFSET(_to_port), sizeof(int32_t))) return;
    *from_port = load<int32_t>(CA_OFFSET(_from_port));
    *to_port = load<int32_t>(CA_OFFSET(_to_port));
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_current_debug_port() const {
    return guarded_int(CA_OFFSET(_current_debug_port), -1);
}

template <ArchType_CL arch>
ControlAreaText_CL<256> ControlAreaImpl_CL<arch>::get_debugging_client() const {
    return guarded_text<256>(CA_OFFSET(_debugging_client));
}

template <ArchType_CL arch>
bool ControlAreaImpl_CL<arch>::get_debugging_locally() const {
    return guarded_int(CA_OFFSET(_start_local_debugging), 0) != 0;
}

template <ArchType_CL arch>
ControlAreaText_CL<4096> ControlAreaImpl_CL<arch>::get_vm_flags() const {
    return guarded_text<4096>(CA_OFFSET(_vm_flags));
}

template <ArchType_CL arch>
ControlAreaText_CL<4096> ControlAreaImpl_CL<arch>::get_vm_args() const {
    return guarded_text<4096>(CA_OFFSET(_vm_args));
}

template <ArchType_CL arch>
ControlAreaText_CL<4096> ControlAreaImpl_CL<arch>::get_vm_java_args() const {
    return guarded_text<4096>(CA_OFFSET(_vm_java_args));
}

template <ArchType_CL arch>
ControlAreaText_CL<4096> ControlAreaImpl_CL<arch>::get_splittable_vm_java_args() const {
    return guarded_text<4096>(CA_OFFSET(_splittable_vm_java_args));
}

template <ArchType_CL arch>
ControlAreaText_CL<4096> ControlAreaImpl_CL<arch>::get_jar_main_class() const {
    return guarded_text<4096>(CA_OFFSET(_jar_main_class));
}

template <ArchType_CL arch>
ControlAreaText_CL<1024> ControlAreaImpl_CL<arch>::get_vm_work_dir() const {
    return guarded_text<1024>(CA_OFFSET(_vm_work_dir));
}

template <ArchType_CL arch>
ControlAreaText_CL<256> ControlAreaImpl_CL<arch>::get_vm_version() const {
    return guarded_text<256>(CA_OFFSET(_vm_version));
}

// The parameter is stored before the flag is raised, so that the VM, woken by the flag, sees it.
template <ArchType_CL arch>
void ControlAreaImpl_CL<arch>::start_debugging(int suspend) {
    if (!field_present(CA_OFFSET(_suspend_policy), sizeof(int32_t))) return;
    if (!store<int32_t>(CA_OFFSET(_suspend_policy), suspend)) return;
    set_flag(ZUL_CONTROLS_START_DEBUGGING);
}

// All three times or none: each field's threshold is tested before any is read.
template <ArchType_CL arch>
void ControlAreaImpl_CL<arch>::get_process_time_info(long* system_time, long* user_time, long* processing_time) const {
    *system_time = -1;
    *user_time = -1;
    *processing_time = -1;
    if (!field_present(CA_OFFSET(_system_time), sizeof(int64_t))) return;
    if (!field_present(CA_OFFSET(_user_time), sizeof(int64_t))) return;
    if (!field_present(CA_OFFSET(_processing_time), sizeof(int64_t))) return;
    *system_time = static_cast<long>(load<int64_t>(CA_OFFSET(_system_time)));
    *user_time = static_cast<long>(load<int64_t>(CA_OFFSET(_user_time)));
    *processing_time = static_cast<long>(load<int64_t>(CA_OFFSET(_processing_time)));
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_committed_class_pool_size() const {
    return guarded_long(CA_OFFSET(_committed_class_pool_size), -1);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_committed_java_heap_size() const {
    return guarded_long(CA_OFFSET(_committed_java_heap_size), -1);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_committed_code_cache_size() const {
    return guarded_long(CA_OFFSET(_committed_code_cache_size), -1);
}

template <ArchType_CL arch>
void ControlAreaImpl_CL<arch>::exit(int exit_code) {
    if (!field_present(CA_OFFSET(_requested_exit_code), sizeof(int32_t))) return;
    if (!store<int32_t>(CA_OFFSET(_requested_exit_code), exit_code)) return;
    set_flag(ZUL_CONTROLS_EXIT);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_number_of_gcs() const {
    return guarded_long(CA_OFFSET(_number_of_gcs), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_number_of_full_gcs() const {
    return guarded_long(CA_OFFSET(_number_of_full_gcs), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_duration_of_gcs() const {
    return guarded_long(CA_OFFSET(_duration_of_gcs), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_duration_of_full_gcs() const {
    return guarded_long(CA_OFFSET(_duration_of_full_gcs), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_duration_of_concurrent_gcs() const {
    return guarded_long(CA_OFFSET(_duration_of_concurrent_gcs), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_work_time_of_gcs() const {
    return guarded_long(CA_OFFSET(_work_time_of_gcs), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_work_time_of_full_gcs() const {
    return guarded_long(CA_OFFSET(_work_time_of_full_gcs), 0);
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_java_heap_memory_shortages() const {
    return guarded_int(CA_OFFSET(_java_heap_memory_shortages), 0);
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_perm_gen_memory_shortages() const {
    return guarded_int(CA_OFFSET(_perm_gen_memory_shortages), 0);
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_gc_spinning_due_to_java_heap() const {
    return guarded_int(CA_OFFSET(_gc_spinning_due_to_java_heap), 0);
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_gc_spinning_due_to_perm_gen() const {
    return guarded_int(CA_OFFSET(_gc_spinning_due_to_perm_gen), 0);
}

template <ArchType_CL arch>
int ControlAreaImpl_CL<arch>::get_out_of_memory_error_count() const {
    return guarded_int(CA_OFFSET(_out_of_memory_error_count), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_old_gen_usage_after_gc() const {
    return guarded_long(CA_OFFSET(_old_gen_usage_after_gc), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_perm_gen_usage_after_gc() const {
    return guarded_long(CA_OFFSET(_perm_gen_usage_after_gc), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_max_old_gen_size() const {
    return guarded_long(CA_OFFSET(_max_old_gen_size), 0);
}

template <ArchType_CL arch>
int64_t ControlAreaImpl_CL<arch>::get_max_perm_gen_size() const {
    return guarded_long(CA_OFFSET(_max_perm_gen_size), 0);
}

// These two booleans came with _max_perm_gen_size and are guarded by its offset, not their own:
// an area cut just after _max_perm_gen_size still has them read.
template <ArchType_CL arch>
bool ControlAreaImpl_CL<arch>::get_run_with_monitoring_board() const {
    return guarded_boolean(CA_OFFSET(_max_perm_gen_size), CA_OFFSET(_run_with_monitoring_board));
}

template <ArchType_CL arch>
bool ControlAreaImpl_CL<arch>::get_has_metaspace() const {
    return guarded_boolean(CA_OFFSET(_max_perm_gen_size), CA_OFFSET(_has_metaspace));
}

template <ArchType_CL arch>
void ControlAreaImpl_CL<arch>::set_debug_on_demand(bool can_debug_on_demand) {
    if (!field_present(CA_OFFSET(_can_debug_on_demand), sizeof(boolean_CL))) return;
    store<boolean_CL>(CA_OFFSET(_can_debug_on_demand), can_debug_on_demand ? 1 : 0);
}

template <ArchType_CL arch>
void ControlAreaImpl_CL<arch>::set_current_debug_port(int port) {
    if (!field_present(CA_OFFSET(_current_debug_port), sizeof(int32_t))) return;
    store<int32_t>(CA_OFFSET(_current_debug_port), port);
}

template <ArchType_CL arch>
ControlAreaText_CL<2048> ControlAreaImpl_CL<arch>::get_virtualization_info() const {
    return guarded_text<2048>(CA_OFFSET(_splittable_virtualization_info));
}

#undef CA_OFFSET

template class ControlAreaImpl_CL<Bit32>;
template class ControlAreaImpl_CL<Bit64>;
