// One object on the library's heap with exactly one owner. make() allocates with wrap_malloc
// and constructs in place; the owner's end destroys the object and releases its memory. An
// Owned cannot be copied; moving hands the object over and leaves the source empty.
#ifndef NOX_SHARED_OWNED_H
#define NOX_SHARED_OWNED_H

#include "allocations.h"

#include <new>
#include <utility>

namespace J2SE {

template <class T>
class Owned {
public:
    Owned() : _object(nullptr), _memory(nullptr) {}
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    Owned(Owned&& other) : _object(other._object), _memory(other._memory) {
        other._object = nullptr;
        other._memory = nullptr;
    }
    Owned& operator=(Owned&& other) {
        if (this == &other) return *this;
        reset();
        _object = other._object;
        _memory = other._memory;
        other._object = nullptr;
        other._memory = nullptr;
        return *this;
    }
    // A derived object handed over to an owner of its base (T needs a virtual destructor).
    template <class U>
    Owned(Owned<U>&& other) : _object(other._object), _memory(other._memory) {
        other._object = nullptr;
        other._memory = nullptr;
    }
    ~Owned() { reset(); }

    // A new U built from `args`, owned as a T; empty when memory is short.
    template <class U = T, class... Args>
    static Owned make(Args&&... args) {
        Owned result;
        void* memory = wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/shared/owned.h:make"), sizeof(U));
        if (memory == nullptr) return result;
        result._object = new (memory) U(std::forward<Args>(args)...);
        result._memory = memory;
        return result;
    }

    T* get() const { return _object; }
    T* operator->() const { return _object; }
    T& operator*() const { return *_object; }
    bool is_empty() const { return _object == nullptr; }

    // Destroys the object now; the owner is empty afterwards.
    void reset() {
        if (_object == nullptr) return;
        _object->~T();
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/shared/owned.h:reset"), _memory);
        _object = nullptr;
        _memory = nullptr;
    }

private:
    template <class U>
    friend class Owned;

    T* _object;
    // Where the object's memory starts, kept apart from the (possibly base) pointer to it.
    void* _memory;
};

}  // namespace J2SE

#endif
