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
#include <functional>
#include <iostream>
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

TEST(PerfDataFiles, ListsAndReadsTheLiveVmsOfAFolder) {
    Root root;
    noxtest::LiveChild a, b;
    std::vector<unsigned char> block = live_block("first.Main");
    ASSERT_TRUE(put(root.file(a.pid()), block));
    ASSERT_TRUE(put(root.file(b.pid()), live_block("second.jar")));
    Seen seen = list(root);
    ASSERT_EQ(2u, seen.pids.size());
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(own_user(), seen.users[i]);
        EXPECT_EQ(seen.pids[i] == a.pid() ? "first.Main" : "second.jar", seen.commands[i]);
    }
    PerfDataFile file;
    PerfDataVmRef vm;
    PerfDataHost host(root.path().c_str());
    ASSERT_TRUE(host.read_vm(a.pid(), &file, &vm));
    EXPECT_EQ(a.pid(), vm.pid);
    EXPECT_EQ(geteuid(), vm.uid);
    // The copy is the used part of the file, not its zeros after it.
    size_t used = PerfDataBuffer(block.data(), block.size()).used();
    ASSERT_LT(used, block.size());
    EXPECT_EQ(std::vector<unsigned char>(block.begin(), block.begin() + used),
              std::vector<unsigned char>(file.data(), file.data() + file.size()));
    EXPECT_EQ(block.size(), file.file_size());
    for (int pid : {static_cast<int>(noxtest::reaped_child_pid()), 0, -1}) EXPECT_FALSE(host.read_vm(pid, &file, &vm)) << pid;
}

// Each case spoils one thing of a folder that holds one good VM file under a live child's pid:
// the VM is then neither listed nor read.
TEST(PerfDataFiles, WhatIsNotALiveVmsOwnFileIsNeitherListedNorRead) {
    OthersProcess others;
    const bool root_user = geteuid() == 0;
    struct Case {
        const char* what;
        bool needs_root;
        std::function<bool(Root&, int& pid)> spoil;  // may move the VM to another pid
    };
    // needs_root: only root can give a file to another user.
    auto block_at = [](Root& r, int pid, const std::vector<unsigned char>& bytes) { return put(r.file(pid), bytes); };
    const std::vector<Case> cases = {
        {"nothing spoiled (the VM is listed)", false, [](Root&, int&) { return true; }},
        {"a pid that has ended", false, [&](Root& r, int& pid) {
             unlink(r.file(pid).c_str());
             pid = noxtest::reaped_child_pid();
             return block_at(r, pid, live_block("gone.Main"));
         }},
        {"a pid reused by a process that started after the VM began", false, [](Root& r, int& pid) {
             noxtest::PerfDataBlock old;
             old.add_long("sun.rt.createVmBeginTime", noxtest::now_millis() - 3600 * 1000, 1, 1);
             return put(r.file(pid), old.bytes());
         }},
        {"a VM that never finished publishing", false,
         [&](Root& r, int& pid) { return block_at(r, pid, live_block("starting.Main", false)); }},
        {"names that are not plain pids", false, [](Root& r, int& pid) {
             std::string p = std::to_string(pid);
             bool ok = unlink(r.file(pid).c_str()) == 0;
             for (const std::string& name : {p + ".bak", "0" + p, p + "x", "+" + p, std::string("99999999999")}) {
                 ok = ok && put(r.folder() + "/" + name, live_block("planted"));
             }
             return ok;
         }},
        {"a link to a file", false, [](Root& r, int& pid) {
             std::string target = r.path() + "/elsewhere";
             return rename(r.file(pid).c_str(), target.c_str()) == 0 && symlink(target.c_str(), r.file(pid).c_str()) == 0;
         }},
        {"a folder that is a link", false, [](Root& r, int&) {
             std::string real = r.path() + "/real";
             return rename(r.folder().c_str(), real.c_str()) == 0 && symlink(real.c_str(), r.folder().c_str()) == 0;
         }},
        {"a FIFO (which must not block)", false,
         [](Root& r, int& pid) { return unlink(r.file(pid).c_str()) == 0 && mkfifo(r.file(pid).c_str(), 0600) == 0; }},
        {"an empty file", false, [&](Root& r, int& pid) { return block_at(r, pid, {}); }},
        {"a file shorter than a prologue", false, [&](Root& r, int& pid) {
             std::vector<unsigned char> block = live_block("x");
             return block_at(r, pid, std::vector<unsigned char>(block.begin(), block.begin() + 31));
         }},
        {"a file larger than any VM writes", false,
         [](Root& r, int& pid) { return truncate(r.file(pid).c_str(), PerfDataFile::LARGEST_FILE + 1) == 0; }},
        {"a folder group-writable", false, [](Root& r, int&) { return chmod(r.folder().c_str(), 0775) == 0; }},
        {"a folder world-writable", false, [](Root& r, int&) { return chmod(r.folder().c_str(), 0757) == 0; }},
        {"a folder writable by all, sticky", false, [](Root& r, int&) { return chmod(r.folder().c_str(), 01777) == 0; }},
        {"a file of another user", true, [](Root& r, int& pid) { return chown(r.file(pid).c_str(), NOBODY, NOBODY) == 0; }},
        {"a folder of another user", true, [](Root& r, int&) { return chown(r.folder().c_str(), NOBODY, NOBODY) == 0; }},
        {"a folder named after no user", true, [](Root& r, int&) {
             return rename(r.folder().c_str(), (r.path() + "/hsperfdata_no-such-user-here").c_str()) == 0;
         }},
        // A whole, accessible block of a VM that began after its process started: only the owner
        // of the process tells it apart.
        {"a file under the pid of another user's process", false, [&](Root& r, int& pid) {
             unlink(r.file(pid).c_str());
             pid = others.pid();
             return block_at(r, pid, live_block("planted under another user's process"));
         }},
    };
    for (const Case& c : cases) {
        if (c.needs_root && !root_user) continue;
        if (c.what == cases.back().what && others.pid() == 0) {
            std::cout << "[ SKIPPED  ] " << c.what << ": no process of another user runs here" << std::endl;
            continue;
        }
        Root root;
        noxtest::LiveChild child;
        int pid = child.pid();
        ASSERT_TRUE(put(root.file(pid), live_block("x")));
        ASSERT_TRUE(c.spoil(root, pid)) << c.what;
        bool listed = &c == &cases.front();
        EXPECT_EQ(listed ? std::vector<int>{pid} : std::vector<int>{}, list(root).pids) << c.what;
        PerfDataFile file;
        PerfDataVmRef vm;
        EXPECT_EQ(listed, PerfDataHost(root.path().c_str()).read_vm(pid, &file, &vm)) << c.what;
    }
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
