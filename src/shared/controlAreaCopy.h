// A process cluster's control area copied out of its file, for reading and for raising
// requests without ever touching the file through a mapping.
//
// The file belongs to the VM, which may cut or rewrite it at any moment. A mapping of it would
// raise SIGBUS at the first touch of a page that the cut removed, and SIGBUS inside a native call
// kills the JVM. So the block is copied with pread into memory of our own, and the bytes that a
// request changes are written back with pwrite after checking that the file still holds them.
// The file stays open for the life of the copy, so that the write goes to the file that was read.
#ifndef NOX_SHARED_CONTROL_AREA_COPY_H
#define NOX_SHARED_CONTROL_AREA_COPY_H

#include "cstring.h"

#include <cstddef>
#include <sys/types.h>

namespace J2SE {

class ControlAreaCopy {
public:
    // Offset of the block in its file: the first 8 bytes are a lead-in.
    static const size_t BLOCK_OFFSET = 8;

    ControlAreaCopy();
    ControlAreaCopy(const ControlAreaCopy&) = delete;
    ControlAreaCopy& operator=(const ControlAreaCopy&) = delete;
    ControlAreaCopy(ControlAreaCopy&& other);
    ControlAreaCopy& operator=(ControlAreaCopy&& other);
    // Closes the file and releases the copy.
    ~ControlAreaCopy();

    // Opens `file_name` (a regular file; no link is followed, no FIFO blocks the open) and
    // copies the first `first_bytes` bytes of its block, or the whole block when it is shorter.
    // False when the file cannot be opened as such, or when it was cut while being read (a
    // short read): a block read in part is never taken for the whole.
    bool open_and_copy(const cstring& file_name, size_t first_bytes);
    // The same for the file `name` in the folder open as `directory` (a descriptor, or AT_FDCWD
    // for a name relative to the working folder or absolute).
    bool open_and_copy_at(int directory, const char* name, size_t first_bytes);

    bool is_open() const { return _fd >= 0; }
    // The copy: size() bytes of the block from its start. Bytes that no copy_range() asked for
    // beyond the first copy read as zero.
    void* block() const { return _buffer; }
    size_t size() const { return _size; }
    // Bytes of the block in the file when it was opened (the file's size less the lead-in).
    size_t extent() const { return _extent; }
    // The owner of the file that was opened.
    uid_t owner() const { return _owner; }

    // Copies bytes [begin, end) of the block, growing the copy to `end` bytes. False when `end`
    // lies beyond the extent, memory is short, or the file was cut; the copy keeps its size
    // then, though a range re-read inside it may hold bytes of the failed read.
    bool copy_range(size_t begin, size_t end);

    // Writes `length` bytes at block offset `offset` into the file, after checking that the file
    // still holds those bytes, and into the copy. False when the file no longer holds them or the
    // write fails; the copy is not changed then. A file cut between the check and the write grows back
    // to the end of the written bytes: its owner was rewriting it, and no byte of its own is lost.
    bool write_through(size_t offset, const void* bytes, size_t length);

    // Closes the file; the copy stays readable, and write_through() fails from now on.
    void close_file();

private:
    void release();

    int _fd;
    unsigned char* _buffer;
    size_t _size;
    size_t _extent;
    uid_t _owner;
    bool _buffer_mapped;  // anonymous memory (large copies) rather than the heap
};

}  // namespace J2SE

#endif
