// SharedFile against real files: creation, mapping, the hand-over of mappings on copy, and the
// directory scan with its stale-file and newest-file-per-pid rules. Scans run over a private
// folder of each test, so that tests running in parallel never see each other's files.
#include "sharedFile.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

#include <fcntl.h>
#include <fstream>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using J2SE::cstring;
using J2SE::cvector;
using J2SE::SharedFile;
using noxtest::LiveChild;
using noxtest::RecordingTrace;
using noxtest::ScopedDir;

namespace {

std::string name_for(const ScopedDir& dir, int uid, int pid) {
    return dir.file("nox_jvm_" + std::to_string(uid) + "_" + std::to_string(pid));
}

std::string pattern_of(const ScopedDir& dir) {
    return dir.path() + "/nox_jvm_%d_%d";
}

std::set<std::string> scan(const ScopedDir& dir, bool write_access, cvector<SharedFile>* out = nullptr) {
    cvector<SharedFile> files;
    J2SE::StdStaleSharedFileHandler handler;
    void* cache = SharedFile::get_shared_files(files, cstring(pattern_of(dir).c_str()), write_access, false,
                                               nullptr, false, handler);
    EXPECT_EQ(cache, nullptr);
    std::set<std::string> names;
    for (int i = 0; i < files.size(); i++) {
        names.insert(files[i].get_file_name().c_str());
        EXPECT_FALSE(files[i].is_attached());
    }
    if (out != nullptr) *out = std::move(files);
    return names;
}

// The permissions of the mapping at `address`, as /proc/self/maps shows them ("rw-s").
std::string mapping_permissions(const void* address) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    unsigned long wanted = reinterpret_cast<unsigned long>(address);
    while (std::getline(maps, line)) {
        unsigned long begin = 0;
        unsigned long end = 0;
        char perms[5] = {0};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, perms) == 3 && begin <= wanted && wanted < end) {
            return perms;
        }
    }
    return "";
}

}  // namespace

TEST(SharedFileCreate, RoundsToPagesProvesTheSpaceAndZeroesTheMapping) {
    ScopedDir dir;
    std::string path = dir.file("created");
    RecordingTrace trace;
    int fd = SharedFile::create_file(cstring(path.c_str()), 5000, false, false, trace);
    ASSERT_GE(fd, 0);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size, 8192);
    EXPECT_GE(st.st_blocks * 512, 8192);  // the space is reserved, not sparse
    char byte = 0;
    ASSERT_EQ(pread(fd, &byte, 1, 8190), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
    EXPECT_TRUE(trace.errors.empty());

    SharedFile shared = SharedFile::create_shared_file(cstring(path.c_str()), 5000, false, false, trace);
    ASSERT_TRUE(shared.is_attached());
    EXPECT_EQ(shared.get_pid(), getpid());
    EXPECT_EQ(shared.get_map_size(), 5000u);
    const unsigned char* bytes = static_cast<const unsigned char*>(shared.get_map_address());
    for (int i = 0; i < 5000; i++) ASSERT_EQ(bytes[i], 0) << i;
    EXPECT_EQ(mapping_permissions(bytes), "rw-s");
}

TEST(SharedFileCreate, ModesFollowRestrictedAndLocal) {
    ScopedDir dir;
    mode_t old_mask = umask(022);
    RecordingTrace trace;
    struct Case {
        bool restricted;
        bool local;
        mode_t mode;
    } cases[] = {{true, true, 0600}, {true, false, 0644}, {false, true, 0600}, {false, false, 0600}};
    int n = 0;
    for (const Case& c : cases) {
        std::string path = dir.file("mode" + std::to_string(n++));
        int fd = SharedFile::create_file(cstring(path.c_str()), 100, c.restricted, c.local, trace);
        ASSERT_GE(fd, 0);
        close(fd);
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, c.mode) << c.restricted << c.local;
    }
    umask(old_mask);
}

