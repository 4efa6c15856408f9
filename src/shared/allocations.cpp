#include "allocations.h"

#include <cstdlib>

void* wrap_malloc(const alcctx_t*, size_t size) {
    return malloc(size);
}

void wrap_free(const alcctx_t*, void* p) {
    free(p);
}
