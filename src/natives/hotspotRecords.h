// The byte records through which the HotSpot natives hand a VM's performance counters to Java
// (big-endian ints and longs, strings as a two-byte length and the bytes, no framing). The Java
// decoders in com.nox.jvm.inspector.hotspot read them field by field:
//   VM entry (list):  pid, uid, user, java command, VM version, begin time (ms since the epoch)
//   figures:          pid, uid, user, java command, VM name, VM version, VM vendor, VM arguments,
//                     VM flags, GC policy, begin time, init-done time, tick frequency, uptime
//                     ticks, heap used/committed/max, metaspace used/committed/max, classes
//                     loaded/unloaded, threads live/peak/daemon/started, the collector count, and
//                     per collector its name, invocations, time, last entry and last exit (ticks)
//   counter:          name, type ('J' or 'B' as an int), units, variability, flags, then a long
//                     for 'J' or a string for 'B'
// A number the VM does not publish is -1, a text it does not publish is empty.
#ifndef NOX_NATIVES_HOTSPOT_RECORDS_H
#define NOX_NATIVES_HOTSPOT_RECORDS_H

#include "hotspotFigures.h"
#include "outputStreams.h"
#include "perfDataFile.h"

void write_hotspot_vm_entry(DataOutputStream_CL& out, const J2SE::PerfDataVmRef& vm, const HotSpotFigures_CL& f);
void write_hotspot_figures(DataOutputStream_CL& out, const J2SE::PerfDataVmRef& vm, const HotSpotFigures_CL& f);
void write_hotspot_counter(DataOutputStream_CL& out, const J2SE::PerfCounter& counter);

#endif
