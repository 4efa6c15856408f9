// A process cluster's control area lives in a /tmp file that its owner may cut or rewrite at any
// moment: it is found through a cache of file names (one scan of /tmp for the pids it knows),
// read from a copy and written back with pwrite. Real files of live processes, cut by the test
// or by a simulated VM that cuts and restores its own file in a loop.
#include "clusterQueries.h"
#include "controlAreaFile.h"
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using J2SE::ControlAreaCopy;
using J2SE::ControlAreaFile;
using J2SE::ControlAreaFileNames;
using noxtest::LiveChild;
using noxtest::ScopedPath;
using noxtest::Vmsim;

namespace {

off_t file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

template <typename T>
void put(std::vector<unsigned char>& bytes, size_t offset, T value) {
    memcpy(&bytes[offset], &value, sizeof value);
}

// The 8-byte lead-in and a 64-bit block of one slot in use by `pid` (VM id 777) whose instance
// area is `instance` bytes long.
std::vector<unsigned char> control_area_file(int32_t pid, uint64_t instance = 288) {
    std::vector<unsigned char> file(8 + instance + 46072, 0);
    const size_t slot = 8 + instance;
    put<uint32_t>(file, 8, 0xFADEBABEu);
    put<uint32_t>(file, 8 + 4, 0x00060023u);
    put<int32_t>(file, 8 + 8, 1);
    put<uint64_t>(file, 8 + 16, instance);
    put<uint64_t>(file, 8 + 24, 46072);
    put<int32_t>(file, slot + 0, static_cast<int32_t>(0xDEADBEEFu));
    put<int32_t>(file, slot + 112, pid);
    put<int32_t>(file, slot + 120, 777);
    return file;
}

bool write_at(int fd, const std::vector<unsigned char>& bytes) {
    return pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
}

std::string record(int id, VmRecordKind kind) {
    ByteArrayOutputStream_CL out(1024);
    if (!query_vm_record(CLUSTER_TYPE_PROCESS, id, 0, kind, out)) return "<null>";
    return std::string(reinterpret_cast<const char*>(out.data()), out.size());
}

}  // namespace

TEST(ControlAreaFiles, KnownPidsCostOneScanAndStaleFilesGo) {
    LiveChild first, second, without_file, empty_owner;
    pid_t dead = noxtest::reaped_child_pid();
    ScopedPath first_file(noxtest::control_area_path(first.pid())), second_file(noxtest::control_area_path(second.pid()));
    ScopedPath empty(noxtest::control_area_path(empty_owner.pid())), stale(noxtest::control_area_path(dead));
    ASSERT_TRUE(noxtest::write_file(first_file.path(), 4096) && noxtest::write_file(second_file.path(), 100));
    ASSERT_TRUE(noxtest::write_file(empty.path(), 0) && noxtest::write_file(stale.path(), 64));

    int scans = ControlAreaFileNames::scan_count();
    J2SE::SharedFile a = ControlAreaFile::attach_control_area(first.pid(), nullptr);
    EXPECT_EQ(scans + 1, ControlAreaFileNames::scan_count());
    EXPECT_FALSE(noxtest::path_exists(stale.path())) << "the scan leaves the file of an ended process";
    EXPECT_EQ(100u, ControlAreaFile::copy_control_area(second.pid(), 1000).extent() + 8);
    EXPECT_EQ(scans + 1, ControlAreaFileNames::scan_count()) << "a pid the cache knows cost another scan";
    ASSERT_TRUE(a.is_attached());
    EXPECT_EQ(first.pid(), a.get_pid());
    EXPECT_EQ(first_file.path(), a.get_file_name().c_str());
    EXPECT_EQ(8u, a.get_map_offset());
    EXPECT_EQ(4096u, a.get_map_size());
    static_cast<char*>(a.get_map_address())[8] = 'w';  // mapped read-write

    // A file that cannot be mapped keeps its pid and name; a pid without a file is looked for
    // again each time, and said so only to a tracer.
    J2SE::SharedFile cannot = ControlAreaFile::attach_control_area(empty_owner.pid(), nullptr);
    EXPECT_EQ(empty_owner.pid(), cannot.get_pid());
    EXPECT_FALSE(cannot.is_attached());
    noxtest::RecordingTrace trace;
    scans = ControlAreaFileNames::scan_count();
    EXPECT_EQ(-1, ControlAreaFile::attach_control_area(without_file.pid(), &trace).get_pid());
    EXPECT_FALSE(ControlAreaFile::copy_control_area(without_file.pid(), 1000).is_open());
    EXPECT_EQ(scans + 2, ControlAreaFileNames::scan_count());
    ASSERT_EQ(1u, trace.errors.size());
    EXPECT_EQ("ControlAreaFile::attach_control_area: Could not find control area filename for pid " +
                  std::to_string(without_file.pid()) + "\n",
              trace.errors[0]);

    // The library's unload releases the cache, its load makes it again.
    ControlAreaFileNames::release();
    EXPECT_FALSE(ControlAreaFile::copy_control_area(first.pid(), 1000).is_open());
    ControlAreaFileNames::create();
    EXPECT_TRUE(ControlAreaFile::copy_control_area(first.pid(), 1000).is_open());

    ScopedPath own(noxtest::control_area_path(getpid()));
    ASSERT_TRUE(noxtest::write_file(own.path(), 64));
    ControlAreaFile::destroy_control_area();
    EXPECT_FALSE(noxtest::path_exists(own.path()));
}

