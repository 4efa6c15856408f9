// Linux side of PerfDataHost: the hsperfdata_<user> folders of our /tmp and of the /tmp of every
// other mount namespace, the liveness of the processes behind their files, and the processes
// that map libjvm.so without publishing a file.
#include "perfDataHost.h"

#include "processProbe.h"
#include "sharedUtils.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace J2SE {

namespace {

const char FOLDER_PREFIX[] = "hsperfdata_";
// Room for getpwnam_r and getpwuid_r; a larger entry is not a user we can check.
const size_t PASSWD_ROOM = 4096;
// The process start time is known in whole seconds after boot, the VM's begin time in
// milliseconds: allow this much rounding between the two.
const int64_t START_SLACK_SECONDS = 2;

bool uid_of_user(const char* user, unsigned* uid) {
    struct passwd entry;
    struct passwd* found = nullptr;
    char room[PASSWD_ROOM];
    if (getpwnam_r(user, &entry, room, sizeof room, &found) != 0 || found == nullptr) return false;
    *uid = static_cast<unsigned>(found->pw_uid);
    return true;
}

bool user_of_uid(unsigned uid, cstring* user) {
    struct passwd entry;
    struct passwd* found = nullptr;
    char room[PASSWD_ROOM];
    if (getpwuid_r(static_cast<uid_t>(uid), &entry, room, sizeof room, &found) != 0 || found == nullptr) return false;
    *user = cstring(found->pw_name);
    return true;
}

// Opens a folder `name` of the /tmp open as `tmp_fd` when it is a folder (not a link) that no one
// but its owner may write: a folder that another user created or opened up could hold files
// that are not the VM's. The descriptor (its owner in `owner`), or -1.
int open_vm_folder(int tmp_fd, const char* name, unsigned* owner) {
    int fd = openat(tmp_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode) || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        close(fd);
        return -1;
    }
    *owner = static_cast<unsigned>(st.st_uid);
    return fd;
}

// A listing of the folder open as `fd` through a descriptor of its own, so that the caller's
// descriptor stays usable for openat. Null when it cannot be listed.
DIR* list_folder(int fd) {
    int listing = dup(fd);
    if (listing < 0) return nullptr;
    DIR* dir = fdopendir(listing);
    if (dir == nullptr) close(listing);
    return dir;
}

// The user part of an hsperfdata_<user> name; null for any other name.
const char* user_of_folder_name(const char* name) {
    if (strncmp(name, FOLDER_PREFIX, sizeof FOLDER_PREFIX - 1) != 0) return nullptr;
    const char* user = name + sizeof FOLDER_PREFIX - 1;
    return user[0] == '\0' ? nullptr : user;
}

// True when the block's VM is the process `pid` as it runs now: the VM marked the block
// accessible, and the process did not start after the VM began (a pid reused after the VM ended).
// The process's start, which the check reads, is kept in `start`.
bool is_live(int pid, const PerfDataBuffer& block, uint64_t* start) {
    if (!block.is_accessible()) return false;
    uint64_t started = SharedUtils::creationtime_of_process(pid);
    // The begin time is in milliseconds since the epoch.
    PerfCounter begin;
    if (started > 0 && block.find("sun.rt.createVmBeginTime", &begin) && begin.is_long() && begin.long_value > 0 &&
        static_cast<int64_t>(started) > begin.long_value / 1000 + START_SLACK_SECONDS) {
        return false;
    }
    *start = started;
    return true;
}

// How the file names of one /tmp map to host pids.
class PidMapping {
public:
    // Our own /tmp: a file's name is the host's pid.
    PidMapping() : _table(nullptr), _namespace(0) {}
    // The /tmp of mount namespace `mount_namespace`: a name is the pid of one of its processes in
    // that process's own pid namespace.
    PidMapping(ProcessTable* table, uint64_t mount_namespace) : _table(table), _namespace(mount_namespace) {}

    // The host pid of the live process that `name_pid` names when it belongs to `uid`; 0 when
    // there is none. Nothing of the file is read before this answer.
    int host_pid(int name_pid, unsigned uid) const {
        unsigned owner = 0;
        if (_table == nullptr) return process_owner(name_pid, &owner) && owner == uid ? name_pid : 0;
        for (int i = 0; i < _table->size(); i++) {
            const ProcessEntry& entry = _table->at(i);
            if (entry.mount_namespace != _namespace || _table->namespace_pid(i) != name_pid) continue;
            if (process_owner(entry.pid, &owner) && owner == uid) return entry.pid;
        }
        return 0;
    }

private:
    ProcessTable* _table;
    uint64_t _namespace;
};

// One walk over the host's files.
struct Walk {
    Walk(PerfDataHost::Visitor v, void* c) : visitor(v), context(c), go_on(true), visited(0) {}

