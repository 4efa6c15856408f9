#include "outputStreams.h"

#include <cstdlib>
#include <cstring>

ByteArrayOutputStream_CL::ByteArrayOutputStream_CL(size_t initial_capacity)
    : _data(nullptr), _end(nullptr), _pos(nullptr) {
    _data = static_cast<unsigned char*>(malloc(initial_capacity));
    _end = _data != nullptr ? _data + initial_capacity : nullptr;
    _pos = _data;
}

ByteArrayOutputStream_CL::~ByteArrayOutputStream_CL() {
    if (_data != nullptr) free(_data);
}

void* ByteArrayOutputStream_CL::acquire_growing(size_t n) {
    size_t used = size();
    size_t current = capacity();
    size_t wanted = current == 0 ? 512 : current * 2;
    while (used + n > wanted) {
        if (wanted > (static_cast<size_t>(-1) >> 1)) return nullptr;  // doubling would overflow
        wanted *= 2;
    }
    unsigned char* block = static_cast<unsigned char*>(realloc(_data, wanted));
    if (block == nullptr) return nullptr;
    _data = block;
    _end = block + wanted;
    _pos = block + used + n;
    return block + used;
}

int ByteArrayOutputStream_CL::write(const void* buf, int len) {
    if (len < 0) return -1;
    void* target = acquire(static_cast<size_t>(len));
    if (target == nullptr) return -1;
    if (len > 0) memcpy(target, buf, static_cast<size_t>(len));
    return len;
}

bool ByteArrayOutputStream_CL::overwrite(size_t offset, const void* buf, size_t len) {
    if (offset > size() || len > size() - offset) return false;
    if (len > 0) memcpy(_data + offset, buf, len);
    return true;
}

int DataOutputStream_CL::write(const void* buf, int len) {
    if (!_ok) return -1;
    int written = _stream.write(buf, len);
    if (written >= 0) return written;
    _ok = false;
    return -1;
}

// Writes `len` bytes through the virtual write, repeating after short writes; stops silently
// at the first failure, which write() has recorded in _ok.
void DataOutputStream_CL::write_all(const unsigned char* bytes, int len) {
    int done = 0;
    while (done < len) {
        int written = write(bytes + done, len - done);
        if (written < 0) return;
        done += written;
    }
}

bool DataOutputStream_CL::writeFully(const void* buf, size_t len) {
    const unsigned char* bytes = static_cast<const unsigned char*>(buf);
    size_t done = 0;
    do {
        size_t rest = len - done;
        int chunk = rest > 0x7fffffff ? 0x7fffffff : static_cast<int>(rest);
        int written = write(bytes + done, chunk);
        if (written < 0) return false;
        done += static_cast<size_t>(written);
    } while (done < len);
    return true;
}

void DataOutputStream_CL::writeString(const String_CL& s) {
    // The whole length is compared, not only its low 32 bits, so that no length can wrap
    // into a small prefix followed by more bytes than the prefix announces.
    if (s._len > 65535) {
        _ok = false;
        return;
    }
    unsigned char prefix[2] = {static_cast<unsigned char>(s._len >> 8), static_cast<unsigned char>(s._len)};
    if (_buffer == nullptr) {
        write_all(prefix, 2);
        writeFully(s._data, s._len);
        return;
    }
    if (!_ok) return;
    // Prefix and bytes in one reservation: both are there, or neither.
    unsigned char* target = static_cast<unsigned char*>(_buffer->acquire(2 + s._len));
    if (target == nullptr) {
        _ok = false;
        return;
    }
    memcpy(target, prefix, 2);
    if (s._len > 0) memcpy(target + 2, s._data, s._len);
}
