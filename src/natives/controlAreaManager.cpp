#include "controlAreaManager.h"

#include "basicInstanceControlArea.h"
#include "controlAreaFile.h"
#include "sharedUtils.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

// Bytes a header promises: instance area plus `slots` per-VM areas; false when that overflows.
bool promised_bytes(size_t instance_size, size_t per_vm_size, int slots, size_t* total) {
    if (slots < 0) return false;
    size_t all_slots = 0;
    if (__builtin_mul_overflow(per_vm_size, static_cast<size_t>(slots), &all_slots)) return false;
    return !__builtin_add_overflow(all_slots, instance_size, total);
}

// Bytes of the per-VM layout of a width: what a view of that width can read at most.
size_t per_vm_layout_size(ArchType_CL arch_type) {
    return arch_type == Bit64 ? sizeof(ControlAreaLayout_CL<Bit64>) : sizeof(ControlAreaLayout_CL<Bit32>);
}

// The discovery's shared-file cache, created when the library is loaded and replaced by every
// scan of the control-area files.
void* shared_files_cache = J2SE::SharedFile::create_shared_files_cache();

}  // namespace

bool FileCopyWriter_CL::write(size_t offset, const void* bytes, size_t length) {
    if (_copy.write_through(offset, bytes, length)) return true;
    _failed = true;
    return false;
}

ControlAreaManager_CL::ControlAreaManager_CL(const ClusterInfo_CL& info)
    : _cluster_type(info._type) {
    // The block is attached (or copied) once, and its header is checked on that attachment; the
    // header is read once into locals, and init() reads the sizes again from the same memory.
    if (_cluster_type == CLUSTER_TYPE_INSTANCE) {
        _shared_memory = J2SE::ControlAreaFile::attach_shared_memory(
            info._id, J2SE::SharedMemory::SHARED_MEMORY_KEY_CONTROLS, nullptr, nullptr);
        if (_shared_memory.get_map_address() == nullptr || _shared_memory.get_map_size() == 0) {
            _shared_memory.detach();
            return;
        }
        _attached = true;
        size_t bytes = _shared_memory.get_map_size();
        if (!adopt_block(_shared_memory.get_map_address(), bytes, bytes)) detach();
    } else if (_cluster_type == CLUSTER_TYPE_PROCESS) {
        if (!copy_process_cluster(info._id)) return;
        _attached = true;
        if (!adopt_block(_file_copy.block(), _file_copy.size(), _file_copy.extent())) detach();
    }
}

ControlAreaManager_CL::ControlAreaManager_CL(J2SE::ControlAreaCopy&& copy)
    : _cluster_type(CLUSTER_TYPE_PROCESS) {
    if (!copy.is_open() || !take_process_copy(copy)) return;
    _attached = true;
    if (!adopt_block(_file_copy.block(), _file_copy.size(), _file_copy.extent())) detach();
}

bool ControlAreaManager_CL::copy_process_cluster(int pid) {
    J2SE::ControlAreaCopy copy = J2SE::ControlAreaFile::copy_control_area(pid, FIRST_COPY_BYTES);
    if (!copy.is_open()) return false;
    return take_process_copy(copy);
}

bool ControlAreaManager_CL::take_process_copy(J2SE::ControlAreaCopy& copy) {
    BasicHeaderFacts_CL facts;
    size_t needed = 0;
    if (!BasicInstanceControlArea_CL::accept_header(copy.block(), copy.size(), CLUSTER_TYPE_PROCESS, &facts) ||
        !promised_bytes(facts.instance_control_area_size, facts.control_area_size, facts.max_vm_nr, &needed) ||
        copy.extent() < needed) {
        return false;
    }
    // The one slot starts behind the instance area; its view reads no more than its layout.
    // A slot that the first read did not reach is copied now (the bytes between stay zero: no
    // view reads them).
    size_t slot_start = facts.instance_control_area_size;
    size_t slot_end = slot_start + per_vm_layout_size(facts.arch_type);
    if (slot_end > copy.extent()) slot_end = copy.extent();
    if (slot_end > copy.size()) {
        size_t from = slot_start > copy.size() ? slot_start : copy.size();
        if (!copy.copy_range(from, slot_end)) return false;
    }
    _file_copy = std::move(copy);
    return true;
}

bool ControlAreaManager_CL::adopt_block(void* block, size_t readable, size_t extent) {
    // Accepted (eyecatcher, major version, whole header present, slot count of the type) and
    // large enough for every slot the header promises; else the block is refused whole.
    BasicHeaderFacts_CL facts;
    size_t needed = 0;
    if (!BasicInstanceControlArea_CL::accept_header(block, readable, _cluster_type, &facts) ||
        !promised_bytes(facts.instance_control_area_size, facts.control_area_size, facts.max_vm_nr, &needed) ||
        extent < needed) {
        return false;
    }
    _attached_area = block;
    _mapped_len = readable;
    _extent = extent;
    if (init(facts.arch_type, facts.max_vm_nr, true)) return true;
    _attached_area = nullptr;
    return false;
}