    PerfDataHost::Visitor visitor;
    void* context;
    bool go_on;
    int visited;
    PerfDataFile file;
    cvector<int> found;  // host pids visited: no VM is visited twice
};

bool contains(const cvector<int>& pids, int pid) {
    for (int i = 0; i < pids.size(); i++) {
        if (pids[i] == pid) return true;
    }
    return false;
}

// Copies the file `name_pid` of the folder `folder_fd` (owned by `uid`) for the process `pid`,
// which the caller has found alive and owned by `uid`, and checks that it is that VM's.
bool read_live(int folder_fd, unsigned uid, int pid, int name_pid, const char* user, PerfDataFile* file,
               PerfDataVmRef* vm) {
    if (!file->read_in_folder(folder_fd, uid, name_pid) || !is_live(pid, file->block(), &vm->process_start)) {
        return false;
    }
    vm->pid = pid;
    vm->namespace_pid = name_pid;
    vm->uid = uid;
    vm->user = cstring(user);
    return true;
}

// Visits the live VMs of one folder, owned by `uid`.
void walk_folder(int folder_fd, unsigned uid, const char* user, const PidMapping& mapping, Walk* walk) {
    DIR* folder = list_folder(folder_fd);
    if (folder == nullptr) return;
    for (struct dirent* item = readdir(folder); item != nullptr && walk->go_on; item = readdir(folder)) {
        int name_pid = pid_of_name(item->d_name);
        int pid = name_pid == 0 ? 0 : mapping.host_pid(name_pid, uid);
        PerfDataVmRef vm;
        if (pid == 0 || contains(walk->found, pid) ||
            !read_live(folder_fd, uid, pid, name_pid, user, &walk->file, &vm)) {
            continue;
        }
        walk->found.push_back(pid);
        walk->visited++;
        walk->go_on = walk->visitor(vm, walk->file.block(), walk->context);
    }
    closedir(folder);
}

// Visits the live VMs of every folder of the /tmp open as `tmp_fd`. In our own /tmp a folder
// must be owned by the user it names (`host_names`); another namespace names its users itself.
void walk_tmp(int tmp_fd, bool host_names, const PidMapping& mapping, Walk* walk) {
    DIR* tmp = list_folder(tmp_fd);
    if (tmp == nullptr) return;
    for (struct dirent* entry = readdir(tmp); entry != nullptr && walk->go_on; entry = readdir(tmp)) {
        const char* user = user_of_folder_name(entry->d_name);
        unsigned named = 0;
        if (user == nullptr || (host_names && !uid_of_user(user, &named))) continue;
        unsigned owner = 0;
        int folder_fd = open_vm_folder(tmp_fd, entry->d_name, &owner);
        if (folder_fd < 0) continue;
        if (!host_names || owner == named) walk_folder(folder_fd, owner, user, mapping, walk);
        close(folder_fd);
    }
    closedir(tmp);
}

struct FileId {
    dev_t dev;
    ino_t ino;
};

bool seen_before(cvector<FileId>* seen, int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return true;
    for (int i = 0; i < seen->size(); i++) {
        if ((*seen)[i].dev == st.st_dev && (*seen)[i].ino == st.st_ino) return true;
    }
    seen->push_back(FileId{st.st_dev, st.st_ino});
    return false;
}

// The /tmp of a namespace, through the first of its processes (from `first` on) whose root the
// caller may enter; -1 when none.
int open_namespace_tmp(const ProcessTable& table, int first, uint64_t mount_namespace) {
    for (int i = first; i < table.size(); i++) {
        if (table.at(i).mount_namespace != mount_namespace) continue;
        int fd = open_process_tmp(table.at(i).pid);
        if (fd >= 0) return fd;
    }
    return -1;
}

// Visits the VMs of every other mount namespace, each /tmp once: namespaces that share a /tmp
// (with each other or with us) are read through the first.
void walk_other_namespaces(ProcessTable* table, int own_tmp_fd, Walk* walk) {
    cvector<FileId> tmps;
    if (own_tmp_fd >= 0) seen_before(&tmps, own_tmp_fd);
    cvector<uint64_t> done;
    done.push_back(table->own_mount_namespace());
    for (int i = 0; i < table->size() && walk->go_on; i++) {
        uint64_t ns = table->at(i).mount_namespace;
        bool known = false;
        for (int d = 0; d < done.size() && !known; d++) known = done[d] == ns;
        if (known) continue;
        done.push_back(ns);
        int tmp_fd = open_namespace_tmp(*table, i, ns);
        if (tmp_fd < 0) continue;
        if (!seen_before(&tmps, tmp_fd)) walk_tmp(tmp_fd, false, PidMapping(table, ns), walk);
        close(tmp_fd);
    }
}

int compare_pids(const void* a, const void* b) {
    int x = *static_cast<const int*>(a);
    int y = *static_cast<const int*>(b);
    return x < y ? -1 : (x > y ? 1 : 0);
}

