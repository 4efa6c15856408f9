// A growable array of values. Elements are constructed into raw storage from wrap_malloc and
// destroyed one by one before the storage is released. Growth moves the old elements into the
// new storage and then destroys the moved-from ones, so an element that owns a resource (a
// SharedFile owns its mapping) keeps it across growth. Element types that own a resource are
// move-only; copying the vector is then not available, moving it is.
#ifndef NOX_SHARED_CVECTOR_H
#define NOX_SHARED_CVECTOR_H

#include "allocations.h"

#include <new>
#include <utility>

namespace J2SE {

template <class T>
class cvector {
public:
    cvector() : _array(nullptr), _size(0), _capacity(0) { init_storage(8); }
    explicit cvector(int capacity) : _array(nullptr), _size(0), _capacity(0) {
        init_storage(capacity > 0 ? capacity : 8);
    }
    cvector(const cvector& other) : _array(nullptr), _size(0), _capacity(0) {
        _array = do_alloc(other._size);
        if (_array == nullptr) return;
        _capacity = other._size;
        copy_array(other._array, _array, other._size);
        _size = other._size;
    }
    cvector& operator=(const cvector& other) {
        if (this == &other) return *this;
        destroy_array(_array, _size);
        _size = 0;
        _capacity = 0;
        _array = do_alloc(other._size);
        if (_array == nullptr) return *this;
        _size = other._size;
        _capacity = other._size;
        copy_array(other._array, _array, other._size);
        return *this;
    }
    // Takes the storage of `other`, which is left empty (without storage, capacity 0).
    cvector(cvector&& other) : _array(other._array), _size(other._size), _capacity(other._capacity) {
        other._array = nullptr;
        other._size = 0;
        other._capacity = 0;
    }
    cvector& operator=(cvector&& other) {
        if (this == &other) return *this;
        destroy_array(_array, _size);
        _array = other._array;
        _size = other._size;
        _capacity = other._capacity;
        other._array = nullptr;
        other._size = 0;
        other._capacity = 0;
        return *this;
    }
    ~cvector() {
        destroy_array(_array, _size);
        _array = nullptr;
        _size = 0;
        _capacity = 0;
    }

    int size() const { return _size; }
    int capacity() const { return _capacity; }
    bool is_empty() const { return _size == 0; }
    T& operator[](int i) { return _array[i]; }
    const T& operator[](int i) const { return _array[i]; }
    T* as_array() { return _array; }
    const T* as_array() const { return _array; }
    T& front() { return _array[0]; }
    T& back() { return _array[_size - 1]; }

    void push_back(const T& x) {
        if (!make_room()) return;
        new (&_array[_size]) T(x);
        _size++;
    }
    void push_back(T&& x) {
        if (!make_room()) return;
        new (&_array[_size]) T(std::move(x));
        _size++;
    }

    void pop_back() {
        if (_size > 0) {
            _size--;
            _array[_size].~T();
        }
    }

    // Destroys every element and starts again with fresh storage for 8.
    void clear() {
        destroy_array(_array, _size);
        _size = 0;
        _capacity = 0;
        _array = nullptr;
        init_storage(8);
    }

    // Makes room for at least `capacity` elements.
    void reserve(int capacity) {
        if (capacity > _capacity) reallocate(capacity);
    }

    // Makes room for `count` more elements than there are now.
    void grow_by(int count) {
        if (count > 0) reserve(_size + count);
    }

    bool equals(const cvector& other) const {
        if (_size != other._size) return false;
        for (int i = 0; i < _size; i++) {
            if (!(_array[i] == other._array[i])) return false;
        }
        return true;
    }

    int index_of(const T& x) const {
        for (int i = 0; i < _size; i++) {
            if (_array[i] == x) return i;
        }
        return -1;
    }

    int last_index_of(const T& x) const {
        for (int i = _size - 1; i >= 0; i--) {
            if (_array[i] == x) return i;
        }
        return -1;
    }

    // The elements from `from` (inclusive) to `to` (exclusive), clamped to the vector.
    cvector sub_vector(int from, int to) const {
        if (from < 0) from = 0;
        if (to > _size) to = _size;
        cvector result(to > from ? to - from : 8);
        for (int i = from; i < to; i++) result.push_back(_array[i]);
        return result;
    }

protected:
    static void copy_array(const T* from, T* to, int count) {
        if (count < 1) return;
        for (int i = 0; i < count; i++) new (&to[i]) T(from[i]);
    }

    // Moves `count` elements into raw storage; the moved-from elements are still to be destroyed.
    static void move_array(T* from, T* to, int count) {
        for (int i = 0; i < count; i++) new (&to[i]) T(std::move(from[i]));
    }

    static void destroy_array(T* array, int count) {
        for (int i = 0; i < count; i++) array[i].~T();
        do_free(array);
    }

    static T* do_alloc(int count) {
        size_t bytes = static_cast<size_t>(count > 0 ? count : 0) * sizeof(T);
        return static_cast<T*>(
            wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/shared/cvector.h:95"), bytes));
    }

    static void do_free(T* array) {
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/shared/cvector.h:99"), array);
    }

private:
    // A failed allocation leaves a vector without room (capacity 0), so that push_back adds
    // nothing instead of writing through a null pointer.
    void init_storage(int capacity) {
        _array = do_alloc(capacity);
        _capacity = _array != nullptr ? capacity : 0;
        _size = 0;
    }

    // Room for one more element: grows to 2n + 1 when full (unless that overflows). False when
    // there is no room and none could be made.
    bool make_room() {
        if (_size == _capacity) {
            // Computed wider than int, so that the guard itself cannot overflow.
            long long new_capacity = 2LL * _capacity + 1;
            if (new_capacity > _capacity && new_capacity <= 0x7fffffffLL) reallocate(static_cast<int>(new_capacity));
        }
        return _size < _capacity;
    }

    void reallocate(int new_capacity) {
        T* fresh = do_alloc(new_capacity);
        if (fresh == nullptr) return;
        move_array(_array, fresh, _size);
        destroy_array(_array, _size);
        _array = fresh;
        _capacity = new_capacity;
    }

    T* _array;
    int _size;
    int _capacity;
};

}  // namespace J2SE

#endif
