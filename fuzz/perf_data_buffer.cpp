// Fuzz target: a performance-data block as another process could leave it. The bytes are copied
// into a buffer of exactly their size, so that AddressSanitizer sees any read past the end; the
// block is walked, searched, turned into figures and written as the records the natives return.
// Then as the reader copies a file: the used part its prologue names, in a buffer of that size.
#include "hotspotFigures.h"
#include "hotspotRecords.h"
#include "perfDataBuffer.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

void walk(const std::vector<unsigned char>& copy) {
    J2SE::PerfDataBuffer block(copy.data(), copy.size());
    (void)block.is_accessible();

    ByteArrayOutputStream_CL buffer(1024);
    DataOutputStream_CL out(buffer);
    J2SE::PerfDataCursor cursor;
    J2SE::PerfCounter counter;
    while (block.next(&cursor, &counter)) write_hotspot_counter(out, counter);

    J2SE::PerfCounter found;
    (void)block.find("sun.rt.createVmBeginTime", &found);
    (void)block.find("sun.rt.javaCommand", &found);

    HotSpotFigures_CL figures;
    read_hotspot_summary(block, &figures);
    read_hotspot_figures(block, &figures);
    J2SE::PerfDataVmRef vm;
    vm.pid = 1;
    vm.namespace_pid = 1;
    write_hotspot_figures(out, vm, figures);
    write_hotspot_vm_entry(out, vm, figures);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<unsigned char> copy(data, data + size);
    walk(copy);
    size_t used = 0;
    if (J2SE::PerfDataBuffer::used_of_prologue(copy.data(), copy.size(), &used) && used <= copy.size()) {
        walk(std::vector<unsigned char>(copy.begin(), copy.begin() + static_cast<std::ptrdiff_t>(used)));
    }
    return 0;
}