// Visits the processes that map libjvm.so and were not visited with a file. Only processes that
// run the java launcher have their maps read (a JVM's maps cost 100 to 200 us), once each.
int visit_jvm_processes(ProcessTable* table, cvector<int>* found, PerfDataHost::ProcessVisitor visitor, void* context) {
    qsort(found->as_array(), static_cast<size_t>(found->size()), sizeof(int), compare_pids);
    int visited = 0;
    for (int i = 0; i < table->size(); i++) {
        JvmProcessRef process;
        process.pid = table->at(i).pid;
        if (bsearch(&process.pid, found->as_array(), static_cast<size_t>(found->size()), sizeof(int), compare_pids) !=
                nullptr ||
            !process_runs_java(process.pid)) {
            continue;
        }
        process.process_start = SharedUtils::creationtime_of_process(process.pid);
        if (!process_maps_libjvm_remembered(process.pid, process.process_start) ||
            !process_owner(process.pid, &process.uid)) {
            continue;
        }
        process.namespace_pid = table->namespace_pid(i);
        if (!user_of_uid(process.uid, &process.user)) process.user = cstring();
        process.command_line = process_command_line(process.pid, PerfDataHost::COMMAND_LINE_LIMIT);
        visited++;
        if (!visitor(process, context)) break;
    }
    return visited;
}

// True unless both namespaces are known and differ: a process whose namespace the caller may
// not see is looked for in our own /tmp, as before containers.
bool in_own_mount_namespace(int pid) {
    uint64_t own = 0;
    uint64_t its = 0;
    return !process_mount_namespace(0, &own) || !process_mount_namespace(pid, &its) || own == its;
}

// The VM `pid` of another mount namespace: the file that its NSpid names, in a folder of its /tmp
// owned by the process's owner.
bool read_namespaced_vm(int pid, unsigned uid, PerfDataFile* file, PerfDataVmRef* vm) {
    int name_pid = process_namespace_pid(pid);
    int tmp_fd = name_pid > 0 ? open_process_tmp(pid) : -1;
    DIR* tmp = tmp_fd < 0 ? nullptr : list_folder(tmp_fd);
    bool read = false;
    for (struct dirent* entry = tmp == nullptr ? nullptr : readdir(tmp); entry != nullptr && !read;
         entry = readdir(tmp)) {
        const char* user = user_of_folder_name(entry->d_name);
        unsigned owner = 0;
        int folder_fd = user == nullptr ? -1 : open_vm_folder(tmp_fd, entry->d_name, &owner);
        if (folder_fd < 0) continue;
        read = owner == uid && read_live(folder_fd, uid, pid, name_pid, user, file, vm);
        close(folder_fd);
    }
    if (tmp != nullptr) closedir(tmp);
    if (tmp_fd >= 0) close(tmp_fd);
    return read;
}

}  // namespace

PerfDataHost::PerfDataHost() : _root("/tmp"), _whole_host(true) {}

PerfDataHost::PerfDataHost(const char* temp_root) : _root(temp_root != nullptr ? temp_root : "/tmp"), _whole_host(false) {}

int PerfDataHost::for_each_vm(Visitor visitor, void* context) const {
    return for_each_jvm(visitor, nullptr, context);
}

int PerfDataHost::for_each_jvm(Visitor visitor, ProcessVisitor processes, void* context) const {
    Walk walk(visitor, context);
    int tmp_fd = open(_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (tmp_fd >= 0) walk_tmp(tmp_fd, true, PidMapping(), &walk);
    int visited = walk.visited;
    ProcessTable table;
    if (_whole_host && walk.go_on && table.scan()) {
        walk_other_namespaces(&table, tmp_fd, &walk);
        visited = walk.visited;
        if (processes != nullptr && walk.go_on) visited += visit_jvm_processes(&table, &walk.found, processes, context);
    }
    if (tmp_fd >= 0) close(tmp_fd);
    return visited;
}

bool PerfDataHost::read_vm(int pid, PerfDataFile* file, PerfDataVmRef* vm) const {
    unsigned uid = 0;
    if (!process_owner(pid, &uid)) return false;
    if (_whole_host && !in_own_mount_namespace(pid)) return read_namespaced_vm(pid, uid, file, vm);
    cstring user;
    if (!user_of_uid(uid, &user)) return false;
    int tmp_fd = open(_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (tmp_fd < 0) return false;
    cstring name = cstring::printf("%s%s", FOLDER_PREFIX, user.c_str());
    unsigned owner = 0;
    int folder_fd = open_vm_folder(tmp_fd, name.c_str(), &owner);
    close(tmp_fd);
    if (folder_fd < 0) return false;
    bool read = owner == uid && read_live(folder_fd, uid, pid, pid, user.c_str(), file, vm);
    close(folder_fd);
    return read;
}

}  // namespace J2SE
