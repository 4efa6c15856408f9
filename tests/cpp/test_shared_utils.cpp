// Process facts and file names, checked against real processes and against what /proc and ps
// report for them.
#include "sharedUtils.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

using J2SE::cstring;
using J2SE::SharedUtils;
using noxtest::LiveChild;

TEST(ProcessExists, LiveReapedOwnAndImpossiblePids) {
    EXPECT_EQ(SharedUtils::process_exists(getpid()), 1);
    EXPECT_EQ(SharedUtils::get_own_pid(), getpid());
    LiveChild child;
    EXPECT_EQ(SharedUtils::process_exists(child.pid()), 1);
    EXPECT_EQ(J2SE::test_process_by_kill(child.pid()), 1);
    EXPECT_EQ(J2SE::test_process_by_proc(child.pid()), 1);
    EXPECT_EQ(J2SE::test_process_by_ps(child.pid()), 1);
    child.end();

    pid_t dead = noxtest::reaped_child_pid();
    EXPECT_EQ(SharedUtils::process_exists(dead), 0);
    EXPECT_EQ(J2SE::test_process_by_kill(dead), 0);
    EXPECT_EQ(J2SE::test_process_by_proc(dead), 0);
    EXPECT_EQ(J2SE::test_process_by_ps(dead), 0);

    // 0 and -1 would make kill() probe process groups; they never name a live process.
    EXPECT_EQ(SharedUtils::process_exists(0), 0);
    EXPECT_EQ(SharedUtils::process_exists(-1), 0);
    EXPECT_EQ(SharedUtils::process_exists(-50000), 0);
    // pid 1 always exists; for an unprivileged caller kill() answers EPERM, which means alive.
    EXPECT_EQ(SharedUtils::process_exists(1), 1);
}

TEST(CreationTime, MatchesProcAndPsToTheSecond) {
    LiveChild child;
    uint64_t seconds = SharedUtils::creationtime_of_process(child.pid());
    ASSERT_NE(seconds, 0u);

    std::string lstart = noxtest::command_output("ps -o lstart= -p " + std::to_string(child.pid()));
    ASSERT_FALSE(lstart.empty());
    while (!lstart.empty() && (lstart.back() == '\n' || lstart.back() == ' ')) lstart.pop_back();
    std::string from_ps = noxtest::command_output("LC_ALL=C date -d '" + lstart + "' +%s");
    EXPECT_EQ(seconds, std::stoull(from_ps));

    // The same figure from /proc, computed independently with awk.
    std::string from_proc = noxtest::command_output(
        "awk -v hz=$(getconf CLK_TCK) -v bt=$(awk '/^btime/{print $2}' /proc/stat) "
        "'{ sub(/.*\\) /, \"\"); print bt + int($20 / hz) }' /proc/" + std::to_string(child.pid()) + "/stat");
    EXPECT_EQ(seconds, std::stoull(from_proc));

    child.end();
    EXPECT_EQ(SharedUtils::creationtime_of_process(child.pid()), 0u);
    EXPECT_EQ(SharedUtils::creationtime_of_process(0), 0u);
    EXPECT_EQ(SharedUtils::creationtime_of_process(-7), 0u);
    EXPECT_GT(SharedUtils::creationtime_of_process(getpid()), 0u);
}

TEST(ProcessFacts, CpuCountAndElevation) {
    EXPECT_EQ(SharedUtils::get_num_cpu(), static_cast<int>(sysconf(_SC_NPROCESSORS_CONF)));
    EXPECT_EQ(std::to_string(SharedUtils::get_num_cpu()) + "\n", noxtest::command_output("getconf _NPROCESSORS_CONF"));
    EXPECT_FALSE(SharedUtils::could_elevate());
}

TEST(FileNames, FamiliesCarryUidFirstAndPidSecond) {
    EXPECT_STREQ(J2SE::get_controlarea_string(4711, 100).c_str(), "/tmp/nox_jvm_100_4711");
    EXPECT_STREQ(J2SE::get_monitor_board_string(4711, 100).c_str(), "/tmp/nox_jvm_monitoringboard_100_4711");
    EXPECT_STREQ(J2SE::get_profiling_server_string(4711, 100).c_str(), "/tmp/nox_jvm_profiling_server_100_4711");
    EXPECT_STREQ(J2SE::get_noxfile_format_string().c_str(), "/tmp/nox_jvm_%255s");
}

TEST(FileNames, ParsingAcceptsOnlyWholeNamesWithIntNumbers) {
    const char* pattern = "/tmp/nox_jvm_%d_%d";
    int uid = -1;
    int pid = -1;
    EXPECT_EQ(J2SE::parse_file_name("/tmp/nox_jvm_100_4711", pattern, &uid, &pid), 2);
    EXPECT_EQ(uid, 100);
    EXPECT_EQ(pid, 4711);
    EXPECT_EQ(J2SE::parse_file_name("/tmp/nox_jvm_0_2147483647", pattern, &uid, &pid), 2);
    EXPECT_EQ(pid, 2147483647);
    // Overflow, trailing text, signs, blanks and other families are not names of this family.
    EXPECT_NE(J2SE::parse_file_name("/tmp/nox_jvm_100_2147483648", pattern, &uid, &pid), 2);
    EXPECT_NE(J2SE::parse_file_name("/tmp/nox_jvm_99999999999999999999_1", pattern, &uid, &pid), 2);
    EXPECT_NE(J2SE::parse_file_name("/tmp/nox_jvm_100_4711.bak", pattern, &uid, &pid), 2);
    EXPECT_NE(J2SE::parse_file_name("/tmp/nox_jvm_100_-4711", pattern, &uid, &pid), 2);
    EXPECT_NE(J2SE::parse_file_name("/tmp/nox_jvm_ 100_4711", pattern, &uid, &pid), 2);
    EXPECT_NE(J2SE::parse_file_name("/tmp/nox_jvm_monitoringboard_100_4711", pattern, &uid, &pid), 2);
    EXPECT_NE(J2SE::parse_file_name("/tmp/nox_jvm_100_", pattern, &uid, &pid), 2);
    EXPECT_NE(J2SE::parse_file_name("/tmp/nox_jvm_%255s", pattern, &uid, &pid), 2);
}

TEST(FileNames, ProfilingServerOfAPidIsFoundByScan) {
    LiveChild child;
    cstring name = J2SE::get_profiling_server_string(child.pid(), static_cast<int>(geteuid()));
    EXPECT_TRUE(J2SE::get_profiling_server_string(child.pid()).is_empty());
    noxtest::ScopedPath socket_file(name.c_str());
    ASSERT_TRUE(noxtest::make_socket_file(socket_file.path()));
    EXPECT_STREQ(J2SE::get_profiling_server_string(child.pid()).c_str(), name.c_str());

    // Once the process has gone, the scan deletes its socket file and finds nothing.
    child.end();
    EXPECT_TRUE(J2SE::get_profiling_server_string(child.pid()).is_empty());
    EXPECT_FALSE(noxtest::path_exists(socket_file.path()));
}