TEST(SharedFileCreate, FailuresTraceTheExactTexts) {
    RecordingTrace trace;
    cstring missing("/nonexistent-folder-of-noxtest/file");
    EXPECT_EQ(SharedFile::create_file(missing, 100, false, false, trace), -1);
    ASSERT_EQ(trace.errors.size(), 1u);
    EXPECT_EQ(trace.errors[0],
              "SharedFile::create_file: Could not create shared memory file /nonexistent-folder-of-noxtest/file "
              "(2: No such file or directory)");

    trace.errors.clear();
    SharedFile failed = SharedFile::create_shared_file(missing, 100, false, false, trace);
    EXPECT_EQ(failed.get_pid(), -1);
    EXPECT_TRUE(failed.get_file_name().is_empty());
    EXPECT_FALSE(failed.is_attached());
    ASSERT_EQ(trace.errors.size(), 2u);
    EXPECT_EQ(trace.errors[1], "SharedFile::create_shared_memory: create_file failed ");

    // A planted symbolic link at the name is replaced, never followed.
    ScopedDir dir;
    std::string target = dir.file("target");
    ASSERT_TRUE(noxtest::write_file(target, 10));
    std::string link_path = dir.file("link");
    ASSERT_EQ(symlink(target.c_str(), link_path.c_str()), 0);
    int fd = SharedFile::create_file(cstring(link_path.c_str()), 100, false, false, trace);
    ASSERT_GE(fd, 0);
    close(fd);
    struct stat st;
    ASSERT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 10);
}

TEST(SharedFileAttach, ReadOnlyReadWriteEmptyAndDetach) {
    ScopedDir dir;
    std::string path = dir.file("data");
    ASSERT_TRUE(noxtest::write_file(path, 3000));
    SharedFile file(42, cstring(path.c_str()));
    EXPECT_FALSE(file.detach());

    ASSERT_TRUE(file.attach(false, nullptr));
    EXPECT_EQ(file.get_map_size(), 3000u);
    EXPECT_EQ(mapping_permissions(file.get_map_address()), "r--s");
    EXPECT_EQ(static_cast<const char*>(file.get_map_address())[2999], 'a');
    EXPECT_TRUE(file.detach());
    EXPECT_FALSE(file.detach());
    EXPECT_EQ(file.get_pid(), 42);
    EXPECT_STREQ(file.get_file_name().c_str(), path.c_str());

    ASSERT_TRUE(file.attach(true, nullptr));
    EXPECT_EQ(mapping_permissions(file.get_map_address()), "rw-s");
    EXPECT_TRUE(file.detach());

    std::string empty = dir.file("empty");
    ASSERT_TRUE(noxtest::write_file(empty, 0));
    EXPECT_FALSE(SharedFile(1, cstring(empty.c_str())).attach(false, nullptr));
    EXPECT_FALSE(SharedFile(1, cstring()).attach(false, nullptr));
    EXPECT_FALSE(SharedFile(1, cstring(dir.file("missing").c_str())).attach(false, nullptr));

    // Neither a link nor a FIFO is opened: a FIFO would block the caller forever.
    std::string link_path = dir.file("link");
    ASSERT_EQ(symlink(path.c_str(), link_path.c_str()), 0);
    EXPECT_FALSE(SharedFile(1, cstring(link_path.c_str())).attach(false, nullptr));
    std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(SharedFile(1, cstring(fifo.c_str())).attach(false, nullptr));
    EXPECT_FALSE(SharedFile(1, cstring(dir.path().c_str())).attach(false, nullptr));
}

TEST(SharedFileOwnership, MoveHandsTheMappingOverAndGrowthKeepsIt) {
    // A SharedFile cannot be copied: only one object may own a mapping.
    static_assert(!std::is_copy_constructible<SharedFile>::value, "SharedFile must not be copyable");
    static_assert(!std::is_copy_assignable<SharedFile>::value, "SharedFile must not be copy-assignable");
    ScopedDir dir;
    std::string path = dir.file("data");
    ASSERT_TRUE(noxtest::write_file(path, 100));
    SharedFile source(7, cstring(path.c_str()));
    ASSERT_TRUE(source.attach(false, nullptr));
    void* address = source.get_map_address();

    SharedFile moved(std::move(source));
    EXPECT_FALSE(source.is_attached());
    EXPECT_EQ(source.get_map_size(), 0u);
    EXPECT_EQ(source.get_map_address(), nullptr);
    EXPECT_EQ(source.get_pid(), 7);  // pid and name stay with the source
    EXPECT_STREQ(source.get_file_name().c_str(), path.c_str());
    EXPECT_EQ(moved.get_map_address(), address);
    EXPECT_FALSE(source.detach());  // nothing left to release
    EXPECT_EQ(static_cast<const char*>(moved.get_map_address())[99], 'a');

    // A move assignment first releases the target's own mapping.
    SharedFile assigned(8, cstring(path.c_str()));
    ASSERT_TRUE(assigned.attach(false, nullptr));
    void* own = assigned.get_map_address();
    assigned = std::move(moved);
    EXPECT_FALSE(moved.is_attached());
    EXPECT_EQ(assigned.get_map_address(), address);
    EXPECT_EQ(assigned.get_pid(), 7);
    EXPECT_EQ(noxtest::mapping_count(own), 0) << "the target's old mapping must be unmapped";
    EXPECT_EQ(noxtest::mapping_count(address), 1);

    // Vectors move and then destroy on growth: the mappings must survive that, each once.
    std::vector<void*> addresses;
    {
        cvector<SharedFile> files;
        for (int i = 0; i < 20; i++) {
            SharedFile f(i, cstring(path.c_str()));
            ASSERT_TRUE(f.attach(false, nullptr));
            addresses.push_back(f.get_map_address());
            files.push_back(std::move(f));
            EXPECT_FALSE(f.is_attached());
        }
        for (int i = 0; i < 20; i++) {
            ASSERT_TRUE(files[i].is_attached()) << i;
            EXPECT_EQ(files[i].get_map_address(), addresses[i]);
            EXPECT_EQ(static_cast<const char*>(files[i].get_map_address())[0], 'a');
        }
    }
    // Destroying the vector released every mapping exactly once.
    for (void* a : addresses) EXPECT_EQ(noxtest::mapping_count(a), 0);
}

