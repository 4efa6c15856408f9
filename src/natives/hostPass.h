// One pass over the whole host: every running cluster and every live VM's start, time, memory
// and debugging records, written as one record stream. Each process-cluster file is copied once
// (one pread) and each instance-cluster segment attached once; the host's segment list is read
// once to learn which instance clusters exist, and each VM's /proc/<pid>/stat once to learn
// whether it is alive, who owns it and when it started (see ControlAreaScan).
//
// The stream, big-endian as every record (booleans 1 byte, ints 4, longs 8):
//   int format version (HOST_PASS_FORMAT)
//   per cluster, instance clusters by ascending id, then process clusters by ascending pid:
//     int cluster type (1 process, 2 instance), int cluster id, boolean attachable,
//     int version word (-1 when the eyecatcher is wrong), int slot count (0 when unreadable)
//     per live VM, slots ascending:
//       int slot (>= 0), int pid, int VM id, long process start (seconds since the epoch, 0
//       when unknown), then the start, time, memory and debugging records, each as an int length
//       followed by the record's bytes (length -1 and no bytes when the record cannot be made)
//     int -1 (end of the cluster's VMs)
//   int 0 (end of the stream)
// The clusters are those that the cluster list reports (same rules for which are listed).
#ifndef NOX_NATIVES_HOST_PASS_H
#define NOX_NATIVES_HOST_PASS_H

#include "outputStreams.h"

const int HOST_PASS_FORMAT = 1;

// Writes the pass's stream into `out`.
void query_host_pass(ByteArrayOutputStream_CL& out);

#endif
