#include "basicInstanceControlArea.h"

#include "controlAreaFile.h"

#include <cstring>

namespace {

// Bytes of the three fields that both widths share: eyecatcher, version word, slot count.
const size_t COMMON_HEADER_BYTES = 12;

template <typename T>
T load_at(const void* block, size_t offset) {
    T value;
    memcpy(&value, static_cast<const char*>(block) + offset, sizeof value);
    return value;
}

// The header size of the width that the version word names.
size_t header_size(uint32_t version) {
    return VersionWord_CL::arch_type(version) == Bit64 ? sizeof(BasicInstanceControlAreaLayout_CL<Bit64>)
                                                       : sizeof(BasicInstanceControlAreaLayout_CL<Bit32>);
}

}  // namespace

BasicHeaderFacts_CL BasicInstanceControlArea_CL::read_facts(const void* block, size_t available) {
    BasicHeaderFacts_CL facts;
    memset(&facts, 0, sizeof facts);
    facts.arch_type = UNKNOWN;
    if (block == nullptr) return facts;
    typedef BasicInstanceControlAreaLayout_CL<Bit32> L32;
    typedef BasicInstanceControlAreaLayout_CL<Bit64> L64;
    // Each field is read when the bytes hold it: the cluster list needs no more than the first two.
    if (available < offsetof(L32, _eyecatcher) + sizeof(uint32_t)) return facts;
    facts.eyecatcher = load_at<uint32_t>(block, offsetof(L32, _eyecatcher));
    if (available < offsetof(L32, _version) + sizeof(uint32_t)) return facts;
    facts.version = load_at<uint32_t>(block, offsetof(L32, _version));
    facts.arch_type = VersionWord_CL::arch_type(facts.version);
    if (available < COMMON_HEADER_BYTES) return facts;
    facts.max_vm_nr = load_at<int32_t>(block, offsetof(L32, _max_vm_nr));
    if (available < header_size(facts.version)) return facts;
    if (facts.arch_type == Bit64) {
        facts.instance_control_area_size =
            widen_size_CL(load_at<uint64_t>(block, offsetof(L64, _instance_control_area_size)));
        facts.control_area_size = widen_size_CL(load_at<uint64_t>(block, offsetof(L64, _control_area_size)));
    } else {
        facts.instance_control_area_size =
            widen_size_CL(load_at<int32_t>(block, offsetof(L32, _instance_control_area_size)));
        facts.control_area_size = widen_size_CL(load_at<int32_t>(block, offsetof(L32, _control_area_size)));
    }
    return facts;
}

bool BasicInstanceControlArea_CL::accept_header(const void* block, size_t available, ClusterType_CL type,
                                                BasicHeaderFacts_CL* facts) {
    // A block too short for the three common fields cannot pass the size test below either;
    // refusing it first keeps the eyecatcher read inside the mapping.
    if (block == nullptr || available < COMMON_HEADER_BYTES) return false;
    BasicHeaderFacts_CL read = read_facts(block, available);
    if (read.eyecatcher != INSTANCE_CONTROL_AREA_EYECATCHER) return false;
    if (VersionWord_CL::major(read.version) != CONTROL_AREA_MAJOR_VERSION) return false;
    if (available < header_size(read.version)) return false;
    if (type == CLUSTER_TYPE_INSTANCE && read.max_vm_nr < 1) return false;
    if (type == CLUSTER_TYPE_PROCESS && read.max_vm_nr != 1) return false;
    if (type != CLUSTER_TYPE_INSTANCE && type != CLUSTER_TYPE_PROCESS) return false;
    if (facts != nullptr) *facts = read;
    return true;
}

BasicInstanceControlArea_CL::BasicInstanceControlArea_CL(const ClusterInfo_CL& info)
    : _bcia32_layout(nullptr), _bcia64_layout(nullptr), _cluster_type(info._type), _file_copy(), _shared_memory() {
    void* block = nullptr;
    size_t available = 0;
    if (_cluster_type == CLUSTER_TYPE_INSTANCE) {
        _shared_memory = J2SE::ControlAreaFile::attach_shared_memory(
            info._id, J2SE::SharedMemory::SHARED_MEMORY_KEY_CONTROLS, nullptr, nullptr);
        block = _shared_memory.get_map_address();
        available = _shared_memory.get_map_size();
    } else if (_cluster_type == CLUSTER_TYPE_PROCESS) {
        // The header lies behind the file's lead-in; the copy holds the bytes after it.
        _file_copy = J2SE::ControlAreaFile::copy_control_area(info._id, sizeof(BasicInstanceControlAreaLayout_CL<Bit64>));
        block = _file_copy.block();
        available = _file_copy.size();
    } else {
        return;
    }
    BasicHeaderFacts_CL facts;
    if (block == nullptr || available == 0 || !accept_header(block, available, _cluster_type, &facts)) {
        detach();
        return;
    }
    // The layout pointer follows the width of the reading that was accepted, whose header size
    // was checked against the bytes there; the getters below read the fields again each time.
    if (facts.arch_type == Bit64) {
        _bcia64_layout = static_cast<BasicInstanceControlAreaLayout_CL<Bit64>*>(block);
    } else {
        _bcia32_layout = static_cast<BasicInstanceControlAreaLayout_CL<Bit32>*>(block);
    }
}

BasicInstanceControlArea_CL::~BasicInstanceControlArea_CL() {
    detach();
}

void BasicInstanceControlArea_CL::detach() {
    _shared_memory.detach();
    _file_copy = J2SE::ControlAreaCopy();
    _bcia32_layout = nullptr;
    _bcia64_layout = nullptr;
}

int BasicInstanceControlArea_CL::get_max_vm_number() const {
    return _bcia32_layout != nullptr ? _bcia32_layout->_max_vm_nr : _bcia64_layout->_max_vm_nr;
}

size_t BasicInstanceControlArea_CL::get_instance_control_area_size() const {
    return _bcia32_layout != nullptr ? widen_size_CL(_bcia32_layout->_instance_control_area_size)
                                     : widen_size_CL(_bcia64_layout->_instance_control_area_size);
}

size_t BasicInstanceControlArea_CL::get_control_area_size() const {
    return _bcia32_layout != nullptr ? widen_size_CL(_bcia32_layout->_control_area_size)
                                     : widen_size_CL(_bcia64_layout->_control_area_size);
}

uint32_t BasicInstanceControlArea_CL::get_version() const {
    return static_cast<uint32_t>(_bcia32_layout != nullptr ? _bcia32_layout->_version : _bcia64_layout->_version);
}

bool BasicInstanceControlArea_CL::is_compatible() const {
    uint32_t eyecatcher =
        static_cast<uint32_t>(_bcia32_layout != nullptr ? _bcia32_layout->_eyecatcher : _bcia64_layout->_eyecatcher);
    return eyecatcher == INSTANCE_CONTROL_AREA_EYECATCHER &&
           VersionWord_CL::major(get_version()) == CONTROL_AREA_MAJOR_VERSION;
}

ArchType_CL BasicInstanceControlArea_CL::get_arch_type() const {
    return VersionWord_CL::arch_type(get_version());
}

BasicHeaderFacts_CL BasicInstanceControlArea_CL::read_facts() const {
    if (_bcia32_layout != nullptr) return read_facts(_bcia32_layout, sizeof(*_bcia32_layout));
    if (_bcia64_layout != nullptr) return read_facts(_bcia64_layout, sizeof(*_bcia64_layout));
    return read_facts(nullptr, 0);
}
