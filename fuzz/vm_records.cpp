// Fuzz target: one VM's control area in either width, behind a header that the manager accepts,
// so that every run reaches the record writers. Bit 0 of the first input byte chooses the width;
// the other bytes are the block. The target then sets the header (eyecatcher, version word of that
// width, one slot, the instance area's size, and as slot size whatever the input leaves after the
// instance area) and the slot's in-use eyecatcher; every other byte, and the length, stay the
// fuzzer's. A short slot exercises the published-size guards and the strings that reach the end
// of the block.
#include "clusterRecords.h"
#include "controlAreaLayout.h"
#include "controlAreaManager.h"
#include "outputStreams.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

template <typename T>
void put(std::vector<unsigned char>& block, size_t offset, T value) {
    memcpy(block.data() + offset, &value, sizeof value);
}

template <ArchType_CL arch>
void publish_header(std::vector<unsigned char>& block) {
    typedef BasicInstanceControlAreaLayout_CL<arch> Basic;
    typedef typename ArchTraits_CL<arch>::size_type Size;
    const size_t instance_size = sizeof(InstanceControlAreaLayout_CL<arch>);
    if (block.size() < instance_size + 4) block.resize(instance_size + 4);
    uint32_t version = (CONTROL_AREA_MAJOR_VERSION << 17) | (17u << 1) | (arch == Bit64 ? 1u : 0u);
    put(block, offsetof(Basic, _eyecatcher), INSTANCE_CONTROL_AREA_EYECATCHER);
    put(block, offsetof(Basic, _version), version);
    put(block, offsetof(Basic, _max_vm_nr), int32_t(1));
    put(block, offsetof(Basic, _instance_control_area_size), static_cast<Size>(instance_size));
    put(block, offsetof(Basic, _control_area_size), static_cast<Size>(block.size() - instance_size));
    put(block, instance_size, CONTROL_AREA_EYECATCHER);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    std::vector<unsigned char> block(data + 1, data + size);
    bool wide = (data[0] & 1) != 0;
    if (wide) {
        publish_header<Bit64>(block);
    } else {
        publish_header<Bit32>(block);
    }
    ControlAreaManager_CL manager(MappedBlock_CL{block.data(), block.size()}, CLUSTER_TYPE_INSTANCE);
    if (!manager.is_valid()) __builtin_trap();  // the header above is one the manager must accept
    ControlArea_CL* area = manager.get_control_area(0, false);
    if (area == nullptr) __builtin_trap();  // slot 0 carries the in-use eyecatcher
    ByteArrayOutputStream_CL bytes(4096);
    DataOutputStream_CL out(bytes);
    write_debug_info(out, *area);
    write_state_info(out, *area);
    write_start_info(out, *area);
    write_time_info(out, *area);
    write_memory_info(out, *area, *manager.get_instance_control_area());
    if (!out.is_ok()) __builtin_trap();  // every record fits the stream's limits
    return 0;
}
