// Allocation wrappers. Every heap allocation of the library goes through wrap_malloc and every
// release through wrap_free, tagged with the call site, so that a debugging allocator could be
// put in their place. The tag is never read here.
#ifndef NOX_SHARED_ALLOCATIONS_H
#define NOX_SHARED_ALLOCATIONS_H

#include <cstddef>

struct alcctx_t {
    int dummy;
};

// The call-site tag is a constant text such as
// "(libnoxjvm_inspector.so) src/shared/cvector.h:95"; it is passed as an alcctx_t pointer.
inline const alcctx_t* alloc_site(const char* text) {
    return reinterpret_cast<const alcctx_t*>(text);
}

// Returns what malloc returns; a null result is passed through unchecked.
void* wrap_malloc(const alcctx_t* ctx, size_t size);
void wrap_free(const alcctx_t* ctx, void* p);

#endif
