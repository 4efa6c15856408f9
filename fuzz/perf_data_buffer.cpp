// Fuzz target: a performance-data block as another process could leave it. The bytes are copied
// into a buffer of exactly their size, so that AddressSanitizer sees any read past the end; the
// block is walked, searched, turned into figures and written as the records the natives return.
#include "hotspotFigures.h"
#include "hotspotRecords.h"
#include "perfDataBuffer.h"

#include <cstdint>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<unsigned char> copy(data, data + size);
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
    vm.uid = 0;
    write_hotspot_figures(out, vm, figures);
    write_hotspot_vm_entry(out, vm, figures);
    return 0;
}
