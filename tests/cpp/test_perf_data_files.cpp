// Finding and copying performance-data files, in a private temp root laid out as /tmp is:
// <root>/hsperfdata_<user>/<pid>. The files are synthetic blocks or copies of real VM files,
// published under the pids of live children of this test.
#include "perfDataBlock.h"
#include "perfDataFile.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <chrono>
#include <fcntl.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using J2SE::PerfDataBuffer;
using J2SE::PerfDataFile;
using J2SE::PerfDataHost;
using J2SE::PerfDataVmRef;

namespace {

std::string own_user() {
    struct passwd* pw = getpwuid(geteuid());
    return pw != nullptr ? pw->pw_name : "";
}

// A block that a VM that began now would publish.
std::vector<unsigned char> live_block(const std::string& command, bool accessible = true) {
    noxtest::PerfDataBlock b;
    b.add_long("sun.rt.createVmBeginTime", noxtest::now_millis(), 1, 1)
        .add_string("sun.rt.javaCommand", command)
        .accessible(accessible);
    return b.bytes(4096);
}

bool put(const std::string& path, const std::vector<unsigned char>& bytes, mode_t mode = 0600) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return false;
    bool ok = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    close(fd);
    return ok;
}

// A temp root with this user's folder in it.
class Root {
public:
    Root() : _folder(_dir.path() + "/hsperfdata_" + own_user()) { mkdir(_folder.c_str(), 0755); }
    const std::string& path() const { return _dir.path(); }
    const std::string& folder() const { return _folder; }
    std::string file(int pid) const { return _folder + "/" + std::to_string(pid); }

private:
    noxtest::ScopedDir _dir;
    std::string _folder;
};

struct Seen {
    std::vector<int> pids;
    std::vector<std::string> users;
    std::vector<std::string> commands;
};

bool record(const PerfDataVmRef& vm, const PerfDataBuffer& block, void* context) {
    Seen* seen = static_cast<Seen*>(context);
    seen->pids.push_back(vm.pid);
    seen->users.push_back(vm.user.c_str());
    J2SE::PerfCounter c;
    seen->commands.push_back(block.find("sun.rt.javaCommand", &c)
                                 ? std::string(reinterpret_cast<const char*>(c.bytes), c.bytes_length)
                                 : "");
    return true;
}

Seen list(const Root& root) {
    Seen seen;
    PerfDataHost(root.path().c_str()).for_each_vm(record, &seen);
    return seen;
}

}  // namespace

TEST(PerfDataFiles, OnlyPlainPidsAreNamesOfVmFiles) {
    EXPECT_EQ(1, J2SE::perf_data_pid_of_name("1"));
    EXPECT_EQ(4242, J2SE::perf_data_pid_of_name("4242"));
    EXPECT_EQ(2147483647, J2SE::perf_data_pid_of_name("2147483647"));
    for (const char* name : {"", "0", "0123", "-5", "+5", " 5", "5 ", "12.bak", "12abc", "abc", "2147483648",
                             "99999999999999999999", "."}) {
        EXPECT_EQ(0, J2SE::perf_data_pid_of_name(name)) << "'" << name << "'";
    }
    EXPECT_EQ(0, J2SE::perf_data_pid_of_name(nullptr));
}

TEST(PerfDataFiles, ListsTheLiveVmsOfAFolder) {
    Root root;
    noxtest::LiveChild a, b;
    ASSERT_TRUE(put(root.file(a.pid()), live_block("first.Main")));
    ASSERT_TRUE(put(root.file(b.pid()), live_block("second.jar")));
    Seen seen = list(root);
    ASSERT_EQ(2u, seen.pids.size());
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(own_user(), seen.users[i]);
        EXPECT_EQ(seen.pids[i] == a.pid() ? "first.Main" : "second.jar", seen.commands[i]);
    }
}