ControlAreaManager_CL::ControlAreaManager_CL(void* control_area, int len, ClusterType_CL type)
    : _cluster_type(type), _attached_area(control_area) {
    if (control_area == nullptr) return;
    // The caller vouches for `len` slots of the fixed sizes.
    if (!promised_bytes(DEFAULT_INSTANCE_CONTROL_AREA_SIZE, DEFAULT_CONTROL_AREA_SIZE, len > 0 ? len : 0, &_mapped_len)) {
        return;
    }
    _extent = _mapped_len;
    init(Bit64, len, false);
}

ControlAreaManager_CL::ControlAreaManager_CL(const MappedBlock_CL& block, ClusterType_CL type)
    : _cluster_type(type) {
    adopt_block(block.address, block.length, block.length);
}

ControlAreaManager_CL::~ControlAreaManager_CL() {
    // The views, destroyed with the members, never touch the block on their way out.
    if (_attached) detach();
}

bool ControlAreaManager_CL::init(ArchType_CL arch_type, int len, bool cluster_existing) {
    if (is_valid()) return false;
    if (_attached_area == nullptr) return false;
    // The instance view reads only the bytes of the block that are there: a block may end right
    // after the basic header, and the fields behind it then read as 0.
    if (arch_type != Bit32) {
        _instance_control_area = J2SE::Owned<InstanceControlArea_CL>::make<InstanceControlAreaImpl_CL<Bit64>>(
            _attached_area, _mapped_len);
    } else {
        _instance_control_area = J2SE::Owned<InstanceControlArea_CL>::make<InstanceControlAreaImpl_CL<Bit32>>(
            _attached_area, _mapped_len);
    }
    if (_instance_control_area.is_empty()) return false;

    size_t instance_size = DEFAULT_INSTANCE_CONTROL_AREA_SIZE;
    size_t per_vm_size = DEFAULT_CONTROL_AREA_SIZE;
    if (cluster_existing) {
        if (!_instance_control_area->is_compatible()) return false;
        // Each size is read once; every slot is placed from these copies. The published areas
        // must lie inside the block; a slot whose eyecatcher lies outside what can be read is
        // simply not a slot in use. The count bound stops absurd numbers of empty slots.
        instance_size = _instance_control_area->get_instance_control_area_size();
        per_vm_size = _instance_control_area->get_control_area_size();
        if (len > MAX_TRUSTED_SLOTS) return false;
        size_t needed = 0;
        if (!promised_bytes(instance_size, per_vm_size, len, &needed) || needed > _extent) return false;
    }
    if (len <= 0) return true;

    _control_areas.reserve(len);
    BlockWriter_CL* writer = _file_copy.is_open() ? &_file_writer : nullptr;
    for (int slot = 0; slot < len; slot++) {
        size_t start = instance_size + static_cast<size_t>(slot) * per_vm_size;
        void* address = static_cast<char*>(_attached_area) + start;
        size_t readable = start < _mapped_len ? _mapped_len - start : 0;
        J2SE::Owned<ControlArea_CL> view;
        if (arch_type != Bit32) {
            view = J2SE::Owned<ControlArea_CL>::make<ControlAreaImpl_CL<Bit64>>(address, per_vm_size, readable, writer, start);
        } else {
            view = J2SE::Owned<ControlArea_CL>::make<ControlAreaImpl_CL<Bit32>>(address, per_vm_size, readable, writer, start);
        }
        int before = _control_areas.size();
        if (!view.is_empty()) _control_areas.push_back(std::move(view));
        if (_control_areas.size() == before) {
            // Out of memory: leave no half-made list behind.
            _control_areas.clear();
            return false;
        }
    }
    return true;
}

bool ControlAreaManager_CL::is_valid() const {
    return _attached_area != nullptr && !_instance_control_area.is_empty() && !_control_areas.is_empty();
}

ControlArea_CL* ControlAreaManager_CL::get_control_area_raw(int index) const {
    if (index < 0 || index >= _control_areas.size() || !is_valid()) return nullptr;
    return _control_areas[index].get();
}

ControlArea_CL* ControlAreaManager_CL::get_control_area(int vm_index, bool only_alive) const {
    ControlArea_CL* view = get_control_area_raw(vm_index);
    if (view == nullptr || !view->is_valid()) return nullptr;
    if (only_alive && !J2SE::SharedUtils::process_exists(view->get_pid())) return nullptr;
    return view;
}

void ControlAreaManager_CL::detach() {
    _shared_memory.detach();
    _file_copy = J2SE::ControlAreaCopy();
    _attached_area = nullptr;
    _attached = false;
}

