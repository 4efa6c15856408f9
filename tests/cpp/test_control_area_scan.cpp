// The rules of every scan of the control-area files, in one table: each case is laid out twice,
// once for the host pass's scan (ControlAreaScan, which copies what it takes) and once for the
// full scan with write access (SharedFile::get_shared_files, which lists names), and each must
// take exactly the files the table expects and leave exactly the files it expects (whole names
// only, regular files only for a copy and sockets too for a listing, stale files removed, the
// newest file per pid, the owner of the process owns its file). Folders are private to the test.
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
#include <unistd.h>
#include <vector>

using J2SE::ControlAreaCopy;
using J2SE::cstring;

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
bool make(const noxtest::ScopedDir& dir, const Planted& planted) {
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

std::string pattern(const noxtest::ScopedDir& dir) {
    return dir.path() + "/nox_jvm_%d_%d";
}

std::string tag_of(const ControlAreaCopy& copy) {
    const char* bytes = static_cast<const char*>(copy.block());
    return std::string(bytes, strnlen(bytes, copy.size()));
}

// What the pass copies through the scan; each copy's start is checked on the way.
std::set<std::string> copied_by_scan(const noxtest::ScopedDir& dir) {
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
std::set<std::string> listed_by_full_scan(const noxtest::ScopedDir& dir) {
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

std::set<std::string> names_in(const noxtest::ScopedDir& dir) {
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
    noxtest::ScopedDir scanned;
    noxtest::ScopedDir full;
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

}  // namespace

TEST(ControlAreaScan, WhichFilesArePassedListedAndRemoved) {
    noxtest::LiveChild live, socket_owner, locked_owner, foreign_owner;
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
