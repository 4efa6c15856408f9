// Reading exactly what a block holds: texts that begin inside a block and end before its end
// are read whole even when their capacity reaches beyond it, and the instance view and the slots
// of a block that ends early read as far as the block goes. Real control-area files of a live
// process and real System V segments under instance-cluster ids 1 to 3 (see vmsimProcess.h).
#include "clusterQueries.h"
#include "controlAreaManager.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <vector>

namespace {

template <typename T>
void put(std::vector<unsigned char>& bytes, size_t offset, T value) {
    memcpy(&bytes[offset], &value, sizeof value);
}

void put_text(std::vector<unsigned char>& bytes, size_t offset, const std::string& text) {
    memcpy(&bytes[offset], text.data(), text.size());
}

// A 64-bit block of one slot whose published per-VM size is `per_vm_size`, as long as promised:
// 288 + per_vm_size bytes. The slot is in use and names `pid`.
std::vector<unsigned char> one_slot_block(uint64_t per_vm_size, int32_t pid) {
    std::vector<unsigned char> block(288 + per_vm_size, 0);
    put<uint32_t>(block, 0, 0xFADEBABEu);
    put<uint32_t>(block, 4, 0x00060023u);
    put<int32_t>(block, 8, 1);
    put<uint64_t>(block, 16, 288);
    put<uint64_t>(block, 24, per_vm_size);
    put<int32_t>(block, 288 + 0, static_cast<int32_t>(0xDEADBEEFu));
    put<int32_t>(block, 288 + 112, pid);
    return block;
}

// Writes `block` behind the 8-byte lead-in as the control-area file of `pid`.
void write_control_area_file(const std::string& path, const std::vector<unsigned char>& block) {
    std::vector<unsigned char> file(8, 0);
    file.insert(file.end(), block.begin(), block.end());
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(file.size()), write(fd, file.data(), file.size()));
    close(fd);
}

// The strings of a start record, decoded (eight length-prefixed strings, two booleans).
std::vector<std::string> start_record_strings(const ByteArrayOutputStream_CL& out) {
    std::vector<std::string> strings;
    const unsigned char* p = out.data();
    const unsigned char* end = p + out.size();
    for (int i = 0; i < 8 && p + 2 <= end; i++) {
        size_t length = (static_cast<size_t>(p[0]) << 8) | p[1];
        p += 2;
        if (p + length > end) break;
        strings.push_back(std::string(reinterpret_cast<const char*>(p), length));
        p += length;
    }
    return strings;
}

// A segment created under an instance-cluster key for one test and removed at its end.
class ClusterSegment {
public:
    ClusterSegment(int id, const std::vector<unsigned char>& bytes) : _id(-1) {
        _id = shmget(4500000 + id * 100, bytes.size(), IPC_CREAT | IPC_EXCL | 0600);
        if (_id == -1) return;
        void* address = shmat(_id, nullptr, 0);
        if (address == reinterpret_cast<void*>(-1)) return;
        memcpy(address, bytes.data(), bytes.size());
        shmdt(address);
    }
    ~ClusterSegment() {
        if (_id != -1) shmctl(_id, IPC_RMID, nullptr);
    }
    bool ok() const { return _id != -1; }

private:
    int _id;
};

}  // namespace

TEST(BlockExtent, TextsAreReadAsFarAsTheBlockHoldsThem) {
    noxtest::LiveChild vm;
    std::string path = "/tmp/nox_jvm_" + std::to_string(geteuid()) + "_" + std::to_string(vm.pid());
    noxtest::ScopedPath cleanup(path);
    // The published size reaches the version text (offset 14280 in the 64-bit layout) and ends
    // 10 bytes into its 256; the block is exactly as long as the header promises.
    const size_t version = 14280;
    std::vector<unsigned char> block = one_slot_block(version + 10, vm.pid());
    put_text(block, 288 + version, std::string("17.0.9\0", 7));
    write_control_area_file(path, block);

    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.pid()));
    ASSERT_TRUE(manager.is_valid());
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    EXPECT_TRUE(view->get_vm_version().is_present());
    EXPECT_STREQ("17.0.9", view->get_vm_version().to_cstring().c_str());
    // Texts that begin beyond the published size are absent; the work dir (13256) lies inside
    // and is empty.
    EXPECT_FALSE(view->get_vm_tag().is_present());
    EXPECT_STREQ("", view->get_vm_work_dir().to_cstring().c_str());

    ByteArrayOutputStream_CL record(1024);
    ASSERT_TRUE(query_vm_record(CLUSTER_TYPE_PROCESS, vm.pid(), 0, VM_RECORD_START, record));
    std::vector<std::string> strings = start_record_strings(record);
    ASSERT_EQ(8u, strings.size());
    EXPECT_EQ("17.0.9", strings[0]);

    // A text that reaches the end of the block without a terminator stops there.
    put_text(block, 288 + version, "0123456789");
    write_control_area_file(path, block);
    ByteArrayOutputStream_CL cut(1024);
    ASSERT_TRUE(query_vm_record(CLUSTER_TYPE_PROCESS, vm.pid(), 0, VM_RECORD_START, cut));
    strings = start_record_strings(cut);
    ASSERT_EQ(8u, strings.size());
    EXPECT_EQ("0123456789", strings[0]);

    // The deliberate guard still holds: a published size one byte short of the text's offset
    // leaves it unread, even though the file holds more bytes.
    block = one_slot_block(version - 1, vm.pid());
    block.resize(block.size() + 400, 0);
    put_text(block, 288 + version, std::string("17.0.9\0", 7));
    write_control_area_file(path, block);
    ControlAreaManager_CL short_size(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.pid()));
    ASSERT_TRUE(short_size.is_valid());
    EXPECT_FALSE(short_size.get_control_area(0, true)->get_vm_version().is_present());
}