namespace {

const int INSTANCE_CLUSTER_IDS = Controls::INSTANCE_CLUSTER_IDS;

// Marks in `present` the ids whose control-block key is the first field of one line of the
// listing of /proc/sysvipc/shm (a title line, then one line per segment of this IPC namespace).
// False when the listing cannot be read or has a line of an unexpected shape; `present` is then
// not to be used. The text is parsed with strtol and range checks only.
bool mark_line(const char* line, const char* end, bool* present) {
    const char* p = line;
    while (p < end && (*p == ' ' || *p == '\t')) p++;
    if (p == end || (*p != '-' && (*p < '0' || *p > '9'))) return false;
    // The field ends at a blank inside the line, so strtol stops before `end`.
    errno = 0;
    char* after = nullptr;
    long key = strtol(p, &after, 10);
    if (errno != 0 || after == p || after >= end || (*after != ' ' && *after != '\t')) return false;
    if (key < INT_MIN || key > INT_MAX) return false;
    for (int id = 0; id < INSTANCE_CLUSTER_IDS; id++) {
        if (J2SE::unix_get_shared_memory_key(id, J2SE::SharedMemory::SHARED_MEMORY_KEY_CONTROLS) == key) {
            present[id] = true;
        }
    }
    return true;
}

bool existing_instance_keys(bool* present) {
    for (int id = 0; id < INSTANCE_CLUSTER_IDS; id++) present[id] = false;
    int fd = open("/proc/sysvipc/shm", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buffer[4096];
    size_t held = 0;
    bool title_seen = false;
    bool ok = true;
    while (ok) {
        ssize_t got = read(fd, buffer + held, sizeof buffer - held);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) ok = false;
        if (got <= 0) break;
        held += static_cast<size_t>(got);
        size_t start = 0;
        for (size_t i = 0; i < held && ok; i++) {
            if (buffer[i] != '\n') continue;
            if (title_seen) ok = mark_line(buffer + start, buffer + i, present);
            title_seen = true;
            start = i + 1;
        }
        // A line longer than the whole buffer is not a line of this listing.
        if (start == 0 && held == sizeof buffer) ok = false;
        memmove(buffer, buffer + start, held - start);
        held -= start;
    }
    close(fd);
    // The listing ends with a newline and always has its title line.
    return ok && held == 0 && title_seen;
}

void add_running_instance_cluster(int id, J2SE::cvector<ClusterInfo_CL>& out) {
    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_INSTANCE, id));
    if (!manager.is_valid()) return;
    InstanceControlArea_CL* instance = manager.get_instance_control_area();
    // The attach count includes VMs that ended without saying so: a slot in use whose process
    // is gone does not count.
    int live = instance->get_attach_count();
    for (int slot = 0; slot < manager.get_max_vm_number(); slot++) {
        ControlArea_CL* view = manager.get_control_area_raw(slot);
        if (view != nullptr && view->is_valid() && !J2SE::SharedUtils::process_exists(view->get_pid())) live--;
    }
    if (live == 0) return;
    int version = static_cast<uint32_t>(instance->get_eyecatcher()) == INSTANCE_CONTROL_AREA_EYECATCHER
                      ? instance->get_bca_version()
                      : -1;
    out.push_back(ClusterInfo_CL(instance->is_compatible(), version, CLUSTER_TYPE_INSTANCE, id));
}

// The header of a process cluster is read with one pread instead of a mapping of the whole
// file: the same file is opened and checked as attach_control_area does, and the same bytes
// (those behind the lead-in, as many as the file had when it was checked) are looked at.
void add_process_cluster(int pid, J2SE::cvector<ClusterInfo_CL>& out) {
    BasicInstanceControlAreaLayout_CL<Bit64> header;
    size_t available = 0;
    if (!J2SE::ControlAreaFile::read_control_area_header(pid, &header, sizeof header, &available)) return;
    // Listed as its eyecatcher and version word say, also when the file holds nothing more; a file
    // too short for those two reads as a wrong eyecatcher. Every other use of the block needs the
    // whole header (accept_header).
    BasicHeaderFacts_CL facts = BasicInstanceControlArea_CL::read_facts(&header, available);
    bool eyecatcher_ok = facts.eyecatcher == INSTANCE_CONTROL_AREA_EYECATCHER;
    bool attachable = eyecatcher_ok && VersionWord_CL::major(facts.version) == CONTROL_AREA_MAJOR_VERSION;
    out.push_back(ClusterInfo_CL(attachable, eyecatcher_ok ? static_cast<int>(facts.version) : -1,
                                 CLUSTER_TYPE_PROCESS, pid));
}

}  // namespace

bool Controls::present_instance_clusters(bool* present) {
    return existing_instance_keys(present);
}

void Controls::get_running_clusters(J2SE::cvector<ClusterInfo_CL>& out) {
    // Probing a key that does not exist costs about a microsecond, 99 of them a tenth of a
    // millisecond; one read of the host's segment list tells which keys exist. A key absent
    // there would fail the probe too. Without the list every id is probed.
    bool present[INSTANCE_CLUSTER_IDS];
    bool listed = existing_instance_keys(present);
    for (int id = 0; id < INSTANCE_CLUSTER_IDS; id++) {
        if (!listed || present[id]) add_running_instance_cluster(id, out);
    }

    J2SE::cvector<J2SE::SharedFile> files(8);
    J2SE::StdStaleSharedFileHandler handler;
    shared_files_cache = J2SE::SharedFile::get_shared_files(files, J2SE::get_controlarea_format_string(), true, false,
                                                            shared_files_cache, true, handler);
    for (int i = 0; i < files.size(); i++) add_process_cluster(files[i].get_pid(), out);
}
