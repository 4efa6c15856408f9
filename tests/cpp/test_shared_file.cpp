// SharedFile against real files: creation, mapping, one owner per mapping, a scan whose entries
// vanish under it, and the profiling server's file. The rules of a scan are in
// test_control_area_scan.cpp.
#include "sharedFile.h"
#include "sharedUtils.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

using J2SE::cstring;
using J2SE::cvector;
using J2SE::SharedFile;
using noxtest::LiveChild;
using noxtest::ScopedDir;

TEST(SharedFile, CreateReservesWholePagesWithTheModeAskedFor) {
    ScopedDir dir;
    mode_t old_mask = umask(022);
    noxtest::RecordingTrace trace;
    // restricted, local -> mode
    const struct { bool restricted, local; mode_t mode; } modes[] = {
        {true, true, 0600}, {true, false, 0644}, {false, true, 0600}, {false, false, 0600}};
    for (const auto& m : modes) {
        std::string path = dir.file("created" + std::to_string(m.restricted) + std::to_string(m.local));
        int fd = SharedFile::create_file(cstring(path.c_str()), 5000, m.restricted, m.local, trace);
        ASSERT_GE(fd, 0);
        struct stat st;
        ASSERT_EQ(0, fstat(fd, &st));
        EXPECT_EQ(m.mode, st.st_mode & 07777);
        EXPECT_EQ(8192, st.st_size);
        EXPECT_GE(st.st_blocks * 512, 8192);  // reserved, not sparse: a full /tmp fails here, not later
        EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
        close(fd);
    }
    umask(old_mask);
    SharedFile shared = SharedFile::create_shared_file(cstring(dir.file("shared").c_str()), 5000, false, false, trace);
    ASSERT_TRUE(shared.is_attached());
    EXPECT_EQ(getpid(), shared.get_pid());
    const unsigned char* bytes = static_cast<const unsigned char*>(shared.get_map_address());
    for (int i = 0; i < 5000; i++) ASSERT_EQ(0, bytes[i]) << i;
    EXPECT_EQ("rw-s", noxtest::mapping_permissions(bytes));
    EXPECT_TRUE(trace.errors.empty());

    // A link planted at the name is replaced, never followed.
    std::string target = dir.file("target");
    ASSERT_TRUE(noxtest::write_file(target, 10));
    ASSERT_EQ(0, symlink(target.c_str(), dir.file("link").c_str()));
    int fd = SharedFile::create_file(cstring(dir.file("link").c_str()), 100, false, false, trace);
    ASSERT_GE(fd, 0);
    close(fd);
    struct stat st;
    ASSERT_EQ(0, stat(target.c_str(), &st));
    EXPECT_EQ(10, st.st_size);
    // A failure says which file and why.
    SharedFile failed = SharedFile::create_shared_file(cstring("/nonexistent-noxtest/file"), 100, false, false, trace);
    EXPECT_FALSE(failed.is_attached());
    ASSERT_EQ(2u, trace.errors.size());
    EXPECT_EQ("SharedFile::create_file: Could not create shared memory file /nonexistent-noxtest/file "
              "(2: No such file or directory)",
              trace.errors[0]);
}

TEST(SharedFile, AttachMapsOnlyARegularFileWithoutFollowingLinks) {
    ScopedDir dir;
    std::string path = dir.file("data");
    ASSERT_TRUE(noxtest::write_file(path, 3000));
    SharedFile file(42, cstring(path.c_str()));
    for (bool writable : {false, true}) {
        ASSERT_TRUE(file.attach(writable, nullptr));
        EXPECT_EQ(3000u, file.get_map_size());
        EXPECT_EQ(writable ? "rw-s" : "r--s", noxtest::mapping_permissions(file.get_map_address()));
        EXPECT_EQ('a', static_cast<const char*>(file.get_map_address())[2999]);
        EXPECT_TRUE(file.detach());
        EXPECT_FALSE(file.detach());
    }
    // Empty, missing, a link, a FIFO (which would block an open forever) or a folder: refused.
    ASSERT_TRUE(noxtest::write_file(dir.file("empty"), 0));
    ASSERT_EQ(0, symlink(path.c_str(), dir.file("link").c_str()));
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    for (const std::string& name : {dir.file("empty"), dir.file("missing"), dir.file("link"), dir.file("fifo"), dir.path()}) {
        EXPECT_FALSE(SharedFile(1, cstring(name.c_str())).attach(false, nullptr)) << name;
    }
}

