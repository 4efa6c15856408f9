#include "clusterRecords.h"

#include <cstring>

// Sums in two's complement: the figures come from another process and may be anything, so
// the addition must not overflow as signed arithmetic.
static long wrapping_sum(long a, long b) {
    return static_cast<long>(static_cast<unsigned long>(a) + static_cast<unsigned long>(b));
}

// Writes the text of a fixed string field: the bytes before the first NUL, at most N and no
// further than the block goes; the empty string when the area has no such field. The length is
// taken once and exactly that many bytes follow it, even if the VM changes the text meanwhile.
template <int N>
static void write_text(DataOutputStream_CL& out, const ControlAreaText_CL<N>& text) {
    if (!text.is_present()) {
        out.writeString(String_CL{"", 0});
        return;
    }
    out.writeString(String_CL{text.chars(), static_cast<size_t>(text.length())});
}

void write_cluster_list(DataOutputStream_CL& out, const J2SE::cvector<ClusterInfo_CL>& clusters) {
    out.writeInt(clusters.size());
    for (int i = 0; i < clusters.size(); i++) {
        out.writeBoolean(clusters[i]._is_attachable);
        out.writeInt(clusters[i]._type);
        out.writeInt(clusters[i]._id);
    }
}

void write_cluster_details(DataOutputStream_CL& out, const ControlAreaManager_CL& manager) {
    int slots = manager.get_max_vm_number();
    out.writeInt(slots);
    for (int i = 0; i < slots; i++) {
        const ControlArea_CL* area = manager.get_control_area(i, true);
        if (area == nullptr) continue;
        out.writeInt(i);
        out.writeInt(area->get_pid());
        out.writeInt(area->get_vm_id());
    }
    out.writeInt(-1);
}

void write_debug_info(DataOutputStream_CL& out, const ControlArea_CL& area) {
    out.writeBoolean(area.can_debug_on_demand());
    int from_port = -1;
    int to_port = -1;
    area.get_default_port_range(&from_port, &to_port);
    out.writeInt(from_port);
    out.writeInt(to_port);
    out.writeInt(area.get_debugging_state());
    out.writeInt(area.get_current_debug_port());
    write_text(out, area.get_debugging_client());
    out.writeBoolean(area.get_debugging_locally());
}

void write_state_info(DataOutputStream_CL& out, const ControlArea_CL& area) {
    out.writeInt(area.get_vm_index());
    out.writeInt(area.get_pid());
    out.writeInt(-1);
    out.writeInt(-1);
}

void write_start_info(DataOutputStream_CL& out, const ControlArea_CL& area) {
    write_text(out, area.get_vm_version());
    write_text(out, area.get_vm_work_dir());
    write_text(out, area.get_vm_flags());
    write_text(out, area.get_vm_args());
    write_text(out, area.get_vm_java_args());
    write_text(out, area.get_vm_tag());
    write_text(out, area.get_splittable_vm_java_args());
    write_text(out, area.get_jar_main_class());
    out.writeBoolean(area.get_run_with_monitoring_board());
    out.writeBoolean(area.get_has_metaspace());
}

void write_time_info(DataOutputStream_CL& out, const ControlArea_CL& area) {
    long system_time = -1;
    long user_time = -1;
    long processing_time = -1;
    area.get_process_time_info(&system_time, &user_time, &processing_time);
    // Untouched parts stay -1 and are summed as they are: -2 when both are missing.
    out.writeLong(wrapping_sum(system_time, user_time));
    out.writeLong(system_time);
    out.writeLong(user_time);
    out.writeLong(processing_time);
}

static void write_zeros(DataOutputStream_CL& out, int longs) {
    for (int i = 0; i < longs; i++) out.writeLong(0);
}

void write_memory_info(DataOutputStream_CL& out, const ControlArea_CL& area, const InstanceControlArea_CL& cluster) {
    // First readings, taken before anything is written. Where a figure is written again at its
    // own position it is read again there, so the two may differ if the VM changed it.
    long heap = area.get_committed_java_heap_size();
    long class_pool = area.get_committed_class_pool_size();
    long code_cache = area.get_committed_code_cache_size();
    long global = static_cast<long>(cluster.get_global_memory());
    long allocated = static_cast<long>(cluster.get_global_allocated_memory());

    write_zeros(out, 5);
    out.writeLong(wrapping_sum(wrapping_sum(class_pool, heap), code_cache));
    out.writeLong(area.get_committed_java_heap_size());
    out.writeLong(area.get_committed_class_pool_size());
    out.writeLong(area.get_committed_code_cache_size());
    write_zeros(out, 1);
    out.writeLong(static_cast<long>(cluster.get_shared_pool_size()));
    out.writeLong(global);
    write_zeros(out, 2);
    out.writeLong(static_cast<long>(cluster.get_global_memory()));
    write_zeros(out, 1);
    out.writeLong(allocated);
    write_zeros(out, 2);
    out.writeLong(static_cast<long>(cluster.get_global_allocated_memory()));
    write_zeros(out, 3);
    out.writeLong(static_cast<long>(cluster.get_global_memory_peak()));
    write_zeros(out, 1);
    out.writeLong(area.get_number_of_gcs());
    out.writeLong(area.get_number_of_full_gcs());
    out.writeLong(area.get_duration_of_gcs());
    out.writeLong(area.get_duration_of_full_gcs());
    out.writeLong(area.get_duration_of_concurrent_gcs());
    out.writeLong(area.get_work_time_of_gcs());
    out.writeLong(area.get_work_time_of_full_gcs());
    out.writeInt(area.get_java_heap_memory_shortages());
    out.writeInt(area.get_perm_gen_memory_shortages());
    out.writeInt(area.get_gc_spinning_due_to_java_heap());
    out.writeInt(area.get_gc_spinning_due_to_perm_gen());
    out.writeInt(area.get_out_of_memory_error_count());
    out.writeLong(area.get_old_gen_usage_after_gc());
    out.writeLong(area.get_perm_gen_usage_after_gc());
    out.writeLong(area.get_max_old_gen_size());
    out.writeLong(area.get_max_perm_gen_size());
}
