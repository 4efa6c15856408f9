// Types that own a mapping or an attachment have one owner: they cannot be copied, moving hands
// the resource over, and the owner's end releases it exactly once. Checked against this
// process's real mappings (/proc/self/maps) and real System V segments under keys of its own.
#include "cvector.h"
#include "monitoringBoardCollector.h"
#include "owned.h"
#include "sharedFile.h"
#include "sharedMemory.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <string>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

using J2SE::SharedFile;
using J2SE::SharedMemory;

namespace {

class TestSegment {
public:
    TestSegment(int key, size_t size) : _id(shmget(key, size, IPC_CREAT | IPC_EXCL | 0600)) {}
    ~TestSegment() {
        if (_id >= 0) shmctl(_id, IPC_RMID, nullptr);
    }
    int id() const { return _id; }

private:
    int _id;
};

// Mappings of System V segments in this process.
int sysv_mappings() {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int count = 0;
    while (std::getline(maps, line)) {
        if (line.find("/SYSV") != std::string::npos) count++;
    }
    return count;
}

// From now on every shmctl of this process fails with EPERM, as under a security policy that
// lets a process attach a segment but not ask for its attributes. For a child process only.
bool forbid_shmctl() {
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_shmctl, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EPERM & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

TEST(Ownership, SharedMemoryIsDetachedByItsOneOwner) {
    static_assert(!std::is_copy_constructible<SharedMemory>::value, "SharedMemory must not be copyable");
    int key = noxtest::private_ipc_key(31);
    TestSegment segment(key, 8192);
    ASSERT_GE(segment.id(), 0);
    int before = sysv_mappings();
    void* address = nullptr;
    {
        SharedMemory memory(key);
        ASSERT_TRUE(memory.attach(true, nullptr, nullptr));
        address = memory.get_map_address();
        EXPECT_EQ(before + 1, sysv_mappings());
        // Moving hands the attachment over; the source detaches nothing and keeps its key.
        SharedMemory moved(std::move(memory));
        EXPECT_EQ(nullptr, memory.get_map_address());
        EXPECT_FALSE(memory.detach());
        EXPECT_EQ(key, memory.get_key());
        EXPECT_EQ(address, moved.get_map_address());
        EXPECT_EQ(before + 1, sysv_mappings());
        // A move assignment releases the target's own attachment first.
        SharedMemory other(key);
        ASSERT_TRUE(other.attach(true, nullptr, nullptr));
        EXPECT_EQ(before + 2, sysv_mappings());
        other = std::move(moved);
        EXPECT_EQ(before + 1, sysv_mappings());
        EXPECT_EQ(address, other.get_map_address());
    }
    // The owner's end detached it.
    EXPECT_EQ(before, sysv_mappings());
    EXPECT_EQ(0, noxtest::mapping_count(address));
}

TEST(Ownership, AttachmentWhoseSizeCannotBeLearnedIsHeldByItsOwnerOnly) {
    // When shmctl fails after shmat succeeded, attach() reports false and the segment stays
    // attached: that is kept, but bounded by the object that made the attachment. A child
    // process whose shmctl always fails attaches 1000 times; at no point does it hold more than
    // one such attachment, and none is left when the objects are gone.
    int key = noxtest::private_ipc_key(32);
    TestSegment segment(key, 4096);
    ASSERT_GE(segment.id(), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (!forbid_shmctl()) _exit(10);
        int base = sysv_mappings();
        for (int round = 0; round < 1000; round++) {
            SharedMemory memory(key);
            if (memory.attach(true, nullptr, nullptr)) _exit(11);  // the size cannot be known
            if (!memory.holds_unsized_attachment()) _exit(12);
            if (memory.attach(true, nullptr, nullptr)) _exit(13);  // again: still at most one
            if (sysv_mappings() != base + 1) _exit(14);
            if (round % 2 == 0) {
                memory.detach();  // detach() releases it as well
                if (memory.holds_unsized_attachment() || sysv_mappings() != base) _exit(15);
            }
        }
        _exit(sysv_mappings() == base ? 0 : 16);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_NE(10, WEXITSTATUS(status)) << "seccomp is not available here";
    EXPECT_EQ(0, WEXITSTATUS(status)) << "the child's check number " << WEXITSTATUS(status) << " failed";
}

TEST(Ownership, RetiredMappingReadsAsZerosAndIsNeverUnmapped) {
    static_assert(!std::is_copy_constructible<MonitoringBoardProxy>::value, "a board proxy must not be copyable");
    noxtest::ScopedDir dir;
    std::string path = dir.file("board");
    ASSERT_TRUE(noxtest::write_file(path, 10000));
    SharedFile file(getpid(), J2SE::cstring(path.c_str()));
    ASSERT_TRUE(file.attach(false, nullptr));
    const char* bytes = static_cast<const char*>(file.get_map_address());
    size_t size = file.get_map_size();
    ASSERT_EQ('a', bytes[9999]);
    EXPECT_EQ(path, noxtest::mapping_path(bytes));

    ASSERT_TRUE(file.retire());
    EXPECT_FALSE(file.is_attached());
    EXPECT_FALSE(file.detach());
    // The same range, now anonymous memory of zeros: a reader that kept the address (as a Java
    // ByteBuffer does) reads zeros, even after the file itself is cut and removed.
    EXPECT_EQ("", noxtest::mapping_path(bytes));
    ASSERT_EQ(0, truncate(path.c_str(), 0));
    ASSERT_EQ(0, unlink(path.c_str()));
    for (size_t i = 0; i < size; i++) ASSERT_EQ(0, bytes[i]) << i;
    EXPECT_EQ("", noxtest::mapping_path(bytes + size - 1));
}

TEST(Ownership, OwnedObjectsAreDestroyedOnceAndMovedWithoutCopies) {
    struct Counted {
        explicit Counted(int* alive) : _alive(alive) { ++*_alive; }
        virtual ~Counted() { --*_alive; }
        int* _alive;
    };
    struct Derived : Counted {
        explicit Derived(int* alive) : Counted(alive) {}
    };
    int alive = 0;
    {
        J2SE::cvector<J2SE::Owned<Counted>> list(2);
        for (int i = 0; i < 40; i++) list.push_back(J2SE::Owned<Counted>::make<Derived>(&alive));
        EXPECT_EQ(40, alive);  // growth moved the owners; no object was made or lost on the way
        J2SE::Owned<Counted> taken = std::move(list[3]);
        EXPECT_TRUE(list[3].is_empty());
        EXPECT_EQ(40, alive);
        taken.reset();
        EXPECT_EQ(39, alive);
    }
    EXPECT_EQ(0, alive);
}
