#include "hostPass.h"

#include "basicInstanceControlArea.h"
#include "clusterRecords.h"
#include "controlAreaFile.h"
#include "controlAreaManager.h"
#include "cvector.h"
#include "sharedFile.h"
#include "sharedUtils.h"

#include <utility>

namespace {

const int END_OF_VMS = -1;
const int END_OF_STREAM = 0;

enum RecordKind { START_RECORD, TIME_RECORD, MEMORY_RECORD, DEBUG_RECORD };

// Writes one record behind its length: a placeholder first, the record, then its length over
// the placeholder, so that the record is laid out in the pass's buffer directly.
void write_framed(ByteArrayOutputStream_CL& buffer, DataOutputStream_CL& out, RecordKind kind,
                  const ControlArea_CL& area, const InstanceControlArea_CL* cluster) {
    if (kind == MEMORY_RECORD && cluster == nullptr) {
        out.writeInt(-1);
        return;
    }
    size_t at = buffer.size();
    out.writeInt(-1);
    switch (kind) {
        case START_RECORD: write_start_info(out, area); break;
        case TIME_RECORD: write_time_info(out, area); break;
        case MEMORY_RECORD: write_memory_info(out, area, *cluster); break;
        case DEBUG_RECORD: write_debug_info(out, area); break;
    }
    if (!out.is_ok()) return;  // the stream is cut short; Java reports the record as malformed
    size_t length = buffer.size() - at - 4;
    unsigned char big_endian[4] = {static_cast<unsigned char>(length >> 24), static_cast<unsigned char>(length >> 16),
                                   static_cast<unsigned char>(length >> 8), static_cast<unsigned char>(length)};
    buffer.overwrite(at, big_endian, sizeof big_endian);
}

void write_vm(ByteArrayOutputStream_CL& buffer, DataOutputStream_CL& out, int slot, const ControlArea_CL& area,
              const InstanceControlArea_CL* cluster) {
    int pid = area.get_pid();
    out.writeInt(slot);
    out.writeInt(pid);
    out.writeInt(area.get_vm_id());
    out.writeLong(static_cast<long>(J2SE::SharedUtils::creationtime_of_process(pid)));
    write_framed(buffer, out, START_RECORD, area, cluster);
    write_framed(buffer, out, TIME_RECORD, area, cluster);
    write_framed(buffer, out, MEMORY_RECORD, area, cluster);
    write_framed(buffer, out, DEBUG_RECORD, area, cluster);
}

void write_cluster_head(DataOutputStream_CL& out, ClusterType_CL type, int id, bool attachable, int version,
                        int slots) {
    out.writeInt(type);
    out.writeInt(id);
    out.writeBoolean(attachable);
    out.writeInt(version);
    out.writeInt(slots);
}

// An instance cluster is listed when its attach count, less the slots in use whose process has
// gone, is not 0; its live VMs are the slots in use whose process exists. Each slot's process
// is probed once for both answers.
void pass_instance_cluster(ByteArrayOutputStream_CL& buffer, DataOutputStream_CL& out, int id) {
    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, id));
    if (!manager.is_valid()) return;
    InstanceControlArea_CL* instance = manager.get_instance_control_area();
    int slots = manager.get_max_vm_number();
    J2SE::cvector<int> alive(8);
    int live = instance->get_attach_count();
    for (int slot = 0; slot < slots; slot++) {
        ControlArea_CL* view = manager.get_control_area_raw(slot);
        if (view == nullptr || !view->is_valid()) continue;
        if (J2SE::SharedUtils::process_exists(view->get_pid())) {
            alive.push_back(slot);
        } else {
            live--;
        }
    }
    if (live == 0) return;
    int version = static_cast<uint32_t>(instance->get_eyecatcher()) == INSTANCE_CONTROL_AREA_EYECATCHER
                      ? instance->get_bca_version()
                      : -1;
    write_cluster_head(out, CLUSTER_TYPE_INSTANCE, id, instance->is_compatible(), version, slots);
    for (int i = 0; i < alive.size(); i++) {
        // The slot may have been given up since it was probed: it is written only while still in use.
        ControlArea_CL* view = manager.get_control_area_raw(alive[i]);
        if (view != nullptr && view->is_valid()) write_vm(buffer, out, alive[i], *view, instance);
    }
    out.writeInt(END_OF_VMS);
}

