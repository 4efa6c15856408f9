// Process facts, checked against real processes and against what /proc and ps report for them:
// whether a pid names a live process (through each probe), and when a process started.
#include "sharedUtils.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

using J2SE::SharedUtils;

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
