// The instance control area: header facts, heap figures per shared heap area, attach count,
// unique ids and the setters, in both widths, over blocks the simulated VM publishes; plus the
// fixed-string reader and the tear-down of a block owned by the caller.
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using noxtest::Vmsim;

namespace {

std::vector<std::string> heap_figures(const char* width) {
    std::vector<std::string> args = {"--type", "process", "--width", width, "--ica-set", "unique_id=41",
                                     "--ica-set", "shared_pool_size=65536"};
    const char* arrays[] = {"heap_size", "heap_size_allocated", "heap_size_peak", "heap_size_allocated_peak"};
    for (int a = 0; a < 4; a++) {
        for (int entry = 0; entry < 5; entry++) {
            args.push_back("--ica-set");
            args.push_back(std::string(arrays[a]) + "." + std::to_string(entry) + "=" +
                           std::to_string(1000 * (a + 1) + entry));
        }
    }
    return args;
}

template <ArchType_CL arch>
void check_instance_area(const char* width) {
    Vmsim vm(heap_figures(width));
    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id()));
    ASSERT_TRUE(manager.is_valid());
    auto* ica = dynamic_cast<InstanceControlAreaImpl_CL<arch>*>(manager.get_instance_control_area());
    ASSERT_NE(nullptr, ica) << width;
    EXPECT_EQ(static_cast<int>(0xFADEBABE), ica->get_eyecatcher());
    EXPECT_EQ(1, ica->get_max_vm_number());
    EXPECT_EQ(65536u, ica->get_shared_pool_size());
    // Entry k belongs to area k + 1; areas outside the shared range yield 0.
    EXPECT_EQ(0u, ica->get_global_memory(ZULHeapLocalMisc));
    EXPECT_EQ(0u, ica->get_global_memory(ZULHeapSharedBootstrap));
    EXPECT_EQ(0u, ica->get_global_memory(ZULHeapSharedEnd));
    EXPECT_EQ(1000u, ica->get_global_memory(ZULHeapSharedClasses));
    EXPECT_EQ(1004u, ica->get_global_memory(ZULHeapSharedMisc));
    EXPECT_EQ(2002u, ica->get_global_allocated_memory(ZULHeapSharedData));
    EXPECT_EQ(3003u, ica->get_global_memory_peak(ZULHeapSharedCopyOnlyData));
    EXPECT_EQ(4001u, ica->get_global_allocated_memory_peak(ZULHeapSharedEquiClasses));
    EXPECT_EQ(1000u, ica->get_global_memory());
    EXPECT_EQ(2000u, ica->get_global_allocated_memory());
    EXPECT_EQ(3000u, ica->get_global_memory_peak());
    // Only the VM that owns the block hands out ids.
    EXPECT_FALSE(ica->is_local_control_area());
    EXPECT_EQ(0, ica->create_unique_id());
    const char* base = reinterpret_cast<const char*>(ica->get_ica_pointer());
    int32_t unique = 0;
    memcpy(&unique, base + (arch == Bit64 ? 40 : 24), 4);
    EXPECT_EQ(41, unique);
    EXPECT_TRUE(ica->init());
    ica->inc_attach_count();
    ica->inc_attach_count();
    ica->dec_attach_count();
    EXPECT_EQ(2, ica->get_attach_count());
    // A pointer-sized value is cut to 4 bytes in the 32-bit layout.
    ica->set_shared_pool_size(0x1234567890ull);
    EXPECT_EQ(arch == Bit64 ? 0x1234567890ull : 0x34567890ull, ica->get_shared_pool_size());
    ica->set_bootstrap_heap_handle(reinterpret_cast<void*>(0xABCDEF0012ull));
    uint64_t handle = 0;
    memcpy(&handle, base + (arch == Bit64 ? 240 : 128), arch == Bit64 ? 8 : 4);
    EXPECT_EQ(arch == Bit64 ? 0xABCDEF0012ull : 0xCDEF0012ull, handle);
}

}  // namespace

TEST(InstanceControlArea, FiguresAndSettersIn32Bit) {
    check_instance_area<Bit32>("32");
}

TEST(InstanceControlArea, FiguresAndSettersIn64Bit) {
    check_instance_area<Bit64>("64");
}

TEST(InstanceControlArea, DestroyZeroesTheWholeBlock) {
    // 288 + 2 * 46072 = 92432 bytes, and not one more.
    std::vector<unsigned char> block(92432 + 16, 0xAB);
    uint32_t eye = 0xFADEBABEu, version = 0x00060023u;
    int32_t slots = 2;
    uint64_t ica = 288, ca = 46072;
    memcpy(&block[0], &eye, 4);
    memcpy(&block[4], &version, 4);
    memcpy(&block[8], &slots, 4);
    memcpy(&block[16], &ica, 8);
    memcpy(&block[24], &ca, 8);
    InstanceControlAreaImpl_CL<Bit64> view(block.data());
    view.destroy();
    for (size_t i = 0; i < 92432; i++) ASSERT_EQ(0, block[i]) << i;
    for (size_t i = 92432; i < block.size(); i++) ASSERT_EQ(0xAB, block[i]) << i;
}

TEST(ControlAreaString, TextEndsAtNulOrCapacity) {
    char bytes[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    char* full = ControlAreaStringBase_CL::get_impl(bytes, 8);
    EXPECT_STREQ("abcdefgh", full);
    wrap_free(alloc_site("test"), full);
    char* cut = ControlAreaStringBase_CL::get_impl(bytes, 3);
    EXPECT_STREQ("abc", cut);
    wrap_free(alloc_site("test"), cut);
    for (int capacity : {0, -1}) {
        char* none = ControlAreaStringBase_CL::get_impl(bytes, capacity);
        EXPECT_STREQ("", none);
        wrap_free(alloc_site("test"), none);
    }
    bytes[2] = '\0';
    EXPECT_EQ(2, ControlAreaStringBase_CL::text_length(bytes, 8));
    EXPECT_STREQ("ab", ControlAreaStringBase_CL::to_cstring(bytes, 8).c_str());
}