// A process cluster is listed whenever its file can be read, as the cluster list does; its VM
// when the block is accepted and the slot's process exists.
void pass_process_cluster(ByteArrayOutputStream_CL& buffer, DataOutputStream_CL& out, const J2SE::SharedFile& file) {
    J2SE::ControlAreaCopy copy;
    if (!copy.open_and_copy(file.get_file_name(), ControlAreaManager_CL::FIRST_COPY_BYTES)) return;
    BasicHeaderFacts_CL facts = BasicInstanceControlArea_CL::read_facts(copy.block(), copy.size());
    bool eyecatcher_ok = facts.eyecatcher == INSTANCE_CONTROL_AREA_EYECATCHER;
    bool attachable = eyecatcher_ok && VersionWord_CL::major(facts.version) == CONTROL_AREA_MAJOR_VERSION;
    int version = eyecatcher_ok ? static_cast<int>(facts.version) : -1;

    ControlAreaManager_CL manager(std::move(copy));
    int slots = manager.is_valid() ? manager.get_max_vm_number() : 0;
    write_cluster_head(out, CLUSTER_TYPE_PROCESS, file.get_pid(), attachable, version, slots);
    for (int slot = 0; slot < slots; slot++) {
        // The scan has just found the file's process alive; a slot that names another process
        // is probed here.
        const ControlArea_CL* area = manager.get_control_area(slot, false);
        if (area == nullptr) continue;
        int pid = area->get_pid();
        if (pid != file.get_pid() && !J2SE::SharedUtils::process_exists(pid)) continue;
        write_vm(buffer, out, slot, *area, manager.get_instance_control_area());
    }
    out.writeInt(END_OF_VMS);
}

// The positions of `files` in ascending pid order: the scan returns directory order, which
// changes from pass to pass. Positions are sorted rather than the files, which are larger.
void order_by_pid(const J2SE::cvector<J2SE::SharedFile>& files, J2SE::cvector<int>& order) {
    for (int i = 0; i < files.size(); i++) {
        order.push_back(i);
        for (int j = order.size() - 1; j > 0 && files[order[j - 1]].get_pid() > files[order[j]].get_pid(); j--) {
            int moved = order[j];
            order[j] = order[j - 1];
            order[j - 1] = moved;
        }
    }
}

}  // namespace

void query_host_pass(ByteArrayOutputStream_CL& buffer) {
    DataOutputStream_CL out(buffer);
    out.writeInt(HOST_PASS_FORMAT);

    bool present[Controls::INSTANCE_CLUSTER_IDS];
    bool listed = Controls::present_instance_clusters(present);
    for (int id = 0; id < Controls::INSTANCE_CLUSTER_IDS; id++) {
        if (!listed || present[id]) pass_instance_cluster(buffer, out, id);
    }

    // The scan removes the files of ended processes, as every scan of the control-area files
    // does. It does not open each file to test for write access: the copy below opens it for
    // reading and writing, and a file that refuses that is skipped there, as the cluster list
    // skips it in its scan.
    J2SE::cvector<J2SE::SharedFile> files(8);
    J2SE::StdStaleSharedFileHandler handler;
    J2SE::SharedFile::get_shared_files(files, J2SE::get_controlarea_format_string(), false, false, nullptr, true,
                                       handler);
    J2SE::cvector<int> order(files.size() > 8 ? files.size() : 8);
    order_by_pid(files, order);
    for (int i = 0; i < order.size(); i++) pass_process_cluster(buffer, out, files[order[i]]);
    out.writeInt(END_OF_STREAM);
}
