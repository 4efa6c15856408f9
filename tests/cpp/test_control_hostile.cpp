// Hostile blocks never crash the readers. Thousands of random and mutated blocks (random sizes,
// sizes that overflow, slot counts up to 2^31-1, negative 32-bit sizes, blocks cut anywhere)
// go through the manager and every reader: over heap buffers of exactly the block's length, so
// that AddressSanitizer sees any read past the end, and through a real System V segment and a
// real control-area file for the attach path. Instance-cluster ids 50-54 (see vmsimProcess.h).
#include "basicInstanceControlArea.h"
#include "controlAreaManager.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

namespace {

class Random {
public:
    explicit Random(uint64_t seed) : _engine(seed) {}
    uint64_t next() { return _engine(); }
    uint64_t below(uint64_t n) { return n == 0 ? 0 : next() % n; }
    bool chance(int percent) { return below(100) < static_cast<uint64_t>(percent); }
    template <typename T>
    T pick(const std::vector<T>& values) { return values[below(values.size())]; }

private:
    std::mt19937_64 _engine;
};

const size_t MAX_BLOCK = 200 * 1024;

template <typename T>
void put(std::vector<unsigned char>& block, size_t offset, T value) {
    if (offset + sizeof value <= block.size()) memcpy(block.data() + offset, &value, sizeof value);
}

// A header that is right, nearly right or wrong, with sizes and slot counts from the places
// where arithmetic goes wrong.
struct Header {
    bool wide;
    uint32_t eyecatcher;
    uint32_t version;
    int32_t slots;
    uint64_t instance_size;
    uint64_t vm_size;
};

Header random_header(Random& r) {
    Header h;
    h.wide = r.chance(50);
    h.eyecatcher = r.chance(90) ? 0xFADEBABEu : static_cast<uint32_t>(r.next());
    uint32_t good = h.wide ? 0x00060023u : 0x00060022u;
    h.version = r.pick<uint32_t>({good, good, good, good ^ 1u, (3u << 17) | (5u << 1) | (h.wide ? 1u : 0u),
                                  (4u << 17) | 0x22u, static_cast<uint32_t>(r.next())});
    h.slots = r.pick<int32_t>({1, 1, 1, 2, 3, 0, -1, INT_MIN, INT_MAX, INT_MAX - 1, 65536, 65537,
                               static_cast<int32_t>(r.next()), static_cast<int32_t>(r.below(8))});
    uint64_t layout_ica = h.wide ? 288 : 152;
    uint64_t layout_ca = h.wide ? 46072 : 46048;
    h.instance_size = r.pick<uint64_t>({layout_ica, layout_ica, layout_ica, 0, 1, 12, 19, 20, 31, 32, layout_ica - 1,
                                        layout_ica + 1, 0xFFFFFFFFull, 0x80000000ull, ~0ull, 1ull << 63,
                                        r.below(1024)});
    h.vm_size = r.pick<uint64_t>({layout_ca, layout_ca, layout_ca, 0, 1, 3, 4, 5, 100, 403, 404, 46047, 46048,
                                  layout_ca - 1, layout_ca + 1, 0xFFFFFFFFull, 0xFFFFFFFBull, 0x80000000ull, ~0ull,
                                  (~0ull) / 3, 1ull << 62, r.below(50000)});
    return h;
}

// The bytes the header written in `block` promises, read as the reader reads it (the width
// follows bit 0 of the version word); SIZE_MAX when the header cannot be read or the sum
// overflows.
size_t promised(const std::vector<unsigned char>& block) {
    if (block.size() < 12) return SIZE_MAX;
    uint32_t version;
    int32_t slots;
    memcpy(&version, block.data() + 4, 4);
    memcpy(&slots, block.data() + 8, 4);
    uint64_t ica = 0, ca = 0;
    if ((version & 1u) != 0) {
        if (block.size() < 32) return SIZE_MAX;
        memcpy(&ica, block.data() + 16, 8);
        memcpy(&ca, block.data() + 24, 8);
    } else {
        if (block.size() < 20) return SIZE_MAX;
        int32_t ica32, ca32;
        memcpy(&ica32, block.data() + 12, 4);
        memcpy(&ca32, block.data() + 16, 4);
        ica = static_cast<uint64_t>(static_cast<int64_t>(ica32));
        ca = static_cast<uint64_t>(static_cast<int64_t>(ca32));
    }
    if (slots < 0) return SIZE_MAX;
    unsigned __int128 total = static_cast<unsigned __int128>(ca) * static_cast<uint64_t>(slots) + ica;
    return total > (~0ull) ? SIZE_MAX : static_cast<size_t>(total);
}

// The bytes the header asks for, when that is a length a test block may have; else 0.
size_t wanted(const Header& h) {
    uint64_t ica = h.wide ? h.instance_size : static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(h.instance_size)));
    uint64_t ca = h.wide ? h.vm_size : static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(h.vm_size)));
    if (h.slots < 0 || ica > MAX_BLOCK || ca > MAX_BLOCK) return 0;
    unsigned __int128 total = static_cast<unsigned __int128>(ca) * static_cast<uint64_t>(h.slots) + ica;
    return total > MAX_BLOCK ? 0 : static_cast<size_t>(total);
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