TEST(SharedFileScan, StaleFilesAreDeletedAndLiveOnesListed) {
    ScopedDir dir;
    LiveChild child;
    pid_t dead = noxtest::reaped_child_pid();
    std::string live_file = name_for(dir, 100, child.pid());
    std::string dead_file = name_for(dir, 100, dead);
    ASSERT_TRUE(noxtest::write_file(live_file, 64));
    ASSERT_TRUE(noxtest::write_file(dead_file, 64));
    // Zero-length files are listed (attach refuses them later).
    std::string empty_file = name_for(dir, 5, getpid());
    ASSERT_TRUE(noxtest::write_file(empty_file, 0));

    EXPECT_EQ(scan(dir, true), (std::set<std::string>{live_file, empty_file}));
    EXPECT_FALSE(noxtest::path_exists(dead_file));
    EXPECT_TRUE(noxtest::path_exists(live_file));

    child.end();
    EXPECT_EQ(scan(dir, false), (std::set<std::string>{empty_file}));
    EXPECT_FALSE(noxtest::path_exists(live_file));

    // SharedFile::remove_stale_files runs the same scan and keeps nothing.
    ASSERT_TRUE(noxtest::write_file(dead_file, 64));
    SharedFile::remove_stale_files(cstring(pattern_of(dir).c_str()));
    EXPECT_FALSE(noxtest::path_exists(dead_file));
    EXPECT_TRUE(noxtest::path_exists(empty_file));
}

TEST(SharedFileScan, OnlyTheNewestFileOfAPidIsKept) {
    ScopedDir dir;
    LiveChild child;
    std::string older = name_for(dir, 100, child.pid());
    std::string newer = name_for(dir, 200, child.pid());
    ASSERT_TRUE(noxtest::write_file(older, 64));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // change times count in whole seconds
    ASSERT_TRUE(noxtest::write_file(newer, 64));

    EXPECT_EQ(scan(dir, true), (std::set<std::string>{newer}));
    EXPECT_FALSE(noxtest::path_exists(older));

    // Equal change times: exactly one survives, and it is the one listed.
    std::string twin_a = name_for(dir, 300, getpid());
    std::string twin_b = name_for(dir, 301, getpid());
    ASSERT_TRUE(noxtest::write_file(twin_a, 64));
    ASSERT_TRUE(noxtest::write_file(twin_b, 64));
    struct stat a;
    struct stat b;
    ASSERT_EQ(stat(twin_a.c_str(), &a), 0);
    ASSERT_EQ(stat(twin_b.c_str(), &b), 0);
    if (a.st_ctime != b.st_ctime) GTEST_SKIP() << "the two files were made in different seconds";
    std::set<std::string> listed = scan(dir, true);
    EXPECT_EQ(listed.size(), 2u);  // newer (child) + one twin
    int survivors = noxtest::path_exists(twin_a) + noxtest::path_exists(twin_b);
    EXPECT_EQ(survivors, 1);
    EXPECT_EQ(listed.count(noxtest::path_exists(twin_a) ? twin_a : twin_b), 1u);
}

