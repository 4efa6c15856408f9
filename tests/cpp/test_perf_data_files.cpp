// Finding and copying performance-data files, in a private temp root laid out as /tmp is:
// <root>/hsperfdata_<user>/<pid>. The files are synthetic blocks or copies of real VM files,
// published under the pids of live children of this test.
#include "hotspotQueries.h"
#include "perfDataBlock.h"
#include "perfDataHost.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <memory>
#include <pwd.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

const unsigned NOBODY = 65534;

// Bytes this process has read so far with read and pread (rchar of /proc/self/io).
uint64_t bytes_read() {
    std::ifstream io("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (io >> key >> value) {
        if (key == "rchar:") return value;
    }
    throw std::runtime_error("no rchar in /proc/self/io");
}

// Pids above the kernel's largest: they name no process, ever.
int pid_that_never_exists(int n) {
    std::ifstream in("/proc/sys/kernel/pid_max");
    int max = 0;
    in >> max;
    return max + 1 + n;
}

// A process of another user: as root a child that becomes nobody; otherwise any process of
// another user that is already running (it started before the blocks the test writes). 0 when
// there is none.
class OthersProcess {
public:
    OthersProcess() : _child(-1), _pid(0) {
        if (geteuid() == 0) {
            int ready[2];
            if (pipe(ready) != 0) throw std::runtime_error("pipe failed");
            _child = fork();
            if (_child == 0) {
                if (setgroups(0, nullptr) != 0 || setgid(NOBODY) != 0 || setuid(NOBODY) != 0) _exit(1);
                // A change of user leaves the process undumpable, which shows /proc/<pid> as
                // root's: dumpable again, it is nobody's, as a program that nobody starts.
                prctl(PR_SET_DUMPABLE, 1);
                if (write(ready[1], "r", 1) != 1) _exit(1);
                for (;;) pause();
            }
            close(ready[1]);
            char c;
            bool started = read(ready[0], &c, 1) == 1;
            close(ready[0]);
            if (!started) throw std::runtime_error("the child of nobody did not start");
            _pid = _child;
            return;
        }
        for (int pid = 1; pid < 100000 && _pid == 0; pid++) {
            struct stat st;
            if (stat(("/proc/" + std::to_string(pid)).c_str(), &st) == 0 && st.st_uid != geteuid()) _pid = pid;
        }
    }
    ~OthersProcess() {
        if (_child <= 0) return;
        kill(_child, SIGKILL);
        waitpid(_child, nullptr, 0);
    }
    int pid() const { return _pid; }

private:
    pid_t _child;
    int _pid;
};

// A block whose prologue says `used` bytes are used, in a sparse file of LARGEST_FILE bytes.
bool put_huge(const std::string& path, std::vector<unsigned char> block, int32_t used) {
    noxtest::PerfDataBlock().put_int(block, 8, used);
    return put(path, block) && truncate(path.c_str(), J2SE::PerfDataFile::LARGEST_FILE) == 0;
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
    // The copy is the used part of the file, not its zeros after it.
    size_t used = PerfDataBuffer(block.data(), block.size()).used();
    ASSERT_LT(used, block.size());
    EXPECT_EQ(std::vector<unsigned char>(block.begin(), block.begin() + used),
              std::vector<unsigned char>(file.data(), file.data() + file.size()));
    EXPECT_EQ(block.size(), file.file_size());
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
    int reads = 0;
    // A number of reads, not a time: the check is that no copy is ever taken in part.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while ((reads < 300 || whole == 0) && std::chrono::steady_clock::now() < deadline) {
        reads++;
        if (host.read_vm(child.pid(), &file, &vm)) {
            // Only the whole file is taken: never the half the flapper had written so far.
            ASSERT_EQ(block.size(), file.size());
            EXPECT_EQ(0, memcmp(block.data(), file.data(), block.size()));
            whole++;
        }
    }
    stop = true;
    flapper.join();
    EXPECT_GT(whole, 0) << "the file was never read whole in " << reads << " reads";
}

TEST(PerfDataFiles, AFileUnderThePidOfAnotherUsersProcessIsNotAVm) {
    Root root;
    noxtest::LiveChild own;
    OthersProcess others;
    if (others.pid() == 0) GTEST_SKIP() << "no process of another user runs on this host";
    // Both files are whole, accessible blocks of a VM that began after its process started: only
    // the owner of the process tells them apart.
    ASSERT_TRUE(put(root.file(own.pid()), live_block("own")));
    ASSERT_TRUE(put(root.file(others.pid()), live_block("planted under another user's process")));
    EXPECT_EQ(std::vector<int>{own.pid()}, list(root).pids);
}

