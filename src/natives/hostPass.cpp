#include "hostPass.h"

#include "basicInstanceControlArea.h"
#include "clusterRecords.h"
#include "controlAreaManager.h"
#include "controlAreaScan.h"
#include "cvector.h"
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

// A process whose start is already known: the one whose file or slot was just probed.
struct KnownProcess {
    int pid;
    uint64_t start;
};

void write_vm(ByteArrayOutputStream_CL& buffer, DataOutputStream_CL& out, int slot, const ControlArea_CL& area,
              const InstanceControlArea_CL* cluster, const KnownProcess& known) {
    int pid = area.get_pid();
    out.writeInt(slot);
    out.writeInt(pid);
    out.writeInt(area.get_vm_id());
    uint64_t start = pid == known.pid ? known.start : J2SE::SharedUtils::creationtime_of_process(pid);
    out.writeLong(static_cast<long>(start));
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

// A slot in use whose process exists, with the process's start.
struct LiveSlot {
    int slot;
    KnownProcess process;
};

// An instance cluster is listed when its attach count, less the slots in use whose process has
// gone, is not 0; its live VMs are the slots in use whose process exists. Each slot's process
// is probed once for both answers and its start.
void pass_instance_cluster(ByteArrayOutputStream_CL& buffer, DataOutputStream_CL& out, int id) {
    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, id));
    if (!manager.is_valid()) return;
    InstanceControlArea_CL* instance = manager.get_instance_control_area();
    int slots = manager.get_max_vm_number();
    J2SE::cvector<LiveSlot> alive(8);
    int live = instance->get_attach_count();
    for (int slot = 0; slot < slots; slot++) {
        ControlArea_CL* view = manager.get_control_area_raw(slot);
        if (view == nullptr || !view->is_valid()) continue;
        int pid = view->get_pid();
        J2SE::ProcessFacts facts = J2SE::SharedUtils::process_facts(pid, false);
        if (facts.exists != 0) {
            alive.push_back(LiveSlot{slot, KnownProcess{pid, facts.start}});
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
        ControlArea_CL* view = manager.get_control_area_raw(alive[i].slot);
        if (view != nullptr && view->is_valid()) write_vm(buffer, out, alive[i].slot, *view, instance, alive[i].process);
    }
    out.writeInt(END_OF_VMS);
}

// A process cluster is listed whenever its file can be read, as the cluster list does; its VM
// when the block is accepted and the slot's process exists.
void pass_process_cluster(ByteArrayOutputStream_CL& buffer, DataOutputStream_CL& out, const KnownProcess& owner,
                          J2SE::ControlAreaCopy& copy) {
    BasicHeaderFacts_CL facts = BasicInstanceControlArea_CL::read_facts(copy.block(), copy.size());
    bool eyecatcher_ok = facts.eyecatcher == INSTANCE_CONTROL_AREA_EYECATCHER;
    bool attachable = eyecatcher_ok && VersionWord_CL::major(facts.version) == CONTROL_AREA_MAJOR_VERSION;
    int version = eyecatcher_ok ? static_cast<int>(facts.version) : -1;

    ControlAreaManager_CL manager(std::move(copy));
    int slots = manager.is_valid() ? manager.get_max_vm_number() : 0;
    write_cluster_head(out, CLUSTER_TYPE_PROCESS, owner.pid, attachable, version, slots);
    for (int slot = 0; slot < slots; slot++) {
        // The scan has just found the file's process alive; a slot that names another process
        // is probed here.
        const ControlArea_CL* area = manager.get_control_area(slot, false);
        if (area == nullptr) continue;
        int pid = area->get_pid();
        if (pid != owner.pid && !J2SE::SharedUtils::process_exists(pid)) continue;
        write_vm(buffer, out, slot, *area, manager.get_instance_control_area(), owner);
    }
    out.writeInt(END_OF_VMS);
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
    // does, and hands out the files of live processes in ascending pid order, each copied once.
    // A file that cannot be opened for reading and writing is skipped there, as the cluster list
    // skips it in its scan.
    J2SE::ControlAreaScan scan(J2SE::get_controlarea_format_string());
    J2SE::ControlAreaCopy copy;
    KnownProcess owner{0, 0};
    while (scan.next(ControlAreaManager_CL::FIRST_COPY_BYTES, &owner.pid, &owner.start, &copy)) {
        pass_process_cluster(buffer, out, owner, copy);
    }
    out.writeInt(END_OF_STREAM);
}
