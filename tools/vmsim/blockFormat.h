// The byte format of a control-area block as a VM writes it: offsets of every field that vmsim
// sets or watches, for the 32-bit and the 64-bit layout. Written from the published tables on
// purpose without the library's structures, so that a mistake in one is caught by the other.
#ifndef VMSIM_BLOCK_FORMAT_H
#define VMSIM_BLOCK_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vmsim {

enum class Width { Bit32, Bit64 };

enum class Kind {
    Int32,    // 4 bytes
    Int64,    // 8 bytes
    Boolean,  // 1 byte
    Size,     // 4 bytes (32-bit layout) or 8 bytes (64-bit layout)
    Text      // `capacity` bytes, NUL-terminated unless the text fills them
};

struct Field {
    const char* name;
    Kind kind;
    size_t offset32;
    size_t offset64;
    size_t capacity;  // Text: bytes of the field; Size arrays: number of entries; else 0

    size_t offset(Width width) const { return width == Width::Bit64 ? offset64 : offset32; }
    size_t bytes(Width width) const;
};

// Fields of the instance control area (the basic header included).
const std::vector<Field>& instance_fields();
// Fields of one per-VM control area.
const std::vector<Field>& vm_fields();
const Field* find_field(const std::vector<Field>& fields, const std::string& name);

// A request flag: its number and its field.
struct Flag {
    int number;
    const char* name;  // field name without the leading underscore
};
const std::vector<Flag>& flags();

size_t header_size(Width width);            // 20 or 32
size_t instance_area_size(Width width);     // 152 or 288
size_t vm_area_size(Width width);           // 46048 or 46072

const uint32_t INSTANCE_EYECATCHER = 0xFADEBABEu;
const uint32_t VM_EYECATCHER = 0xDEADBEEFu;
// Major 3, minor 17; bit 0 set for the 64-bit layout.
const uint32_t VERSION_32 = 0x00060022u;
const uint32_t VERSION_64 = 0x00060023u;

enum DebuggingState {
    DEBUGGING_STATE_UNKNOWN = 0,
    DEBUGGING_STATE_NOT_ACTIVE = 1,
    DEBUGGING_STATE_REQUESTED = 2,
    DEBUGGING_STATE_STARTING = 3,
    DEBUGGING_STATE_WAIT_FOR_DEBUGGER = 4,
    DEBUGGING_STATE_DEBUGGER_ATTACHED = 5,
    DEBUGGING_STATE_STOPPING = 6
};

// A view of the block's bytes that clips every access to them: a hostile header may place
// fields outside the block, and vmsim then simply does not write them.
class Block {
public:
    Block(unsigned char* base, size_t size) : _base(base), _size(size) {}
    bool fits(uint64_t offset, uint64_t bytes) const { return offset <= _size && bytes <= _size - offset; }
    bool put(uint64_t offset, const void* bytes, size_t count);
    bool get(uint64_t offset, void* bytes, size_t count) const;
    bool put_int32(uint64_t offset, int32_t value) { return put(offset, &value, sizeof value); }
    bool put_int64(uint64_t offset, int64_t value) { return put(offset, &value, sizeof value); }
    int32_t get_int32(uint64_t offset) const;
    // Sets a field from its text form: numbers in decimal or 0x hex, booleans as true/false/0/1,
    // texts as given (refused when longer than the field). `index` picks an array entry.
    bool set_field(uint64_t area_start, const Field& field, Width width, const std::string& value, size_t index,
                   std::string* error);
    unsigned char* base() const { return _base; }
    size_t size() const { return _size; }

private:
    unsigned char* _base;
    size_t _size;
};

bool parse_int64(const std::string& text, int64_t* value);

}  // namespace vmsim

#endif
