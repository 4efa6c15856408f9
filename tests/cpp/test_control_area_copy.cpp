// A process cluster's control area is read from a copy of its file and written back with
// pwrite, so that its owner may cut or rewrite the file at any moment without harm: real files
// of live processes, cut by the test or by a second process that truncates and restores its own
// file in a loop while every query and request runs against it.
#include "clusterQueries.h"
#include "controlAreaFile.h"
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using J2SE::ControlAreaCopy;
using noxtest::Vmsim;

namespace {

std::string file_of(pid_t pid) {
    return "/tmp/nox_jvm_" + std::to_string(geteuid()) + "_" + std::to_string(pid);
}

off_t file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

template <typename T>
void put(std::vector<unsigned char>& bytes, size_t offset, T value) {
    memcpy(&bytes[offset], &value, sizeof value);
}

// The 8-byte lead-in and a 64-bit block of one slot in use by `pid`, with a few figures set.
std::vector<unsigned char> control_area_file(int32_t pid) {
    std::vector<unsigned char> file(8 + 288 + 46072, 0);
    const size_t block = 8;
    const size_t slot = block + 288;
    put<uint32_t>(file, block + 0, 0xFADEBABEu);
    put<uint32_t>(file, block + 4, 0x00060023u);
    put<int32_t>(file, block + 8, 1);
    put<uint64_t>(file, block + 16, 288);
    put<uint64_t>(file, block + 24, 46072);
    put<int32_t>(file, block + 44, 1);  // attach count
    put<int32_t>(file, slot + 0, static_cast<int32_t>(0xDEADBEEFu));
    put<int32_t>(file, slot + 112, pid);
    put<int32_t>(file, slot + 120, 777);                   // VM id
    put<int32_t>(file, slot + 384, 1);                     // debugging state: not active
    memcpy(&file[slot + 14280], "17.0.9-flap", 11);        // VM version
    put<int64_t>(file, slot + 25072, 12);                  // number of GCs
    put<int64_t>(file, slot + 944, 100);                   // system time
    put<int64_t>(file, slot + 952, 200);                   // user time
    put<int64_t>(file, slot + 960, 300);                   // processing time
    return file;
}

bool write_whole(int fd, const std::vector<unsigned char>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
        if (put <= 0) return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

// A child process that publishes its own control-area file, waits for a byte on `go`, then cuts
// the file to nothing and writes it whole again, over and over, until it is killed.
class FlappingOwner {
public:
    FlappingOwner() : _pid(-1), _go(-1) {
        int ready[2];
        int go[2];
        if (pipe(ready) != 0 || pipe(go) != 0) return;
        _pid = fork();
        if (_pid == 0) {
            close(ready[0]);
            close(go[1]);
            std::vector<unsigned char> content = control_area_file(getpid());
            std::string path = file_of(getpid());
            int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
            if (fd < 0 || !write_whole(fd, content)) _exit(1);
            char byte = 'r';
            if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 1) _exit(2);
            for (;;) {
                // Cut, then restore with one write from offset 0, as an owner rewriting its
                // file does; a short pause keeps the whole file visible part of the time.
                if (ftruncate(fd, 0) != 0 || pwrite(fd, content.data(), content.size(), 0) !=
                                                  static_cast<ssize_t>(content.size())) {
                    _exit(3);
                }
                usleep(50);
            }
        }
        close(ready[1]);
        close(go[0]);
        _go = go[1];
        char byte = 0;
        if (_pid < 0 || read(ready[0], &byte, 1) != 1) _pid = -1;
        close(ready[0]);
    }
    ~FlappingOwner() {
        if (_go >= 0) close(_go);
        if (_pid > 0) {
            kill(_pid, SIGKILL);
            waitpid(_pid, nullptr, 0);
            unlink(file_of(_pid).c_str());
        }
    }
    pid_t pid() const { return _pid; }
    void start_flapping() {
        char byte = 'g';
        if (write(_go, &byte, 1) != 1) ADD_FAILURE() << "the flapping owner is gone";
    }

private:
    pid_t _pid;
    int _go;
};

std::string record(int type, int id, int slot, VmRecordKind kind) {
    ByteArrayOutputStream_CL out(1024);
    if (!query_vm_record(type, id, slot, kind, out)) return "<null>";
    return std::string(reinterpret_cast<const char*>(out.data()), out.size());
}

}  // namespace

TEST(ControlAreaCopy, CopiesTheBlockAndWritesRequestsBackIntoTheFile) {
    Vmsim vm({"--type", "process", "--width", "64", "--set", "vm_id=31"});
    std::string path = vm.field("file");
    ControlAreaCopy copy = J2SE::ControlAreaFile::copy_control_area(vm.id(), 1 << 20);
    ASSERT_TRUE(copy.is_open());
    // The whole block behind the lead-in: the file less its 8 bytes.
    EXPECT_EQ(static_cast<size_t>(file_size(path)) - 8, copy.extent());
    EXPECT_EQ(copy.extent(), copy.size());
    // A bounded first copy, then a range further out.
    ControlAreaCopy head = J2SE::ControlAreaFile::copy_control_area(vm.id(), 32);
    ASSERT_TRUE(head.is_open());
    EXPECT_EQ(32u, head.size());
    ASSERT_TRUE(head.copy_range(288, 288 + 200));
    EXPECT_EQ(488u, head.size());
    EXPECT_EQ(0, memcmp(static_cast<char*>(copy.block()) + 288, static_cast<char*>(head.block()) + 288, 200));
    EXPECT_FALSE(head.copy_range(0, head.extent() + 1));  // not beyond the block

    // A store goes into the file at the lead-in plus its offset, and into the copy.
    int32_t code = 42;
    ASSERT_TRUE(copy.write_through(288 + 404, &code, sizeof code));
    EXPECT_EQ(42, noxtest::file_int32(path, 8 + 288 + 404));
    int32_t in_copy = 0;
    memcpy(&in_copy, static_cast<char*>(copy.block()) + 288 + 404, 4);
    EXPECT_EQ(42, in_copy);
}

