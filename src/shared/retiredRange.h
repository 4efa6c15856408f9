// The end of a range of address space that SharedFile::retire() filled with zero pages: once
// nothing can read it any more, the range is given back to the system.
#ifndef NOX_SHARED_RETIRED_RANGE_H
#define NOX_SHARED_RETIRED_RANGE_H

#include <cstddef>

namespace J2SE {

// Unmaps [address, address + size). The caller guarantees that no thread reads the range any
// more. False when munmap fails; the range then stays as it is (readable).
bool release_retired_range(void* address, size_t size);

}  // namespace J2SE

#endif
