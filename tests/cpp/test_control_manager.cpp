// The manager and the header readers against blocks that a real simulated VM publishes:
// header acceptance, compatibility, short blocks, dead slots and requests seen by the VM.
// Instance-cluster ids 10-21 (see vmsimProcess.h).
#include "basicInstanceControlArea.h"
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

using noxtest::Vmsim;

namespace {

ClusterInfo_CL process_cluster(const Vmsim& vm) {
    return ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id());
}

ClusterInfo_CL instance_cluster(int id) {
    return ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, id);
}

std::vector<std::string> args(std::initializer_list<std::string> list) {
    return std::vector<std::string>(list);
}

// The start of a view's per-VM area, for checks on the raw bytes.
const char* area_bytes(ControlArea_CL* view) {
    if (auto* v64 = dynamic_cast<ControlAreaImpl_CL<Bit64>*>(view)) return reinterpret_cast<const char*>(v64->get_ca_pointer());
    if (auto* v32 = dynamic_cast<ControlAreaImpl_CL<Bit32>*>(view)) return reinterpret_cast<const char*>(v32->get_ca_pointer());
    return nullptr;
}

std::string text_of(const ControlAreaText_CL<4096>& s) {
    if (!s.is_present()) return "<null>";
    char* copy = s.get();
    std::string result(copy);
    wrap_free(alloc_site("test"), copy);
    return result;
}

}  // namespace

TEST(ControlAreaHeader, ProcessClusterOfBothWidthsIsAcceptedAndRead) {
    for (const char* width : {"32", "64"}) {
        Vmsim vm(args({"--type", "process", "--width", width, "--set", "vm_args=-Xmx1g -Dwidth=" + std::string(width),
                       "--set", "vm_id=4711"}));
        ControlAreaManager_CL manager(process_cluster(vm));
        ASSERT_TRUE(manager.is_valid()) << width;
        EXPECT_EQ(1, manager.get_max_vm_number());
        ControlArea_CL* view = manager.get_control_area(0, true);
        ASSERT_NE(nullptr, view);
        EXPECT_EQ(vm.pid(), view->get_pid());
        EXPECT_EQ(0, view->get_vm_index());
        EXPECT_EQ(4711, view->get_vm_id());
        EXPECT_EQ("-Xmx1g -Dwidth=" + std::string(width), text_of(view->get_vm_args()));
        EXPECT_EQ(std::string(width) == "64", dynamic_cast<ControlAreaImpl_CL<Bit64>*>(view) != nullptr);
        EXPECT_EQ(1, manager.get_instance_control_area()->get_attach_count());
    }
}

TEST(ControlAreaHeader, WrongEyecatcherOrMajorVersionIsRejected) {
    Vmsim bad_eye(args({"--type", "process", "--eyecatcher", "0xFADEBABF"}));
    BasicInstanceControlArea_CL eye(process_cluster(bad_eye));
    EXPECT_FALSE(eye.is_accepted());
    EXPECT_FALSE(ControlAreaManager_CL(process_cluster(bad_eye)).is_valid());

    // Major 4, minor 17, 64-bit: a perfect eyecatcher does not help.
    uint32_t major4 = (4u << 17) | (17u << 1) | 1u;
    Vmsim bad_major(args({"--type", "process", "--version", std::to_string(major4)}));
    BasicInstanceControlArea_CL major(process_cluster(bad_major));
    EXPECT_FALSE(major.is_accepted());
    EXPECT_FALSE(ControlAreaManager_CL(process_cluster(bad_major)).is_valid());

    // Another minor version of major 3 is accepted and compatible.
    uint32_t minor5 = (3u << 17) | (5u << 1) | 1u;
    Vmsim other_minor(args({"--type", "process", "--version", std::to_string(minor5)}));
    BasicInstanceControlArea_CL minor(process_cluster(other_minor));
    ASSERT_TRUE(minor.is_accepted());
    EXPECT_TRUE(minor.is_compatible());
    ControlAreaManager_CL manager(process_cluster(other_minor));
    ASSERT_TRUE(manager.is_valid());
    EXPECT_FALSE(manager.get_instance_control_area()->is_valid());
}

