// The streams that lay out the byte records handed to Java: a growable in-memory buffer and a
// typed writer that writes booleans (1 byte), ints (4), longs (8) and strings (2-byte length,
// then the bytes), all big-endian, without any framing between fields.
#ifndef NOX_NATIVES_OUTPUT_STREAMS_H
#define NOX_NATIVES_OUTPUT_STREAMS_H

#include <cstddef>
#include <cstring>

class OutputStream_CL {
public:
    // The number of bytes accepted, or a negative value on failure.
    virtual int write(const void* buf, int len) = 0;
    virtual bool flush() = 0;
    virtual ~OutputStream_CL() {}
};

// Forwards every call to another stream, which it does not own.
class FilterOutputStream_CL : public OutputStream_CL {
public:
    explicit FilterOutputStream_CL(OutputStream_CL& stream) : _stream(stream) {}
    int write(const void* buf, int len) override { return _stream.write(buf, len); }
    bool flush() override { return _stream.flush(); }

protected:
    OutputStream_CL& _stream;
};

// A buffer on the C heap that doubles when it is full. A failed first allocation leaves it
// without capacity; its first write then starts from 512 bytes.
class ByteArrayOutputStream_CL : public OutputStream_CL {
public:
    explicit ByteArrayOutputStream_CL(size_t initial_capacity);
    ~ByteArrayOutputStream_CL() override;
    ByteArrayOutputStream_CL(const ByteArrayOutputStream_CL&) = delete;
    ByteArrayOutputStream_CL& operator=(const ByteArrayOutputStream_CL&) = delete;

    // Reserves the next `n` bytes and returns them, or null when the buffer cannot grow (the
    // bytes written so far stay valid).
    void* acquire(size_t n) {
        if (n > static_cast<size_t>(_end - _pos)) return acquire_growing(n);
        unsigned char* reserved = _pos;
        _pos += n;
        return reserved;
    }
    // All or nothing: `len`, or -1 when the buffer cannot grow.
    int write(const void* buf, int len) override;
    bool flush() override { return true; }

    // Replaces `len` bytes already written at `offset` (a length written before the bytes it
    // counts); false, and nothing changed, when they were not all written.
    bool overwrite(size_t offset, const void* buf, size_t len);

    const unsigned char* data() const { return _data; }
    size_t size() const { return static_cast<size_t>(_pos - _data); }
    size_t capacity() const { return static_cast<size_t>(_end - _data); }

private:
    void* acquire_growing(size_t n);

    unsigned char* _data;
    unsigned char* _end;
    unsigned char* _pos;
};

// A view of bytes that need not be terminated.
struct String_CL {
    const char* _data;
    size_t _len;
};

// Typed big-endian writer. Once a write has failed (or a string was too long) every later
// write is dropped: `_ok` never becomes true again. Over a ByteArrayOutputStream_CL each typed
// value reserves its bytes in the buffer with one acquire(); over any other stream it goes
// through the stream's write().
class DataOutputStream_CL : public FilterOutputStream_CL {
public:
    explicit DataOutputStream_CL(OutputStream_CL& stream) : FilterOutputStream_CL(stream), _buffer(nullptr), _ok(true) {}
    explicit DataOutputStream_CL(ByteArrayOutputStream_CL& buffer)
        : FilterOutputStream_CL(buffer), _buffer(&buffer), _ok(true) {}

    int write(const void* buf, int len) override;
    bool flush() override { return _stream.flush(); }

    bool writeFully(const void* buf, size_t len);
    // A length above 65535 disables the stream and writes nothing.
    void writeString(const String_CL& s);
    // Defined here: the records write hundreds of these per VM.
    void writeBoolean(bool value) {
        unsigned char byte = value ? 1 : 0;
        put(&byte, 1);
    }
    void writeInt(int value) {
        unsigned int bits = static_cast<unsigned int>(value);
        unsigned char bytes[4] = {static_cast<unsigned char>(bits >> 24), static_cast<unsigned char>(bits >> 16),
                                  static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)};
        put(bytes, 4);
    }
    void writeLong(long value) {
        unsigned long bits = static_cast<unsigned long>(value);
        unsigned char bytes[8] = {static_cast<unsigned char>(bits >> 56), static_cast<unsigned char>(bits >> 48),
                                  static_cast<unsigned char>(bits >> 40), static_cast<unsigned char>(bits >> 32),
                                  static_cast<unsigned char>(bits >> 24), static_cast<unsigned char>(bits >> 16),
                                  static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)};
        put(bytes, 8);
    }

    bool is_ok() const { return _ok; }

private:
    void write_all(const unsigned char* bytes, int len);
    // Writes `len` bytes as one value: all of them, or none and the stream disabled.
    void put(const unsigned char* bytes, size_t len) {
        if (!_ok) return;
        if (_buffer == nullptr) {
            write_all(bytes, static_cast<int>(len));
            return;
        }
        void* target = _buffer->acquire(len);
        if (target == nullptr) {
            _ok = false;
            return;
        }
        memcpy(target, bytes, len);
    }

    ByteArrayOutputStream_CL* const _buffer;
    bool _ok;
};

#endif
