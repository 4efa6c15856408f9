// Parsing of a copied performance-data block: prologue checks and the walk over its entries.
#include "perfDataBuffer.h"

#include <cstring>

namespace J2SE {

namespace {

const unsigned char MAGIC[4] = {0xCA, 0xFE, 0xC0, 0xC0};
const int SUPPORTED_MAJOR = 2;

// Offsets inside the prologue.
const size_t BYTE_ORDER_AT = 4;
const size_t MAJOR_AT = 5;
const size_t MINOR_AT = 6;
const size_t ACCESSIBLE_AT = 7;
const size_t USED_AT = 8;
const size_t OVERFLOW_AT = 12;
const size_t MOD_TIME_STAMP_AT = 16;
const size_t ENTRY_OFFSET_AT = 24;
const size_t ENTRY_COUNT_AT = 28;

// Offsets inside an entry header.
const size_t ENTRY_LENGTH_AT = 0;
const size_t NAME_OFFSET_AT = 4;
const size_t VECTOR_LENGTH_AT = 8;
const size_t DATA_TYPE_AT = 12;
const size_t FLAGS_AT = 13;
const size_t UNITS_AT = 14;
const size_t VARIABILITY_AT = 15;
const size_t DATA_OFFSET_AT = 16;

}  // namespace

// Stops at the first differing byte: the figures compare every counter with a few dozen names,
// and most differ within their first bytes. strncmp stops at the end of `other` as well.
bool PerfCounter::name_is(const char* other) const {
    return strncmp(name, other, name_length) == 0 && other[name_length] == '\0';
}

PerfDataBuffer::PerfDataBuffer(const unsigned char* data, size_t size)
    : _data(data),
      _size(size),
      _valid(false),
      _accessible(false),
      _little_endian(false),
      _major(0),
      _minor(0),
      _used(0),
      _used_cut(false),
      _entry_offset(0),
      _entry_count(0),
      _overflow(0),
      _mod_time_stamp(0) {
    if (!known_prologue(data, size)) return;
    _little_endian = data[BYTE_ORDER_AT] == 1;
    _major = data[MAJOR_AT];
    _minor = data[MINOR_AT];
    _accessible = data[ACCESSIBLE_AT] != 0;
    // Each field is read once into a local: the writer may change the block between two reads
    // of the original, and the copy is what the checks and the walk both use.
    int32_t used = read_int(USED_AT);
    int32_t entry_offset = read_int(ENTRY_OFFSET_AT);
    int32_t entry_count = read_int(ENTRY_COUNT_AT);
    if (used < 0 || entry_offset < 0 || entry_count < 0) return;
    _used_cut = static_cast<size_t>(used) > size;
    _used = _used_cut ? size : static_cast<size_t>(used);
    _entry_offset = static_cast<size_t>(entry_offset);
    if (_entry_offset < PROLOGUE_SIZE || _entry_offset > _used) return;
    _entry_count = entry_count;
    _overflow = read_int(OVERFLOW_AT);
    _mod_time_stamp = read_long(MOD_TIME_STAMP_AT);
    _valid = true;
}

bool PerfDataBuffer::known_prologue(const unsigned char* data, size_t size) {
    if (data == nullptr || size < PROLOGUE_SIZE || memcmp(data, MAGIC, sizeof MAGIC) != 0) return false;
    int order = data[BYTE_ORDER_AT];
    return (order == 0 || order == 1) && data[MAJOR_AT] == SUPPORTED_MAJOR;
}

bool PerfDataBuffer::used_of_prologue(const unsigned char* prologue, size_t size, size_t* used) {
    if (!known_prologue(prologue, size)) return false;
    int32_t value = int_at(prologue, USED_AT, prologue[BYTE_ORDER_AT] == 1);
    if (value < static_cast<int32_t>(PROLOGUE_SIZE)) return false;
    *used = static_cast<size_t>(value);
    return true;
}

int32_t PerfDataBuffer::int_at(const unsigned char* data, size_t offset, bool little_endian) {
    const unsigned char* p = data + offset;
    uint32_t value = little_endian
        ? static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
              static_cast<uint32_t>(p[3]) << 24
        : static_cast<uint32_t>(p[3]) | static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[1]) << 16 |
              static_cast<uint32_t>(p[0]) << 24;
    return static_cast<int32_t>(value);
}