TEST(PerfDataFiles, ReadsOneVmByPid) {
    Root root;
    noxtest::LiveChild child;
    std::vector<unsigned char> block = live_block("Sleep arg1");
    ASSERT_TRUE(put(root.file(child.pid()), block));
    PerfDataFile file;
    PerfDataVmRef vm;
    ASSERT_TRUE(PerfDataHost(root.path().c_str()).read_vm(child.pid(), &file, &vm));
    EXPECT_EQ(child.pid(), vm.pid);
    EXPECT_EQ(geteuid(), vm.uid);
    EXPECT_EQ(block, std::vector<unsigned char>(file.data(), file.data() + file.size()));
    EXPECT_FALSE(PerfDataHost(root.path().c_str()).read_vm(noxtest::reaped_child_pid(), &file, &vm));
    EXPECT_FALSE(PerfDataHost(root.path().c_str()).read_vm(0, &file, &vm));
    EXPECT_FALSE(PerfDataHost(root.path().c_str()).read_vm(-1, &file, &vm));
}

TEST(PerfDataFiles, FilesOfEndedVmsAreNotLive) {
    Root root;
    int gone = noxtest::reaped_child_pid();
    ASSERT_TRUE(put(root.file(gone), live_block("gone.Main")));
    // A live process whose pid a VM used before: the process started after that VM began.
    noxtest::LiveChild reused;
    noxtest::PerfDataBlock old;
    old.add_long("sun.rt.createVmBeginTime", noxtest::now_millis() - 3600 * 1000, 1, 1);
    ASSERT_TRUE(put(root.file(reused.pid()), old.bytes()));
    // A VM that never finished publishing.
    noxtest::LiveChild starting;
    ASSERT_TRUE(put(root.file(starting.pid()), live_block("starting.Main", false)));
    EXPECT_TRUE(list(root).pids.empty());
}

TEST(PerfDataFiles, NamesThatAreNotPidsAreSkipped) {
    Root root;
    noxtest::LiveChild child;
    std::string pid = std::to_string(child.pid());
    for (const std::string& name : {pid + ".bak", "0" + pid, pid + "x", std::string("+") + pid, std::string("99999999999")}) {
        ASSERT_TRUE(put(root.folder() + "/" + name, live_block("planted")));
    }
    EXPECT_TRUE(list(root).pids.empty());
}

TEST(PerfDataFiles, LinksAreNotFollowed) {
    Root root;
    noxtest::LiveChild child;
    std::string target = root.path() + "/elsewhere";
    ASSERT_TRUE(put(target, live_block("linked")));
    ASSERT_EQ(0, symlink(target.c_str(), root.file(child.pid()).c_str()));
    EXPECT_TRUE(list(root).pids.empty());
    PerfDataFile file;
    PerfDataVmRef vm;
    EXPECT_FALSE(PerfDataHost(root.path().c_str()).read_vm(child.pid(), &file, &vm));

    // A folder that is a link to a good folder.
    noxtest::ScopedDir other;
    std::string real_folder = other.path() + "/real";
    ASSERT_EQ(0, mkdir(real_folder.c_str(), 0755));
    ASSERT_TRUE(put(real_folder + "/" + std::to_string(child.pid()), live_block("in a linked folder")));
    ASSERT_EQ(0, unlink(root.file(child.pid()).c_str()));
    ASSERT_EQ(0, rmdir(root.folder().c_str()));
    ASSERT_EQ(0, symlink(real_folder.c_str(), root.folder().c_str()));
    EXPECT_TRUE(list(root).pids.empty());
    EXPECT_FALSE(PerfDataHost(root.path().c_str()).read_vm(child.pid(), &file, &vm));
}

TEST(PerfDataFiles, AFifoUnderAPidDoesNotBlock) {
    Root root;
    noxtest::LiveChild child;
    ASSERT_EQ(0, mkfifo(root.file(child.pid()).c_str(), 0600));
    EXPECT_TRUE(list(root).pids.empty());
    PerfDataFile file;
    PerfDataVmRef vm;
    EXPECT_FALSE(PerfDataHost(root.path().c_str()).read_vm(child.pid(), &file, &vm));
}

