// Attaches one cluster's control-area block, creates the instance view and one per-VM view per
// slot, and hands the per-VM views out by slot index; plus the discovery of running clusters.
#ifndef NOX_NATIVES_CONTROL_AREA_MANAGER_H
#define NOX_NATIVES_CONTROL_AREA_MANAGER_H

#include "blockWriter.h"
#include "clusterInfo.h"
#include "controlArea.h"
#include "controlAreaCopy.h"
#include "controlAreaLayout.h"
#include "cvector.h"
#include "instanceControlArea.h"
#include "owned.h"
#include "sharedMemory.h"

#include <cstddef>

// A block mapped by someone else: its start and the number of bytes mapped from there.
struct MappedBlock_CL {
    void* address;
    size_t length;
};

// Puts the stores of a process cluster's views into its file (and into the copy they read).
class FileCopyWriter_CL : public BlockWriter_CL {
public:
    explicit FileCopyWriter_CL(J2SE::ControlAreaCopy& copy) : _copy(copy), _failed(false) {}
    bool write(size_t offset, const void* bytes, size_t length) override;
    // True once a store could not be made.
    bool failed() const { return _failed; }

private:
    J2SE::ControlAreaCopy& _copy;
    bool _failed;
};

// A process cluster's block is never mapped: its file belongs to the VM, which may cut it at
// any moment, and a cut under a mapping raises SIGBUS in whatever touches the lost pages. The
// manager reads a copy of the block instead, and writes requests back into the file. An
// instance cluster's System V segment cannot be cut while it is attached, so it is attached.
class ControlAreaManager_CL {
public:
    // The fixed sizes used when the header is not trusted: those of the 64-bit layout.
    static const size_t DEFAULT_INSTANCE_CONTROL_AREA_SIZE = 288;
    static const size_t DEFAULT_CONTROL_AREA_SIZE = 46072;
    // More slots than this in a published header are taken as hostile: every slot costs the
    // library a view object, and no VM builds clusters of this size.
    static const int MAX_TRUSTED_SLOTS = 65536;
    // Bytes of a process cluster's file copied at once; a block whose slot lies further out has
    // the rest copied in a second read.
    static const size_t FIRST_COPY_BYTES = 64 * 1024;

    // Attaches the cluster named by `info._type` and `info._id`; usable when is_valid().
    explicit ControlAreaManager_CL(const ClusterInfo_CL& info);
    // Adopts a process cluster's block already copied out of its file (open, so that requests
    // can still be written back); usable when is_valid(). Copies the rest of the slot when the
    // copy does not reach it.
    explicit ControlAreaManager_CL(J2SE::ControlAreaCopy&& copy);
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
    InstanceControlArea_CL* get_instance_control_area() const { return _instance_control_area.get(); }
    ControlArea_CL* get_control_area_raw(int index) const;
    // The view of a slot in use (eyecatcher 0xDEADBEEF) and, when `only_alive`, whose VM process
    // still exists; else null.
    ControlArea_CL* get_control_area(int vm_index, bool only_alive) const;
    bool is_valid_vm_index(int index) const { return get_control_area(index, true) != nullptr; }
    // Detaches the block; the views remain but must not be used any more.
    void detach();
    // True when a request could not be written into a process cluster's file, because its owner
    // cut the file after it was read.
    bool write_failed() const { return _file_writer.failed(); }

private:
    // Copies the block of process cluster `pid`: the header, the instance area and as much of
    // the slot as a view can read. False when there is no block to adopt.
    bool copy_process_cluster(int pid);
    // Checks the header of a copied block, completes the copy of its slot and keeps it.
    bool take_process_copy(J2SE::ControlAreaCopy& copy);
    // Checks the header of the block at `block`, of which `readable` bytes may be read and
    // `extent` bytes exist, and creates the views; on refusal the manager stays not valid (the
    // caller undoes its attachment).
    bool adopt_block(void* block, size_t readable, size_t extent);

    const ClusterType_CL _cluster_type;
    void* _attached_area = nullptr;
    bool _attached = false;
    J2SE::ControlAreaCopy _file_copy;
    FileCopyWriter_CL _file_writer{_file_copy};
    J2SE::SharedMemory _shared_memory;
    J2SE::Owned<InstanceControlArea_CL> _instance_control_area;
    J2SE::cvector<J2SE::Owned<ControlArea_CL>> _control_areas{8};
    // Bytes from _attached_area that the views may read, and bytes the block has (the copy of a
    // file may hold less than the file).
    size_t _mapped_len = 0;
    size_t _extent = 0;
};

class Controls {
public:
    // Instance-cluster ids are 0 to 98; 99 and above are never instance clusters.
    static const int INSTANCE_CLUSTER_IDS = 99;

    // Marks in `present[0 .. INSTANCE_CLUSTER_IDS - 1]` the ids whose control-block segment is
    // listed in /proc/sysvipc/shm (one read of the host's segment list). False when the list
    // cannot be read or parsed; every id must then be probed.
    static bool present_instance_clusters(bool* present);
    // Appends one record per running cluster: instance clusters 0 to 98 in ascending id with a
    // nonzero live count, then every process cluster whose control-area file exists.
    static void get_running_clusters(J2SE::cvector<ClusterInfo_CL>& out);
};

#endif
