// What each cluster native does, without the JVM: attach the cluster for the length of one call,
// find the VM with the guarded lookup (slot in range, area in use, process alive), read a record
// or raise a request, detach. The JNI boundary only converts arguments and results.
#ifndef NOX_NATIVES_CLUSTER_QUERIES_H
#define NOX_NATIVES_CLUSTER_QUERIES_H

#include "outputStreams.h"

enum VmRecordKind { VM_RECORD_DEBUG, VM_RECORD_STATE, VM_RECORD_START, VM_RECORD_TIME, VM_RECORD_MEMORY };

// Writes the cluster list of this host into `out`.
void query_cluster_list(ByteArrayOutputStream_CL& out);
// Writes the detailed record of instance cluster `id`; false when it cannot be attached.
bool query_cluster_details(int id, ByteArrayOutputStream_CL& out);
// Writes one VM's record; false when the VM is not there.
bool query_vm_record(int type, int id, int index, VmRecordKind kind, ByteArrayOutputStream_CL& out);

int query_unique_id(int type, int id, int index);  // -1 when the VM is not there
int query_max_vms(int id);                          // -1 when the cluster cannot be attached
bool query_is_valid_vm(int type, int id, int index);

// Requests: true once the flag is raised (the VM acts on it later); false when the VM is not there
// or its owner cut the control-area file before the flag could be written.
bool request_start_debugging(int type, int id, int index, int suspend);
bool request_stop_debugging(int type, int id, int index);
bool request_exit(int type, int id, int index, int exit_code);

#endif