TEST(ControlAreaHeader, MappingMustHoldTheHeaderOfItsWidth) {
    struct Case {
        int id;
        const char* width;
        const char* block_size;
        bool accepted;
    } cases[] = {{10, "32", "19", false}, {11, "32", "20", true}, {12, "64", "31", false}, {13, "64", "32", true}};
    for (const Case& c : cases) {
        Vmsim vm(args({"--type", "instance", "--id", std::to_string(c.id), "--width", c.width, "--block-size",
                       c.block_size, "--live", "none"}));
        BasicInstanceControlArea_CL basic(instance_cluster(c.id));
        EXPECT_EQ(c.accepted, basic.is_accepted()) << c.width << " bits, " << c.block_size << " bytes";
        if (basic.is_accepted()) {
            EXPECT_EQ(std::string(c.width) == "64" ? Bit64 : Bit32, basic.get_arch_type());
            EXPECT_EQ(1, basic.get_max_vm_number());
        }
        // Far too short for the slot the header promises: the manager refuses the block whole.
        EXPECT_FALSE(ControlAreaManager_CL(instance_cluster(c.id)).is_valid());
    }
}

TEST(ControlAreaHeader, SlotCountMustFitTheClusterType) {
    Vmsim two_in_process(args({"--type", "process", "--max-vm-nr", "2"}));
    EXPECT_FALSE(BasicInstanceControlArea_CL(process_cluster(two_in_process)).is_accepted());
    EXPECT_FALSE(ControlAreaManager_CL(process_cluster(two_in_process)).is_valid());

    Vmsim none_in_instance(args({"--type", "instance", "--id", "14", "--max-vm-nr", "0", "--live", "none"}));
    EXPECT_FALSE(BasicInstanceControlArea_CL(instance_cluster(14)).is_accepted());
    EXPECT_FALSE(ControlAreaManager_CL(instance_cluster(14)).is_valid());
}

TEST(ControlAreaHeader, SixtyFourBitWordIsCompatibleButNotValid) {
    Vmsim vm64(args({"--type", "process", "--width", "64"}));
    BasicInstanceControlArea_CL basic(process_cluster(vm64));
    ASSERT_TRUE(basic.is_accepted());
    EXPECT_EQ(0x00060023u, basic.get_version());
    EXPECT_TRUE(basic.is_compatible());
    EXPECT_EQ(Bit64, basic.get_arch_type());
    EXPECT_EQ(288u, basic.get_instance_control_area_size());
    EXPECT_EQ(46072u, basic.get_control_area_size());
    ControlAreaManager_CL manager(process_cluster(vm64));
    ASSERT_TRUE(manager.is_valid());
    EXPECT_TRUE(manager.get_instance_control_area()->is_compatible());
    EXPECT_FALSE(manager.get_instance_control_area()->is_valid());
    EXPECT_EQ(393250, InstanceControlArea_CL::get_version());

    Vmsim vm32(args({"--type", "process", "--width", "32"}));
    ControlAreaManager_CL manager32(process_cluster(vm32));
    ASSERT_TRUE(manager32.is_valid());
    EXPECT_TRUE(manager32.get_instance_control_area()->is_valid());
    EXPECT_EQ(152u, manager32.get_instance_control_area()->get_instance_control_area_size());
    EXPECT_EQ(46048u, manager32.get_instance_control_area()->get_control_area_size());
}

TEST(ControlAreaManager, BlockOneByteShorterThanPromisedIsRefusedWhole) {
    // Two slots of 46072 bytes behind a 288-byte instance area need 92432 bytes.
    {
        Vmsim vm(args({"--type", "instance", "--id", "15", "--slots", "2", "--block-size", "92431"}));
        ControlAreaManager_CL manager(instance_cluster(15));
        EXPECT_FALSE(manager.is_valid());
        EXPECT_EQ(nullptr, manager.get_control_area(0, false));
        EXPECT_EQ(nullptr, manager.get_control_area_raw(0));
    }
    Vmsim vm(args({"--type", "instance", "--id", "15", "--slots", "2", "--block-size", "92432"}));
    ControlAreaManager_CL manager(instance_cluster(15));
    ASSERT_TRUE(manager.is_valid());
    EXPECT_EQ(2, manager.get_max_vm_number());
    std::vector<int> pids = vm.slot_pids();
    ASSERT_EQ(2u, pids.size());
    for (int slot = 0; slot < 2; slot++) {
        ControlArea_CL* view = manager.get_control_area(slot, true);
        ASSERT_NE(nullptr, view) << slot;
        EXPECT_EQ(pids[slot], view->get_pid());
        EXPECT_EQ(slot, view->get_vm_index());
    }
}

