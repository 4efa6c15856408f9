// Headers, the manager and discovery against clusters that the simulated VM publishes: which
// headers are accepted, blocks shorter than they promise, slots whose VM has ended, and the list
// of running clusters. Instance-cluster ids: see vmsimProcess.h.
#include "basicInstanceControlArea.h"
#include "clusterQueries.h"
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

using noxtest::Vmsim;

namespace {

ClusterInfo_CL cluster_of(const Vmsim& vm) {
    bool instance = vm.field("type") == "instance";
    return ClusterInfo_CL(false, -1, instance ? CLUSTER_TYPE_INSTANCE : CLUSTER_TYPE_PROCESS, vm.id());
}

std::vector<ClusterInfo_CL> running_clusters(J2SE::cvector<ClusterInfo_CL>& found) {
    Controls::get_running_clusters(found);
    std::vector<ClusterInfo_CL> out;
    for (int i = 0; i < found.size(); i++) out.push_back(found[i]);
    return out;
}

int index_of(const std::vector<ClusterInfo_CL>& list, ClusterType_CL type, int id) {
    for (size_t i = 0; i < list.size(); i++) {
        if (list[i]._type == type && list[i]._id == id) return static_cast<int>(i);
    }
    return -1;
}

std::string version(unsigned major, unsigned minor, bool wide) {
    return std::to_string((major << 17) | (minor << 1) | (wide ? 1u : 0u));
}

}  // namespace

TEST(ControlAreaHeader, WhichHeadersAreAccepted) {
    struct Case {
        std::vector<std::string> args;
        bool accepted;          // the basic header is accepted
        bool valid;             // the manager takes the block
        bool instance_valid;    // the instance area is of this library's exact version
    } cases[] = {
        {{"--type", "process", "--width", "32"}, true, true, true},
        {{"--type", "process", "--width", "64"}, true, true, false},  // compatible, not the exact word
        {{"--type", "process", "--version", version(3, 5, true)}, true, true, false},
        {{"--type", "process", "--version", version(4, 17, true)}, false, false, false},
        {{"--type", "process", "--eyecatcher", "0xFADEBABF"}, false, false, false},
        {{"--type", "process", "--max-vm-nr", "2"}, false, false, false},
        {{"--type", "instance", "--id", "14", "--max-vm-nr", "0", "--live", "none"}, false, false, false},
        // A header of each width, one byte short and exactly whole; its one promised slot is
        // far beyond such a block, so the manager refuses every one.
        {{"--type", "instance", "--id", "10", "--width", "32", "--block-size", "19", "--live", "none"}, false, false, false},
        {{"--type", "instance", "--id", "11", "--width", "32", "--block-size", "20", "--live", "none"}, true, false, false},
        {{"--type", "instance", "--id", "12", "--width", "64", "--block-size", "31", "--live", "none"}, false, false, false},
        {{"--type", "instance", "--id", "13", "--width", "64", "--block-size", "32", "--live", "none"}, true, false, false},
        // Two slots of 46072 bytes behind a 288-byte instance area need 92432 bytes; a process
        // cluster's file has an 8-byte lead-in that does not count towards the block.
        {{"--type", "instance", "--id", "15", "--slots", "2", "--block-size", "92431"}, true, false, false},
        {{"--type", "instance", "--id", "15", "--slots", "2", "--block-size", "92432"}, true, true, false},
        {{"--type", "process", "--block-size", std::to_string(288 + 46072 - 1)}, true, false, false},
    };
    for (const Case& c : cases) {
        Vmsim vm(c.args);
        std::string name = vm.ready_line();
        BasicInstanceControlArea_CL basic(cluster_of(vm));
        ControlAreaManager_CL manager(cluster_of(vm));
        EXPECT_EQ(c.accepted, basic.is_accepted()) << name;
        EXPECT_EQ(c.valid, manager.is_valid()) << name;
        if (!manager.is_valid()) {
            EXPECT_EQ(nullptr, manager.get_control_area_raw(0)) << name;
            continue;
        }
        InstanceControlArea_CL* instance = manager.get_instance_control_area();
        EXPECT_TRUE(instance->is_compatible()) << name;
        EXPECT_EQ(c.instance_valid, instance->is_valid()) << name;
        bool wide = vm.field("width") == "64";
        EXPECT_EQ(wide ? Bit64 : Bit32, basic.get_arch_type());
        EXPECT_EQ(wide ? 288u : 152u, instance->get_instance_control_area_size()) << name;
        EXPECT_EQ(wide ? 46072u : 46048u, instance->get_control_area_size()) << name;
        ASSERT_EQ(static_cast<int>(vm.slot_pids().size()), manager.get_max_vm_number()) << name;
        for (int slot = 0; slot < manager.get_max_vm_number(); slot++) {
            ControlArea_CL* view = manager.get_control_area(slot, true);
            ASSERT_NE(nullptr, view) << name;
            EXPECT_EQ(vm.slot_pids()[slot], view->get_pid());
            EXPECT_EQ(slot, view->get_vm_index());
            EXPECT_EQ(wide, dynamic_cast<ControlAreaImpl_CL<Bit64>*>(view) != nullptr);
        }
    }
}