// Someone plants sparse 16 MiB files that claim 16 MiB of counters: under pids that name no
// process, and under processes that are not the folder owner's. A listing must cost their
// names, not their bytes; a VM's file costs its used part, not its size.
TEST(PerfDataFiles, PlantedFilesCostAListingNoMoreThanTheirPrologue) {
    const int32_t HUGE = static_cast<int32_t>(J2SE::PerfDataFile::LARGEST_FILE);
    const uint64_t NAMES_ONLY = 64 * 1024;  // /etc/passwd, /proc/<pid>/stat and the prologues
    Root root;
    ASSERT_EQ(0, chmod(root.path().c_str(), 0755));
    for (int i = 0; i < 16; i++) ASSERT_TRUE(put_huge(root.file(pid_that_never_exists(i)), live_block("x"), HUGE));
    noxtest::LiveChild garbage, vm;
    ASSERT_TRUE(put(root.file(garbage.pid()), std::vector<unsigned char>(64, 0)));
    ASSERT_EQ(0, truncate(root.file(garbage.pid()).c_str(), HUGE));
    std::vector<unsigned char> vm_block = live_block("the only VM");
    ASSERT_TRUE(put_huge(root.file(vm.pid()), vm_block, 4096));
    uint64_t before = bytes_read();
    EXPECT_EQ(std::vector<int>{vm.pid()}, list(root).pids);
    EXPECT_LT(bytes_read() - before, 4096 + NAMES_ONLY);

    if (geteuid() != 0) {
        std::cout << "[ SKIPPED  ] files planted by a second user: needs root to be one" << std::endl;
        return;
    }
    // nobody plants in its own folder, under no process and under a process of root's.
    std::string folder = root.path() + "/hsperfdata_nobody";
    std::string seed = root.path() + "/seed";
    std::vector<unsigned char> seed_block = live_block("planted by nobody");
    noxtest::PerfDataBlock().put_int(seed_block, 8, HUGE);
    ASSERT_TRUE(put(seed, seed_block, 0644));
    ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    ASSERT_EQ(0, chown(folder.c_str(), NOBODY, NOBODY));
    std::string script = "for p in";
    for (int i = 0; i < 16; i++) script += " " + std::to_string(pid_that_never_exists(i));
    script += " " + std::to_string(vm.pid()) + "; do cp " + seed + " " + folder + "/$p && truncate -s " +
              std::to_string(HUGE) + " " + folder + "/$p || exit 1; done";
    ASSERT_EQ(0, system(("setpriv --reuid=65534 --regid=65534 --clear-groups sh -c '" + script + "'").c_str()));
    before = bytes_read();
    EXPECT_EQ(std::vector<int>{vm.pid()}, list(root).pids);
    EXPECT_LT(bytes_read() - before, 4096 + NAMES_ONLY);
}

// A pass over the host copies each VM's file once (a scrape of N VMs reads N used parts).
TEST(PerfDataFiles, TheHostPassCopiesEachFileOnce) {
    const int VMS = 8;
    Root root;
    noxtest::PerfDataBlock b;
    b.add_long("sun.rt.createVmBeginTime", noxtest::now_millis(), 1, 1)
        .add_string("sun.rt.javaCommand", "many.Counters")
        .add_string("a.long.text", std::string(60000, 'x'));
    std::vector<unsigned char> block = b.bytes();
    std::vector<std::unique_ptr<noxtest::LiveChild>> children;
    for (int i = 0; i < VMS; i++) {
        children.push_back(std::make_unique<noxtest::LiveChild>());
        ASSERT_TRUE(put(root.file(children.back()->pid()), block));
    }
    ByteArrayOutputStream_CL out(1 << 20);
    uint64_t before = bytes_read();
    ASSERT_TRUE(query_hotspot_host_pass(PerfDataHost(root.path().c_str()), out));
    uint64_t spent = bytes_read() - before;
    EXPECT_GE(spent, VMS * block.size());
    EXPECT_LT(spent, VMS * (block.size() + 4096) + 16384) << "more than one copy of some file";
    EXPECT_GT(out.size(), static_cast<size_t>(VMS) * 100);
}
