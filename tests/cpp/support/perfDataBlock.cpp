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

void PerfDataBlock::put_int(std::vector<unsigned char>& block, size_t at, int32_t value) const {
    uint32_t v = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; i++) {
        int shift = _little_endian ? 8 * i : 8 * (3 - i);
        block.at(at + i) = static_cast<unsigned char>(v >> shift);
    }
}

void PerfDataBlock::put_long(std::vector<unsigned char>& block, size_t at, int64_t value) const {
    uint64_t v = static_cast<uint64_t>(value);
    for (int i = 0; i < 8; i++) {
        int shift = _little_endian ? 8 * i : 8 * (7 - i);
        block.at(at + i) = static_cast<unsigned char>(v >> shift);
    }
}

PerfDataBlock& PerfDataBlock::add_long(const std::string& name, int64_t value, int units, int variability) {
    size_t data_at = align8(HEADER + name.size() + 1);
    size_t length = data_at + 8;
    std::vector<unsigned char> entry(length, 0);
    put_int(entry, 0, static_cast<int32_t>(length));
    put_int(entry, 4, static_cast<int32_t>(HEADER));
    put_int(entry, 8, 0);
    entry[12] = 'J';
    entry[13] = 1;
    entry[14] = static_cast<unsigned char>(units);
    entry[15] = static_cast<unsigned char>(variability);
    put_int(entry, 16, static_cast<int32_t>(data_at));
    std::copy(name.begin(), name.end(), entry.begin() + HEADER);
    put_long(entry, data_at, value);
    _offsets.push_back(PROLOGUE + _entries.size());
    _entries.insert(_entries.end(), entry.begin(), entry.end());
    return *this;
}

PerfDataBlock& PerfDataBlock::add_string(const std::string& name, const std::string& text, int variability) {
    size_t data_at = HEADER + name.size() + 1;
    size_t vector_length = text.size() + 1;
    size_t length = align8(data_at + vector_length);
    std::vector<unsigned char> entry(length, 0);
    put_int(entry, 0, static_cast<int32_t>(length));
    put_int(entry, 4, static_cast<int32_t>(HEADER));
    put_int(entry, 8, static_cast<int32_t>(vector_length));
    entry[12] = 'B';
    entry[13] = 1;
    entry[14] = 5;
    entry[15] = static_cast<unsigned char>(variability);
    put_int(entry, 16, static_cast<int32_t>(data_at));
    std::copy(name.begin(), name.end(), entry.begin() + HEADER);
    std::copy(text.begin(), text.end(), entry.begin() + data_at);
    _offsets.push_back(PROLOGUE + _entries.size());
    _entries.insert(_entries.end(), entry.begin(), entry.end());
    return *this;
}

std::vector<unsigned char> PerfDataBlock::bytes(size_t total) const {
    size_t used = PROLOGUE + _entries.size();
    std::vector<unsigned char> block(total > used ? total : used, 0);
    block[0] = 0xCA;
    block[1] = 0xFE;
    block[2] = 0xC0;
    block[3] = 0xC0;
    block[4] = _little_endian ? 1 : 0;
    block[5] = 2;
    block[6] = 0;
    block[7] = _accessible ? 1 : 0;
    put_int(block, 8, static_cast<int32_t>(used));
    put_int(block, 12, 0);
    put_long(block, 16, 0);
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
