// Linux side of ControlAreaCopy: pread into our own memory, pwrite back after a size check.
#include "controlAreaCopy.h"

#include "allocations.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace J2SE {

namespace {

// Copies up to this size live on the heap. A larger one (only a block whose header places its
// slot far behind its instance area) takes anonymous memory, whose pages cost nothing until
// touched, so the gap that no view reads is never paid for.
const size_t LARGEST_HEAP_COPY = 256 * 1024;

const char* const COPY_SITE = "(libnoxjvm_inspector.so) src/unix/controlAreaCopy_unix.cpp";

// Anonymous memory comes zeroed; heap memory is zeroed only when `zeroed` is asked for (a copy
// that a read fills whole need not be cleared first).
unsigned char* allocate(size_t size, bool* mapped, bool zeroed) {
    *mapped = size > LARGEST_HEAP_COPY;
    if (*mapped) {
        void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return memory == MAP_FAILED ? nullptr : static_cast<unsigned char*>(memory);
    }
    void* memory = wrap_malloc(alloc_site(COPY_SITE), size > 0 ? size : 1);
    if (memory != nullptr && zeroed) memset(memory, 0, size);
    return static_cast<unsigned char*>(memory);
}

void deallocate(unsigned char* buffer, size_t size, bool mapped) {
    if (buffer == nullptr) return;
    if (mapped) {
        munmap(buffer, size);
    } else {
        wrap_free(alloc_site(COPY_SITE), buffer);
    }
}

// Reads exactly `length` bytes at `offset`; false on an error or a short read (the file ended
// before them, because it was cut after it was measured).
bool read_exactly(int fd, void* into, size_t length, off_t offset) {
    unsigned char* target = static_cast<unsigned char*>(into);
    while (length > 0) {
        ssize_t got = pread(fd, target, length, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        target += got;
        length -= static_cast<size_t>(got);
        offset += got;
    }
    return true;
}

}  // namespace

ControlAreaCopy::ControlAreaCopy()
    : _fd(-1), _buffer(nullptr), _size(0), _extent(0), _owner(static_cast<uid_t>(-1)), _buffer_mapped(false) {}

ControlAreaCopy::ControlAreaCopy(ControlAreaCopy&& other)
    : _fd(other._fd),
      _buffer(other._buffer),
      _size(other._size),
      _extent(other._extent),
      _owner(other._owner),
      _buffer_mapped(other._buffer_mapped) {
    other._fd = -1;
    other._buffer = nullptr;
    other._size = 0;
    other._extent = 0;
}

ControlAreaCopy& ControlAreaCopy::operator=(ControlAreaCopy&& other) {
    if (this == &other) return *this;
    release();
    _fd = other._fd;
    _buffer = other._buffer;
    _size = other._size;
    _extent = other._extent;
    _owner = other._owner;
    _buffer_mapped = other._buffer_mapped;
    other._fd = -1;
    other._buffer = nullptr;
    other._size = 0;
    other._extent = 0;
    return *this;
}

ControlAreaCopy::~ControlAreaCopy() {
    release();
}

void ControlAreaCopy::release() {
    close_file();
    deallocate(_buffer, _size, _buffer_mapped);
    _buffer = nullptr;
    _size = 0;
    _extent = 0;
    _owner = static_cast<uid_t>(-1);
}

void ControlAreaCopy::close_file() {
    if (_fd < 0) return;
    close(_fd);  // never retried: the descriptor is released even when close reports EINTR
    _fd = -1;
}

bool ControlAreaCopy::open_and_copy(const cstring& file_name, size_t first_bytes) {
    return open_and_copy_at(AT_FDCWD, file_name.c_str(), first_bytes);
}

bool ControlAreaCopy::open_and_copy_at(int directory, const char* name, size_t first_bytes) {
    release();
    if (name == nullptr || *name == '\0') return false;
    // /tmp is writable by anyone: follow no link, never block on a FIFO, accept a regular file.
    // Read and write, as a request needs; the scan that found the file asked for the same.
    int fd = openat(directory, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) {
        close(fd);
        return false;
    }
    size_t file_size = static_cast<size_t>(st.st_size);
    size_t extent = file_size > BLOCK_OFFSET ? file_size - BLOCK_OFFSET : 0;
    size_t size = extent < first_bytes ? extent : first_bytes;
    bool mapped = false;
    unsigned char* buffer = allocate(size, &mapped, false);
    if (buffer == nullptr || !read_exactly(fd, buffer, size, static_cast<off_t>(BLOCK_OFFSET))) {
        deallocate(buffer, size, mapped);
        close(fd);
        return false;
    }
    _fd = fd;
    _buffer = buffer;
    _size = size;
    _extent = extent;
    _owner = st.st_uid;
    _buffer_mapped = mapped;
    return true;
}

bool ControlAreaCopy::copy_range(size_t begin, size_t end) {
    if (_fd < 0 || begin > end || end > _extent) return false;
    if (end > _size) {
        bool mapped = false;
        unsigned char* grown = allocate(end, &mapped, true);
        if (grown == nullptr) return false;
        if (_size > 0) memcpy(grown, _buffer, _size);
        if (!read_exactly(_fd, grown + begin, end - begin, static_cast<off_t>(BLOCK_OFFSET + begin))) {
            deallocate(grown, end, mapped);
            return false;
        }
        deallocate(_buffer, _size, _buffer_mapped);
        _buffer = grown;
        _size = end;
        _buffer_mapped = mapped;
        return true;
    }
    return read_exactly(_fd, _buffer + begin, end - begin, static_cast<off_t>(BLOCK_OFFSET + begin));
}

bool ControlAreaCopy::write_through(size_t offset, const void* bytes, size_t length) {
    if (_fd < 0 || offset > _size || length > _size - offset) return false;
    struct stat st;
    if (fstat(_fd, &st) != 0 || st.st_size < 0) return false;
    size_t file_size = static_cast<size_t>(st.st_size);
    if (file_size < BLOCK_OFFSET || offset > file_size - BLOCK_OFFSET || length > file_size - BLOCK_OFFSET - offset) {
        return false;  // the owner cut the file: there is nothing to raise a flag in
    }
    const unsigned char* source = static_cast<const unsigned char*>(bytes);
    size_t left = length;
    off_t at = static_cast<off_t>(BLOCK_OFFSET + offset);
    while (left > 0) {
        ssize_t put = pwrite(_fd, source, left, at);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        source += put;
        left -= static_cast<size_t>(put);
        at += put;
    }
    memcpy(_buffer + offset, bytes, length);
    return true;
}

}  // namespace J2SE
