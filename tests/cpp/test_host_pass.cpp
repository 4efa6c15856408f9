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

typedef std::vector<unsigned char> Bytes;

struct PassVm {
    int slot;
    int pid;
    int vm_id;
    int64_t process_start;
    std::vector<Bytes> records;  // start, time, memory, debug; empty when absent (length -1)
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

    Bytes bytes(size_t n) {
        if (n > _size - _at) throw std::runtime_error("stream ends early");
        _at += n;
        return Bytes(_data + _at - n, _data + _at);
    }
    // A big-endian number of n bytes.
    uint64_t number(size_t n) {
        uint64_t value = 0;
        for (unsigned char byte : bytes(n)) value = (value << 8) | byte;
        return value;
    }
    int32_t read_int() { return static_cast<int32_t>(number(4)); }
    bool at_end() const { return _at == _size; }

private:
    const unsigned char* _data;
    size_t _size;
    size_t _at = 0;
};

std::vector<PassCluster> run_pass() {
    ByteArrayOutputStream_CL buffer(1024);
    query_host_pass(buffer);
    StreamReader in(buffer);
    if (in.read_int() != HOST_PASS_FORMAT) throw std::runtime_error("wrong format version");
    std::vector<PassCluster> clusters;
    for (int type = in.read_int(); type != 0; type = in.read_int()) {
        PassCluster cluster{type, in.read_int(), in.number(1) != 0, in.read_int(), in.read_int(), {}};
        for (int slot = in.read_int(); slot != -1; slot = in.read_int()) {
            PassVm vm{slot, in.read_int(), in.read_int(), static_cast<int64_t>(in.number(8)), {}};
            for (int record = 0; record < 4; record++) {
                int length = in.read_int();
                vm.records.push_back(length == -1 ? Bytes() : in.bytes(length));
            }
            cluster.vms.push_back(vm);
        }
        clusters.push_back(cluster);
    }
    if (!in.at_end()) throw std::runtime_error("bytes after the end of the stream");
    return clusters;
}

const PassCluster* find(const std::vector<PassCluster>& clusters, int type, int id) {
    for (const PassCluster& c : clusters) {
        if (c.type == type && c.id == id) return &c;
    }
    return nullptr;
}

// The record a single-VM native returns; empty when it returns none.
Bytes single(int type, int id, int slot, int record) {
    const VmRecordKind kinds[] = {VM_RECORD_START, VM_RECORD_TIME, VM_RECORD_MEMORY, VM_RECORD_DEBUG};
    ByteArrayOutputStream_CL buffer(1024);
    if (!query_vm_record(type, id, slot, kinds[record], buffer)) return {};
    return Bytes(buffer.data(), buffer.data() + buffer.size());
}

}  // namespace

// Every kind of cluster in one pass: an instance cluster with an ended VM in its middle slot,
// two more for the order, a process cluster, a refused block and a block that promises 2^31 - 1
// slots. (The Java tests compare a process cluster's records with the single natives' too.)
TEST(HostPass, EveryClusterInOrderWithWhatTheSingleNativesReturn) {
    noxtest::Vmsim instance({"--type", "instance", "--id", "51", "--slots", "3", "--dead", "1"});
    noxtest::Vmsim high({"--type", "instance", "--id", "53"});
    noxtest::Vmsim low({"--type", "instance", "--id", "52"});
    noxtest::Vmsim process({"--type", "process"});
    noxtest::Vmsim broken({"--type", "process", "--eyecatcher", "0x12345678"});
    noxtest::Vmsim hostile({"--type", "process", "--max-vm-nr", "2147483647"});
    std::vector<PassCluster> clusters = run_pass();

    const PassCluster* segment = find(clusters, 2, 51);
    ASSERT_NE(segment, nullptr) << "instance cluster 51 is not in the pass";
    EXPECT_EQ(segment->slots, 3);
    std::vector<int> pids = instance.slot_pids();
    ASSERT_EQ(segment->vms.size(), 2u) << "slot 1 holds an ended VM and must not be listed";
    for (const PassVm& vm : segment->vms) {
        EXPECT_EQ(vm.pid, pids.at(vm.slot)) << "slot " << vm.slot;
        EXPECT_EQ(vm.vm_id, query_unique_id(2, 51, vm.slot)) << "slot " << vm.slot;
        EXPECT_GT(vm.process_start, 0) << "slot " << vm.slot;
        for (int k = 0; k < 4; k++) {
            ASSERT_FALSE(vm.records[k].empty()) << "slot " << vm.slot << " record " << k;
            EXPECT_EQ(vm.records[k], single(2, 51, vm.slot, k)) << "slot " << vm.slot << " record " << k;
        }
    }
    EXPECT_EQ(segment->vms[1].slot, 2);
    const PassCluster* own = find(clusters, 1, process.pid());
    ASSERT_NE(own, nullptr) << "the process cluster of vmsim " << process.pid() << " is not in the pass";
    EXPECT_TRUE(own->attachable);
    EXPECT_EQ(own->vms.size(), 1u);
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
    ASSERT_NE(find(clusters, 2, 52), nullptr);
    ASSERT_NE(find(clusters, 2, 53), nullptr);
    for (size_t i = 1; i < clusters.size(); i++) {
        const PassCluster& before = clusters[i - 1];
        const PassCluster& after = clusters[i];
        EXPECT_TRUE(before.type == after.type ? before.id < after.id : before.type == 2)
            << before.type << "/" << before.id << " before " << after.type << "/" << after.id;
    }
}
