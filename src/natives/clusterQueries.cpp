#include "clusterQueries.h"

#include "allocations.h"
#include "clusterRecords.h"
#include "controlAreaFile.h"
#include "controlAreaManager.h"

#include <new>

// The manager of one call: the cluster named by Java, with "not attachable" and version -1 as
// the record's other fields.
static ClusterInfo_CL cluster_of(int type, int id) {
    return ClusterInfo_CL(false, -1, static_cast<ClusterType_CL>(type), id);
}

// The cluster of one query that only reads. A process cluster's block is copied out of its
// file with one read: mapping the file would cost an unmap of tens of microseconds plus a page
// fault for every page the record touches, while the copy of a whole block costs a few. The
// copy is checked exactly as a mapping would be. An instance cluster, and a file too large for
// the copy, is attached as usual.
class ReadOnlyCluster {
public:
    ReadOnlyCluster(int type, int id) : _copy(nullptr), _manager(nullptr) {
        if (type == CLUSTER_TYPE_PROCESS) _manager = copied_manager(id);
        if (_manager == nullptr) _manager = new (_storage) ControlAreaManager_CL(cluster_of(type, id));
    }
    ~ReadOnlyCluster() {
        _manager->~ControlAreaManager_CL();
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/natives/clusterQueries.cpp:~ReadOnlyCluster"), _copy);
    }
    ReadOnlyCluster(const ReadOnlyCluster&) = delete;
    ReadOnlyCluster& operator=(const ReadOnlyCluster&) = delete;

    const ControlAreaManager_CL& manager() const { return *_manager; }

private:
    // Bytes copied at most; a block that fills them may be larger and is attached instead.
    static const size_t COPY_LIMIT = 64 * 1024;

    ControlAreaManager_CL* copied_manager(int pid) {
        _copy = static_cast<unsigned char*>(
            wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/natives/clusterQueries.cpp:copied_manager"), COPY_LIMIT));
        if (_copy == nullptr) return nullptr;
        size_t copied = 0;
        if (!J2SE::ControlAreaFile::read_control_area_header(pid, _copy, COPY_LIMIT, &copied) || copied == 0 ||
            copied >= COPY_LIMIT) {
            return nullptr;
        }
        MappedBlock_CL block = {_copy, copied};
        return new (_storage) ControlAreaManager_CL(block, CLUSTER_TYPE_PROCESS);
    }

    unsigned char* _copy;
    alignas(ControlAreaManager_CL) unsigned char _storage[sizeof(ControlAreaManager_CL)];
    ControlAreaManager_CL* _manager;
};

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
    ReadOnlyCluster cluster_view(type, id);
    const ControlAreaManager_CL& manager = cluster_view.manager();
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
    ReadOnlyCluster cluster_view(type, id);
    const ControlArea_CL* area = cluster_view.manager().get_control_area(index, true);
    return area != nullptr ? area->get_vm_id() : -1;
}

int query_max_vms(int id) {
    ControlAreaManager_CL manager(cluster_of(CLUSTER_TYPE_INSTANCE, id));
    return manager.is_valid() ? manager.get_max_vm_number() : -1;
}

bool query_is_valid_vm(int type, int id, int index) {
    ReadOnlyCluster cluster_view(type, id);
    return cluster_view.manager().get_control_area(index, true) != nullptr;
}

// The area of a live VM, for a request; the manager keeps it mapped until it goes out of scope.
static ControlArea_CL* live_area(ControlAreaManager_CL& manager, int index) {
    return manager.get_control_area(index, true);
}

bool request_start_debugging(int type, int id, int index, int suspend) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    ControlArea_CL* area = live_area(manager, index);
    if (area == nullptr) return false;
    area->start_debugging(suspend);
    return true;
}

bool request_stop_debugging(int type, int id, int index) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    ControlArea_CL* area = live_area(manager, index);
    if (area == nullptr) return false;
    area->stop_debugging();
    return true;
}

bool request_exit(int type, int id, int index, int exit_code) {
    ControlAreaManager_CL manager(cluster_of(type, id));
    ControlArea_CL* area = live_area(manager, index);
    if (area == nullptr) return false;
    area->exit(exit_code);
    return true;
}
