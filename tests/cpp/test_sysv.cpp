// System V objects: the keys computed from cluster ids and pids, and SharedMemory and SharedEvent
// against real segments and semaphore sets that each test creates under keys of its own; and the
// book of shared mappings that counts their users.
#include "controlAreaFile.h"
#include "sharedEvent.h"
#include "sharedFileCache.h"
#include "sharedMemory.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/sem.h>
#include <type_traits>
#include <unistd.h>

using J2SE::SharedEvent;
using J2SE::SharedMemory;

namespace {

// The ids of the host's semaphore sets of key 0 (IPC_PRIVATE), from /proc/sysvipc/sem.
std::set<int> private_semaphore_sets() {
    std::set<int> ids;
    std::ifstream table("/proc/sysvipc/sem");
    std::string line;
    std::getline(table, line);  // column titles
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        long key = -1;
        int id = -1;
        if (fields >> key >> id && key == 0) ids.insert(id);
    }
    return ids;
}

}  // namespace

TEST(SystemV, KeysOfClustersAndVmsAndOnlyThose) {
    // Instance cluster n: 4500000 + n * 100 (+ 1 for its shared pool); a VM's event: 5000000 +
    // pid * 100. A key that would be IPC_PRIVATE (0), or that does not fit an int, is 0.
    const struct { int n, key, expected; } segments[] = {
        {0, 0, 4500000}, {7, 0, 4500700}, {7, 1, 4500701}, {INT_MAX, 0, 0}, {-45000, 0, 0}};
    for (const auto& s : segments) {
        EXPECT_EQ(s.expected, J2SE::unix_get_shared_memory_key(s.n, static_cast<SharedMemory::SharedMemoryKey>(s.key)))
            << s.n;
    }
    const struct { int pid, expected; } events[] = {{4711, 5471100}, {1, 5000100}, {0, 0}, {-1, 0}, {-50000, 0},
                                                   {21424836, 2147483600}, {21424837, 0}, {INT_MAX, 0}};
    for (const auto& e : events) EXPECT_EQ(e.expected, J2SE::unix_get_event_key(e.pid, 0)) << e.pid;

    // Key 0 never reaches semget, which would create a private set instead of finding one. Only
    // the sets of key 0 are compared: other tests create and remove sets of their own meanwhile.
    std::set<int> before = private_semaphore_sets();
    SharedEvent private_key(J2SE::cstring(), 0);
    EXPECT_FALSE(private_key.attach(nullptr));
    SharedEvent by_pid = J2SE::ControlAreaFile::attach_shared_event(-50000, SharedEvent::SHARED_EVENT_KEY_CONTROLS);
    EXPECT_EQ(-1, by_pid.get_handle());
    for (int id : {private_key.get_handle(), by_pid.get_handle()}) {
        if (id >= 0 && before.count(id) == 0) semctl(id, 0, IPC_RMID);  // made by the faulty lookup: remove it
    }
    for (int id : private_semaphore_sets()) EXPECT_EQ(1u, before.count(id)) << "a private semaphore set was created";
    EXPECT_FALSE(SharedMemory(0).attach(false, nullptr, nullptr));
    EXPECT_EQ(nullptr, J2SE::ControlAreaFile::attach_shared_memory(-45000, SharedMemory::SHARED_MEMORY_KEY_CONTROLS,
                                                                   nullptr, nullptr).get_map_address());
}

TEST(SystemV, SegmentsAndEventsAttachWithOneOwnerEach) {
    static_assert(!std::is_copy_constructible<SharedMemory>::value, "SharedMemory must not be copyable");
    int key = noxtest::private_ipc_key(1);
    noxtest::TestSegment segment(key, std::vector<unsigned char>(12345, 0));
    ASSERT_TRUE(segment.ok()) << segment.error();
    void* address = nullptr;
    {
        SharedMemory memory(key);
        EXPECT_FALSE(memory.detach());
        ASSERT_TRUE(memory.attach(false, nullptr, nullptr));
        EXPECT_EQ(12345u, memory.get_map_size());
        address = memory.get_map_address();
        static_cast<char*>(address)[12344] = 'z';  // attached read-write
        // A move assignment releases the target's own attachment first; the source keeps its key.
        SharedMemory other(key);
        ASSERT_TRUE(other.attach(true, nullptr, nullptr));
        void* own = other.get_map_address();
        other = std::move(memory);
        EXPECT_EQ(0, noxtest::mapping_count(own));
        EXPECT_FALSE(memory.detach());
        EXPECT_EQ(key, memory.get_key());
        EXPECT_EQ(address, other.get_map_address());
    }
    EXPECT_EQ(0, noxtest::mapping_count(address));

    // The event of a made-up pid, set up as its VM would: a signal drives the semaphore to 0.
    int pid = 3000000 + getpid() % 100000;
    noxtest::TestSemaphore semaphore(5000000 + pid * 100, 5);
    ASSERT_GE(semaphore.id(), 0);
    SharedEvent event = J2SE::ControlAreaFile::attach_shared_event(pid, SharedEvent::SHARED_EVENT_KEY_CONTROLS);
    ASSERT_EQ(semaphore.id(), event.get_handle());
    EXPECT_FALSE(event.attach(nullptr));  // attaching twice is refused
    EXPECT_TRUE(event.signal());
    EXPECT_EQ(0, semaphore.value());

    // Missing objects fail, and say which key and why.
    noxtest::RecordingTrace trace;
    int missing = noxtest::private_ipc_key(2);
    EXPECT_FALSE(SharedMemory(missing).attach(false, nullptr, &trace));
    SharedEvent none(J2SE::cstring(), missing);
    EXPECT_FALSE(none.signal());
    EXPECT_FALSE(none.attach(&trace));
    const std::string why = " failed (key=" + std::to_string(missing) + ") (2: No such file or directory)";
    EXPECT_EQ(std::vector<std::string>({"SharedMemory::attach: shmget" + why, "SharedEvent::attach: semget" + why}),
              trace.errors);
}

TEST(SystemV, MappingCacheCountsUsersAndReleasesOnTheLast) {
    J2SE::SharedFileCacheImpl cache;
    size_t size = 99;
    EXPECT_EQ(nullptr, cache.lookup_mapping("", size));
    EXPECT_EQ(nullptr, cache.lookup_mapping(nullptr, size));
    int first = 0, second = 0, unknown = 0;
    cache.add_mapping("/tmp/a", 100, &first);
    cache.add_mapping("/tmp/a", 200, &second);  // the newest entry of a name hides the older
    EXPECT_EQ(&second, cache.lookup_mapping("/tmp/a", size));
    EXPECT_EQ(200u, size);
    EXPECT_EQ(&second, cache.lookup_mapping("/tmp/a", size));
    // Three users: two removals that are not the last, then the last with the size to unmap.
    for (int use = 0; use < 2; use++) {
        EXPECT_FALSE(cache.remove_mapping(&second, size));
        EXPECT_EQ(0u, size);
    }
    EXPECT_TRUE(cache.remove_mapping(&second, size));
    EXPECT_EQ(200u, size);
    EXPECT_FALSE(cache.remove_mapping(&second, size));
    EXPECT_EQ(&first, cache.lookup_mapping("/tmp/a", size));
    size = 5;
    EXPECT_FALSE(cache.remove_mapping(&unknown, size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(&J2SE::get_shared_file_cache(), &J2SE::get_shared_file_cache());
}
