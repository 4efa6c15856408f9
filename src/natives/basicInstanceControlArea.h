// The header end of a cluster's control-area block: attaches the block by itself, checks its
// basic header and answers what can be asked before the layout width is known.
#ifndef NOX_NATIVES_BASIC_INSTANCE_CONTROL_AREA_H
#define NOX_NATIVES_BASIC_INSTANCE_CONTROL_AREA_H

#include "clusterInfo.h"
#include "controlAreaCopy.h"
#include "controlAreaLayout.h"
#include "sharedMemory.h"

#include <cstddef>
#include <cstdint>

// The header fields of a block, each read once from the shared memory (the VM may change them
// at any time, so every decision about one block is taken on one copy).
struct BasicHeaderFacts_CL {
    uint32_t eyecatcher;
    uint32_t version;
    int32_t max_vm_nr;
    size_t instance_control_area_size;  // a 32-bit size widened as signed
    size_t control_area_size;
    ArchType_CL arch_type;
};

class BasicInstanceControlArea_CL {
public:
    enum VersionTypeOffset {
        CONTROL_AREA_VERSION_BIT_SIZE_OFFSET = 0,
        CONTROL_AREA_VERSION_MINOR_OFFSET = 1,
        CONTROL_AREA_VERSION_MAJOR_OFFSET = 17
    };
    enum VersionTypeLength {
        CONTROL_AREA_VERSION_BIT_SIZE_LENGTH = 1,
        CONTROL_AREA_VERSION_MINOR_LENGTH = 16,
        CONTROL_AREA_VERSION_MAJOR_LENGTH = 8
    };

    // Attaches the block of the cluster named by `info._type` and `info._id` and accepts it or
    // not; rejection is silent and leaves both layout pointers null. A process cluster's block
    // is read from a copy of its file's first bytes, never through a mapping (see
    // ControlAreaCopy); the getters then answer from that copy.
    explicit BasicInstanceControlArea_CL(const ClusterInfo_CL& info);
    ~BasicInstanceControlArea_CL();
    BasicInstanceControlArea_CL(const BasicInstanceControlArea_CL&) = delete;
    BasicInstanceControlArea_CL& operator=(const BasicInstanceControlArea_CL&) = delete;

    void detach();
    bool is_accepted() const { return _bcia32_layout != nullptr || _bcia64_layout != nullptr; }

    // The getters read the header in shared memory; ask only when is_accepted().
    int get_max_vm_number() const;
    size_t get_instance_control_area_size() const;
    size_t get_control_area_size() const;
    uint32_t get_version() const;
    bool is_compatible() const;
    ArchType_CL get_arch_type() const;

    // The header facts read once, for a caller that decides several things on one copy.
    BasicHeaderFacts_CL read_facts() const;

    // The acceptance test, on a block of `available` bytes that starts at `block`: the bytes
    // exist, the eyecatcher is 0xFADEBABE, the major version is 3, the available bytes hold the
    // whole header of the width that bit 0 of the version names, and the slot count fits the
    // cluster type (exactly 1 for a process cluster, at least 1 for an instance cluster). On
    // success `facts` holds the header as it was read; nothing beyond `available` is touched.
    static bool accept_header(const void* block, size_t available, ClusterType_CL type, BasicHeaderFacts_CL* facts);

    // Reads the header facts of a block of `available` bytes: each of the three common fields
    // (eyecatcher, version word, slot count) that the bytes hold, and the sizes when they hold
    // the whole header of its width. What the bytes do not hold reads as 0 (width UNKNOWN
    // without a version word).
    static BasicHeaderFacts_CL read_facts(const void* block, size_t available);

private:
    BasicInstanceControlAreaLayout_CL<Bit32>* _bcia32_layout;
    BasicInstanceControlAreaLayout_CL<Bit64>* _bcia64_layout;
    ClusterType_CL _cluster_type;
    J2SE::ControlAreaCopy _file_copy;
    J2SE::SharedMemory _shared_memory;
};

#endif