// A block of a random length near what the header promises, with random bytes here and there
// and eyecatchers of per-VM areas where they might be expected.
std::vector<unsigned char> random_block(Random& r, const Header& h) {
    size_t want = wanted(h);
    size_t length = want;
    switch (r.below(6)) {
        case 0: length = want > 0 ? want - 1 : 0; break;
        case 1: length = want + 1; break;
        case 2: length = r.below(64); break;
        case 3: length = r.below(MAX_BLOCK); break;
        default: break;
    }
    if (length == 0) length = 1 + r.below(400);
    std::vector<unsigned char> block(length, 0);
    int sprinkles = static_cast<int>(r.below(64));
    for (int i = 0; i < sprinkles; i++) block[r.below(length)] = static_cast<unsigned char>(r.next());
    if (r.chance(30)) {
        size_t start = r.below(length);
        size_t count = std::min<size_t>(length - start, 8192);
        for (size_t i = 0; i < count; i++) block[start + i] = static_cast<unsigned char>(r.next());
    }
    write_header(block, h);
    uint64_t stride = h.vm_size == 0 ? 1 : h.vm_size;
    for (uint64_t at = h.instance_size; at < length && at < MAX_BLOCK; at += stride) {
        if (r.chance(70)) put<uint32_t>(block, at, 0xDEADBEEFu);
    }
    return block;
}

template <int N>
size_t touch(const ControlAreaText_CL<N>& s) {
    if (!s.is_present()) return 0;
    char* copy = s.get();
    size_t length = strlen(copy);
    wrap_free(alloc_site("test"), copy);
    return length + s.to_cstring().length();
}

// Calls every reader of a per-VM view; the sum only keeps the calls from being optimised away.
// Sums wrap instead of overflowing.
template <typename T>
uint64_t u(T value) {
    return static_cast<uint64_t>(value);
}

