// Linux side of release_retired_range.
#include "retiredRange.h"

#include <sys/mman.h>

namespace J2SE {

bool release_retired_range(void* address, size_t size) {
    if (address == nullptr || size == 0) return false;
    return munmap(address, size) == 0;
}

}  // namespace J2SE
