// The host pass: one stream with every running cluster and every live VM's records, equal to
// what the single-VM natives return for the same VM, in a stable order.
#include "clusterQueries.h"
#include "hostPass.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace {

struct PassVm {
    int slot;
    int pid;
    int vm_id;
    int64_t process_start;
    std::vector<std::vector<unsigned char>> records;  // start, time, memory, debug; empty when -1
    std::vector<bool> present;
};

struct PassCluster {
    int type;
    int id;
    bool attachable;
    int version;
    int slots;
    std::vector<PassVm> vms;
};

// Reads the stream the way the Java decoder does; throws on a stream that ends early.
class StreamReader {
public:
    explicit StreamReader(const ByteArrayOutputStream_CL& buffer) : _data(buffer.data()), _size(buffer.size()) {}

    int32_t read_int() { return static_cast<int32_t>(read_unsigned(4)); }
    int64_t read_long() { return static_cast<int64_t>(read_unsigned(8)); }
    bool read_boolean() { return read_unsigned(1) != 0; }
    std::vector<unsigned char> read_bytes(size_t n) {
        need(n);
        std::vector<unsigned char> bytes(_data + _at, _data + _at + n);
        _at += n;
        return bytes;
    }
    bool at_end() const { return _at == _size; }

private:
    void need(size_t n) {
        if (n > _size - _at) throw std::runtime_error("stream ends early");
    }
    uint64_t read_unsigned(size_t n) {
        need(n);
        uint64_t value = 0;
        for (size_t i = 0; i < n; i++) value = (value << 8) | _data[_at + i];
        _at += n;
        return value;
    }

    const unsigned char* _data;
    size_t _size;
    size_t _at = 0;
};

std::vector<PassCluster> decode(const ByteArrayOutputStream_CL& buffer) {
    StreamReader in(buffer);
    if (in.read_int() != HOST_PASS_FORMAT) throw std::runtime_error("wrong format version");
    std::vector<PassCluster> clusters;
    for (int type = in.read_int(); type != 0; type = in.read_int()) {
        PassCluster cluster{type, in.read_int(), in.read_boolean(), in.read_int(), in.read_int(), {}};
        for (int slot = in.read_int(); slot != -1; slot = in.read_int()) {
            PassVm vm{slot, in.read_int(), in.read_int(), in.read_long(), {}, {}};
            for (int record = 0; record < 4; record++) {
                int length = in.read_int();
                vm.present.push_back(length != -1);
                vm.records.push_back(length == -1 ? std::vector<unsigned char>() : in.read_bytes(length));
            }
            cluster.vms.push_back(vm);
        }
        clusters.push_back(cluster);
    }
    if (!in.at_end()) throw std::runtime_error("bytes after the end of the stream");
    return clusters;
}

std::vector<PassCluster> run_pass() {
    ByteArrayOutputStream_CL buffer(1024);
    query_host_pass(buffer);
    return decode(buffer);
}

const PassCluster* find(const std::vector<PassCluster>& clusters, int type, int id) {
    for (const PassCluster& c : clusters) {
        if (c.type == type && c.id == id) return &c;
    }
    return nullptr;
}

std::vector<unsigned char> single(int type, int id, int slot, VmRecordKind kind) {
    ByteArrayOutputStream_CL buffer(1024);
    if (!query_vm_record(type, id, slot, kind, buffer)) return {};
    return std::vector<unsigned char>(buffer.data(), buffer.data() + buffer.size());
}

// Every kind of cluster in one pass: a process cluster with chosen texts, an instance cluster
// with an ended VM in its middle slot, two more instance clusters and two more process clusters
// for the order, a refused block and a block that promises 2^31 - 1 slots.
TEST(HostPass, EveryClusterInOrderWithWhatTheSingleNativesReturn) {
    noxtest::Vmsim process({"--type", "process", "--set", "vm_tag=pass-test", "--set", "jar_main_class=a.B"});
    noxtest::Vmsim instance({"--type", "instance", "--id", "51", "--slots", "3", "--dead", "1"});
    noxtest::Vmsim high({"--type", "instance", "--id", "53"});
    noxtest::Vmsim low({"--type", "instance", "--id", "52"});
    noxtest::Vmsim second({"--type", "process"});
    noxtest::Vmsim broken({"--type", "process", "--eyecatcher", "0x12345678"});
    noxtest::Vmsim hostile({"--type", "process", "--max-vm-nr", "2147483647"});
    std::vector<PassCluster> clusters = run_pass();

    const VmRecordKind kinds[] = {VM_RECORD_START, VM_RECORD_TIME, VM_RECORD_MEMORY, VM_RECORD_DEBUG};
    const PassCluster* own = find(clusters, 1, process.pid());
    ASSERT_NE(own, nullptr) << "the process cluster of vmsim " << process.pid() << " is not in the pass";
    EXPECT_TRUE(own->attachable);
    ASSERT_EQ(own->slots, 1);
    ASSERT_EQ(own->vms.size(), 1u);
    EXPECT_EQ(own->vms[0].pid, process.pid());
    EXPECT_GT(own->vms[0].process_start, 0);
    EXPECT_EQ(own->vms[0].vm_id, query_unique_id(1, process.pid(), 0));
    for (int k = 0; k < 4; k++) {
        ASSERT_TRUE(own->vms[0].present[k]) << "record " << k;
        EXPECT_EQ(own->vms[0].records[k], single(1, process.pid(), 0, kinds[k])) << "record " << k;
    }
    const PassCluster* segment = find(clusters, 2, 51);
    ASSERT_NE(segment, nullptr) << "instance cluster 51 is not in the pass";
    EXPECT_EQ(segment->slots, 3);
    std::vector<int> pids = instance.slot_pids();
    ASSERT_EQ(segment->vms.size(), 2u) << "slot 1 holds an ended VM and must not be listed";
    for (int i = 0; i < 2; i++) {
        const PassVm& vm = segment->vms[i];
        EXPECT_EQ(vm.slot, 2 * i);
        EXPECT_EQ(vm.pid, pids[2 * i]);
        for (int k = 0; k < 4; k++) EXPECT_EQ(vm.records[k], single(2, 51, vm.slot, kinds[k])) << "slot " << vm.slot << " record " << k;
    }
    // A refused block is listed while its file exists, without VMs; so is a hostile slot count.
    for (const noxtest::Vmsim* vm : {&broken, &hostile}) {
        const PassCluster* refused = find(clusters, 1, vm->pid());
        ASSERT_NE(refused, nullptr) << vm->ready_line();
        EXPECT_EQ(refused->slots, 0) << vm->ready_line();
        EXPECT_TRUE(refused->vms.empty()) << vm->ready_line();
    }
    EXPECT_FALSE(find(clusters, 1, broken.pid())->attachable);
    EXPECT_EQ(find(clusters, 1, broken.pid())->version, -1);

    // Instance clusters by id, then process clusters by pid.
    EXPECT_NE(find(clusters, 2, 52), nullptr);
    EXPECT_NE(find(clusters, 2, 53), nullptr);
    EXPECT_NE(find(clusters, 1, second.pid()), nullptr);
    bool process_seen = false;
    for (size_t i = 0; i < clusters.size(); i++) {
        if (clusters[i].type == 1) process_seen = true;
        EXPECT_FALSE(clusters[i].type == 2 && process_seen) << "instance cluster after a process cluster";
        if (i > 0 && clusters[i].type == clusters[i - 1].type) {
            EXPECT_LT(clusters[i - 1].id, clusters[i].id) << "clusters of one type out of order";
        }
    }
}

}  // namespace
