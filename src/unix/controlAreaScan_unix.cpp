// Linux side of ControlAreaScan: readdir, then /proc/<pid>/stat and a copy per file.
#include "controlAreaScan.h"

#include "sharedFile.h"
#include "sharedUtils.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace J2SE {

namespace {

// A folder entry that may be a VM's file: a regular file or a socket. Where the folder's file
// system does not tell the type in the listing, it is looked up (without following a link).
bool may_be_vm_file(DIR* dir, const struct dirent* entry) {
    if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_REG || entry->d_type == DT_SOCK;
    struct stat st;
    if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
    return S_ISREG(st.st_mode) || S_ISSOCK(st.st_mode);
}

}  // namespace

ControlAreaScan::ControlAreaScan(const cstring& path_pattern)
    : _directory(), _dir(nullptr), _entries(8), _names(256), _next(0) {
    // The folder is the text before the pattern's last '/'; a pattern without one names none.
    const char* text = path_pattern.c_str();
    const char* slash = strrchr(text, '/');
    if (slash == nullptr || slash == text) return;
    _directory = cstring(text, slash);
    _dir = opendir(_directory.c_str());
    if (_dir == nullptr) return;
    list_folder(slash + 1);
    order_by_pid();
    if (has_repeated_pid()) list_with_full_scan(path_pattern);
}

ControlAreaScan::~ControlAreaScan() {
    if (_dir != nullptr) closedir(_dir);
}

void ControlAreaScan::list_folder(const char* name_pattern) {
    // readdir on a stream that only this object uses is safe from other threads.
    while (struct dirent* entry = readdir(_dir)) {
        int uid = 0;
        int pid = 0;
        if (parse_file_name(entry->d_name, name_pattern, &uid, &pid) != 2 || pid <= 0) continue;
        if (may_be_vm_file(_dir, entry)) add(pid, entry->d_name);
    }
}

// The newest-file rule needs the files' owners and times, and deletes files: the full scan
// applies it, and its list (names within the same folder) replaces the folder's.
void ControlAreaScan::list_with_full_scan(const cstring& path_pattern) {
    _entries.clear();
    _names.clear();
    cvector<SharedFile> files(8);
    StdStaleSharedFileHandler handler;
    SharedFile::get_shared_files(files, path_pattern, false, false, nullptr, true, handler);
    for (int i = 0; i < files.size(); i++) {
        add(files[i].get_pid(), files[i].get_file_name().c_str() + _directory.length() + 1);
    }
    order_by_pid();
}

void ControlAreaScan::add(int pid, const char* name) {
    size_t length = strlen(name) + 1;
    _entries.push_back(Entry{pid, _names.size()});
    for (size_t i = 0; i < length; i++) _names.push_back(name[i]);
}

// Insertion sort: a folder holds some hundred such files at most.
void ControlAreaScan::order_by_pid() {
    for (int i = 1; i < _entries.size(); i++) {
        Entry moved = _entries[i];
        int j = i;
        for (; j > 0 && _entries[j - 1].pid > moved.pid; j--) _entries[j] = _entries[j - 1];
        _entries[j] = moved;
    }
}

bool ControlAreaScan::has_repeated_pid() const {
    for (int i = 1; i < _entries.size(); i++) {
        if (_entries[i - 1].pid == _entries[i].pid) return true;
    }
    return false;
}

bool ControlAreaScan::next(size_t first_bytes, int* pid, uint64_t* process_start, ControlAreaCopy* copy) {
    while (_next < _entries.size()) {
        const Entry& entry = _entries[_next++];
        const char* name = &_names[entry.name];
        ProcessFacts facts = SharedUtils::process_facts(entry.pid, true);
        if (facts.exists == 0) {
            remove_if_stale(name);
            continue;
        }
        if (!copy->open_and_copy_at(dirfd(_dir), name, first_bytes)) continue;
        // A file that another user planted or took under a VM's pid is not the VM's file.
        if (facts.owner_known && copy->owner() != facts.owner) {
            *copy = ControlAreaCopy();
            continue;
        }
        *pid = entry.pid;
        *process_start = facts.start;
        return true;
    }
    return false;
}

// The file of an ended process goes, when it is a regular file or a socket of the caller's;
// another user's file is never deleted.
void ControlAreaScan::remove_if_stale(const char* name) const {
    struct stat st;
    if (fstatat(dirfd(_dir), name, &st, AT_SYMLINK_NOFOLLOW) != 0) return;  // gone meanwhile
    if (!S_ISREG(st.st_mode) && !S_ISSOCK(st.st_mode)) return;
    if (st.st_uid != geteuid()) return;
    SharedFile::destroy_shared_file(_directory + cstring("/") + cstring(name));
}

}  // namespace J2SE