TEST(ControlAreaManager, OnlySlotsInUseAndOnlyLiveVmsAreHandedOut) {
    // Slot 0 and 3 live, slot 1 names an ended process, slot 2 is not in use (eyecatcher 0).
    Vmsim vm({"--type", "instance", "--id", "16", "--slots", "4", "--live", "0,3", "--dead", "1"});
    ControlAreaManager_CL manager(cluster_of(vm));
    ASSERT_TRUE(manager.is_valid());
    ASSERT_EQ(4, manager.get_max_vm_number());
    ASSERT_NE(nullptr, manager.get_control_area(0, true));
    ASSERT_NE(nullptr, manager.get_control_area(1, false));
    EXPECT_EQ(vm.slot_pids()[1], manager.get_control_area(1, false)->get_pid());
    EXPECT_EQ(nullptr, manager.get_control_area(1, true));
    EXPECT_NE(nullptr, manager.get_control_area_raw(2));
    EXPECT_EQ(nullptr, manager.get_control_area(2, false));
    for (int outside : {-1, 4}) {
        EXPECT_EQ(nullptr, manager.get_control_area_raw(outside));
        EXPECT_EQ(nullptr, manager.get_control_area(outside, false));
    }
    // The cluster's details list the live VMs only: slot count, then slot, pid and VM id of each,
    // then -1.
    ByteArrayOutputStream_CL details(1024);
    ASSERT_TRUE(query_cluster_details(16, details));
    std::vector<int> ints;
    for (size_t at = 0; at + 4 <= details.size(); at += 4) {
        const unsigned char* b = details.data() + at;
        ints.push_back(static_cast<int>((uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3]));
    }
    ASSERT_EQ(8u, ints.size());
    EXPECT_EQ(4, ints[0]);
    EXPECT_EQ(0, ints[1]);
    EXPECT_EQ(vm.slot_pids()[0], ints[2]);
    EXPECT_EQ(3, ints[4]);
    EXPECT_EQ(vm.slot_pids()[3], ints[5]);
    EXPECT_EQ(-1, ints[7]);
    // An exit request ends the VM of slot 0, which leaves cleanly: its slot is free and it no
    // longer counts as attached (3 slots were in use).
    EXPECT_EQ(3, manager.get_instance_control_area()->get_attach_count());
    manager.get_control_area(0, true)->exit(5);
    EXPECT_EQ("EXITED slot=0 pid=" + std::to_string(vm.slot_pids()[0]) + " code=5", vm.wait_for("EXITED"));
    EXPECT_EQ(nullptr, manager.get_control_area(0, false));
    EXPECT_EQ(2, manager.get_instance_control_area()->get_attach_count());
    // A VM that dies after the manager was made is no longer alive.
    int victim = vm.slot_pids()[3];
    ASSERT_NE(nullptr, manager.get_control_area(3, true));
    kill(victim, SIGKILL);
    ASSERT_EQ("EXITED slot=3 pid=" + std::to_string(victim) + " code=137", vm.wait_for("EXITED"));
    EXPECT_NE(nullptr, manager.get_control_area(3, false));
    EXPECT_EQ(nullptr, manager.get_control_area(3, true));
}