uint64_t read_everything(ControlArea_CL* view) {
    uint64_t sum = u(view->is_valid());
    sum += u(view->get_pid()) + u(view->get_vm_index()) + u(view->get_vm_id()) + u(view->get_current_debug_port());
    sum += u(view->can_debug_on_demand()) + u(view->get_debugging_state()) + u(view->get_debugging_locally());
    int from = 0, to = 0;
    view->get_default_port_range(&from, &to);
    long s = 0, user = 0, p = 0;
    view->get_process_time_info(&s, &user, &p);
    sum += u(from) + u(to) + u(s) + u(user) + u(p);
    sum += touch(view->get_vm_tag()) + touch(view->get_debugging_client()) + touch(view->get_vm_flags());
    sum += touch(view->get_vm_args()) + touch(view->get_vm_java_args()) + touch(view->get_splittable_vm_java_args());
    sum += touch(view->get_jar_main_class()) + touch(view->get_vm_work_dir()) + touch(view->get_vm_version());
    sum += touch(view->get_virtualization_info());
    sum += u(view->get_committed_class_pool_size()) + u(view->get_committed_java_heap_size()) +
           u(view->get_committed_code_cache_size());
    sum += u(view->get_number_of_gcs()) + u(view->get_number_of_full_gcs()) + u(view->get_duration_of_gcs()) +
           u(view->get_duration_of_full_gcs()) + u(view->get_duration_of_concurrent_gcs()) + u(view->get_work_time_of_gcs()) +
           u(view->get_work_time_of_full_gcs());
    sum += u(view->get_java_heap_memory_shortages()) + u(view->get_perm_gen_memory_shortages()) +
           u(view->get_gc_spinning_due_to_java_heap()) + u(view->get_gc_spinning_due_to_perm_gen()) +
           u(view->get_out_of_memory_error_count());
    sum += u(view->get_old_gen_usage_after_gc()) + u(view->get_perm_gen_usage_after_gc()) + u(view->get_max_old_gen_size()) +
           u(view->get_max_perm_gen_size()) + u(view->get_run_with_monitoring_board()) + u(view->get_has_metaspace());
    for (int flag = 0; flag < ControlArea_CL::ZUL_CONTROLS_NR_OF_FLAGS; flag++) {
        int* address = view->get_flag_address(static_cast<ControlArea_CL::ControlAreaFlags>(flag));
        if (address != nullptr) {
            int value;
            memcpy(&value, address, sizeof value);
            sum += u(value);
        }
    }
    // The two setters write inside the area; they must stay inside the block as well.
    view->set_current_debug_port(view->get_current_debug_port());
    view->set_debug_on_demand(view->can_debug_on_demand());
    return sum;
}

uint64_t read_everything(const ControlAreaManager_CL& manager) {
    uint64_t sum = u(manager.is_valid());
    InstanceControlArea_CL* instance = manager.get_instance_control_area();
    if (manager.is_valid()) {
        sum += u(instance->get_instance_control_area_size()) + u(instance->get_control_area_size());
        sum += u(instance->get_eyecatcher()) + u(instance->get_bca_version()) + u(instance->is_valid()) + u(instance->is_compatible());
        sum += u(instance->get_max_vm_number()) + u(instance->get_attach_count()) + u(instance->get_global_memory());
        sum += u(instance->get_global_allocated_memory()) + u(instance->get_shared_pool_size()) + u(instance->get_global_memory_peak());
    }
    int count = manager.get_max_vm_number();
    for (int i = -1; i <= count; i++) {
        // Every slot of small clusters, the first and last few of big ones.
        if (i > 8 && i < count - 8) continue;
        ControlArea_CL* view = manager.get_control_area_raw(i);
        if (view != nullptr) sum += read_everything(view);
        sum += manager.get_control_area(i, false) != nullptr;
    }
    return sum;
}

// A view starts inside the block it was made over (at its end at the latest, when the block
// holds no byte of it: such a slot is simply not in use).
void expect_views_inside(const ControlAreaManager_CL& manager, const std::vector<unsigned char>& block) {
    for (int i = 0; i < manager.get_max_vm_number(); i++) {
        ControlArea_CL* view = manager.get_control_area_raw(i);
        const unsigned char* start = nullptr;
        if (auto* v = dynamic_cast<ControlAreaImpl_CL<Bit64>*>(view)) start = reinterpret_cast<unsigned char*>(v->get_ca_pointer());
        if (auto* v = dynamic_cast<ControlAreaImpl_CL<Bit32>*>(view)) start = reinterpret_cast<unsigned char*>(v->get_ca_pointer());
        ASSERT_NE(nullptr, start);
        ASSERT_GE(start, block.data());
        ASSERT_LE(start, block.data() + block.size()) << "slot " << i;
    }
}

}  // namespace