TEST(ControlAreaManager, ProcessFileShorterThanPromisedIsRefused) {
    // The lead-in of the file does not count towards the block.
    Vmsim vm(args({"--type", "process", "--block-size", std::to_string(288 + 46072 - 1)}));
    EXPECT_TRUE(BasicInstanceControlArea_CL(process_cluster(vm)).is_accepted());
    EXPECT_FALSE(ControlAreaManager_CL(process_cluster(vm)).is_valid());
}

TEST(ControlAreaManager, DeadSlotIsFoundOnlyWhenLivenessIsNotAsked) {
    Vmsim vm(args({"--type", "instance", "--id", "16", "--slots", "3", "--live", "0", "--dead", "1"}));
    ControlAreaManager_CL manager(instance_cluster(16));
    ASSERT_TRUE(manager.is_valid());
    ASSERT_EQ(3, manager.get_max_vm_number());
    EXPECT_NE(nullptr, manager.get_control_area(0, true));
    EXPECT_TRUE(manager.is_valid_vm_index(0));
    ControlArea_CL* dead = manager.get_control_area(1, false);
    ASSERT_NE(nullptr, dead);
    EXPECT_EQ(vm.slot_pids()[1], dead->get_pid());
    EXPECT_EQ(0, J2SE::SharedUtils::process_exists(dead->get_pid()));
    EXPECT_EQ(nullptr, manager.get_control_area(1, true));
    EXPECT_FALSE(manager.is_valid_vm_index(1));
    // Slot 2 is not in use: its eyecatcher is 0.
    EXPECT_NE(nullptr, manager.get_control_area_raw(2));
    EXPECT_EQ(nullptr, manager.get_control_area(2, false));
    EXPECT_EQ(nullptr, manager.get_control_area(-1, false));
    EXPECT_EQ(nullptr, manager.get_control_area(3, false));
    EXPECT_EQ(nullptr, manager.get_control_area_raw(-1));
    EXPECT_EQ(nullptr, manager.get_control_area_raw(3));
}

TEST(ControlAreaManager, SlotOfAVmThatDiesAfterwardsIsNoLongerAlive) {
    Vmsim vm(args({"--type", "instance", "--id", "17", "--slots", "2"}));
    ControlAreaManager_CL manager(instance_cluster(17));
    ASSERT_TRUE(manager.is_valid());
    int victim = vm.slot_pids()[1];
    ASSERT_NE(nullptr, manager.get_control_area(1, true));
    kill(victim, SIGKILL);
    ASSERT_EQ("EXITED slot=1 pid=" + std::to_string(victim) + " code=137", vm.wait_for("EXITED"));
    EXPECT_NE(nullptr, manager.get_control_area(1, false));
    EXPECT_EQ(nullptr, manager.get_control_area(1, true));
    EXPECT_NE(nullptr, manager.get_control_area(0, true));
}

TEST(ControlAreaManager, ThirtyTwoBitSizesAreSignedAndWidened) {
    Vmsim vm(args({"--type", "instance", "--id", "18", "--width", "32", "--ca-size", "-5", "--live", "none"}));
    BasicInstanceControlArea_CL basic(instance_cluster(18));
    ASSERT_TRUE(basic.is_accepted());
    EXPECT_EQ(static_cast<size_t>(-5), basic.get_control_area_size());
    EXPECT_EQ(152u, basic.get_instance_control_area_size());
    // No mapping holds a negative size: the manager ends not valid without reading anything.
    EXPECT_FALSE(ControlAreaManager_CL(instance_cluster(18)).is_valid());

    // 0x80000000 published as a 32-bit size is negative as well.
    Vmsim vm2(args({"--type", "instance", "--id", "19", "--width", "32", "--ica-size", "0x80000000", "--live",
                    "none"}));
    BasicInstanceControlArea_CL basic2(instance_cluster(19));
    ASSERT_TRUE(basic2.is_accepted());
    EXPECT_EQ(static_cast<size_t>(static_cast<int64_t>(INT32_MIN)), basic2.get_instance_control_area_size());
    EXPECT_FALSE(ControlAreaManager_CL(instance_cluster(19)).is_valid());
}

