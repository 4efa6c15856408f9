// The byte records that Java decodes with DataInputStream, where no running VM is needed: the
// writer's big-endian numbers, strings with a 2-byte length and a gate that closes at the first
// failure (so that a record is never written with a hole in it); the cluster list; and the
// per-VM natives' answers for clusters that do not exist.
#include "clusterInfo.h"
#include "clusterQueries.h"
#include "clusterRecords.h"
#include "outputStreams.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

// A test asks malloc for SIZE_MAX bytes; under AddressSanitizer that must return null as it
// does in glibc, instead of aborting the test.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

std::vector<unsigned char> bytes_of(const ByteArrayOutputStream_CL& buffer) {
    return std::vector<unsigned char>(buffer.data(), buffer.data() + buffer.size());
}

}  // namespace

TEST(RecordWriter, BigEndianNumbersBooleansAndStrings) {
    ByteArrayOutputStream_CL buffer(16);  // grown on the way
    DataOutputStream_CL out(buffer);
    out.writeInt(-1);
    out.writeLong(1);
    out.writeBoolean(true);
    out.writeBoolean(false);
    out.writeInt(0x01020304);
    out.writeLong(INT64_MIN);
    out.writeString(String_CL{"", 0});
    out.writeString(String_CL{"ab\0c", 4});  // bytes as they are, NUL included
    std::vector<unsigned char> expected = {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 1, 2, 3, 4,
                                           0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 'a', 'b', 0, 'c'};
    EXPECT_EQ(expected, bytes_of(buffer));
    EXPECT_TRUE(out.is_ok());
    // A buffer whose first allocation failed starts again at its first write.
    ByteArrayOutputStream_CL starved(SIZE_MAX);
    DataOutputStream_CL from_nothing(starved);
    from_nothing.writeInt(42);
    EXPECT_TRUE(from_nothing.is_ok());
    EXPECT_EQ((std::vector<unsigned char>{0, 0, 0, 42}), bytes_of(starved));
}

TEST(RecordWriter, StringsUpTo65535BytesAndNoMore) {
    ByteArrayOutputStream_CL buffer(1024);
    DataOutputStream_CL out(buffer);
    std::string longest(65535, 'q');
    out.writeString(String_CL{longest.data(), longest.size()});
    ASSERT_EQ(65537u, buffer.size());
    EXPECT_EQ(0xFF, buffer.data()[0]);
    EXPECT_EQ(0xFF, buffer.data()[1]);
    EXPECT_EQ('q', buffer.data()[65536]);
    // One byte more: nothing of it is written, not even the prefix, and the gate closes.
    std::string too_long(65536, 'q');
    out.writeString(String_CL{too_long.data(), too_long.size()});
    EXPECT_FALSE(out.is_ok());
    out.writeInt(7);
    out.writeString(String_CL{"x", 1});
    EXPECT_EQ(-1, out.write("abc", 3));
    EXPECT_EQ(65537u, buffer.size());
    // A length whose low 32 bits look small is refused as well.
    ByteArrayOutputStream_CL other(16);
    DataOutputStream_CL wrapped(other);
    wrapped.writeString(String_CL{"x", (static_cast<size_t>(1) << 32) + 1});
    EXPECT_FALSE(wrapped.is_ok());
    EXPECT_EQ(0u, other.size());
}

TEST(ClusterRecords, ThreeClustersMake31BytesWithoutVersions) {
    J2SE::cvector<ClusterInfo_CL> clusters(8);
    clusters.push_back(ClusterInfo_CL(true, 0x00060022, CLUSTER_TYPE_INSTANCE, 7));
    clusters.push_back(ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, 12));
    clusters.push_back(ClusterInfo_CL(true, 0x00060023, CLUSTER_TYPE_PROCESS, 4711));
    ByteArrayOutputStream_CL buffer(1024);
    DataOutputStream_CL out(buffer);
    write_cluster_list(out, clusters);
    std::vector<unsigned char> expected = {0, 0, 0, 3,                                   // count
                                           1, 0, 0, 0, 2, 0, 0, 0, 7,                    // instance 7
                                           0, 0, 0, 0, 2, 0, 0, 0, 12,                   // instance 12
                                           1, 0, 0, 0, 1, 0, 0, 0x12, 0x67};             // process 4711
    EXPECT_EQ(expected, bytes_of(buffer));
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
