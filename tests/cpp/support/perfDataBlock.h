// Builds performance-data blocks laid out as a HotSpot VM lays them out, for tests that need a
// block with chosen counters, a chosen byte order, or a chosen defect.
#ifndef NOX_TESTS_PERF_DATA_BLOCK_H
#define NOX_TESTS_PERF_DATA_BLOCK_H

#include <cstdint>
#include <string>
#include <vector>

namespace noxtest {

class PerfDataBlock {
public:
    explicit PerfDataBlock(bool little_endian = true);

    PerfDataBlock& add_long(const std::string& name, int64_t value, int units = 1, int variability = 1);
    PerfDataBlock& add_string(const std::string& name, const std::string& text, int variability = 1);
    PerfDataBlock& accessible(bool flag) {
        _accessible = flag;
        return *this;
    }

    // The block: prologue, entries, then zeros up to `total` bytes (at least the used size).
    std::vector<unsigned char> bytes(size_t total = 0) const;
    // Offset of entry `index` in bytes(), for tests that spoil it.
    size_t entry_offset(int index) const { return _offsets.at(index); }

    // Writes a 32-bit field in the block's byte order.
    void put_int(std::vector<unsigned char>& block, size_t at, int32_t value) const;

private:
    void put(std::vector<unsigned char>& block, size_t at, uint64_t value, int size) const;
    void add_entry(const std::string& name, char type, int units, int variability, size_t data_at,
                   const std::vector<unsigned char>& data, size_t vector_length);

    bool _little_endian;
    bool _accessible;
    std::vector<unsigned char> _entries;
    std::vector<size_t> _offsets;
};

// The current time in milliseconds since the epoch.
int64_t now_millis();

// A file from a sleeping JDK 17 VM kept with the fuzz seeds: "g1", "serial" or "parallel".
std::vector<unsigned char> real_vm_file(const std::string& collector);

}  // namespace noxtest

#endif
