// The byte records that describe clusters and VMs to Java, written field by field with a
// DataOutputStream_CL. Each writer reads its values from the views at the moment it writes
// them; the views belong to a manager that the caller keeps alive meanwhile.
#ifndef NOX_NATIVES_CLUSTER_RECORDS_H
#define NOX_NATIVES_CLUSTER_RECORDS_H

#include "clusterInfo.h"
#include "controlArea.h"
#include "controlAreaManager.h"
#include "cvector.h"
#include "instanceControlArea.h"
#include "outputStreams.h"

// int count, then per cluster: boolean attachable, int type, int id (the version is not sent).
void write_cluster_list(DataOutputStream_CL& out, const J2SE::cvector<ClusterInfo_CL>& clusters);
// int slot count, then per live slot: int slot, int pid, int VM id; then the end mark -1.
void write_cluster_details(DataOutputStream_CL& out, const ControlAreaManager_CL& manager);
// boolean on demand, int from port, int to port, int state, int current port, string client,
// boolean locally.
void write_debug_info(DataOutputStream_CL& out, const ControlArea_CL& area);
// int VM index, int pid, and two reserved ints -1: always 16 bytes.
void write_state_info(DataOutputStream_CL& out, const ControlArea_CL& area);
// Eight strings (version, work dir, flags, args, Java args, tag, splittable args, main class)
// and two booleans (monitoring board, metaspace).
void write_start_info(DataOutputStream_CL& out, const ControlArea_CL& area);
// long total (system + user), long system, long user, long processing: always 32 bytes.
void write_time_info(DataOutputStream_CL& out, const ControlArea_CL& area);
// 36 longs and 5 ints: always 308 bytes.
void write_memory_info(DataOutputStream_CL& out, const ControlArea_CL& area, const InstanceControlArea_CL& cluster);

#endif
