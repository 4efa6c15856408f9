// SharedFile against real files: creation, mapping, one owner per mapping, and the scans of the
// control-area files. The rules of every scan are one table: each case is laid out twice, once for
// the host pass's scan (ControlAreaScan, which copies what it takes) and once for the full scan
// with write access (SharedFile::get_shared_files, which lists names), and each must take exactly
// the files the table expects and leave exactly the files it expects (whole names only, regular
// files only for a copy and sockets too for a listing, stale files removed, the newest file per
// pid, the owner of the process owns its file). Then a scan whose entries vanish under it, and the
// profiling server's file.
#include "controlAreaCopy.h"
#include "controlAreaScan.h"
#include "sharedFile.h"
#include "sharedUtils.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

using J2SE::ControlAreaCopy;
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

const size_t FIRST_BYTES = 64 * 1024;

enum Kind { TAGGED, EMPTY, FOLDER, FIFO, LINK, SOCKET };
enum Listed { NEVER, ALWAYS, AS_ROOT };  // AS_ROOT: root may open it, or owns the process

struct Planted {
    std::string name;
    Kind kind;
    bool foreign;  // given to user 65534: root only, the case is left out otherwise
    mode_t mode;
    Listed copied;  // by the pass
    Listed listed;  // by the full scan
    bool kept;
};

// A tagged file holds its own name behind the 8-byte lead-in, so a copy tells where it came from.
bool make(const ScopedDir& dir, const Planted& planted) {
    std::string path = dir.file(planted.name);
    bool made = false;
    switch (planted.kind) {
        case TAGGED: {
            std::string bytes = std::string(8, '\0') + planted.name + std::string(64, '\0');
            int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
            made = fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
            if (fd >= 0) close(fd);
            break;
        }
        case EMPTY: made = noxtest::write_file(path, 0); break;
        case FOLDER: made = mkdir(path.c_str(), 0700) == 0; break;
        case FIFO: made = mkfifo(path.c_str(), 0600) == 0; break;
        case LINK: made = symlink(dir.file("target").c_str(), path.c_str()) == 0; break;
        case SOCKET: made = noxtest::make_socket_file(path); break;
    }
    if (made && planted.mode != 0) made = chmod(path.c_str(), planted.mode) == 0;
    if (made && planted.foreign) made = chown(path.c_str(), 65534, 65534) == 0;
    return made;
}

std::string pattern(const ScopedDir& dir) {
    return dir.path() + "/nox_jvm_%d_%d";
}

std::string tag_of(const ControlAreaCopy& copy) {
    const char* bytes = static_cast<const char*>(copy.block());
    return std::string(bytes, strnlen(bytes, copy.size()));
}

// What the pass copies through the scan; each copy's start is checked on the way.
std::set<std::string> copied_by_scan(const ScopedDir& dir) {
    J2SE::ControlAreaScan scan(cstring(pattern(dir).c_str()));
    ControlAreaCopy copy;
    int pid = 0;
    uint64_t start = 0;
    std::set<std::string> tags;
    while (scan.next(FIRST_BYTES, &pid, &start, &copy)) {
        EXPECT_EQ(start, J2SE::SharedUtils::creationtime_of_process(pid)) << tag_of(copy);
        tags.insert(tag_of(copy));
    }
    return tags;
}

// The names the full scan lists, as the manager asks for them (write access).
std::set<std::string> listed_by_full_scan(const ScopedDir& dir) {
    J2SE::cvector<J2SE::SharedFile> files(8);
    J2SE::StdStaleSharedFileHandler handler;
    J2SE::SharedFile::get_shared_files(files, cstring(pattern(dir).c_str()), true, false, nullptr, false, handler);
    std::set<std::string> names;
    for (int i = 0; i < files.size(); i++) {
        std::string path = files[i].get_file_name().c_str();
        names.insert(path.substr(path.rfind('/') + 1));
    }
    return names;
}

std::set<std::string> names_in(const ScopedDir& dir) {
    std::set<std::string> names;
    DIR* folder = opendir(dir.path().c_str());
    while (struct dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
        std::string name = entry->d_name;
        if (name != "." && name != ".." && name != "target") names.insert(name);
    }
    if (folder != nullptr) closedir(folder);
    return names;
}

std::string name(int uid, long pid, const std::string& suffix = "") {
    return "nox_jvm_" + std::to_string(uid) + "_" + std::to_string(pid) + suffix;
}