// Every published cluster is listed with what its header says (an id of 99 never is; an instance
// cluster only while its attach count, less the slots of ended VMs, is above 0), instances
// first, in ascending id, behind what the list held; and nothing once the VMs have ended.
TEST(ClusterDiscovery, ListsLiveClustersInOrderUntilTheyEnd) {
    struct Case {
        std::vector<std::string> args;
        bool listed;
    };
    const Case instances[] = {
        {{"--id", "31", "--width", "32"}, true},
        {{"--id", "33", "--slots", "2"}, true},
        {{"--id", "99"}, false},  // a good cluster, but id 99 is never listed
        {{"--id", "35", "--slots", "2", "--live", "none", "--dead", "0,1", "--attach-count", "2"}, false},
        {{"--id", "36", "--slots", "2", "--live", "0", "--dead", "1", "--attach-count", "2"}, true},
        {{"--id", "37", "--attach-count", "0"}, false},  // a live VM, but the count decides
        {{"--id", "38", "--live", "none", "--attach-count", "1"}, true},  // a free slot subtracts nothing
    };
    std::vector<ClusterInfo_CL> expected;
    {
        std::vector<std::unique_ptr<Vmsim>> vms;
        for (const Case& c : instances) {
            std::vector<std::string> args = {"--type", "instance"};
            args.insert(args.end(), c.args.begin(), c.args.end());
            vms.push_back(std::make_unique<Vmsim>(args));
        }
        Vmsim process({"--type", "process", "--width", "32"});
        Vmsim wrong_eye({"--type", "process", "--eyecatcher", "0x12345678"});
        Vmsim wrong_major({"--type", "process", "--version", version(4, 17, true)});
        Vmsim two_slots({"--type", "process", "--max-vm-nr", "2"});  // listed whatever its slot count
        expected = {ClusterInfo_CL(true, 0x00060022, CLUSTER_TYPE_INSTANCE, 31),
                    ClusterInfo_CL(true, 0x00060023, CLUSTER_TYPE_INSTANCE, 33),
                    ClusterInfo_CL(true, 0x00060022, CLUSTER_TYPE_PROCESS, process.pid()),
                    ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, wrong_eye.pid()),
                    ClusterInfo_CL(false, std::stoi(version(4, 17, true)), CLUSTER_TYPE_PROCESS, wrong_major.pid()),
                    ClusterInfo_CL(true, 0x00060023, CLUSTER_TYPE_PROCESS, two_slots.pid())};
        J2SE::cvector<ClusterInfo_CL> found;
        found.push_back(ClusterInfo_CL(false, 12, CLUSTER_TYPE_UNKNOWN, 12345));  // kept: the list is appended to
        std::vector<ClusterInfo_CL> list = running_clusters(found);
        EXPECT_EQ(ClusterInfo_CL(false, 12, CLUSTER_TYPE_UNKNOWN, 12345), list[0]);
        for (size_t i = 0; i < vms.size(); i++) {
            EXPECT_EQ(instances[i].listed, index_of(list, CLUSTER_TYPE_INSTANCE, vms[i]->id()) != -1) << vms[i]->id();
        }
        for (const ClusterInfo_CL& e : expected) {
            int i = index_of(list, e._type, e._id);
            ASSERT_GT(i, 0) << e._id;
            EXPECT_EQ(e, list[i]);
        }
        EXPECT_TRUE(ControlAreaManager_CL(cluster_of(*vms[2])).is_valid());  // id 99 is a good cluster
        bool in_processes = false;
        int last_id = -1;
        for (size_t i = 1; i < list.size(); i++) {
            if (list[i]._type == CLUSTER_TYPE_PROCESS) in_processes = true;
            if (list[i]._type != CLUSTER_TYPE_INSTANCE) continue;
            EXPECT_FALSE(in_processes) << "instance cluster " << list[i]._id << " after a process cluster";
            EXPECT_GT(list[i]._id, last_id);
            last_id = list[i]._id;
        }
    }
    J2SE::cvector<ClusterInfo_CL> found;
    std::vector<ClusterInfo_CL> list = running_clusters(found);
    for (const ClusterInfo_CL& e : expected) EXPECT_EQ(-1, index_of(list, e._type, e._id)) << e._id;
}