TEST(BlockExtent, InstanceViewReadsOnlyWhatTheBlockHolds) {
    // A 64-bit header accepted at exactly its 32 bytes, with sizes 0 and one slot: a cluster of
    // one slot, which is not in use (its eyecatcher would be the header's own).
    std::vector<unsigned char> wide(32, 0);
    put<uint32_t>(wide, 0, 0xFADEBABEu);
    put<uint32_t>(wide, 4, 0x00060023u);
    put<int32_t>(wide, 8, 1);
    ClusterSegment wide_segment(1, wide);
    ASSERT_TRUE(wide_segment.ok()) << "instance-cluster id 1 is in use on this host";
    EXPECT_EQ(1, query_max_vms(1));
    EXPECT_FALSE(query_is_valid_vm(CLUSTER_TYPE_INSTANCE, 1, 0));
    {
        ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, 1));
        ASSERT_TRUE(manager.is_valid());
        InstanceControlArea_CL* instance = manager.get_instance_control_area();
        EXPECT_TRUE(instance->is_compatible());
        // Fields behind the 32 bytes read as 0.
        EXPECT_EQ(0, instance->get_attach_count());
        EXPECT_EQ(0u, instance->get_global_memory());
        EXPECT_EQ(0u, instance->get_shared_pool_size());
    }

    // The same for a 32-bit header at exactly its 20 bytes.
    std::vector<unsigned char> narrow(20, 0);
    put<uint32_t>(narrow, 0, 0xFADEBABEu);
    put<uint32_t>(narrow, 4, 0x00060022u);
    put<int32_t>(narrow, 8, 1);
    ClusterSegment narrow_segment(2, narrow);
    ASSERT_TRUE(narrow_segment.ok()) << "instance-cluster id 2 is in use on this host";
    EXPECT_EQ(1, query_max_vms(2));

    // Exactly what the header promises: a 288-byte instance area and 3 slots of size 0 in a
    // 288-byte segment. No slot has a byte in the block, so none is in use, but there are 3.
    std::vector<unsigned char> three(288, 0);
    put<uint32_t>(three, 0, 0xFADEBABEu);
    put<uint32_t>(three, 4, 0x00060023u);
    put<int32_t>(three, 8, 3);
    put<uint64_t>(three, 16, 288);
    put<uint64_t>(three, 24, 0);
    ClusterSegment three_segment(3, three);
    ASSERT_TRUE(three_segment.ok()) << "instance-cluster id 3 is in use on this host";
    EXPECT_EQ(3, query_max_vms(3));
    for (int slot = 0; slot < 3; slot++) EXPECT_FALSE(query_is_valid_vm(CLUSTER_TYPE_INSTANCE, 3, slot)) << slot;
    ByteArrayOutputStream_CL details(1024);
    ASSERT_TRUE(query_cluster_details(3, details));
    // 3 slots, no live one, the end mark.
    ASSERT_EQ(8u, details.size());
    const unsigned char expected[8] = {0, 0, 0, 3, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(0, memcmp(expected, details.data(), 8));
}

TEST(BlockExtent, ProcessClusterSlotFarBehindItsInstanceAreaIsCopiedToo) {
    // A header that places the slot 200000 bytes into the block: the first copy does not reach
    // it, a second read fetches the slot, and the VM is found with its figures.
    noxtest::LiveChild vm;
    std::string path = "/tmp/nox_jvm_" + std::to_string(geteuid()) + "_" + std::to_string(vm.pid());
    noxtest::ScopedPath cleanup(path);
    const uint64_t instance = 200000;
    std::vector<unsigned char> block(instance + 46072, 0);
    put<uint32_t>(block, 0, 0xFADEBABEu);
    put<uint32_t>(block, 4, 0x00060023u);
    put<int32_t>(block, 8, 1);
    put<uint64_t>(block, 16, instance);
    put<uint64_t>(block, 24, 46072);
    put<int32_t>(block, instance, static_cast<int32_t>(0xDEADBEEFu));
    put<int32_t>(block, instance + 112, vm.pid());
    put<int32_t>(block, instance + 120, 4242);  // VM id
    write_control_area_file(path, block);
    EXPECT_EQ(4242, query_unique_id(CLUSTER_TYPE_PROCESS, vm.pid(), 0));
    // One byte less than promised: refused whole.
    block.pop_back();
    write_control_area_file(path, block);
    EXPECT_EQ(-1, query_unique_id(CLUSTER_TYPE_PROCESS, vm.pid(), 0));
}
