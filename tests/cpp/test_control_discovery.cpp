// Discovery of running clusters. Other tests publish clusters on this host at the same time, so
// each case asserts only on the entries of the clusters it published itself (and on the order
// rule, which holds for every entry). Instance-cluster ids 30-49 and 99 (see vmsimProcess.h).
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

using noxtest::Vmsim;

namespace {

std::vector<ClusterInfo_CL> running_clusters() {
    J2SE::cvector<ClusterInfo_CL> found;
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

}  // namespace

TEST(ClusterDiscovery, InstanceClustersByAscendingIdThenProcessClusters) {
    Vmsim process(std::vector<std::string>{"--type", "process", "--width", "32"});
    Vmsim later(std::vector<std::string>{"--type", "instance", "--id", "33", "--slots", "2"});
    Vmsim earlier(std::vector<std::string>{"--type", "instance", "--id", "31", "--width", "32"});
    std::vector<ClusterInfo_CL> list = running_clusters();
    int i31 = index_of(list, CLUSTER_TYPE_INSTANCE, 31);
    int i33 = index_of(list, CLUSTER_TYPE_INSTANCE, 33);
    int ip = index_of(list, CLUSTER_TYPE_PROCESS, process.pid());
    ASSERT_NE(-1, i31);
    ASSERT_NE(-1, i33);
    ASSERT_NE(-1, ip);
    EXPECT_LT(i31, i33);
    EXPECT_LT(i33, ip);
    // Every instance entry comes before every process entry, in ascending id.
    bool in_processes = false;
    int last_id = -1;
    for (const ClusterInfo_CL& info : list) {
        if (info._type == CLUSTER_TYPE_PROCESS) in_processes = true;
        if (info._type != CLUSTER_TYPE_INSTANCE) continue;
        EXPECT_FALSE(in_processes) << "instance cluster " << info._id << " after a process cluster";
        EXPECT_GT(info._id, last_id);
        EXPECT_LT(info._id, 99);
        last_id = info._id;
    }
    EXPECT_EQ(ClusterInfo_CL(true, 0x00060022, CLUSTER_TYPE_INSTANCE, 31), list[i31]);
    EXPECT_EQ(ClusterInfo_CL(true, 0x00060023, CLUSTER_TYPE_INSTANCE, 33), list[i33]);
    EXPECT_EQ(ClusterInfo_CL(true, 0x00060022, CLUSTER_TYPE_PROCESS, process.pid()), list[ip]);
}

TEST(ClusterDiscovery, LiveCountDiscountsSlotsOfEndedVms) {
    // Attach count 2, both slots in use by ended processes: live count 0.
    Vmsim all_dead(std::vector<std::string>{"--type", "instance", "--id", "35", "--slots", "2", "--live", "none",
                                            "--dead", "0,1", "--attach-count", "2"});
    // Attach count 2, one of the two alive: live count 1.
    Vmsim one_alive(std::vector<std::string>{"--type", "instance", "--id", "36", "--slots", "2", "--live", "0",
                                             "--dead", "1", "--attach-count", "2"});
    // A live VM but an attach count of 0: the count decides.
    Vmsim uncounted(std::vector<std::string>{"--type", "instance", "--id", "37", "--attach-count", "0"});
    // Attach count 1 and no slot in use: listed, nothing is subtracted for a free slot.
    Vmsim counted_only(std::vector<std::string>{"--type", "instance", "--id", "38", "--live", "none",
                                                "--attach-count", "1"});
    std::vector<ClusterInfo_CL> list = running_clusters();
    EXPECT_EQ(-1, index_of(list, CLUSTER_TYPE_INSTANCE, 35));
    EXPECT_NE(-1, index_of(list, CLUSTER_TYPE_INSTANCE, 36));
    EXPECT_EQ(-1, index_of(list, CLUSTER_TYPE_INSTANCE, 37));
    EXPECT_NE(-1, index_of(list, CLUSTER_TYPE_INSTANCE, 38));
}

TEST(ClusterDiscovery, InstanceId99IsNeverFound) {
    Vmsim vm(std::vector<std::string>{"--type", "instance", "--id", "99"});
    // The cluster itself is fine: a manager finds it when asked by id.
    EXPECT_TRUE(ControlAreaManager_CL(ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, 99)).is_valid());
    EXPECT_EQ(-1, index_of(running_clusters(), CLUSTER_TYPE_INSTANCE, 99));
}

TEST(ClusterDiscovery, ProcessClusterIsListedWithWhatItsHeaderSays) {
    Vmsim wrong_eye(std::vector<std::string>{"--type", "process", "--eyecatcher", "0x12345678"});
    uint32_t major4 = (4u << 17) | (17u << 1) | 1u;
    Vmsim wrong_major(std::vector<std::string>{"--type", "process", "--version", std::to_string(major4)});
    // A process cluster is listed whatever its slot count says.
    Vmsim two_slots(std::vector<std::string>{"--type", "process", "--max-vm-nr", "2"});
    std::vector<ClusterInfo_CL> list = running_clusters();
    int ie = index_of(list, CLUSTER_TYPE_PROCESS, wrong_eye.pid());
    int im = index_of(list, CLUSTER_TYPE_PROCESS, wrong_major.pid());
    int it = index_of(list, CLUSTER_TYPE_PROCESS, two_slots.pid());
    ASSERT_NE(-1, ie);
    ASSERT_NE(-1, im);
    ASSERT_NE(-1, it);
    EXPECT_EQ(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, wrong_eye.pid()), list[ie]);
    EXPECT_EQ(ClusterInfo_CL(false, static_cast<int>(major4), CLUSTER_TYPE_PROCESS, wrong_major.pid()), list[im]);
    EXPECT_EQ(ClusterInfo_CL(true, 0x00060023, CLUSTER_TYPE_PROCESS, two_slots.pid()), list[it]);
}

TEST(ClusterDiscovery, EndedClustersDisappear) {
    int pid = 0;
    {
        Vmsim process(std::vector<std::string>{"--type", "process"});
        Vmsim instance(std::vector<std::string>{"--type", "instance", "--id", "40"});
        pid = process.pid();
        std::vector<ClusterInfo_CL> list = running_clusters();
        EXPECT_NE(-1, index_of(list, CLUSTER_TYPE_PROCESS, pid));
        EXPECT_NE(-1, index_of(list, CLUSTER_TYPE_INSTANCE, 40));
    }
    std::vector<ClusterInfo_CL> list = running_clusters();
    EXPECT_EQ(-1, index_of(list, CLUSTER_TYPE_PROCESS, pid));
    EXPECT_EQ(-1, index_of(list, CLUSTER_TYPE_INSTANCE, 40));
}

TEST(ClusterDiscovery, AppendsWithoutClearing) {
    Vmsim instance(std::vector<std::string>{"--type", "instance", "--id", "41"});
    J2SE::cvector<ClusterInfo_CL> found;
    found.push_back(ClusterInfo_CL(false, 12, CLUSTER_TYPE_UNKNOWN, 12345));
    Controls::get_running_clusters(found);
    ASSERT_GE(found.size(), 2);
    EXPECT_EQ(ClusterInfo_CL(false, 12, CLUSTER_TYPE_UNKNOWN, 12345), found[0]);
}
