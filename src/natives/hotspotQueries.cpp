// The HotSpot queries: each reads what it needs from a fresh copy of the VM's file.
#include "hotspotQueries.h"

#include "hotspotFigures.h"
#include "hotspotRecords.h"

#include <cstring>

using J2SE::PerfCounter;
using J2SE::PerfDataBuffer;
using J2SE::PerfDataCursor;
using J2SE::PerfDataFile;
using J2SE::JvmProcessRef;
using J2SE::PerfDataHost;
using J2SE::PerfDataVmRef;

namespace {

// The prologue as the counters the JDK's tools show for it (sun.perfdata.*): they are not
// entries of the block, but a user asking for counters by name expects them.
struct PrologueCounter {
    const char* name;
    int units;
    int variability;
    int64_t (*value)(const PerfDataFile& file);
};

const PrologueCounter PROLOGUE_COUNTERS[] = {
    {"sun.perfdata.majorVersion", J2SE::PERF_UNITS_NONE, J2SE::PERF_CONSTANT,
     [](const PerfDataFile& f) -> int64_t { return f.block().major_version(); }},
    {"sun.perfdata.minorVersion", J2SE::PERF_UNITS_NONE, J2SE::PERF_CONSTANT,
     [](const PerfDataFile& f) -> int64_t { return f.block().minor_version(); }},
    {"sun.perfdata.overflow", J2SE::PERF_UNITS_BYTES, J2SE::PERF_VARIABLE,
     [](const PerfDataFile& f) -> int64_t { return f.block().overflow(); }},
    {"sun.perfdata.size", J2SE::PERF_UNITS_BYTES, J2SE::PERF_CONSTANT,
     [](const PerfDataFile& f) -> int64_t { return static_cast<int64_t>(f.file_size()); }},
    {"sun.perfdata.timestamp", J2SE::PERF_UNITS_TICKS, J2SE::PERF_VARIABLE,
     [](const PerfDataFile& f) -> int64_t { return f.block().mod_time_stamp(); }},
    {"sun.perfdata.used", J2SE::PERF_UNITS_BYTES, J2SE::PERF_VARIABLE,
     [](const PerfDataFile& f) -> int64_t { return static_cast<int64_t>(f.block().used()); }},
};

PerfCounter prologue_counter(const PrologueCounter& p, const PerfDataFile& file) {
    PerfCounter c;
    c.name = p.name;
    c.name_length = strlen(p.name);
    c.type = 'J';
    c.units = p.units;
    c.variability = p.variability;
    c.flags = 0;
    c.long_value = p.value(file);
    c.bytes = nullptr;
    c.bytes_length = 0;
    return c;
}

bool write_entry(const PerfDataVmRef& vm, const PerfDataBuffer& block, void* context) {
    HotSpotFigures_CL figures;
    read_hotspot_summary(block, &figures);
    write_hotspot_vm_entry(*static_cast<DataOutputStream_CL*>(context), vm, figures);
    return true;
}

bool write_figures(const PerfDataVmRef& vm, const PerfDataBuffer& block, void* context) {
    DataOutputStream_CL& data = *static_cast<DataOutputStream_CL*>(context);
    HotSpotFigures_CL figures;
    read_hotspot_figures(block, &figures);
    data.writeInt(HOST_PASS_VM);
    write_hotspot_figures(data, vm, figures);
    return data.is_ok();
}

bool write_process(const JvmProcessRef& process, void* context) {
    DataOutputStream_CL& data = *static_cast<DataOutputStream_CL*>(context);
    data.writeInt(HOST_PASS_JVM_PROCESS);
    write_jvm_process(data, process);
    return data.is_ok();
}

}  // namespace

bool query_hotspot_host_pass(const PerfDataHost& host, ByteArrayOutputStream_CL& out) {
    DataOutputStream_CL data(out);
    host.for_each_jvm(write_figures, write_process, &data);
    data.writeInt(HOST_PASS_END);
    return data.is_ok();
}

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
    for (const PrologueCounter& p : PROLOGUE_COUNTERS) write_hotspot_counter(data, prologue_counter(p, file));
    PerfDataCursor cursor;
    PerfCounter counter;
    while (block.next(&cursor, &counter)) write_hotspot_counter(data, counter);
    return data.is_ok();
}

bool query_hotspot_counter(const PerfDataHost& host, int pid, const char* name, ByteArrayOutputStream_CL& out) {
    PerfDataFile file;
    PerfDataVmRef vm;
    if (name == nullptr || !host.read_vm(pid, &file, &vm)) return false;
    PerfDataBuffer block = file.block();
    PerfCounter counter;
    bool found = false;
    for (const PrologueCounter& p : PROLOGUE_COUNTERS) {
        if (strcmp(p.name, name) == 0) {
            counter = prologue_counter(p, file);
            found = true;
        }
    }
    if (!found && !block.find(name, &counter)) return false;
    DataOutputStream_CL data(out);
    write_hotspot_counter(data, counter);
    return data.is_ok();
}
