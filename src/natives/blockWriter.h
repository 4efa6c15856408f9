// Where the changes that a view makes to a control-area block go. A view over a System V
// segment stores straight into the segment, which nobody can cut; a view over the copy of a
// process cluster's file hands its stores to a writer, which puts them into the file and into
// the copy.
#ifndef NOX_NATIVES_BLOCK_WRITER_H
#define NOX_NATIVES_BLOCK_WRITER_H

#include <cstddef>

class BlockWriter_CL {
public:
    virtual ~BlockWriter_CL() {}
    // Writes `length` bytes at `offset` from the start of the block; false when they could not
    // be written (nothing is written then).
    virtual bool write(size_t offset, const void* bytes, size_t length) = 0;
};

#endif
