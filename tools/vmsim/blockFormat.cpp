#include "blockFormat.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vmsim {

size_t Field::bytes(Width width) const {
    switch (kind) {
        case Kind::Int32: return 4;
        case Kind::Int64: return 8;
        case Kind::Boolean: return 1;
        case Kind::Size: return width == Width::Bit64 ? 8 : 4;
        case Kind::Text: return capacity;
    }
    return 0;
}

size_t header_size(Width width) { return width == Width::Bit64 ? 32 : 20; }
size_t instance_area_size(Width width) { return width == Width::Bit64 ? 288 : 152; }
size_t vm_area_size(Width width) { return width == Width::Bit64 ? 46072 : 46048; }

const std::vector<Field>& instance_fields() {
    static const std::vector<Field> fields = {
        {"eyecatcher", Kind::Int32, 0, 0, 0},
        {"version", Kind::Int32, 4, 4, 0},
        {"max_vm_nr", Kind::Int32, 8, 8, 0},
        {"instance_control_area_size", Kind::Size, 12, 16, 0},
        {"control_area_size", Kind::Size, 16, 24, 0},
        {"unique_id", Kind::Int32, 24, 40, 0},
        {"attach_count", Kind::Int32, 28, 44, 0},
        {"shared_pool_size", Kind::Size, 40, 64, 0},
        {"heap_size", Kind::Size, 44, 72, 5},
        {"heap_size_allocated", Kind::Size, 64, 112, 5},
        {"heap_size_peak", Kind::Size, 84, 152, 5},
        {"heap_size_allocated_peak", Kind::Size, 104, 192, 5},
        {"equivalent_classes_granularity", Kind::Size, 148, 280, 0},
    };
    return fields;
}

const std::vector<Field>& vm_fields() {
    static const std::vector<Field> fields = {
        {"eyecatcher", Kind::Int32, 0, 0, 0},
        {"start_debugging", Kind::Int32, 4, 4, 0},
        {"stop_debugging", Kind::Int32, 8, 8, 0},
        {"dump_stacks", Kind::Int32, 12, 12, 0},
        {"dump_heap", Kind::Int32, 16, 16, 0},
        {"dump_gc_history", Kind::Int32, 20, 20, 0},
        {"dump_class_statistic", Kind::Int32, 24, 24, 0},
        {"dump_detailed_class_statistic", Kind::Int32, 28, 28, 0},
        {"dump_symbol_info", Kind::Int32, 32, 32, 0},
        {"dump_detailed_symbol_info", Kind::Int32, 36, 36, 0},
        {"dump_shared_heap", Kind::Int32, 40, 40, 0},
        {"dump_local_heap", Kind::Int32, 44, 44, 0},
        {"dump_hs_err_info", Kind::Int32, 48, 48, 0},
        {"dump_shared_mutexes", Kind::Int32, 52, 52, 0},
        {"crash_vm", Kind::Int32, 56, 56, 0},
        {"dump_dll_info", Kind::Int32, 60, 60, 0},
        {"dump_safepoint_state", Kind::Int32, 64, 64, 0},
        {"set_method_trace_filter", Kind::Int32, 68, 68, 0},
        {"change_command_line_flag", Kind::Int32, 72, 72, 0},
        {"exit", Kind::Int32, 76, 76, 0},
        {"gc", Kind::Int32, 80, 80, 0},
        {"maximum_compaction_gc", Kind::Int32, 84, 84, 0},
        {"set_trace_flags", Kind::Int32, 88, 88, 0},
        {"stop_command_line_profiling", Kind::Int32, 92, 92, 0},
        {"trigger_restricted_debugging_event", Kind::Int32, 96, 96, 0},
        {"pid", Kind::Int32, 104, 112, 0},
        {"vm_index", Kind::Int32, 108, 116, 0},
        {"vm_id", Kind::Int32, 112, 120, 0},
        {"current_debug_port", Kind::Int32, 116, 124, 0},
        {"debugging_client", Kind::Text, 120, 128, 256},
        {"debugging_state", Kind::Int32, 376, 384, 0},
        {"suspend_policy", Kind::Int32, 380, 388, 0},
        {"from_port", Kind::Int32, 384, 392, 0},
        {"to_port", Kind::Int32, 388, 396, 0},
        {"can_debug_on_demand", Kind::Boolean, 392, 400, 0},
        {"requested_exit_code", Kind::Int32, 396, 404, 0},
        {"committed_java_heap_size", Kind::Int64, 912, 920, 0},
        {"committed_class_pool_size", Kind::Int64, 920, 928, 0},
        {"committed_code_cache_size", Kind::Int64, 928, 936, 0},
        {"system_time", Kind::Int64, 936, 944, 0},
        {"user_time", Kind::Int64, 944, 952, 0},
        {"processing_time", Kind::Int64, 952, 960, 0},
        {"vm_args", Kind::Text, 960, 968, 4096},
        {"vm_flags", Kind::Text, 5056, 5064, 4096},
        {"vm_java_args", Kind::Text, 9152, 9160, 4096},
        {"vm_work_dir", Kind::Text, 13248, 13256, 1024},
        {"vm_version", Kind::Text, 14272, 14280, 256},
        {"number_of_gcs", Kind::Int64, 25048, 25072, 0},
        {"number_of_full_gcs", Kind::Int64, 25056, 25080, 0},
        {"dump_codeblobs", Kind::Int32, 25068, 25092, 0},
        {"start_attach_server", Kind::Int32, 29180, 29204, 0},
        {"attach_server_started", Kind::Int32, 29184, 29208, 0},
        {"duration_of_gcs", Kind::Int64, 29192, 29216, 0},
        {"enqueue_operation", Kind::Int32, 35344, 35368, 0},
        {"duration_of_full_gcs", Kind::Int64, 35640, 35664, 0},
        {"duration_of_concurrent_gcs", Kind::Int64, 35648, 35672, 0},
        {"work_time_of_gcs", Kind::Int64, 35656, 35680, 0},
        {"work_time_of_full_gcs", Kind::Int64, 35664, 35688, 0},
        {"java_heap_memory_shortages", Kind::Int32, 35672, 35696, 0},
        {"perm_gen_memory_shortages", Kind::Int32, 35676, 35700, 0},
        {"gc_spinning_due_to_java_heap", Kind::Int32, 35680, 35704, 0},
        {"gc_spinning_due_to_perm_gen", Kind::Int32, 35684, 35708, 0},
        {"out_of_memory_error_count", Kind::Int32, 35688, 35712, 0},
        {"vm_tag", Kind::Text, 35696, 35720, 64},
        {"splittable_vm_java_args", Kind::Text, 35760, 35784, 4096},
        {"jar_main_class", Kind::Text, 39856, 39880, 4096},
        {"splittable_virtualization_info", Kind::Text, 43952, 43976, 2048},
        {"old_gen_usage_after_gc", Kind::Int64, 46000, 46024, 0},
        {"perm_gen_usage_after_gc", Kind::Int64, 46008, 46032, 0},
        {"max_old_gen_size", Kind::Int64, 46016, 46040, 0},
        {"max_perm_gen_size", Kind::Int64, 46024, 46048, 0},
        {"run_with_monitoring_board", Kind::Boolean, 46032, 46056, 0},
        {"start_local_debugging", Kind::Int32, 46036, 46060, 0},
        {"has_metaspace", Kind::Boolean, 46040, 46064, 0},
    };
    return fields;
}

