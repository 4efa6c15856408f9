// Hostile headers never make a reader leave the block: a table of headers at the places where
// arithmetic goes wrong, and mutated headers through a real System V segment and a real
// control-area file for the attach paths. Random blocks through the readers alone are the fuzz
// target control_block.
// Instance-cluster id 50 (see vmsimProcess.h).
#include "basicInstanceControlArea.h"
#include "clusterRecords.h"
#include "controlAreaManager.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <unistd.h>

namespace {

struct Header {
    bool wide;
    uint32_t eyecatcher;
    uint32_t version;
    int32_t slots;
    uint64_t instance_size;
    uint64_t vm_size;
};

template <typename T>
void put(std::vector<unsigned char>& block, size_t offset, T value) {
    if (offset + sizeof value <= block.size()) memcpy(block.data() + offset, &value, sizeof value);
}

void write_header(std::vector<unsigned char>& block, const Header& h) {
    put<uint32_t>(block, 0, h.eyecatcher);
    put<uint32_t>(block, 4, h.version);
    put<int32_t>(block, 8, h.slots);
    if (h.wide) {
        put<uint64_t>(block, 16, h.instance_size);
        put<uint64_t>(block, 24, h.vm_size);
    } else {
        put<uint32_t>(block, 12, static_cast<uint32_t>(h.instance_size));
        put<uint32_t>(block, 16, static_cast<uint32_t>(h.vm_size));
    }
}

// The bytes a header promises as the reader reads it (32-bit sizes are signed), SIZE_MAX when
// the sum overflows or the count is negative.
size_t promised(const Header& h) {
    uint64_t ica = h.wide ? h.instance_size : static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(h.instance_size)));
    uint64_t ca = h.wide ? h.vm_size : static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(h.vm_size)));
    if (h.slots < 0) return SIZE_MAX;
    unsigned __int128 total = static_cast<unsigned __int128>(ca) * static_cast<uint64_t>(h.slots) + ica;
    return total > (~0ull) ? SIZE_MAX : static_cast<size_t>(total);
}

// A header that is right, nearly right or wrong, with sizes and slot counts from the places
// where arithmetic goes wrong, and a block of a length near what it promises with random bytes
// here and there and per-VM eyecatchers where slots would be.
std::vector<unsigned char> random_block(std::mt19937_64& r, Header* h) {
    auto pick = [&r](std::initializer_list<uint64_t> values) { return values.begin()[r() % values.size()]; };
    h->wide = r() % 2;
    h->eyecatcher = r() % 10 ? 0xFADEBABEu : static_cast<uint32_t>(r());
    uint32_t good = h->wide ? 0x00060023u : 0x00060022u;
    h->version = static_cast<uint32_t>(pick({good, good, good, good ^ 1u, (3u << 17) | (5u << 1) | (good & 1), r()}));
    h->wide = (h->version & 1) != 0;  // the reader takes the width from the version word
    h->slots = static_cast<int32_t>(pick({1, 1, 1, 2, 3, 0, 0xFFFFFFFFull, 0x80000000ull, INT_MAX, 65537, r(), r() % 8}));
    uint64_t ica = h->wide ? 288 : 152, ca = h->wide ? 46072 : 46048;
    h->instance_size = pick({ica, ica, ica, 0, 12, 20, 32, ica - 1, ica + 1, 0xFFFFFFFFull, 0x80000000ull, ~0ull, r() % 1024});
    h->vm_size = pick({ca, ca, ca, 0, 4, 403, 404, ca - 1, ca + 1, 0xFFFFFFFBull, 0x80000000ull, ~0ull, (~0ull) / 3, r() % 50000});
    const size_t largest = 200 * 1024;
    size_t want = promised(*h) <= largest ? promised(*h) : 0;
    size_t length = pick({want, want, want, want > 0 ? want - 1 : 0, want + 1, r() % 64, r() % largest});
    if (length == 0) length = 1 + r() % 400;
    std::vector<unsigned char> block(length, 0);
    for (int i = static_cast<int>(r() % 64); i > 0; i--) block[r() % length] = static_cast<unsigned char>(r());
    write_header(block, *h);
    uint64_t stride = h->vm_size == 0 ? 1 : h->vm_size;
    for (uint64_t at = h->instance_size; at < length; at += stride) {
        if (r() % 10 < 7) put<uint32_t>(block, at, 0xDEADBEEFu);
    }
    return block;
}

// Reads every slot through every record writer, as the natives do, and every flag.
void read_everything(const ControlAreaManager_CL& manager) {
    ByteArrayOutputStream_CL bytes(4096);
    DataOutputStream_CL out(bytes);
    write_cluster_details(out, manager);
    const InstanceControlArea_CL* cluster = manager.get_instance_control_area();
    for (int slot = 0; slot < manager.get_max_vm_number() && slot < 8; slot++) {
        ControlArea_CL* area = manager.get_control_area(slot, false);
        if (area == nullptr) continue;
        write_debug_info(out, *area);
        write_start_info(out, *area);
        write_time_info(out, *area);
        if (cluster != nullptr) write_memory_info(out, *area, *cluster);
        for (int flag = 0; flag < ControlArea_CL::ZUL_CONTROLS_NR_OF_FLAGS; flag++) {
            area->get_flag_address(static_cast<ControlArea_CL::ControlAreaFlags>(flag));
        }
    }
}

const uint32_t EYE = 0xFADEBABEu;
const uint32_t V32 = 0x00060022u;
const uint32_t V64 = 0x00060023u;

}  // namespace