TEST(SharedFileScan, OnlyRegularFilesAndSocketsWithWholeMatchingNamesCount) {
    ScopedDir dir;
    pid_t dead = noxtest::reaped_child_pid();
    // Entries of a dead pid that must be neither listed nor deleted.
    std::string folder = name_for(dir, 1, dead);
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    std::string fifo = name_for(dir, 2, dead);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::string target = dir.file("target");
    ASSERT_TRUE(noxtest::write_file(target, 10));
    std::string link_path = name_for(dir, 3, dead);
    ASSERT_EQ(symlink(target.c_str(), link_path.c_str()), 0);
    std::string backup = name_for(dir, 4, dead) + ".bak";
    ASSERT_TRUE(noxtest::write_file(backup, 10));
    std::string overflow = dir.file("nox_jvm_1_99999999999");
    ASSERT_TRUE(noxtest::write_file(overflow, 10));
    std::string negative = dir.file("nox_jvm_1_-5");
    ASSERT_TRUE(noxtest::write_file(negative, 10));
    std::string zero = dir.file("nox_jvm_1_0");
    ASSERT_TRUE(noxtest::write_file(zero, 10));

    // A socket of a live process is listed even when write access is asked for.
    std::string socket_file = name_for(dir, 5, getpid());
    ASSERT_TRUE(noxtest::make_socket_file(socket_file));

    EXPECT_EQ(scan(dir, true), (std::set<std::string>{socket_file}));
    for (const std::string& kept : {folder, fifo, link_path, backup, overflow, negative, zero, target}) {
        EXPECT_TRUE(noxtest::path_exists(kept)) << kept;
    }
}

TEST(SharedFileScan, FilesTheCallerCannotOpenAreSkippedNotDeleted) {
    if (geteuid() == 0) GTEST_SKIP() << "root opens every file; this runs in the unprivileged pass";
    ScopedDir dir;
    std::string locked = name_for(dir, 1, getpid());
    ASSERT_TRUE(noxtest::write_file(locked, 10));
    ASSERT_EQ(chmod(locked.c_str(), 0400), 0);
    EXPECT_TRUE(scan(dir, true).empty());
    EXPECT_EQ(scan(dir, false), (std::set<std::string>{locked}));
    EXPECT_TRUE(noxtest::path_exists(locked));
}

TEST(SharedFileScan, FilesOfOtherUsersAreNeverDeleted) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give a file to another user";
    ScopedDir dir;
    pid_t dead = noxtest::reaped_child_pid();
    std::string foreign_dead = name_for(dir, 65534, dead);
    ASSERT_TRUE(noxtest::write_file(foreign_dead, 10));
    ASSERT_EQ(chown(foreign_dead.c_str(), 65534, 65534), 0);
    EXPECT_TRUE(scan(dir, true).empty());
    EXPECT_TRUE(noxtest::path_exists(foreign_dead));

    // A newer file planted by another user under a live pid is not that process's file: it is
    // not listed, it never makes the scan delete the process's own file, and it stays.
    std::string own = name_for(dir, 0, getpid());
    ASSERT_TRUE(noxtest::write_file(own, 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    std::string planted = name_for(dir, 65534, getpid());
    ASSERT_TRUE(noxtest::write_file(planted, 10));
    ASSERT_EQ(chown(planted.c_str(), 65534, 65534), 0);
    EXPECT_EQ(scan(dir, true), (std::set<std::string>{own}));
    EXPECT_TRUE(noxtest::path_exists(own));
    EXPECT_TRUE(noxtest::path_exists(planted));
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

TEST(SharedFileScan, EntriesThatVanishDuringTheScanAreSkipped) {
    ScopedDir dir;
    std::vector<std::string> names;
    for (int i = 0; i < 20; i++) {
        names.push_back(name_for(dir, i, getpid()));
        ASSERT_TRUE(noxtest::write_file(names.back(), 10));
    }
    VanishingHandler handler(names);
    cvector<SharedFile> files;
    SharedFile::get_shared_files(files, cstring(pattern_of(dir).c_str()), true, false, nullptr, false, handler);
    EXPECT_EQ(files.size(), 1);  // the first file met is listed; the others were gone before lstat
}

TEST(SharedFileScan, PatternsWithoutAFolderFindNothing) {
    cvector<SharedFile> files;
    J2SE::StdStaleSharedFileHandler handler;
    SharedFile::get_shared_files(files, cstring("nox_jvm_%d_%d"), true, false, nullptr, false, handler);
    EXPECT_EQ(files.size(), 0);
    SharedFile::get_shared_files(files, cstring("/nox_jvm_%d_%d"), true, false, nullptr, false, handler);
    EXPECT_EQ(files.size(), 0);
    SharedFile::get_shared_files(files, cstring("/nonexistent-noxtest/nox_jvm_%d_%d"), true, false, nullptr, false,
                                 handler);
    EXPECT_EQ(files.size(), 0);
}