const std::vector<Flag>& flags() {
    static const std::vector<Flag> all = {
        {0, "start_debugging"}, {1, "stop_debugging"}, {2, "dump_stacks"}, {3, "dump_heap"},
        {4, "dump_gc_history"}, {5, "dump_class_statistic"}, {6, "dump_detailed_class_statistic"},
        {7, "dump_symbol_info"}, {8, "dump_detailed_symbol_info"}, {9, "dump_shared_heap"},
        {10, "dump_local_heap"}, {11, "dump_hs_err_info"}, {12, "dump_shared_mutexes"}, {13, "crash_vm"},
        {14, "dump_dll_info"}, {15, "dump_safepoint_state"}, {16, "exit"}, {17, "gc"},
        {18, "maximum_compaction_gc"}, {19, "set_trace_flags"}, {20, "set_method_trace_filter"},
        {21, "change_command_line_flag"}, {22, "stop_command_line_profiling"},
        {23, "trigger_restricted_debugging_event"}, {24, "dump_codeblobs"}, {25, "start_attach_server"},
        {26, "attach_server_started"}, {27, "enqueue_operation"},
    };
    return all;
}

const Field* find_field(const std::vector<Field>& fields, const std::string& name) {
    for (const Field& field : fields) {
        if (name == field.name) return &field;
    }
    return nullptr;
}

bool Block::put(uint64_t offset, const void* bytes, size_t count) {
    if (!fits(offset, count)) return false;
    memcpy(_base + offset, bytes, count);
    return true;
}

bool Block::get(uint64_t offset, void* bytes, size_t count) const {
    if (!fits(offset, count)) return false;
    memcpy(bytes, _base + offset, count);
    return true;
}

int32_t Block::get_int32(uint64_t offset) const {
    int32_t value = 0;
    get(offset, &value, sizeof value);
    return value;
}

bool parse_int64(const std::string& text, int64_t* value) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    // Unsigned parsing accepts 0xFADEBABE and 0xFFFFFFFFFFFFFFFF; a leading '-' goes through
    // the signed parser.
    if (text[0] == '-') {
        long long parsed = strtoll(text.c_str(), &end, 0);
        if (errno != 0 || *end != '\0') return false;
        *value = parsed;
    } else {
        unsigned long long parsed = strtoull(text.c_str(), &end, 0);
        if (errno != 0 || *end != '\0') return false;
        *value = static_cast<int64_t>(parsed);
    }
    return true;
}

static bool parse_boolean(const std::string& text, int64_t* value) {
    if (text == "true") { *value = 1; return true; }
    if (text == "false") { *value = 0; return true; }
    return parse_int64(text, value);
}

bool Block::set_field(uint64_t area_start, const Field& field, Width width, const std::string& value, size_t index,
                      std::string* error) {
    uint64_t offset = area_start + field.offset(width);
    if (field.kind == Kind::Text) {
        if (value.size() > field.capacity) {
            *error = std::string("text too long for ") + field.name;
            return false;
        }
        // The area is zeroed beforehand; writing the terminator as well clears an older text.
        std::string bytes = value;
        if (bytes.size() < field.capacity) bytes.push_back('\0');
        put(offset, bytes.data(), bytes.size());
        return true;
    }
    int64_t number = 0;
    bool parsed = field.kind == Kind::Boolean ? parse_boolean(value, &number) : parse_int64(value, &number);
    if (!parsed) {
        *error = std::string("not a number for ") + field.name + ": " + value;
        return false;
    }
    size_t bytes = field.bytes(width);
    if (field.capacity > 0 && field.kind == Kind::Size) {
        if (index >= field.capacity) {
            *error = std::string("index out of range for ") + field.name;
            return false;
        }
        offset += index * bytes;
    }
    switch (bytes) {
        case 1: { uint8_t b = static_cast<uint8_t>(number); put(offset, &b, 1); break; }
        case 4: put_int32(offset, static_cast<int32_t>(number)); break;
        default: put_int64(offset, number); break;
    }
    return true;
}

}  // namespace vmsim
