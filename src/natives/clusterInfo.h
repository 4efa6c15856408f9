// The record that names one cluster between discovery, the manager and the natives.
#ifndef NOX_NATIVES_CLUSTER_INFO_H
#define NOX_NATIVES_CLUSTER_INFO_H

#include "controlAreaLayout.h"

class ClusterInfo_CL {
public:
    ClusterInfo_CL() : _is_attachable(false), _version(-1), _type(CLUSTER_TYPE_UNKNOWN), _id(-1) {}
    ClusterInfo_CL(bool is_attachable, int version, ClusterType_CL type, int id)
        : _is_attachable(is_attachable), _version(version), _type(type), _id(id) {}

    bool operator==(const ClusterInfo_CL& other) const {
        return _is_attachable == other._is_attachable && _version == other._version && _type == other._type &&
               _id == other._id;
    }

    bool _is_attachable;   // the block is compatible (eyecatcher and major version)
    int _version;          // the block's version word, or -1 when its eyecatcher is wrong
    ClusterType_CL _type;
    int _id;               // segment number of an instance cluster, the VM's pid for a process cluster
};

#endif
