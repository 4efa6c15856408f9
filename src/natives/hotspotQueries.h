// What each HotSpot native does, without the JVM: find the VMs' performance-data files, copy
// the one asked for, and write its figures or counters as a byte record.
#ifndef NOX_NATIVES_HOTSPOT_QUERIES_H
#define NOX_NATIVES_HOTSPOT_QUERIES_H

#include "outputStreams.h"
#include "perfDataHost.h"

// Writes the host pass: the figures of every live HotSpot VM whose file the caller may read (each
// file copied once), then every process that maps libjvm.so without one; false when the record
// could not be written whole.
bool query_hotspot_host_pass(const J2SE::PerfDataHost& host, ByteArrayOutputStream_CL& out);
// Writes one VM entry per live HotSpot VM whose file the caller may read.
void query_hotspot_vms(const J2SE::PerfDataHost& host, ByteArrayOutputStream_CL& out);
// Writes the figures of VM `pid`; false when it publishes no readable, live file.
bool query_hotspot_vm(const J2SE::PerfDataHost& host, int pid, ByteArrayOutputStream_CL& out);
// Writes every counter of VM `pid`; false as above.
bool query_hotspot_counters(const J2SE::PerfDataHost& host, int pid, ByteArrayOutputStream_CL& out);
// Writes the counter `name` of VM `pid`; false as above or when it has no such counter.
bool query_hotspot_counter(const J2SE::PerfDataHost& host, int pid, const char* name, ByteArrayOutputStream_CL& out);

#endif