TEST(HostileBlocks, RandomAndMutatedBlocksOverHeapBuffers) {
    Random r(0x5eed1234);
    int accepted = 0;
    int refused = 0;
    uint64_t sink = 0;
    for (int round = 0; round < 4000; round++) {
        Header h = random_header(r);
        std::vector<unsigned char> block = random_block(r, h);
        ClusterType_CL type = r.chance(50) ? CLUSTER_TYPE_INSTANCE : CLUSTER_TYPE_PROCESS;
        ControlAreaManager_CL manager(MappedBlock_CL{block.data(), block.size()}, type);
        if (manager.is_valid()) {
            accepted++;
            // A valid manager's areas all lie inside the block, at the published sizes.
            size_t need = promised(block);
            ASSERT_NE(SIZE_MAX, need) << "round " << round;
            ASSERT_LE(need, block.size()) << "round " << round;
            expect_views_inside(manager, block);
        } else {
            refused++;
            EXPECT_EQ(nullptr, manager.get_control_area(0, false));
        }
        sink += read_everything(manager);
    }
    // Both outcomes occur often enough for the run to mean something.
    EXPECT_GT(accepted, 100);
    EXPECT_GT(refused, 1000);
    RecordProperty("sink", static_cast<int>(sink & 0x7fffffff));
}

TEST(HostileBlocks, HugeSlotCountsEndInAManagerThatIsNotValid) {
    for (bool wide : {false, true}) {
        for (int32_t slots : {INT_MAX, INT_MAX - 1, 65537, 1 << 20}) {
            for (uint64_t vm_size : {0ull, 1ull, 4ull, 46072ull}) {
                Header h{wide, 0xFADEBABEu, wide ? 0x00060023u : 0x00060022u, slots, wide ? 288u : 152u, vm_size};
                std::vector<unsigned char> block(64 * 1024, 0);
                write_header(block, h);
                ControlAreaManager_CL manager(MappedBlock_CL{block.data(), block.size()}, CLUSTER_TYPE_INSTANCE);
                EXPECT_FALSE(manager.is_valid()) << slots << " slots of " << vm_size;
                EXPECT_EQ(0, manager.get_max_vm_number());
            }
        }
    }
}

TEST(HostileBlocks, NegativeThirtyTwoBitSizesEndInAManagerThatIsNotValid) {
    for (uint32_t size : {0xFFFFFFFFu, 0xFFFFFFFBu, 0x80000000u}) {
        std::vector<unsigned char> block(4 * 46048, 0);
        write_header(block, Header{false, 0xFADEBABEu, 0x00060022u, 1, 152, size});
        EXPECT_FALSE(ControlAreaManager_CL(MappedBlock_CL{block.data(), block.size()}, CLUSTER_TYPE_PROCESS).is_valid());
        write_header(block, Header{false, 0xFADEBABEu, 0x00060022u, 1, size, 46048});
        EXPECT_FALSE(ControlAreaManager_CL(MappedBlock_CL{block.data(), block.size()}, CLUSTER_TYPE_PROCESS).is_valid());
    }
}

TEST(HostileBlocks, FixedSizeManagerOverRandomContent) {
    Random r(77);
    uint64_t sink = 0;
    for (int round = 0; round < 60; round++) {
        int slots = 1 + static_cast<int>(r.below(3));
        std::vector<unsigned char> block(288 + slots * 46072);
        for (auto& b : block) b = static_cast<unsigned char>(r.next());
        if (r.chance(50)) put<uint32_t>(block, 288, 0xDEADBEEFu);
        ControlAreaManager_CL manager(block.data(), slots, CLUSTER_TYPE_INSTANCE);
        ASSERT_TRUE(manager.is_valid());
        ASSERT_EQ(slots, manager.get_max_vm_number());
        sink += read_everything(manager);
    }
    ControlAreaManager_CL none(nullptr, 2, CLUSTER_TYPE_INSTANCE);
    EXPECT_FALSE(none.is_valid());
    std::vector<unsigned char> block(288);
    ControlAreaManager_CL empty(block.data(), 0, CLUSTER_TYPE_INSTANCE);
    EXPECT_FALSE(empty.is_valid());
    RecordProperty("sink", static_cast<int>(sink & 0x7fffffff));
}

