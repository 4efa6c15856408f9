#include "clusterQueries.h"

#include "clusterRecords.h"
#include "controlAreaManager.h"

// The manager of one call: the cluster named by Java, with "not attachable" and version -1 as
// the record's other fields.
static ClusterInfo_CL cluster_of(int type, int id) {
    return ClusterInfo_CL(false, -1, static_cast<ClusterType_CL>(type), id);
}

void query_cluster_list(ByteArrayOutputStream_CL& out) {
    J2SE::cvector<ClusterInfo_CL> clusters(8);
    Controls::get_running_clusters(clusters);
    DataOutputStream_CL data(out);
    write_cluster_list(data, clusters);
}

bool query_cluster_details(int id, ByteArrayOutputStream_CL& out) {
    ControlAreaManager_CL manager(cluster_of(CLUSTER_TYPE_INSTANCE, id));
    if (!manager.is_valid()) return false;
    DataOutputStream_CL data(out);
    write_cluster_details(data, manager);
    return true;
}

bool query_vm_record(int type, int id, int index, VmRecordKind kind, ByteArrayOutputStream_CL& out) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    if (!manager.is_valid()) return false;
    const InstanceControlArea_CL* cluster = manager.get_instance_control_area();
    if (kind == VM_RECORD_MEMORY && cluster == nullptr) return false;
    const ControlArea_CL* area = manager.get_control_area(index, true);
    if (area == nullptr) return false;
    DataOutputStream_CL data(out);
    switch (kind) {
        case VM_RECORD_DEBUG: write_debug_info(data, *area); break;
        case VM_RECORD_STATE: write_state_info(data, *area); break;
        case VM_RECORD_START: write_start_info(data, *area); break;
        case VM_RECORD_TIME: write_time_info(data, *area); break;
        case VM_RECORD_MEMORY: write_memory_info(data, *area, *cluster); break;
    }
    return true;
}

int query_unique_id(int type, int id, int index) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    const ControlArea_CL* area = manager.get_control_area(index, true);
    return area != nullptr ? area->get_vm_id() : -1;
}

int query_max_vms(int id) {
    ControlAreaManager_CL manager(cluster_of(CLUSTER_TYPE_INSTANCE, id));
    return manager.is_valid() ? manager.get_max_vm_number() : -1;
}

bool query_is_valid_vm(int type, int id, int index) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    return manager.get_control_area(index, true) != nullptr;
}

// A request is raised when the VM's slot is live and its parameter and flag could be written.
// A process cluster's file that its owner cut after it was read takes no write: the request is
// then not raised, and the answer says so.

bool request_start_debugging(int type, int id, int index, int suspend) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    ControlArea_CL* area = manager.get_control_area(index, true);
    if (area == nullptr) return false;
    area->start_debugging(suspend);
    return !manager.write_failed();
}

bool request_stop_debugging(int type, int id, int index) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    ControlArea_CL* area = manager.get_control_area(index, true);
    if (area == nullptr) return false;
    area->stop_debugging();
    return !manager.write_failed();
}

bool request_exit(int type, int id, int index, int exit_code) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    ControlArea_CL* area = manager.get_control_area(index, true);
    if (area == nullptr) return false;
    area->exit(exit_code);
    return !manager.write_failed();
}