TEST(ControlAreaCopy, CopiesTheBlockAndWritesRequestsBackIntoTheFile) {
    Vmsim vm({"--type", "process", "--width", "64"});
    std::string path = vm.field("file");
    ControlAreaCopy copy = ControlAreaFile::copy_control_area(vm.id(), 1 << 20);
    ASSERT_TRUE(copy.is_open());
    EXPECT_EQ(static_cast<size_t>(file_size(path)) - 8, copy.extent());  // the file less its lead-in
    EXPECT_EQ(copy.extent(), copy.size());
    // A bounded first copy, then a range further out.
    ControlAreaCopy head = ControlAreaFile::copy_control_area(vm.id(), 32);
    ASSERT_EQ(32u, head.size());
    ASSERT_TRUE(head.copy_range(288, 288 + 200));
    EXPECT_EQ(488u, head.size());
    EXPECT_EQ(0, memcmp(static_cast<char*>(copy.block()) + 288, static_cast<char*>(head.block()) + 288, 200));
    EXPECT_FALSE(head.copy_range(0, head.extent() + 1));
    // A store goes into the file at the lead-in plus its offset, and into the copy.
    int32_t code = 42;
    ASSERT_TRUE(copy.write_through(288 + 404, &code, sizeof code));
    EXPECT_EQ(42, noxtest::file_int32(path, 8 + 288 + 404));
    EXPECT_EQ(0, memcmp(static_cast<char*>(copy.block()) + 288 + 404, &code, 4));

    // A slot 200000 bytes behind the header: the first copy does not reach it, a second read
    // fetches it; one byte less than the header promises and the block is refused whole.
    LiveChild far;
    ScopedPath far_file(noxtest::control_area_path(far.pid()));
    std::vector<unsigned char> content = control_area_file(far.pid(), 200000);
    int fd = open(far_file.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_TRUE(fd >= 0 && write_at(fd, content));
    EXPECT_EQ(777, query_unique_id(CLUSTER_TYPE_PROCESS, far.pid(), 0));
    ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(content.size() - 1)));
    EXPECT_EQ(-1, query_unique_id(CLUSTER_TYPE_PROCESS, far.pid(), 0));
    close(fd);
}

TEST(ControlAreaCopy, AFileCutByItsOwnerIsNeitherReadNorWrittenNorGrown) {
    LiveChild owner;
    ScopedPath path(noxtest::control_area_path(owner.pid()));
    std::vector<unsigned char> content = control_area_file(owner.pid());
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_TRUE(fd >= 0 && write_at(fd, content));

    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, owner.pid()));
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    // The owner cuts the file. Reading the copy is still safe; a request writes nothing, says
    // so, and never makes the file grow back.
    ASSERT_EQ(0, ftruncate(fd, 0));
    EXPECT_EQ(777, view->get_vm_id());
    view->exit(9);
    EXPECT_TRUE(manager.write_failed());
    EXPECT_EQ(0, file_size(path.path()));
    EXPECT_EQ(-1, query_unique_id(CLUSTER_TYPE_PROCESS, owner.pid(), 0));
    EXPECT_FALSE(request_exit(CLUSTER_TYPE_PROCESS, owner.pid(), 0, 9));
    EXPECT_EQ(0, file_size(path.path()));
    // Cut inside the slot: the header is there, the promised bytes are not.
    ASSERT_TRUE(write_at(fd, content));
    EXPECT_EQ(777, query_unique_id(CLUSTER_TYPE_PROCESS, owner.pid(), 0));
    ASSERT_EQ(0, ftruncate(fd, 8 + 288 + 500));
    EXPECT_EQ(-1, query_unique_id(CLUSTER_TYPE_PROCESS, owner.pid(), 0));
    close(fd);
}

TEST(ControlAreaCopy, EveryQueryAndRequestSurvivesAnOwnerThatCutsItsFileInALoop) {
    Vmsim vm({"--type", "process", "--flap", "--set", "vm_id=777"});
    const int pid = vm.id();
    const VmRecordKind kinds[] = {VM_RECORD_STATE, VM_RECORD_DEBUG, VM_RECORD_START, VM_RECORD_TIME, VM_RECORD_MEMORY};
    std::vector<std::string> whole;  // the answers while the file is whole
    for (VmRecordKind kind : kinds) {
        whole.push_back(record(pid, kind));
        ASSERT_NE("<null>", whole.back());
    }
    ASSERT_EQ(777, query_unique_id(CLUSTER_TYPE_PROCESS, pid, 0));
    ASSERT_TRUE(vm.send_input("go"));
    int correct = 0;
    int sentinel = 0;
    for (int round = 0; round < 3000 && !HasFailure(); round++) {
        for (size_t k = 0; k < whole.size(); k++) {
            std::string answer = record(pid, kinds[k]);
            correct += answer == whole[k];
            sentinel += answer == "<null>";
            if (answer != whole[k] && answer != "<null>") ADD_FAILURE() << "record " << k << " in round " << round;
        }
        int id = query_unique_id(CLUSTER_TYPE_PROCESS, pid, 0);
        if (id != 777 && id != -1) ADD_FAILURE() << "unique id " << id << " in round " << round;
        query_is_valid_vm(CLUSTER_TYPE_PROCESS, pid, 0);
        // Requests are raised or refused; either way nothing may break.
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
}
