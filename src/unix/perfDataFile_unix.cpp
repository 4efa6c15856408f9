// Linux side of PerfDataFile: open without following links or blocking, then the prologue and
// the used part copied with pread.
#include "perfDataFile.h"

#include "allocations.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace J2SE {

namespace {

const char* const FILE_SITE = "(libnoxjvm_inspector.so) src/unix/perfDataFile_unix.cpp";
// The VM may add counters between our reads of its prologue and of the used part: a copy whose
// own prologue says more is used is read again, this many times at most.
const int COPY_ATTEMPTS = 4;

// Reads exactly `length` bytes at offset 0; false on an error or a short read (the file was cut
// after it was measured: a copy read in part is never taken for the whole).
bool read_exactly(int fd, unsigned char* into, size_t length) {
    off_t offset = 0;
    while (length > 0) {
        ssize_t got = pread(fd, into, length, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        into += got;
        length -= static_cast<size_t>(got);
        offset += got;
    }
    return true;
}

// Opens `name_pid` in the folder when it is a regular file owned by `uid` that can hold a
// prologue and is no larger than `largest`. Returns the descriptor (its size in `size`) or -1.
int open_vm_file(int folder_fd, unsigned uid, int name_pid, size_t largest, size_t* size) {
    char name[16];
    snprintf(name, sizeof name, "%d", name_pid);
    // Follow no link, never block on a FIFO planted under a pid's name.
    int fd = openat(folder_fd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<unsigned>(st.st_uid) != uid || st.st_size < 0 ||
        static_cast<uint64_t>(st.st_size) < PerfDataBuffer::PROLOGUE_SIZE ||
        static_cast<uint64_t>(st.st_size) > largest) {
        close(fd);
        return -1;
    }
    *size = static_cast<size_t>(st.st_size);
    return fd;
}

}  // namespace

PerfDataFile::PerfDataFile() : _buffer(nullptr), _size(0), _capacity(0), _file_size(0) {}

PerfDataFile::~PerfDataFile() {
    if (_buffer != nullptr) wrap_free(alloc_site(FILE_SITE), _buffer);
}

bool PerfDataFile::reserve(size_t size) {
    if (size <= _capacity) return true;
    unsigned char* grown = static_cast<unsigned char*>(wrap_malloc(alloc_site(FILE_SITE), size));
    if (grown == nullptr) return false;
    if (_buffer != nullptr) wrap_free(alloc_site(FILE_SITE), _buffer);
    _buffer = grown;
    _capacity = size;
    return true;
}

bool PerfDataFile::read_in_folder(int folder_fd, unsigned uid, int name_pid) {
    _size = 0;
    _file_size = 0;
    if (name_pid <= 0) return false;
    int fd = open_vm_file(folder_fd, uid, name_pid, LARGEST_FILE, &_file_size);
    if (fd < 0) return false;
    bool copied = copy_used(fd);
    close(fd);  // never retried: the descriptor is released even when close reports EINTR
    return copied;
}

// The prologue first; then the used part it names, which must lie inside the file. A copy
// shorter than the used size its own prologue states (a file cut or being written) is not taken.
bool PerfDataFile::copy_used(int fd) {
    size_t want = PerfDataBuffer::PROLOGUE_SIZE;
    for (int attempt = 0; attempt < COPY_ATTEMPTS; attempt++) {
        size_t used = 0;
        if (!reserve(want) || !read_exactly(fd, _buffer, want) ||
            !PerfDataBuffer::used_of_prologue(_buffer, want, &used) || used > _file_size) {
            return false;
        }
        if (used <= want) {
            if (!PerfDataBuffer(_buffer, used).holds_used()) return false;
            _size = used;
            return true;
        }
        want = used;
    }
    return false;
}

}  // namespace J2SE