int64_t PerfDataBuffer::read_long(size_t offset) const {
    uint64_t value = 0;
    for (size_t i = 0; i < 8; i++) {
        size_t at = _little_endian ? offset + 7 - i : offset + i;
        value = value << 8 | _data[at];
    }
    return static_cast<int64_t>(value);
}

// Reads the entry at `offset` (which leaves at least a header's room before the used end is
// checked here). False when any part of it lies outside the entry or the used block.
bool PerfDataBuffer::entry_at(size_t offset, PerfCounter* counter, size_t* length) const {
    if (offset > _used || _used - offset < ENTRY_HEADER_SIZE) return false;
    int32_t entry_length = read_int(offset + ENTRY_LENGTH_AT);
    int32_t name_offset = read_int(offset + NAME_OFFSET_AT);
    int32_t vector_length = read_int(offset + VECTOR_LENGTH_AT);
    int32_t data_offset = read_int(offset + DATA_OFFSET_AT);
    if (entry_length < static_cast<int32_t>(ENTRY_HEADER_SIZE) ||
        static_cast<size_t>(entry_length) > _used - offset) {
        return false;
    }
    size_t entry_end = static_cast<size_t>(entry_length);
    if (name_offset < static_cast<int32_t>(ENTRY_HEADER_SIZE) || static_cast<size_t>(name_offset) >= entry_end) {
        return false;
    }
    const char* name = reinterpret_cast<const char*>(_data + offset + name_offset);
    const void* name_end = memchr(name, '\0', entry_end - static_cast<size_t>(name_offset));
    if (name_end == nullptr) return false;  // a name without its terminator inside the entry
    if (data_offset < static_cast<int32_t>(ENTRY_HEADER_SIZE) || static_cast<size_t>(data_offset) > entry_end) {
        return false;
    }
    size_t data_room = entry_end - static_cast<size_t>(data_offset);

    counter->name = name;
    counter->name_length = static_cast<size_t>(static_cast<const char*>(name_end) - name);
    counter->type = static_cast<char>(_data[offset + DATA_TYPE_AT]);
    counter->flags = _data[offset + FLAGS_AT];
    counter->units = _data[offset + UNITS_AT];
    counter->variability = _data[offset + VARIABILITY_AT];
    counter->long_value = 0;
    counter->bytes = nullptr;
    counter->bytes_length = 0;
    if (counter->type == 'J') {
        if (data_room < 8) return false;
        counter->long_value = read_long(offset + static_cast<size_t>(data_offset));
    } else if (counter->type == 'B') {
        if (vector_length < 0 || static_cast<size_t>(vector_length) > data_room) return false;
        const unsigned char* bytes = _data + offset + data_offset;
        const void* end = memchr(bytes, '\0', static_cast<size_t>(vector_length));
        counter->bytes = bytes;
        counter->bytes_length = end == nullptr ? static_cast<size_t>(vector_length)
                                               : static_cast<size_t>(static_cast<const unsigned char*>(end) - bytes);
    } else {
        return false;  // HotSpot publishes no other type; an unknown one means a block we cannot trust
    }
    *length = entry_end;
    return true;
}

bool PerfDataBuffer::next(PerfDataCursor* cursor, PerfCounter* counter) const {
    if (!_valid || cursor->index >= _entry_count) return false;
    size_t offset = cursor->index == 0 ? _entry_offset : cursor->offset;
    size_t length = 0;
    if (!entry_at(offset, counter, &length)) return false;
    cursor->offset = offset + length;
    cursor->index++;
    return true;
}

bool PerfDataBuffer::find(const char* name, PerfCounter* counter) const {
    PerfDataCursor cursor;
    while (next(&cursor, counter)) {
        if (counter->name_is(name)) return true;
    }
    return false;
}

}  // namespace J2SE
