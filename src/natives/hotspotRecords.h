// The byte records through which the HotSpot natives hand a VM's performance counters to Java
// (big-endian ints and longs, strings as a two-byte length and the bytes, no framing). The Java
// decoders in com.nox.jvm.inspector.hotspot read them field by field:
//   VM entry (list):  pid, namespace pid, uid, user, java command, VM version, begin time (ms
//                     since the epoch)
//   figures:          pid, namespace pid, uid, user, java command, VM name, VM version, VM
//                     vendor, VM arguments, VM flags, GC policy, begin time, init-done time, tick
//                     frequency, uptime ticks, heap used/committed/max, metaspace
//                     used/committed/max, classes loaded/unloaded, threads
//                     live/peak/daemon/started, process start (seconds since the epoch, 0 when
//                     unknown), the collector count, per collector its name, invocations,
//                     time, last entry and last exit (ticks), then per pool (eden, survivor,
//                     old, metaspace, compressed class space) its used, committed and max
//   counter:          name, type ('J' or 'B' as an int), units, variability, flags, then a long
//                     for 'J' or a string for 'B'
//   JVM process:      pid, namespace pid, uid, user, process start, command line (its arguments
//                     separated by NUL bytes): a process that maps libjvm.so and publishes no
//                     performance data
//   host pass:        per VM an int 1 and its figures, per JVM process an int 2 and its
//                     record, then an int 0
// The namespace pid is the pid the VM knows itself by (inside a container); it equals the pid
// elsewhere. A number the VM does not publish is -1, a text it does not publish is empty.
#ifndef NOX_NATIVES_HOTSPOT_RECORDS_H
#define NOX_NATIVES_HOTSPOT_RECORDS_H

#include "hotspotFigures.h"
#include "outputStreams.h"
#include "perfDataHost.h"

void write_hotspot_vm_entry(DataOutputStream_CL& out, const J2SE::PerfDataVmRef& vm, const HotSpotFigures_CL& f);
void write_hotspot_figures(DataOutputStream_CL& out, const J2SE::PerfDataVmRef& vm, const HotSpotFigures_CL& f);
void write_hotspot_counter(DataOutputStream_CL& out, const J2SE::PerfCounter& counter);
void write_jvm_process(DataOutputStream_CL& out, const J2SE::JvmProcessRef& process);

// Tags of the host pass's records.
const int HOST_PASS_END = 0;
const int HOST_PASS_VM = 1;
const int HOST_PASS_JVM_PROCESS = 2;

#endif
