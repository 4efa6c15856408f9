// Attaches one cluster's control-area block, creates the instance view and one per-VM view per
// slot, and hands the per-VM views out by slot index; plus the discovery of running clusters.
#ifndef NOX_NATIVES_CONTROL_AREA_MANAGER_H
#define NOX_NATIVES_CONTROL_AREA_MANAGER_H

#include "clusterInfo.h"
#include "controlArea.h"
#include "controlAreaLayout.h"
#include "cvector.h"
#include "instanceControlArea.h"
#include "sharedFile.h"
#include "sharedMemory.h"

#include <cstddef>

// A block mapped by someone else: its start and the number of bytes mapped from there.
struct MappedBlock_CL {
    void* address;
    size_t length;
};

class ControlAreaManager_CL {
public:
    // The fixed sizes used when the header is not trusted: those of the 64-bit layout.
    static const size_t DEFAULT_INSTANCE_CONTROL_AREA_SIZE = 288;
    static const size_t DEFAULT_CONTROL_AREA_SIZE = 46072;
    // More slots than this in a published header are taken as hostile: every slot costs the
    // library a view object, and no VM builds clusters of this size.
    static const int MAX_TRUSTED_SLOTS = 65536;

    // Attaches the cluster named by `info._type` and `info._id`; usable when is_valid().
    explicit ControlAreaManager_CL(const ClusterInfo_CL& info);
    // Wraps a block that is already mapped and holds `len` slots of the fixed 64-bit sizes; the
    // caller guarantees the mapping. Nothing is attached or detached.
    ControlAreaManager_CL(void* control_area, int len, ClusterType_CL type);
    // Wraps a block that is already mapped and trusts nothing in it: the header is checked as
    // for an attached cluster and every view stays inside the block's bytes.
    ControlAreaManager_CL(const MappedBlock_CL& block, ClusterType_CL type);
    ~ControlAreaManager_CL();
    ControlAreaManager_CL(const ControlAreaManager_CL&) = delete;
    ControlAreaManager_CL& operator=(const ControlAreaManager_CL&) = delete;

    // Creates the views over the attached block: `len` slots of the width `arch_type`, with the
    // header's sizes when `cluster_existing`, else the fixed 64-bit sizes.
    bool init(ArchType_CL arch_type, int len, bool cluster_existing);
    bool is_valid() const;
    int get_max_vm_number() const { return _control_areas.size(); }
    InstanceControlArea_CL* get_instance_control_area() const { return _instance_control_area; }
    ControlArea_CL* get_control_area_raw(int index) const;
    // The view of a slot in use (eyecatcher 0xDEADBEEF) and, when `only_alive`, whose VM process
    // still exists; else null.
    ControlArea_CL* get_control_area(int vm_index, bool only_alive) const;
    bool is_valid_vm_index(int index) const { return get_control_area(index, true) != nullptr; }
    // Detaches the block; the views remain but must not be used any more.
    void detach();

private:
    // Checks the header of `block_bytes` bytes at `block` and creates the views over them; on
    // refusal the manager stays not valid (the caller undoes its attachment).
    bool adopt_block(void* block, size_t block_bytes);

    const ClusterType_CL _cluster_type;
    void* _attached_area;
    bool _attached;
    J2SE::SharedFile _shared_file;
    J2SE::SharedMemory _shared_memory;
    InstanceControlArea_CL* _instance_control_area;
    J2SE::cvector<ControlArea_CL*> _control_areas;
    // Bytes mapped from _attached_area on; no view reaches beyond them.
    size_t _mapped_len;
};

class Controls {
public:
    // Appends one record per running cluster: instance clusters 0 to 98 in ascending id with a
    // nonzero live count, then every process cluster whose control-area file exists.
    static void get_running_clusters(J2SE::cvector<ClusterInfo_CL>& out);
};

#endif
