// Record layouts that need no running VM: the cluster list, and the per-VM natives' answers for
// clusters that do not exist.
#include "clusterInfo.h"
#include "clusterQueries.h"
#include "clusterRecords.h"

#include <gtest/gtest.h>

#include <vector>

TEST(ClusterRecords, ThreeClustersMake31BytesWithoutVersions) {
    J2SE::cvector<ClusterInfo_CL> clusters(8);
    clusters.push_back(ClusterInfo_CL(true, 0x00060022, CLUSTER_TYPE_INSTANCE, 7));
    clusters.push_back(ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, 12));
    clusters.push_back(ClusterInfo_CL(true, 0x00060023, CLUSTER_TYPE_PROCESS, 4711));
    ByteArrayOutputStream_CL buffer(1024);
    DataOutputStream_CL out(buffer);
    write_cluster_list(out, clusters);
    std::vector<unsigned char> bytes(buffer.data(), buffer.data() + buffer.size());
    std::vector<unsigned char> expected = {0, 0, 0, 3,                                   // count
                                           1, 0, 0, 0, 2, 0, 0, 0, 7,                    // instance 7
                                           0, 0, 0, 0, 2, 0, 0, 0, 12,                   // instance 12
                                           1, 0, 0, 0, 1, 0, 0, 0x12, 0x67};             // process 4711
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(bytes.size(), 31u);
}

TEST(ClusterRecords, ClustersThatDoNotExistGiveTheFailureResults) {
    // Instance id 97 is used by no test; pid 0 and negative pids never name a process cluster.
    ByteArrayOutputStream_CL buffer(1024);
    EXPECT_FALSE(query_cluster_details(97, buffer));
    EXPECT_EQ(query_max_vms(97), -1);
    for (int type : {0, 1, 2, 3, -1}) {  // unknown, process, instance, and two values of no type
        for (int id : {97, 0, -1}) {
            EXPECT_FALSE(query_vm_record(type, id, 0, VM_RECORD_MEMORY, buffer));
            EXPECT_EQ(query_unique_id(type, id, 0), -1);
            EXPECT_FALSE(query_is_valid_vm(type, id, 0));
            EXPECT_FALSE(request_exit(type, id, 0, 1));
        }
    }
    EXPECT_EQ(buffer.size(), 0u);
}
