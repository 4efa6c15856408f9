// ControlAreaFile against real control-area files in /tmp, named for live child processes of
// the test, so that parallel tests never share a name.
#include "controlAreaFile.h"
#include "sharedUtils.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

using J2SE::ControlAreaFile;
using J2SE::ControlAreaFileNames;
using J2SE::cstring;
using J2SE::SharedFile;
using noxtest::LiveChild;
using noxtest::RecordingTrace;
using noxtest::ScopedPath;

namespace {

std::string control_area_name(pid_t pid) {
    return J2SE::get_controlarea_string(pid, static_cast<int>(geteuid())).c_str();
}

}  // namespace

TEST(ControlAreaFiles, TwoKnownPidsCostOneScanAndMapAtOffsetEight) {
    LiveChild first;
    LiveChild second;
    ScopedPath first_file(control_area_name(first.pid()));
    ScopedPath second_file(control_area_name(second.pid()));
    ASSERT_TRUE(noxtest::write_file(first_file.path(), 4096));
    ASSERT_TRUE(noxtest::write_file(second_file.path(), 100));

    int scans = ControlAreaFileNames::scan_count();
    SharedFile a = ControlAreaFile::attach_control_area(first.pid(), nullptr);
    EXPECT_EQ(ControlAreaFileNames::scan_count(), scans + 1);
    SharedFile b = ControlAreaFile::attach_control_area(second.pid(), nullptr);
    EXPECT_EQ(ControlAreaFileNames::scan_count(), scans + 1);  // found in the cache

    ASSERT_TRUE(a.is_attached());
    EXPECT_EQ(a.get_pid(), first.pid());
    EXPECT_STREQ(a.get_file_name().c_str(), first_file.c_str());
    EXPECT_EQ(a.get_map_offset(), 8u);
    EXPECT_EQ(a.get_map_size(), 4096u);
    static_cast<char*>(a.get_map_address())[8] = 'w';  // mapped read-write
    ASSERT_TRUE(b.is_attached());
    EXPECT_EQ(b.get_map_size(), 100u);
    EXPECT_STREQ(ControlAreaFileNames::lookup(second.pid()).c_str(), second_file.c_str());
}

TEST(ControlAreaFiles, UnknownPidRescansEachTimeAndTracesOnlyWithATracer) {
    LiveChild child;  // alive, but without a control-area file
    RecordingTrace trace;
    int scans = ControlAreaFileNames::scan_count();
    SharedFile none = ControlAreaFile::attach_control_area(child.pid(), &trace);
    EXPECT_EQ(none.get_pid(), -1);
    EXPECT_TRUE(none.get_file_name().is_empty());
    EXPECT_FALSE(none.is_attached());
    EXPECT_EQ(none.get_map_offset(), 0u);
    ASSERT_EQ(trace.errors.size(), 1u);
    EXPECT_EQ(trace.errors[0], "ControlAreaFile::attach_control_area: Could not find control area filename for pid " +
                                   std::to_string(child.pid()) + "\n");
    ControlAreaFile::attach_control_area(child.pid(), nullptr);
    EXPECT_EQ(ControlAreaFileNames::scan_count(), scans + 2);
    EXPECT_EQ(trace.errors.size(), 1u);
}

TEST(ControlAreaFiles, AFileThatCannotBeMappedKeepsPidAndName) {
    LiveChild child;
    ScopedPath empty(control_area_name(child.pid()));
    ASSERT_TRUE(noxtest::write_file(empty.path(), 0));
    SharedFile file = ControlAreaFile::attach_control_area(child.pid(), nullptr);
    EXPECT_EQ(file.get_pid(), child.pid());
    EXPECT_STREQ(file.get_file_name().c_str(), empty.c_str());
    EXPECT_FALSE(file.is_attached());
    EXPECT_EQ(file.get_map_offset(), 0u);
}

TEST(ControlAreaFiles, StaleAreasAreRemovedAndTheOwnFileDestroyed) {
    pid_t dead = noxtest::reaped_child_pid();
    ScopedPath stale(control_area_name(dead));
    ASSERT_TRUE(noxtest::write_file(stale.path(), 64));
    J2SE::StdStaleSharedFileHandler handler;
    ControlAreaFile::remove_stale_control_areas(handler);
    EXPECT_FALSE(noxtest::path_exists(stale.path()));

    ScopedPath own(control_area_name(getpid()));
    ASSERT_TRUE(noxtest::write_file(own.path(), 64));
    ControlAreaFile::destroy_control_area();
    EXPECT_FALSE(noxtest::path_exists(own.path()));
}

TEST(ControlAreaFiles, CacheSurvivesReleaseAndRecreation) {
    LiveChild child;
    ScopedPath file(control_area_name(child.pid()));
    ASSERT_TRUE(noxtest::write_file(file.path(), 64));
    EXPECT_TRUE(ControlAreaFile::attach_control_area(child.pid(), nullptr).is_attached());
    ControlAreaFileNames::release();
    EXPECT_TRUE(ControlAreaFileNames::lookup(child.pid()).is_empty());
    // Without a cache nothing is found; once it is created again the pid is found by a scan.
    EXPECT_EQ(ControlAreaFile::attach_control_area(child.pid(), nullptr).get_pid(), -1);
    ControlAreaFileNames::create();
    EXPECT_TRUE(ControlAreaFile::attach_control_area(child.pid(), nullptr).is_attached());
}
