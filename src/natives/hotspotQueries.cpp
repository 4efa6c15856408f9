// The HotSpot queries: each reads what it needs from a fresh copy of the VM's file.
#include "hotspotQueries.h"

#include "hotspotFigures.h"
#include "hotspotRecords.h"

using J2SE::PerfCounter;
using J2SE::PerfDataBuffer;
using J2SE::PerfDataCursor;
using J2SE::PerfDataFile;
using J2SE::PerfDataHost;
using J2SE::PerfDataVmRef;

namespace {

bool write_entry(const PerfDataVmRef& vm, const PerfDataBuffer& block, void* context) {
    HotSpotFigures_CL figures;
    read_hotspot_figures(block, &figures);
    write_hotspot_vm_entry(*static_cast<DataOutputStream_CL*>(context), vm, figures);
    return true;
}

}  // namespace

void query_hotspot_vms(const PerfDataHost& host, ByteArrayOutputStream_CL& out) {
    DataOutputStream_CL data(out);
    host.for_each_vm(write_entry, &data);
}

bool query_hotspot_vm(const PerfDataHost& host, int pid, ByteArrayOutputStream_CL& out) {
    PerfDataFile file;
    PerfDataVmRef vm;
    if (!host.read_vm(pid, &file, &vm)) return false;
    HotSpotFigures_CL figures;
    read_hotspot_figures(file.block(), &figures);
    DataOutputStream_CL data(out);
    write_hotspot_figures(data, vm, figures);
    return data.is_ok();
}

bool query_hotspot_counters(const PerfDataHost& host, int pid, ByteArrayOutputStream_CL& out) {
    PerfDataFile file;
    PerfDataVmRef vm;
    if (!host.read_vm(pid, &file, &vm)) return false;
    PerfDataBuffer block = file.block();
    DataOutputStream_CL data(out);
    PerfDataCursor cursor;
    PerfCounter counter;
    while (block.next(&cursor, &counter)) write_hotspot_counter(data, counter);
    return data.is_ok();
}

bool query_hotspot_counter(const PerfDataHost& host, int pid, const char* name, ByteArrayOutputStream_CL& out) {
    PerfDataFile file;
    PerfDataVmRef vm;
    if (name == nullptr || !host.read_vm(pid, &file, &vm)) return false;
    PerfCounter counter;
    if (!file.block().find(name, &counter)) return false;
    DataOutputStream_CL data(out);
    write_hotspot_counter(data, counter);
    return data.is_ok();
}
