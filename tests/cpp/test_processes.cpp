// Process facts, checked against real processes and against what /proc and ps report for them:
// whether a pid names a live process (through each probe), and when a process started. Then what
// the HotSpot reader reads of /proc: the namespace pid of a status file and libjvm.so in a maps
// file, fed through the parsers as the kernel writes them, the maps from a file whose reads cut
// the library's name.
#include "processProbe.h"
#include "sharedUtils.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

using J2SE::SharedUtils;

namespace {

std::string status_with(const std::string& nspid_line) {
    return "Name:\tjava\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t4242\nNgid:\t0\nPid:\t4242\nPPid:\t1\n" +
           nspid_line + "NSpgid:\t4242\nVmPeak:\t  123 kB\n";
}

// Whether the reader finds libjvm.so in `text`, read from a file as it reads /proc/<pid>/maps.
bool maps_name_libjvm(const std::string& text) {
    int fd = memfd_create("maps", MFD_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(fd, 0, SEEK_SET) != 0) {
        throw std::runtime_error("memfd failed");
    }
    bool found = J2SE::maps_name_libjvm(fd);
    close(fd);
    return found;
}

}  // namespace

TEST(Processes, LivenessOfLiveEndedOwnAndImpossiblePids) {
    noxtest::LiveChild child;
    pid_t dead = noxtest::reaped_child_pid();
    // pid -> alive; 0 and -1 would make kill() probe process groups, -50000 a group too; pid 1
    // always exists (for an unprivileged caller kill() answers EPERM, which means alive).
    const struct { int pid; int alive; bool probes; } cases[] = {
        {getpid(), 1, false}, {child.pid(), 1, true}, {dead, 0, true}, {1, 1, false},
        {0, 0, false},        {-1, 0, false},         {-50000, 0, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.alive, SharedUtils::process_exists(c.pid)) << c.pid;
        if (!c.probes) continue;
        EXPECT_EQ(c.alive, J2SE::test_process_by_kill(c.pid)) << c.pid;
        EXPECT_EQ(c.alive, J2SE::test_process_by_proc(c.pid)) << c.pid;
        EXPECT_EQ(c.alive, J2SE::test_process_by_ps(c.pid)) << c.pid;
    }
    EXPECT_EQ(getpid(), SharedUtils::get_own_pid());
}

TEST(Processes, StartTimeMatchesProcAndPsToTheSecond) {
    noxtest::LiveChild child;
    uint64_t seconds = SharedUtils::creationtime_of_process(child.pid());
    ASSERT_NE(0u, seconds);
    std::string lstart = noxtest::command_output("ps -o lstart= -p " + std::to_string(child.pid()));
    ASSERT_FALSE(lstart.empty());
    while (!lstart.empty() && (lstart.back() == '\n' || lstart.back() == ' ')) lstart.pop_back();
    EXPECT_EQ(std::stoull(noxtest::command_output("LC_ALL=C date -d '" + lstart + "' +%s")), seconds);
    // The same figure from /proc, computed independently with awk.
    std::string from_proc = noxtest::command_output(
        "awk -v hz=$(getconf CLK_TCK) -v bt=$(awk '/^btime/{print $2}' /proc/stat) "
        "'{ sub(/.*\\) /, \"\"); print bt + int($20 / hz) }' /proc/" + std::to_string(child.pid()) + "/stat");
    EXPECT_EQ(std::stoull(from_proc), seconds);
    int ended = child.pid();
    child.end();
    for (int pid : {ended, 0, -7}) EXPECT_EQ(0u, SharedUtils::creationtime_of_process(pid)) << pid;
}

TEST(PerfDataProcesses, TheNamespacePidIsTheLastNspidField) {
    struct Case {
        std::string line;
        int expected;
    } cases[] = {
        {"NSpid:\t4242\n", 4242},              // our own pid namespace
        {"NSpid:\t4242\t1\n", 1},              // pid 1 of a container
        {"NSpid:\t4242\t77\t12\n", 12},        // nested namespaces: the innermost
        {"NSpid:\t4242\t\n", 4242},
        {"NSpid:\t4242\tx\n", 0},
        {"NSpid:\t4242\t-1\n", 0},
        {"NSpid:\t4242\t0\n", 0},
        {"NSpid:\t4242\t99999999999\n", 0},    // beyond int
        {"NSpid:\t\n", 0},
        {"", 0},
    };
    for (const Case& c : cases) {
        std::string text = status_with(c.line);
        EXPECT_EQ(c.expected, J2SE::namespace_pid_of_status(text.data(), text.size())) << c.line;
    }
    // The last line of a status file may lack its newline.
    std::string last = "Pid:\t7\nNSpid:\t7\t3";
    EXPECT_EQ(3, J2SE::namespace_pid_of_status(last.data(), last.size()));
}

TEST(PerfDataProcesses, LibjvmIsFoundInMapsWhereverAReadCutsItsName) {
    const size_t READ = 16384;  // the reader's chunk: its reads of a file end at multiples of it
    const std::string line = "7f3a1c000000-7f3a1d000000 r-xp 00000000 08:01 131 ";
    struct Case {
        std::string mapped;
        bool found;
    } cases[] = {
        {"/usr/lib/jvm/java-17-openjdk-amd64/lib/server/libjvm.so\n", true},
        {"/usr/lib/jvm/java-17-openjdk-amd64/lib/server/libjvm.so (deleted)\n", true},  // the JDK was upgraded
        {"/opt/app/lib/libjvm.so.bak\n", false},
        {"/opt/app/lib/notlibjvm.so\n", false},
        {"/opt/app/lib/libjvm.so-helper\n", false},
    };
    for (const Case& c : cases) {
        size_t name = c.mapped.rfind('/');
        // The first read ends inside the name, at its start, and just before its newline.
        for (size_t cut : {name + 4, name, c.mapped.size() - 1}) {
            std::string text = line + "/usr/lib/x86_64-linux-gnu/libc.so.6\n";
            size_t lead = READ * 2 - cut - line.size();
            text += std::string(lead - text.size() - 1, 'x') + "\n";
            text += line + c.mapped + line + "[heap]\n";
            ASSERT_EQ(READ * 2, text.find(c.mapped) + cut);
            EXPECT_EQ(c.found, maps_name_libjvm(text)) << c.mapped << " cut after " << cut;
        }
    }
}