TEST(ControlAreaCopy, AFileCutByItsOwnerIsNeitherReadNorWrittenNorGrown) {
    noxtest::LiveChild owner;
    std::string path = file_of(owner.pid());
    noxtest::ScopedPath cleanup(path);
    std::vector<unsigned char> content = control_area_file(owner.pid());
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(write_whole(fd, content));

    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, owner.pid()));
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    EXPECT_EQ(777, view->get_vm_id());
    // The owner cuts the file. Reading the copy is still safe; a request writes nothing, says
    // so, and never makes the file grow back.
    ASSERT_EQ(0, ftruncate(fd, 0));
    EXPECT_EQ(777, view->get_vm_id());
    view->exit(9);
    EXPECT_TRUE(manager.write_failed());
    EXPECT_EQ(0, file_size(path));
    // The queries see the cut file as no cluster at all.
    EXPECT_EQ(-1, query_unique_id(CLUSTER_TYPE_PROCESS, owner.pid(), 0));
    EXPECT_FALSE(request_exit(CLUSTER_TYPE_PROCESS, owner.pid(), 0, 9));
    EXPECT_EQ(0, file_size(path));
    // Cut inside the slot: the header is there, the promised bytes are not.
    ASSERT_EQ(static_cast<ssize_t>(content.size()), pwrite(fd, content.data(), content.size(), 0));
    EXPECT_EQ(777, query_unique_id(CLUSTER_TYPE_PROCESS, owner.pid(), 0));
    ASSERT_EQ(0, ftruncate(fd, 8 + 288 + 500));
    EXPECT_EQ(-1, query_unique_id(CLUSTER_TYPE_PROCESS, owner.pid(), 0));
    close(fd);
}

TEST(ControlAreaCopy, EveryQueryAndRequestSurvivesAnOwnerThatCutsItsFileInALoop) {
    FlappingOwner owner;
    ASSERT_GT(owner.pid(), 0) << "the flapping owner did not start";
    const int pid = owner.pid();
    // The answers while the file is whole.
    const std::string state = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_STATE);
    const std::string debug = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_DEBUG);
    const std::string start = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_START);
    const std::string time = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_TIME);
    const std::string memory = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_MEMORY);
    ASSERT_NE("<null>", start);
    ASSERT_NE("<null>", memory);
    ASSERT_EQ(777, query_unique_id(CLUSTER_TYPE_PROCESS, pid, 0));

    owner.start_flapping();
    int correct = 0;
    int sentinel = 0;
    auto judge = [&](bool is_correct, bool is_sentinel, const char* what, int round) {
        if (is_correct) {
            correct++;
        } else if (is_sentinel) {
            sentinel++;
        } else {
            ADD_FAILURE() << what << " in round " << round << " is neither the VM's answer nor the sentinel";
        }
    };
    const int rounds = 3000;
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        std::string s = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_STATE);
        judge(s == state, s == "<null>", "state record", round);
        std::string d = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_DEBUG);
        judge(d == debug, d == "<null>", "debug record", round);
        std::string st = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_START);
        judge(st == start, st == "<null>", "start record", round);
        std::string t = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_TIME);
        judge(t == time, t == "<null>", "time record", round);
        std::string m = record(CLUSTER_TYPE_PROCESS, pid, 0, VM_RECORD_MEMORY);
        judge(m == memory, m == "<null>", "memory record", round);
        int id = query_unique_id(CLUSTER_TYPE_PROCESS, pid, 0);
        judge(id == 777, id == -1, "unique id", round);
        query_is_valid_vm(CLUSTER_TYPE_PROCESS, pid, 0);
        // Requests: raised (true) or refused (false); either way nothing may break. The owner's
        // next restore clears whatever flag was raised.
        request_start_debugging(CLUSTER_TYPE_PROCESS, pid, 0, 1);
        request_stop_debugging(CLUSTER_TYPE_PROCESS, pid, 0);
        request_exit(CLUSTER_TYPE_PROCESS, pid, 0, 3);
        if (round % 20 == 0) {
            ByteArrayOutputStream_CL list(1024);
            query_cluster_list(list);
        }
    }
    // Both kinds of answer occurred: the file was really cut, and still read while whole.
    EXPECT_GT(correct, 0);
    EXPECT_GT(sentinel, 0);
    RecordProperty("correct", correct);
    RecordProperty("sentinel", sentinel);
}