// Headers whose sizes overflow or promise more than the block holds are refused; blocks that end
// with their header are taken but hold only slots not in use. Each block is placed right before
// an inaccessible page, so that a read past its end crashes the test.
TEST(HostileBlocks, HeadersAreRefusedOrReadWithinTheBlock) {
    struct Case {
        Header header;
        size_t length;
        bool valid;
    };
    // A header of each width that ends the block, with sizes 0 and one slot; and a 288-byte
    // instance area promising 3 slots of 0 bytes. Slot 0 of the first two would start at the
    // header's own eyecatcher: no slot has a byte of its own, so none is in use.
    std::vector<Case> cases = {{{true, EYE, V64, 1, 0, 0}, 32, true},
                               {{false, EYE, V32, 1, 0, 0}, 20, true},
                               {{true, EYE, V64, 3, 288, 0}, 288, true}};
    const size_t block = 4 * 46072;
    for (bool wide : {false, true}) {
        for (int32_t slots : {INT_MAX, INT_MAX - 1, 65537, 1 << 20}) {
            for (uint64_t vm_size : {0ull, 1ull, 4ull, 46072ull}) {
                cases.push_back({{wide, EYE, wide ? V64 : V32, slots, wide ? 288u : 152u, vm_size}, block, false});
            }
        }
    }
    // Sizes whose product with the slot count, or whose sum, wraps around 2^64; negative 32-bit sizes.
    cases.push_back({{true, EYE, V64, 4, 288, (~0ull) / 4 + 1}, block, false});
    cases.push_back({{true, EYE, V64, 2, ~0ull, 1}, block, false});
    for (uint32_t size : {0xFFFFFFFFu, 0xFFFFFFFBu, 0x80000000u}) {
        cases.push_back({{false, EYE, V32, 1, 152, size}, block, false});
        cases.push_back({{false, EYE, V32, 1, size, 46048}, block, false});
    }
    for (const Case& c : cases) {
        const Header& h = c.header;
        std::vector<unsigned char> bytes(c.length, 0);
        write_header(bytes, h);
        noxtest::GuardedBytes guarded(c.length);
        memcpy(guarded.data(), bytes.data(), c.length);
        for (ClusterType_CL type : {CLUSTER_TYPE_INSTANCE, CLUSTER_TYPE_PROCESS}) {
            if (c.valid && type == CLUSTER_TYPE_PROCESS) continue;  // a process cluster has one slot
            ControlAreaManager_CL manager(MappedBlock_CL{guarded.data(), guarded.size()}, type);
            ASSERT_EQ(c.valid, manager.is_valid()) << h.slots << " slots of " << h.vm_size << " behind "
                                                   << h.instance_size << " in " << c.length;
            ASSERT_EQ(c.valid ? h.slots : 0, manager.get_max_vm_number());
            if (!c.valid) continue;
            for (int slot = 0; slot < h.slots; slot++) EXPECT_EQ(nullptr, manager.get_control_area(slot, false));
            InstanceControlArea_CL* instance = manager.get_instance_control_area();
            EXPECT_TRUE(instance->is_compatible());
            EXPECT_EQ(0, instance->get_attach_count());
            EXPECT_EQ(0u, instance->get_global_memory());
            EXPECT_EQ(0u, instance->get_shared_pool_size());
            read_everything(manager);
        }
    }
}

TEST(HostileBlocks, MutatedHeadersThroughARealSegmentAndARealFile) {
    std::mt19937_64 r(4242);
    int valid_segments = 0;
    int valid_files = 0;
    noxtest::LiveChild child;
    std::string path = noxtest::control_area_path(child.pid());
    noxtest::ScopedPath cleanup(path);
    for (int round = 0; round < 400; round++) {
        Header h;
        std::vector<unsigned char> block = random_block(r, &h);
        noxtest::TestSegment segment(4500000 + 50 * 100, block);
        ASSERT_TRUE(segment.ok()) << "segment of instance-cluster id 50, " << block.size() << " bytes: " << segment.error();
        ClusterInfo_CL instance(false, -1, CLUSTER_TYPE_INSTANCE, 50);
        BasicInstanceControlArea_CL basic(instance);
        if (basic.is_accepted()) basic.get_control_area_size();
        ControlAreaManager_CL manager(instance);
        if (manager.is_valid()) {
            valid_segments++;
            ASSERT_LE(promised(h), block.size()) << "round " << round;
        }
        read_everything(manager);

        // The same block as the control-area file of a live process: an 8-byte lead-in, then
        // the block; sometimes cut inside the lead-in or the header.
        std::vector<unsigned char> file(8, 0);
        file.insert(file.end(), block.begin(), block.end());
        if (r() % 10 == 0) file.resize(r() % 40);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(static_cast<ssize_t>(file.size()), write(fd, file.data(), file.size()));
        close(fd);
        ControlAreaManager_CL process(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, child.pid()));
        if (process.is_valid()) {
            valid_files++;
            ASSERT_EQ(1, process.get_max_vm_number());
            ASSERT_LE(promised(h), file.size() - 8) << "round " << round;
        }
        read_everything(process);
        if (round % 50 == 0) {
            J2SE::cvector<ClusterInfo_CL> found;
            Controls::get_running_clusters(found);
        }
    }
    // Both outcomes occur often enough for the run to mean something.
    EXPECT_GT(valid_segments, 20);
    EXPECT_GT(valid_files, 3);
}
