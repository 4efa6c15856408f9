// SharedMemory and SharedEvent against real System V objects that each test creates with keys
// of its own, and the mapping cache's book-keeping.
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
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

using J2SE::SharedEvent;
using J2SE::SharedMemory;
using noxtest::RecordingTrace;

namespace {

// A segment created for one test and removed when the test ends.
class TestSegment {
public:
    TestSegment(int key, size_t size, int mode) : _id(shmget(key, size, IPC_CREAT | IPC_EXCL | mode)) {}
    ~TestSegment() {
        if (_id >= 0) shmctl(_id, IPC_RMID, nullptr);
    }
    int id() const { return _id; }

private:
    int _id;
};

// A set of one semaphore created for one test and removed when the test ends.
class TestSemaphore {
public:
    TestSemaphore(int key, int mode, int value) : _id(semget(key, 1, IPC_CREAT | IPC_EXCL | mode)) {
        if (_id >= 0) semctl(_id, 0, SETVAL, value);
    }
    ~TestSemaphore() {
        if (_id >= 0) semctl(_id, 0, IPC_RMID);
    }
    int id() const { return _id; }
    int value() const { return semctl(_id, 0, GETVAL); }

private:
    int _id;
};

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

TEST(SharedMemory, AttachesAnExistingSegmentAndDetaches) {
    int key = noxtest::private_ipc_key(1);
    TestSegment segment(key, 12345, 0600);
    ASSERT_GE(segment.id(), 0);
    SharedMemory memory(key);
    EXPECT_FALSE(memory.detach());
    RecordingTrace trace;
    ASSERT_TRUE(memory.attach(false, nullptr, &trace));
    EXPECT_TRUE(trace.errors.empty());
    EXPECT_EQ(memory.get_map_size(), 12345u);
    static_cast<char*>(memory.get_map_address())[12344] = 'z';  // attached read-write
    EXPECT_TRUE(memory.detach());
    EXPECT_FALSE(memory.detach());
    EXPECT_EQ(memory.get_key(), key);
    ASSERT_TRUE(memory.attach(true, nullptr, nullptr));  // the key is kept: attach again
    EXPECT_EQ(static_cast<char*>(memory.get_map_address())[12344], 'z');
    EXPECT_TRUE(memory.detach());
}

TEST(SharedMemory, MissingSegmentsAndKeyZero) {
    RecordingTrace trace;
    EXPECT_FALSE(SharedMemory(0).attach(false, nullptr, &trace));
    EXPECT_TRUE(trace.errors.empty());

    int key = noxtest::private_ipc_key(2);
    EXPECT_FALSE(SharedMemory(key).attach(false, nullptr, nullptr));
    EXPECT_FALSE(SharedMemory(key).attach(false, nullptr, &trace));
    ASSERT_EQ(trace.errors.size(), 1u);
    EXPECT_EQ(trace.errors[0], "SharedMemory::attach: shmget failed (key=" + std::to_string(key) +
                                   ") (2: No such file or directory)");
}

TEST(SharedMemory, InstanceClusterKeysAndTheirAttach) {
    EXPECT_EQ(J2SE::unix_get_shared_memory_key(0, SharedMemory::SHARED_MEMORY_KEY_CONTROLS), 4500000);
    EXPECT_EQ(J2SE::unix_get_shared_memory_key(7, SharedMemory::SHARED_MEMORY_KEY_CONTROLS), 4500700);
    EXPECT_EQ(J2SE::unix_get_shared_memory_key(7, SharedMemory::SHARED_MEMORY_KEY_SHARED_POOL), 4500701);
    EXPECT_EQ(J2SE::unix_get_shared_memory_key(INT_MAX, SharedMemory::SHARED_MEMORY_KEY_CONTROLS), 0);
    EXPECT_EQ(J2SE::unix_get_shared_memory_key(-45000, SharedMemory::SHARED_MEMORY_KEY_CONTROLS), 0);
    SharedMemory none = J2SE::ControlAreaFile::attach_shared_memory(
        -45000, SharedMemory::SHARED_MEMORY_KEY_CONTROLS, nullptr, nullptr);
    EXPECT_EQ(none.get_map_address(), nullptr);
    EXPECT_EQ(none.get_map_size(), 0u);
}

TEST(SharedEvent, SignalDrivesTheSemaphoreToZero) {
    int key = noxtest::private_ipc_key(3);
    TestSemaphore semaphore(key, 0600, 5);
    ASSERT_GE(semaphore.id(), 0);
    SharedEvent event(J2SE::cstring("test"), key);
    EXPECT_FALSE(event.signal());  // not attached
    ASSERT_TRUE(event.attach(nullptr));
    EXPECT_EQ(event.get_handle(), semaphore.id());
    EXPECT_FALSE(event.attach(nullptr));  // attaching twice is refused
    EXPECT_EQ(semaphore.value(), 5);
    EXPECT_TRUE(event.signal());
    EXPECT_EQ(semaphore.value(), 0);
    event.detach();
    EXPECT_EQ(event.get_handle(), semaphore.id());  // detach keeps the id
}

TEST(SharedEvent, MissingSetsAndImpossibleKeys) {
    RecordingTrace trace;
    int key = noxtest::private_ipc_key(4);
    SharedEvent missing(J2SE::cstring(), key);
    EXPECT_FALSE(missing.attach(&trace));
    ASSERT_EQ(trace.errors.size(), 1u);
    EXPECT_EQ(trace.errors[0],
              "SharedEvent::attach: semget failed (key=" + std::to_string(key) + ") (2: No such file or directory)");

    EXPECT_EQ(J2SE::unix_get_event_key(0, 0), 0);
    EXPECT_EQ(J2SE::unix_get_event_key(4711, 0), 5471100);
    EXPECT_EQ(J2SE::unix_get_event_key(-50000, 0), 0);  // would be IPC_PRIVATE
    EXPECT_EQ(J2SE::unix_get_event_key(INT_MAX, 0), 0);  // outside int

    // Key 0 must never reach semget, which would create a private set instead of finding one.
    // Only the sets of key 0 are counted: other tests create and remove sets of their own keys
    // meanwhile, and nothing of ours ever creates a private set.
    std::set<int> private_before = private_semaphore_sets();
    SharedEvent private_key(J2SE::cstring(), 0);
    EXPECT_FALSE(private_key.attach(&trace));
    SharedEvent by_pid = J2SE::ControlAreaFile::attach_shared_event(-50000, SharedEvent::SHARED_EVENT_KEY_CONTROLS);
    EXPECT_EQ(by_pid.get_handle(), -1);
    for (int id : private_semaphore_sets()) {
        EXPECT_EQ(private_before.count(id), 1u) << "a private semaphore set " << id << " was created";
    }
}

TEST(SharedEvent, AttachByPidFindsTheVmsSet) {
    // The key of the VM event of a made-up pid; the set is created by the test as a VM would.
    int pid = 3000000 + getpid() % 100000;
    int key = J2SE::unix_get_event_key(pid, SharedEvent::SHARED_EVENT_KEY_CONTROLS);
    TestSemaphore semaphore(key, 0700, 1);
    ASSERT_GE(semaphore.id(), 0);
    SharedEvent event = J2SE::ControlAreaFile::attach_shared_event(pid, SharedEvent::SHARED_EVENT_KEY_CONTROLS);
    EXPECT_EQ(event.get_key(), key);
    ASSERT_EQ(event.get_handle(), semaphore.id());
    EXPECT_TRUE(event.signal());
    EXPECT_EQ(semaphore.value(), 0);
}

TEST(SharedFileCache, CountsUsersAndReleasesOnTheLast) {
    J2SE::SharedFileCacheImpl cache;
    size_t size = 99;
    EXPECT_EQ(cache.lookup_mapping("", size), nullptr);
    EXPECT_EQ(cache.lookup_mapping(nullptr, size), nullptr);
    EXPECT_EQ(size, 99u);

    int first = 0;
    int second = 0;
    cache.add_mapping("/tmp/a", 100, &first);
    cache.add_mapping("/tmp/a", 200, &second);  // the newest entry of a name hides the older
    EXPECT_EQ(cache.lookup_mapping("/tmp/a", size), &second);
    EXPECT_EQ(size, 200u);
    EXPECT_EQ(cache.lookup_mapping("/tmp/a", size), &second);
    EXPECT_EQ(cache.attach_count_of(&second), 3);

    EXPECT_FALSE(cache.remove_mapping(&second, size));
    EXPECT_EQ(size, 0u);
    EXPECT_FALSE(cache.remove_mapping(&second, size));
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(cache.remove_mapping(&second, size));
    EXPECT_EQ(size, 200u);
    EXPECT_EQ(cache.attach_count_of(&second), 0);
    EXPECT_EQ(cache.lookup_mapping("/tmp/a", size), &first);

    int unknown = 0;
    size = 5;
    EXPECT_FALSE(cache.remove_mapping(&unknown, size));
    EXPECT_EQ(size, 0u);

    EXPECT_EQ(&J2SE::get_shared_file_cache(), &J2SE::get_shared_file_cache());
}