TEST(SharedFile, EachMappingHasOneOwnerThroughMovesAndRetirement) {
    static_assert(!std::is_copy_constructible<SharedFile>::value, "SharedFile must not be copyable");
    static_assert(!std::is_copy_assignable<SharedFile>::value, "SharedFile must not be copy-assignable");
    ScopedDir dir;
    std::string path = dir.file("data");
    ASSERT_TRUE(noxtest::write_file(path, 10000));
    SharedFile source(7, cstring(path.c_str()));
    ASSERT_TRUE(source.attach(false, nullptr));
    void* address = source.get_map_address();
    SharedFile moved(std::move(source));
    EXPECT_EQ(nullptr, source.get_map_address());
    EXPECT_FALSE(source.detach());
    EXPECT_EQ(7, source.get_pid());  // pid and name stay with the source
    EXPECT_EQ(address, moved.get_map_address());
    // A move assignment first releases the target's own mapping.
    SharedFile assigned(8, cstring(path.c_str()));
    ASSERT_TRUE(assigned.attach(false, nullptr));
    void* own = assigned.get_map_address();
    assigned = std::move(moved);
    EXPECT_EQ(0, noxtest::mapping_count(own)) << "the target's old mapping must be unmapped";
    EXPECT_EQ(1, noxtest::mapping_count(address));
    // Vectors move and then destroy on growth: every mapping survives that, once.
    std::vector<void*> addresses;
    {
        cvector<SharedFile> files;
        for (int i = 0; i < 20; i++) {
            SharedFile f(i, cstring(path.c_str()));
            ASSERT_TRUE(f.attach(false, nullptr));
            addresses.push_back(f.get_map_address());
            files.push_back(std::move(f));
        }
        for (int i = 0; i < 20; i++) EXPECT_EQ(addresses[i], files[i].get_map_address());
    }
    for (void* a : addresses) EXPECT_EQ(0, noxtest::mapping_count(a));

    // A retired mapping becomes zeros in place, never unmapped: a reader that kept the address
    // (as a Java ByteBuffer does) reads zeros, even after the file is cut and removed.
    const char* bytes = static_cast<const char*>(assigned.get_map_address());
    ASSERT_TRUE(assigned.retire());
    EXPECT_FALSE(assigned.is_attached());
    EXPECT_FALSE(assigned.detach());
    ASSERT_EQ(0, truncate(path.c_str(), 0));
    for (size_t i = 0; i < 10000; i++) ASSERT_EQ(0, bytes[i]) << i;
    EXPECT_EQ("", noxtest::mapping_path(bytes));
}

namespace {

// Deletes the other files of the folder while the scan runs, as a concurrent cleaner would.
class VanishingHandler : public J2SE::StaleSharedFileHandler {
public:
    explicit VanishingHandler(std::vector<std::string> victims) : _victims(std::move(victims)) {}
    bool is_stale(const cstring&, int) const override {
        for (const std::string& victim : _victims) unlink(victim.c_str());
        return false;
    }
    void on_stale(const cstring&, int) const override {}

private:
    std::vector<std::string> _victims;
};

}  // namespace

TEST(SharedFileScan, VanishingEntriesAndPatternsWithoutAFolderFindNothing) {
    ScopedDir dir;
    std::vector<std::string> names;
    for (int i = 0; i < 20; i++) {
        names.push_back(dir.file("nox_jvm_" + std::to_string(i) + "_" + std::to_string(getpid())));
        ASSERT_TRUE(noxtest::write_file(names.back(), 10));
    }
    VanishingHandler handler(names);
    cvector<SharedFile> files;
    SharedFile::get_shared_files(files, cstring((dir.path() + "/nox_jvm_%d_%d").c_str()), true, false, nullptr, false,
                                 handler);
    EXPECT_EQ(1, files.size());  // the first file met is listed; the others were gone before lstat
    for (const char* pattern : {"nox_jvm_%d_%d", "/nox_jvm_%d_%d", "/nonexistent-noxtest/nox_jvm_%d_%d"}) {
        SharedFile::get_shared_files(files, cstring(pattern), true, false, nullptr, false, handler);
        EXPECT_EQ(0, files.size()) << pattern;
    }
}

TEST(SharedFileScan, ProfilingServerOfAPidIsFoundAndRemovedWhenItsProcessEnds) {
    LiveChild child;
    cstring name = J2SE::get_profiling_server_string(child.pid(), static_cast<int>(geteuid()));
    EXPECT_TRUE(J2SE::get_profiling_server_string(child.pid()).is_empty());
    noxtest::ScopedPath socket_file(name.c_str());
    ASSERT_TRUE(noxtest::make_socket_file(socket_file.path()));
    EXPECT_EQ(socket_file.path(), J2SE::get_profiling_server_string(child.pid()).c_str());
    child.end();
    EXPECT_TRUE(J2SE::get_profiling_server_string(child.pid()).is_empty());
    EXPECT_FALSE(noxtest::path_exists(socket_file.path()));
}
