// A HotSpot VM's performance-data block, read from a copy of the block in our own memory.
//
// Every HotSpot VM that runs without -XX:-UsePerfData publishes its counters in a file that it
// maps and updates while it runs. The block starts with a 32-byte prologue:
//   magic 0xCAFEC0C0 (always written as the bytes CA FE C0 C0), byte order (0 big, 1 little),
//   major and minor version (2.0), an "accessible" flag the VM sets once the block is complete,
//   the number of bytes used, an overflow count, a modification time stamp, the offset of the
//   first entry and the number of entries.
// Each entry describes itself in a 20-byte header (entry length, name offset, vector length,
// type 'J' for a 64-bit value or 'B' for a byte vector, flags, units, variability, data offset;
// offsets from the entry's start), then holds its NUL-terminated name and its value.
//
// The block comes from another process, which may be rewriting it while we copied it, or may be
// hostile: every offset and length is checked against the copy before it is used, and an entry
// that does not fit ends the walk. Nothing here allocates; counters point into the copy.
#ifndef NOX_SHARED_PERF_DATA_BUFFER_H
#define NOX_SHARED_PERF_DATA_BUFFER_H

#include <cstddef>
#include <cstdint>

namespace J2SE {

// Units and variabilities as the VM publishes them.
enum PerfDataUnits { PERF_UNITS_NONE = 1, PERF_UNITS_BYTES = 2, PERF_UNITS_TICKS = 3, PERF_UNITS_EVENTS = 4,
                     PERF_UNITS_STRING = 5, PERF_UNITS_HERTZ = 6 };
enum PerfDataVariability { PERF_CONSTANT = 1, PERF_MONOTONIC = 2, PERF_VARIABLE = 3 };

// Where a walk over the entries stands; a new cursor stands before the first entry.
struct PerfDataCursor {
    size_t offset = 0;
    int index = 0;
};

// One counter, pointing into the block it was read from.
struct PerfCounter {
    const char* name;             // NUL-terminated inside the block
    size_t name_length;
    char type;                    // 'J' (long_value) or 'B' (bytes)
    int units;
    int variability;
    int flags;                    // bit 0: the counter is a supported (documented) one
    int64_t long_value;           // for 'J'
    const unsigned char* bytes;   // for 'B': the value up to its first NUL or the vector's end
    size_t bytes_length;

    bool is_long() const { return type == 'J'; }
    bool is_bytes() const { return type == 'B'; }
    bool name_is(const char* other) const;
};

class PerfDataBuffer {
public:
    static const size_t PROLOGUE_SIZE = 32;
    static const size_t ENTRY_HEADER_SIZE = 20;

    // A view of `size` bytes at `data`, which must stay valid while the view is used.
    PerfDataBuffer(const unsigned char* data, size_t size);

    // The used size that a prologue announces, from the block's first PROLOGUE_SIZE bytes alone:
    // false when they are not a prologue this reader knows (magic, byte order, version) or the
    // used size is smaller than the prologue. A reader copies the prologue first and then only
    // the bytes it names, so a planted file costs 32 bytes however large it is.
    static bool used_of_prologue(const unsigned char* prologue, size_t size, size_t* used);

    // True when the prologue has the magic number, a known byte order and version 2, and its
    // used size and entry offset lie inside the block.
    bool is_valid() const { return _valid; }
    // The VM has finished publishing its counters (the flag the JDK's tools wait for).
    bool is_accessible() const { return _valid && _accessible; }
    int major_version() const { return _major; }
    int minor_version() const { return _minor; }
    bool little_endian() const { return _little_endian; }
    int entry_count() const { return _entry_count; }
    // Bytes of the copy.
    size_t size() const { return _size; }
    // The prologue's overflow count and modification time stamp (ticks of the VM's clock).
    int overflow() const { return _overflow; }
    int64_t mod_time_stamp() const { return _mod_time_stamp; }
    // The used size, cut to the copy's size.
    size_t used() const { return _used; }
    // The copy holds every byte the prologue says is used. A copy of a file that was cut, or
    // that was being written, is shorter.
    bool holds_used() const { return _valid && !_used_cut; }

    // Walks the entries: true with the next counter; false after the published number of
    // entries, or at the first entry that does not fit in the used part of the block.
    bool next(PerfDataCursor* cursor, PerfCounter* counter) const;

    // The counter named `name`, by a walk over the entries.
    bool find(const char* name, PerfCounter* counter) const;

private:
    int32_t read_int(size_t offset) const { return int_at(_data, offset, _little_endian); }
    static int32_t int_at(const unsigned char* data, size_t offset, bool little_endian);
    static bool known_prologue(const unsigned char* data, size_t size);
    int64_t read_long(size_t offset) const;
    bool entry_at(size_t offset, PerfCounter* counter, size_t* length) const;

    const unsigned char* _data;
    size_t _size;
    bool _valid;
    bool _accessible;
    bool _little_endian;
    int _major;
    int _minor;
    size_t _used;
    bool _used_cut;
    size_t _entry_offset;
    int _entry_count;
    int _overflow;
    int64_t _mod_time_stamp;
};

}  // namespace J2SE

#endif
