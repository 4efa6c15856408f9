// Writers of the HotSpot records; the layouts are described in hotspotRecords.h.
#include "hotspotRecords.h"

namespace {

// Strings longer than a record's two-byte length are cut to fit rather than spoiling the record.
const size_t LONGEST_STRING = 65535;

void write_text(DataOutputStream_CL& out, const unsigned char* bytes, size_t length) {
    if (bytes == nullptr) length = 0;
    String_CL text = {reinterpret_cast<const char*>(bytes), length > LONGEST_STRING ? LONGEST_STRING : length};
    out.writeString(text);
}

void write_text(DataOutputStream_CL& out, const PerfText_CL& text) {
    write_text(out, text.bytes, text.length);
}

void write_text(DataOutputStream_CL& out, const J2SE::cstring& text) {
    write_text(out, reinterpret_cast<const unsigned char*>(text.c_str()), text.length());
}

void write_user(DataOutputStream_CL& out, const J2SE::PerfDataVmRef& vm) {
    out.writeInt(vm.pid);
    out.writeInt(vm.namespace_pid);
    out.writeInt(static_cast<int>(vm.uid));
    write_text(out, vm.user);
}

}  // namespace

void write_hotspot_vm_entry(DataOutputStream_CL& out, const J2SE::PerfDataVmRef& vm, const HotSpotFigures_CL& f) {
    write_user(out, vm);
    write_text(out, f.java_command);
    write_text(out, f.vm_version);
    out.writeLong(f.begin_millis);
}

void write_hotspot_figures(DataOutputStream_CL& out, const J2SE::PerfDataVmRef& vm, const HotSpotFigures_CL& f) {
    write_user(out, vm);
    write_text(out, f.java_command);
    write_text(out, f.vm_name);
    write_text(out, f.vm_version);
    write_text(out, f.vm_vendor);
    write_text(out, f.vm_arguments);
    write_text(out, f.vm_flags);
    write_text(out, f.gc_policy);
    const int64_t numbers[] = {f.begin_millis,        f.init_done_millis, f.tick_frequency,  f.uptime_ticks,
                               f.heap_used,           f.heap_committed,   f.heap_max,        f.metaspace_used,
                               f.metaspace_committed, f.metaspace_max,    f.classes_loaded,  f.classes_unloaded,
                               f.threads_live,        f.threads_peak,     f.threads_daemon,  f.threads_started};
    for (int64_t n : numbers) out.writeLong(n);
    out.writeLong(static_cast<int64_t>(vm.process_start));
    out.writeInt(f.collector_count);
    for (int i = 0; i < f.collector_count; i++) {
        const HotSpotCollector_CL& c = f.collectors[i];
        write_text(out, c.name);
        out.writeLong(c.invocations);
        out.writeLong(c.time_ticks);
        out.writeLong(c.last_entry_ticks);
        out.writeLong(c.last_exit_ticks);
    }
    for (const HotSpotPool_CL& pool : f.pools) {
        out.writeLong(pool.used);
        out.writeLong(pool.committed);
        out.writeLong(pool.max);
    }
}

void write_hotspot_counter(DataOutputStream_CL& out, const J2SE::PerfCounter& counter) {
    write_text(out, reinterpret_cast<const unsigned char*>(counter.name), counter.name_length);
    out.writeInt(counter.type);
    out.writeInt(counter.units);
    out.writeInt(counter.variability);
    out.writeInt(counter.flags);
    if (counter.is_long()) {
        out.writeLong(counter.long_value);
    } else {
        write_text(out, counter.bytes, counter.bytes_length);
    }
}

void write_jvm_process(DataOutputStream_CL& out, const J2SE::JvmProcessRef& process) {
    out.writeInt(process.pid);
    out.writeInt(process.namespace_pid);
    out.writeInt(static_cast<int>(process.uid));
    write_text(out, process.user);
    out.writeLong(static_cast<int64_t>(process.process_start));
    write_text(out, process.command_line);
}