namespace {

// A segment this test creates and removes, under an instance-cluster key of its own.
class TestSegment {
public:
    TestSegment(int id, size_t size) : _id(-1), _address(nullptr) {
        _id = shmget(4500000 + id * 100, size, IPC_CREAT | IPC_EXCL | 0600);
        if (_id != -1) _address = shmat(_id, nullptr, 0);
    }
    ~TestSegment() {
        if (_address != nullptr && _address != reinterpret_cast<void*>(-1)) shmdt(_address);
        if (_id != -1) shmctl(_id, IPC_RMID, nullptr);
    }
    bool ok() const { return _id != -1 && _address != reinterpret_cast<void*>(-1); }
    void* address() const { return _address; }

private:
    int _id;
    void* _address;
};

}  // namespace

TEST(HostileBlocks, MutatedHeadersThroughARealSegment) {
    Random r(4242);
    const int id = 50;
    uint64_t sink = 0;
    int valid = 0;
    for (int round = 0; round < 400; round++) {
        Header h = random_header(r);
        std::vector<unsigned char> block = random_block(r, h);
        TestSegment segment(id, block.size());
        ASSERT_TRUE(segment.ok()) << "instance-cluster id " << id << " is in use on this host";
        memcpy(segment.address(), block.data(), block.size());
        ClusterInfo_CL info(false, -1, CLUSTER_TYPE_INSTANCE, id);
        BasicInstanceControlArea_CL basic(info);
        if (basic.is_accepted()) sink += basic.get_max_vm_number() + basic.get_control_area_size() + basic.is_compatible();
        ControlAreaManager_CL manager(info);
        if (manager.is_valid()) {
            valid++;
            ASSERT_NE(SIZE_MAX, promised(block));
            ASSERT_LE(promised(block), block.size());
        }
        sink += read_everything(manager);
    }
    EXPECT_GT(valid, 20);
    RecordProperty("sink", static_cast<int>(sink & 0x7fffffff));
}

TEST(HostileBlocks, MutatedControlAreaFilesOfALiveProcess) {
    Random r(99);
    noxtest::LiveChild child;
    std::string path = "/tmp/nox_jvm_" + std::to_string(geteuid()) + "_" + std::to_string(child.pid());
    noxtest::ScopedPath cleanup(path);
    uint64_t sink = 0;
    int valid = 0;
    for (int round = 0; round < 300; round++) {
        Header h = random_header(r);
        std::vector<unsigned char> block = random_block(r, h);
        // The 8-byte lead-in, then the block; sometimes cut inside the lead-in or the header.
        std::vector<unsigned char> file(8, 0);
        file.insert(file.end(), block.begin(), block.end());
        if (r.chance(10)) file.resize(r.below(40));
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(static_cast<ssize_t>(file.size()), write(fd, file.data(), file.size()));
        close(fd);
        ClusterInfo_CL info(false, -1, CLUSTER_TYPE_PROCESS, child.pid());
        ControlAreaManager_CL manager(info);
        if (manager.is_valid()) {
            valid++;
            ASSERT_EQ(1, manager.get_max_vm_number());
            std::vector<unsigned char> published(file.begin() + 8, file.end());
            ASSERT_NE(SIZE_MAX, promised(published));
            ASSERT_LE(promised(published) + 8, file.size());
        }
        sink += read_everything(manager);
        if (round % 50 == 0) {
            J2SE::cvector<ClusterInfo_CL> found;
            Controls::get_running_clusters(found);
            sink += found.size();
        }
    }
    EXPECT_GT(valid, 3);
    RecordProperty("sink", static_cast<int>(sink & 0x7fffffff));
}
