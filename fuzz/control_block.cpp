// Fuzz target: a control-area block as another process may publish it. The first input byte
// chooses the cluster type; the rest is the block, in a heap buffer of exactly its size, so that
// AddressSanitizer sees every read past its end. The manager checks the header and, when it
// accepts the block, every slot's view is read through each record writer, as the natives do.
// Requests are left out on purpose: they would signal the semaphore of whatever pid the block
// names.
#include "clusterRecords.h"
#include "controlAreaManager.h"
#include "outputStreams.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

void write_every_record(const ControlAreaManager_CL& manager) {
    ByteArrayOutputStream_CL bytes(4096);
    DataOutputStream_CL out(bytes);
    write_cluster_details(out, manager);
    const InstanceControlArea_CL* cluster = manager.get_instance_control_area();
    for (int slot = 0; slot < manager.get_max_vm_number(); slot++) {
        ControlArea_CL* area = manager.get_control_area(slot, false);
        if (area == nullptr) continue;
        write_debug_info(out, *area);
        write_state_info(out, *area);
        write_start_info(out, *area);
        write_time_info(out, *area);
        if (cluster != nullptr) write_memory_info(out, *area, *cluster);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    ClusterType_CL type = (data[0] & 1) ? CLUSTER_TYPE_INSTANCE : CLUSTER_TYPE_PROCESS;
    std::vector<unsigned char> block(data + 1, data + size);
    ControlAreaManager_CL manager(MappedBlock_CL{block.data(), block.size()}, type);
    if (manager.is_valid()) write_every_record(manager);
    return 0;
}