TEST(ControlAreaRequests, UnsupportedFlagPrintsTheMessageAndWritesNothing) {
    Vmsim vm(args({"--type", "process"}));
    ControlAreaManager_CL manager(process_cluster(vm));
    ASSERT_TRUE(manager.is_valid());
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    std::vector<char> before(area_bytes(view), area_bytes(view) + 46072);
    for (int flag : {28, -1, 1000}) {
        fflush(stdout);
        testing::internal::CaptureStdout();
        EXPECT_EQ(nullptr, view->get_flag_address(static_cast<ControlArea_CL::ControlAreaFlags>(flag)));
        view->set_flag(static_cast<ControlArea_CL::ControlAreaFlags>(flag));
        fflush(stdout);
        std::string printed = testing::internal::GetCapturedStdout();
        std::string once = "Flag " + std::to_string(flag) + " not supported by the monitored VM";
        EXPECT_EQ(once + once, printed);
    }
    EXPECT_EQ(0, memcmp(before.data(), area_bytes(view), before.size()));
}

TEST(ControlAreaRequests, FlagsLieAtTheirFieldsInBothWidths) {
    // The enum order is not the layout order: 16 (exit) lies at 76, 20 (method trace filter) at 68.
    for (const char* width : {"32", "64"}) {
        Vmsim vm(args({"--type", "process", "--width", width}));
        ControlAreaManager_CL manager(process_cluster(vm));
        ASSERT_TRUE(manager.is_valid());
        ControlArea_CL* view = manager.get_control_area(0, true);
        const char* base = area_bytes(view);
        bool wide = std::string(width) == "64";
        struct { int flag; size_t offset; } expected[] = {
            {0, 4}, {15, 64}, {16, 76}, {17, 80}, {19, 88}, {20, 68}, {21, 72}, {23, 96},
            {24, wide ? 25092u : 25068u}, {25, wide ? 29204u : 29180u}, {26, wide ? 29208u : 29184u},
            {27, wide ? 35368u : 35344u}};
        for (auto e : expected) {
            EXPECT_EQ(base + e.offset,
                      reinterpret_cast<const char*>(view->get_flag_address(static_cast<ControlArea_CL::ControlAreaFlags>(e.flag))))
                << width << " flag " << e.flag;
        }
    }
}

TEST(ControlAreaRequests, StartAndStopDebuggingReachTheVm) {
    for (const char* width : {"32", "64"}) {
        Vmsim vm(args({"--type", "process", "--width", width, "--set", "from_port=9100"}));
        ControlAreaManager_CL manager(process_cluster(vm));
        ControlArea_CL* view = manager.get_control_area(0, true);
        ASSERT_NE(nullptr, view);
        EXPECT_EQ(ZUL_DEBUGGING_STATE_NOT_ACTIVE, view->get_debugging_state());
        view->start_debugging(2);
        EXPECT_FALSE(manager.write_failed());
        std::string pid = std::to_string(vm.pid());
        // The VM saw the suspend policy that was stored before the flag.
        EXPECT_EQ("REQUEST slot=0 pid=" + pid + " flag=start_debugging suspend=2", vm.wait_for("REQUEST"));
        // A process cluster is read from a copy of its file: a new manager sees what the VM did.
        {
            ControlAreaManager_CL after(process_cluster(vm));
            ControlArea_CL* now = after.get_control_area(0, true);
            ASSERT_NE(nullptr, now);
            EXPECT_EQ(ZUL_DEBUGGING_STATE_WAIT_FOR_DEBUGGER, now->get_debugging_state());
            EXPECT_EQ(9100, now->get_current_debug_port());
            EXPECT_EQ(0, *now->get_flag_address(ControlArea_CL::ZUL_CONTROLS_START_DEBUGGING));
            now->stop_debugging();
            EXPECT_FALSE(after.write_failed());
        }
        EXPECT_EQ("REQUEST slot=0 pid=" + pid + " flag=stop_debugging", vm.wait_for("REQUEST"));
        ControlAreaManager_CL stopped(process_cluster(vm));
        ControlArea_CL* now = stopped.get_control_area(0, true);
        ASSERT_NE(nullptr, now);
        EXPECT_EQ(ZUL_DEBUGGING_STATE_NOT_ACTIVE, now->get_debugging_state());
        EXPECT_EQ(-1, now->get_current_debug_port());
    }
}