TEST(PerfDataFiles, FoldersOthersMayWriteAreSkipped) {
    Root root;
    noxtest::LiveChild child;
    ASSERT_TRUE(put(root.file(child.pid()), live_block("x")));
    ASSERT_EQ(1u, list(root).pids.size());
    for (mode_t mode : {0777, 0775, 0757, 01777}) {
        ASSERT_EQ(0, chmod(root.folder().c_str(), mode));
        EXPECT_TRUE(list(root).pids.empty()) << std::oct << mode;
    }
    ASSERT_EQ(0, chmod(root.folder().c_str(), 0700));
    EXPECT_EQ(1u, list(root).pids.size());
}

TEST(PerfDataFiles, FoldersAndFilesOfAnotherOwnerAreSkipped) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    Root root;
    noxtest::LiveChild child;
    ASSERT_TRUE(put(root.file(child.pid()), live_block("x")));
    ASSERT_EQ(0, chown(root.file(child.pid()).c_str(), 65534, 65534));
    EXPECT_TRUE(list(root).pids.empty());
    ASSERT_EQ(0, chown(root.file(child.pid()).c_str(), 0, 0));
    ASSERT_EQ(1u, list(root).pids.size());
    ASSERT_EQ(0, chown(root.folder().c_str(), 65534, 65534));
    EXPECT_TRUE(list(root).pids.empty());
    // A folder named after a user who does not exist.
    std::string nobody_folder = root.path() + "/hsperfdata_no-such-user-here";
    ASSERT_EQ(0, rename(root.folder().c_str(), nobody_folder.c_str()));
    EXPECT_TRUE(list(root).pids.empty());
}

TEST(PerfDataFiles, EmptyShortAndHugeFilesAreRefused) {
    Root root;
    noxtest::LiveChild a, b, c;
    ASSERT_TRUE(put(root.file(a.pid()), {}));
    std::vector<unsigned char> block = live_block("x");
    ASSERT_TRUE(put(root.file(b.pid()), std::vector<unsigned char>(block.begin(), block.begin() + 31)));
    ASSERT_TRUE(put(root.file(c.pid()), block));
    ASSERT_EQ(0, truncate(root.file(c.pid()).c_str(), PerfDataFile::LARGEST_FILE + 1));
    EXPECT_TRUE(list(root).pids.empty());
}

TEST(PerfDataFiles, AFileCutAndRestoredWhileReadIsNeverReadInPart) {
    Root root;
    noxtest::LiveChild child;
    noxtest::PerfDataBlock b;
    b.add_long("sun.rt.createVmBeginTime", noxtest::now_millis(), 1, 1).add_string("sun.rt.javaCommand", "flapping");
    std::vector<unsigned char> block = b.bytes(4096);
    b.put_int(block, 8, static_cast<int32_t>(block.size()));  // every byte used, as in a full file
    std::string path = root.file(child.pid());
    ASSERT_TRUE(put(path, block));
    std::atomic<bool> stop(false);
    std::thread flapper([&] {
        while (!stop.load()) {
            int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
            if (fd < 0) continue;
            if (ftruncate(fd, 0) != 0) break;
            if (write(fd, block.data(), block.size() / 2) < 0) break;
            if (write(fd, block.data() + block.size() / 2, block.size() - block.size() / 2) < 0) break;
            close(fd);
        }
    });
    PerfDataHost host(root.path().c_str());
    PerfDataFile file;
    PerfDataVmRef vm;
    int whole = 0;
    int refused = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < deadline) {
        if (host.read_vm(child.pid(), &file, &vm)) {
            // Only the whole file is taken: never the half the flapper had written so far.
            ASSERT_EQ(block.size(), file.size());
            EXPECT_EQ(0, memcmp(block.data(), file.data(), block.size()));
            whole++;
        } else {
            refused++;
        }
    }
    stop = true;
    flapper.join();
    EXPECT_GT(whole + refused, 100);
    EXPECT_GT(whole, 0) << "the file was never read whole";
}
