#include "perfDataBlock.h"

#include <chrono>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace noxtest {

namespace {

const size_t PROLOGUE = 32;
const size_t HEADER = 20;

size_t align8(size_t n) {
    return (n + 7) & ~static_cast<size_t>(7);
}

}  // namespace

PerfDataBlock::PerfDataBlock(bool little_endian) : _little_endian(little_endian), _accessible(true) {}

void PerfDataBlock::put(std::vector<unsigned char>& block, size_t at, uint64_t value, int size) const {
    for (int i = 0; i < size; i++) {
        int shift = _little_endian ? 8 * i : 8 * (size - 1 - i);
        block.at(at + i) = static_cast<unsigned char>(value >> shift);
    }
}

void PerfDataBlock::put_int(std::vector<unsigned char>& block, size_t at, int32_t value) const {
    put(block, at, static_cast<uint32_t>(value), 4);
}

// An entry as HotSpot lays it out: a 20-byte header, the NUL-terminated name, the data at
// `data_at`, and zeros up to a multiple of 8 bytes.
void PerfDataBlock::add_entry(const std::string& name, char type, int units, int variability, size_t data_at,
                              const std::vector<unsigned char>& data, size_t vector_length) {
    std::vector<unsigned char> entry(align8(data_at + data.size()), 0);
    put_int(entry, 0, static_cast<int32_t>(entry.size()));
    put_int(entry, 4, static_cast<int32_t>(HEADER));
    put_int(entry, 8, static_cast<int32_t>(vector_length));
    const unsigned char kind[4] = {static_cast<unsigned char>(type), 1, static_cast<unsigned char>(units),
                                   static_cast<unsigned char>(variability)};
    std::copy(kind, kind + 4, entry.begin() + 12);
    put_int(entry, 16, static_cast<int32_t>(data_at));
    std::copy(name.begin(), name.end(), entry.begin() + HEADER);
    std::copy(data.begin(), data.end(), entry.begin() + data_at);
    _offsets.push_back(PROLOGUE + _entries.size());
    _entries.insert(_entries.end(), entry.begin(), entry.end());
}

PerfDataBlock& PerfDataBlock::add_long(const std::string& name, int64_t value, int units, int variability) {
    std::vector<unsigned char> data(8);
    put(data, 0, static_cast<uint64_t>(value), 8);
    add_entry(name, 'J', units, variability, align8(HEADER + name.size() + 1), data, 0);
    return *this;
}

PerfDataBlock& PerfDataBlock::add_string(const std::string& name, const std::string& text, int variability) {
    std::vector<unsigned char> data(text.begin(), text.end());
    data.push_back(0);
    add_entry(name, 'B', 5, variability, HEADER + name.size() + 1, data, data.size());
    return *this;
}

std::vector<unsigned char> PerfDataBlock::bytes(size_t total) const {
    size_t used = PROLOGUE + _entries.size();
    std::vector<unsigned char> block(total > used ? total : used, 0);
    // Magic, byte order, version 2.0, and the flag that the VM has published its counters.
    const unsigned char start[8] = {0xCA, 0xFE, 0xC0, 0xC0, _little_endian, 2, 0, _accessible};
    std::copy(start, start + 8, block.begin());
    put_int(block, 8, static_cast<int32_t>(used));
    put_int(block, 24, static_cast<int32_t>(PROLOGUE));
    put_int(block, 28, static_cast<int32_t>(_offsets.size()));
    std::copy(_entries.begin(), _entries.end(), block.begin() + PROLOGUE);
    return block;
}

int64_t now_millis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::vector<unsigned char> real_vm_file(const std::string& collector) {
    std::string path = std::string(NOX_SOURCE_DIR) + "/fuzz/corpus/perf_data_buffer/" + collector + "-sleeping-vm";
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace noxtest