TEST(ControlAreaRequests, SettersChangeTheAreaWithoutARequest) {
    Vmsim vm(args({"--type", "process", "--set", "can_debug_on_demand=0"}));
    ControlAreaManager_CL manager(process_cluster(vm));
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    EXPECT_FALSE(view->can_debug_on_demand());
    view->set_debug_on_demand(true);
    view->set_current_debug_port(5005);
    EXPECT_TRUE(view->can_debug_on_demand());
    EXPECT_EQ(5005, view->get_current_debug_port());
    EXPECT_EQ(1, area_bytes(view)[400]);
}

TEST(ControlAreaRequests, ExitRequestEndsTheProcessVmWithItsCode) {
    Vmsim vm(args({"--type", "process", "--width", "32"}));
    std::string file = vm.field("file");
    ControlAreaManager_CL manager(process_cluster(vm));
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    view->exit(7);
    EXPECT_EQ("REQUEST slot=0 pid=" + std::to_string(vm.pid()) + " flag=exit code=7", vm.wait_for("REQUEST"));
    EXPECT_EQ(7, vm.wait_exit());
    EXPECT_FALSE(noxtest::path_exists(file));
}

TEST(ControlAreaRequests, ExitRequestEndsOneVmOfAnInstanceCluster) {
    Vmsim vm(args({"--type", "instance", "--id", "20", "--slots", "2"}));
    ControlAreaManager_CL manager(instance_cluster(20));
    ASSERT_TRUE(manager.is_valid());
    EXPECT_EQ(2, manager.get_instance_control_area()->get_attach_count());
    ControlArea_CL* view = manager.get_control_area(1, true);
    ASSERT_NE(nullptr, view);
    int pid = vm.slot_pids()[1];
    view->exit(5);
    EXPECT_EQ("EXITED slot=1 pid=" + std::to_string(pid) + " code=5", vm.wait_for("EXITED"));
    // The VM left cleanly: its slot is free and it no longer counts as attached.
    EXPECT_EQ(nullptr, manager.get_control_area(1, false));
    EXPECT_EQ(1, manager.get_instance_control_area()->get_attach_count());
    EXPECT_NE(nullptr, manager.get_control_area(0, true));
}

TEST(Vmsim, RemovesWhatItCreatedWhenItEnds) {
    std::string file;
    int segment_key = 0;
    std::vector<int> event_keys;
    {
        Vmsim process(args({"--type", "process"}));
        Vmsim instance(args({"--type", "instance", "--id", "21", "--slots", "2"}));
        file = process.field("file");
        segment_key = std::stoi(instance.field("segment_key"));
        event_keys = noxtest::int_list(process.field("event_keys"));
        for (int key : noxtest::int_list(instance.field("event_keys"))) event_keys.push_back(key);
        ASSERT_EQ(3u, event_keys.size());
        EXPECT_TRUE(noxtest::path_exists(file));
        EXPECT_NE(-1, shmget(segment_key, 0, 0));
        for (int key : event_keys) EXPECT_NE(-1, semget(key, 1, 0)) << key;
    }
    EXPECT_FALSE(noxtest::path_exists(file));
    EXPECT_EQ(-1, shmget(segment_key, 0, 0));
    for (int key : event_keys) EXPECT_EQ(-1, semget(key, 1, 0)) << key;
}