// Lays `files` out in two folders (the files of `later` a second after the others, since change
// times count in whole seconds), runs both readings and checks both against the table.
void check(const char* what, const std::vector<Planted>& files, const std::vector<Planted>& later = {}) {
    bool root = geteuid() == 0;
    ScopedDir scanned;
    ScopedDir full;
    std::set<std::string> copied, listed, kept;
    for (const std::vector<Planted>* group : {&files, &later}) {
        if (group == &later && !later.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        for (const Planted& planted : *group) {
            if (planted.foreign && !root) continue;
            ASSERT_TRUE(make(scanned, planted) && make(full, planted)) << what << ": " << planted.name;
            if (planted.copied == ALWAYS || (planted.copied == AS_ROOT && root)) copied.insert(planted.name);
            if (planted.listed == ALWAYS || (planted.listed == AS_ROOT && root)) listed.insert(planted.name);
            if (planted.kept) kept.insert(planted.name);
        }
    }
    ASSERT_TRUE(noxtest::write_file(scanned.file("target"), 10) && noxtest::write_file(full.file("target"), 10));
    EXPECT_EQ(copied_by_scan(scanned), copied) << what << ": copied by the scan";
    EXPECT_EQ(names_in(scanned), kept) << what << ": left by the scan";
    EXPECT_EQ(listed_by_full_scan(full), listed) << what << ": listed by the full scan";
    EXPECT_EQ(names_in(full), kept) << what << ": left by the full scan";
}

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

TEST(ControlAreaScan, WhichFilesArePassedListedAndRemoved) {
    LiveChild live, socket_owner, locked_owner, foreign_owner;
    pid_t dead = noxtest::reaped_child_pid();
    pid_t dead_foreign = noxtest::reaped_child_pid();
    std::vector<Planted> files = {
        {name(100, live.pid()), TAGGED, false, 0, ALWAYS, ALWAYS, true},
        {name(100, dead), TAGGED, false, 0, NEVER, NEVER, false},
        {name(65534, dead_foreign), TAGGED, true, 0, NEVER, NEVER, true},  // stale, but not ours to remove
        {name(5, getpid()), EMPTY, false, 0, NEVER, ALWAYS, true},         // listed; attach refuses it
        {name(5, socket_owner.pid()), SOCKET, false, 0, NEVER, ALWAYS, true},
        // Not files: never taken, never deleted, and no second file of their pid.
        {name(1, dead), FOLDER, false, 0, NEVER, NEVER, true},
        {name(2, dead), FIFO, false, 0, NEVER, NEVER, true},
        {name(3, dead), LINK, false, 0, NEVER, NEVER, true},
        // The owner rule: pid 1 is root's; a file of another user is not its process's.
        {name(7, 1), TAGGED, false, 0, AS_ROOT, AS_ROOT, true},
        {name(65534, foreign_owner.pid()), TAGGED, true, 0, NEVER, NEVER, true},
        // A file that cannot be opened for writing is skipped (only root may).
        {name(100, locked_owner.pid()), TAGGED, false, 0400, AS_ROOT, AS_ROOT, true}};
    // Not names of the family.
    for (const char* other : {"nox_jvm_1_99999999999", "nox_jvm_99999999999_5", "nox_jvm_1_2147483648", "nox_jvm_1_-5",
                              "nox_jvm_1_0", "nox_jvm_ 1_5", "nox_jvm_1_", "nox_jvm_x_5", "nox_jvm_monitoringboard_1_5"}) {
        files.push_back({other, TAGGED, false, 0, NEVER, NEVER, true});
    }
    files.push_back({name(4, dead, ".bak"), TAGGED, false, 0, NEVER, NEVER, true});
    check("one file per pid", files);

    // Several files of one pid: the newest of the process owner's counts, the older goes; a
    // newer file planted by another user neither counts nor makes the own one go.
    check("several files of one pid",
          {{name(100, live.pid()), TAGGED, false, 0, NEVER, NEVER, false},
           {name(0, getpid()), TAGGED, false, 0, ALWAYS, ALWAYS, true},
           {name(100, dead), TAGGED, false, 0, NEVER, NEVER, false}},
          {{name(200, live.pid()), TAGGED, false, 0, ALWAYS, ALWAYS, true},
           {name(65534, getpid()), TAGGED, true, 0, NEVER, NEVER, true}});
}

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
