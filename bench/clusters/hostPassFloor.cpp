// The floor of the host pass (see hostPassFloor.h). Plain C-style code over the layout
// definitions; it shares no reader, writer or check with the library.
#include "hostPassFloor.h"

#include "controlAreaLayout.h"
#include "hostPass.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <stdexcept>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

typedef ControlAreaLayout_CL<Bit64> Area;
typedef InstanceControlAreaLayout_CL<Bit64> Instance;
typedef BasicInstanceControlAreaLayout_CL<Bit64> Header;

const size_t LEAD_IN = 8;
const size_t FIRST_COPY = 64 * 1024;  // what the library copies at once
const int MAX_SLOTS = 65536;

template <typename T>
T load(const unsigned char* p, size_t offset) {
    T value;
    memcpy(&value, p + offset, sizeof value);
    return value;
}

// A field of the instance area, 0 beyond the bytes that exist (as the library reads it).
uint64_t instance_word(const unsigned char* block, size_t readable, size_t offset) {
    return offset + 8 <= readable ? load<uint64_t>(block, offset) : 0;
}

// The stream, big-endian, into one growing buffer.
class Out {
public:
    void reset() { _at = 0; }
    // Room for `n` more bytes; every VM asks for the most it can write before writing it.
    void reserve(size_t n) {
        if (_bytes.size() - _at < n) _bytes.resize(std::max(_bytes.size() * 2, _at + n));
    }
    void u8(unsigned value) { _bytes[_at++] = static_cast<unsigned char>(value); }
    void i32(int32_t value) {
        uint32_t be = __builtin_bswap32(static_cast<uint32_t>(value));
        memcpy(&_bytes[_at], &be, 4);
        _at += 4;
    }
    void i64(int64_t value) {
        uint64_t be = __builtin_bswap64(static_cast<uint64_t>(value));
        memcpy(&_bytes[_at], &be, 8);
        _at += 8;
    }
    // A text field: the bytes before the first NUL, at most `capacity`, behind a 2-byte length.
    void text(const unsigned char* chars, size_t capacity) {
        const void* nul = memchr(chars, 0, capacity);
        size_t n = nul != nullptr ? static_cast<size_t>(static_cast<const unsigned char*>(nul) - chars) : capacity;
        _bytes[_at] = static_cast<unsigned char>(n >> 8);
        _bytes[_at + 1] = static_cast<unsigned char>(n);
        memcpy(&_bytes[_at + 2], chars, n);
        _at += 2 + n;
    }
    size_t open_record() {
        _at += 4;
        return _at;
    }
    void close_record(size_t start) {
        uint32_t be = __builtin_bswap32(static_cast<uint32_t>(_at - start));
        memcpy(&_bytes[start - 4], &be, 4);
    }
    size_t size() const { return _at; }
    const unsigned char* data() const { return _bytes.data(); }

private:
    std::vector<unsigned char> _bytes = std::vector<unsigned char>(1 << 20);
    size_t _at = 0;
};

Out out;
unsigned char file_copy[FIRST_COPY];

// The most one VM can add to the stream: its head, the four records with every text whole.
const size_t MOST_PER_VM = 64 * 1024;

char* put_decimal(char* at, unsigned value) {
    char digits[12];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0) *at++ = digits[--n];
    return at;
}

int64_t boot_time() {
    static int64_t seconds = -1;
    if (seconds >= 0) return seconds;
    seconds = 0;
    int fd = open("/proc/stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return seconds;
    static char text[64 * 1024];
    ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    text[got > 0 ? got : 0] = '\0';
    const char* line = strstr(text, "\nbtime ");
    if (line != nullptr) seconds = strtoll(line + 7, nullptr, 10);
    return seconds;
}

// Field 22 of /proc/<pid>/stat (clock ticks after boot), counted from the last ')'; as seconds
// since the epoch, 0 when the text has no such field.
int64_t start_of(char* text, size_t length) {
    text[length] = '\0';
    const char* p = strrchr(text, ')');
    if (p == nullptr) return 0;
    p++;
    for (int field = 3; field < 22; field++) {
        while (*p == ' ') p++;
        while (*p != ' ' && *p != '\0') p++;
    }
    while (*p == ' ') p++;
    if (*p < '0' || *p > '9') return 0;
    uint64_t ticks = 0;
    while (*p >= '0' && *p <= '9') ticks = ticks * 10 + static_cast<uint64_t>(*p++ - '0');
    static const long hz = sysconf(_SC_CLK_TCK);
    return boot_time() + static_cast<int64_t>(ticks / static_cast<uint64_t>(hz));
}

// One open of /proc/<pid>/stat: false when the process does not exist; else its start, and its
// owner when asked.
bool read_process(int pid, uid_t* owner, int64_t* start) {
    if (pid <= 0) return false;
    char path[32] = "/proc/";
    char* end = put_decimal(path + 6, static_cast<unsigned>(pid));
    memcpy(end, "/stat", 6);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    if (owner != nullptr) *owner = fstat(fd, &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
    char text[1024];
    ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    *start = got > 0 ? start_of(text, static_cast<size_t>(got)) : 0;
    return true;
}

void write_start_record(const unsigned char* a) {
    size_t record = out.open_record();
    out.text(a + offsetof(Area, _vm_version), 256);
    out.text(a + offsetof(Area, _vm_work_dir), 1024);
    out.text(a + offsetof(Area, _vm_flags), 4096);
    out.text(a + offsetof(Area, _vm_args), 4096);
    out.text(a + offsetof(Area, _vm_java_args), 4096);
    out.text(a + offsetof(Area, _vm_tag), 64);
    out.text(a + offsetof(Area, _splittable_vm_java_args), 4096);
    out.text(a + offsetof(Area, _jar_main_class), 4096);
    out.u8(a[offsetof(Area, _run_with_monitoring_board)] != 0);
    out.u8(a[offsetof(Area, _has_metaspace)] != 0);
    out.close_record(record);
}

void write_time_record(const unsigned char* a) {
    uint64_t system_time = load<uint64_t>(a, offsetof(Area, _system_time));
    uint64_t user_time = load<uint64_t>(a, offsetof(Area, _user_time));
    out.i32(32);
    out.i64(static_cast<int64_t>(system_time + user_time));
    out.i64(static_cast<int64_t>(system_time));
    out.i64(static_cast<int64_t>(user_time));
    out.i64(load<int64_t>(a, offsetof(Area, _processing_time)));
}

void write_memory_record(const unsigned char* a, const unsigned char* block, size_t readable) {
    uint64_t heap = load<uint64_t>(a, offsetof(Area, _committed_java_heap_size));
    uint64_t pool = load<uint64_t>(a, offsetof(Area, _committed_class_pool_size));
    uint64_t code = load<uint64_t>(a, offsetof(Area, _committed_code_cache_size));
    int64_t global = static_cast<int64_t>(instance_word(block, readable, offsetof(Instance, _heap_size)));
    int64_t allocated = static_cast<int64_t>(instance_word(block, readable, offsetof(Instance, _heap_size_allocated)));
    int64_t longs[32] = {0, 0, 0, 0, 0, static_cast<int64_t>(pool + heap + code),
                         static_cast<int64_t>(heap), static_cast<int64_t>(pool), static_cast<int64_t>(code), 0,
                         static_cast<int64_t>(instance_word(block, readable, offsetof(Instance, _shared_pool_size))),
                         global, 0, 0, global, 0, allocated, 0, 0, allocated, 0, 0, 0,
                         static_cast<int64_t>(instance_word(block, readable, offsetof(Instance, _heap_size_peak))), 0,
                         load<int64_t>(a, offsetof(Area, _number_of_gcs)),
                         load<int64_t>(a, offsetof(Area, _number_of_full_gcs)),
                         load<int64_t>(a, offsetof(Area, _duration_of_gcs)),
                         load<int64_t>(a, offsetof(Area, _duration_of_full_gcs)),
                         load<int64_t>(a, offsetof(Area, _duration_of_concurrent_gcs)),
                         load<int64_t>(a, offsetof(Area, _work_time_of_gcs)),
                         load<int64_t>(a, offsetof(Area, _work_time_of_full_gcs))};
    out.i32(308);
    for (int i = 0; i < 32; i++) out.i64(longs[i]);
    for (size_t offset = offsetof(Area, _java_heap_memory_shortages); offset <= offsetof(Area, _out_of_memory_error_count);
         offset += 4) {
        out.i32(load<int32_t>(a, offset));
    }
    for (size_t offset = offsetof(Area, _old_gen_usage_after_gc); offset <= offsetof(Area, _max_perm_gen_size);
         offset += 8) {
        out.i64(load<int64_t>(a, offset));
    }
}

void write_debug_record(const unsigned char* a) {
    size_t record = out.open_record();
    out.u8(a[offsetof(Area, _can_debug_on_demand)] != 0);
    out.i32(load<int32_t>(a, offsetof(Area, _from_port)));
    out.i32(load<int32_t>(a, offsetof(Area, _to_port)));
    out.i32(load<int32_t>(a, offsetof(Area, _debugging_state)));
    out.i32(load<int32_t>(a, offsetof(Area, _current_debug_port)));
    out.text(a + offsetof(Area, _debugging_client), 256);
    out.u8(load<int32_t>(a, offsetof(Area, _start_local_debugging)) != 0);
    out.close_record(record);
}

// One VM whose whole 64-bit area lies at `a`; `block` is its cluster's block (`readable` bytes).
void write_vm(int slot, const unsigned char* a, const unsigned char* block, size_t readable, int64_t start) {
    out.reserve(MOST_PER_VM);
    out.i32(slot);
    out.i32(load<int32_t>(a, offsetof(Area, _pid)));
    out.i32(load<int32_t>(a, offsetof(Area, _vm_id)));
    out.i64(start);
    write_start_record(a);
    write_time_record(a);
    write_memory_record(a, block, readable);
    write_debug_record(a);
}

void write_cluster_head(int type, int id, bool attachable, int version, int slots) {
    out.reserve(64);
    out.i32(type);
    out.i32(id);
    out.u8(attachable);
    out.i32(version);
    out.i32(slots);
}

bool in_use(const unsigned char* a) {
    return load<uint32_t>(a, offsetof(Area, _eyecatcher)) == CONTROL_AREA_EYECATCHER;
}

// Instance area plus `slots` areas, false when the sum overflows or exceeds `extent`.
bool fits(uint64_t instance_size, uint64_t per_vm, uint64_t slots, size_t extent) {
    uint64_t all = 0;
    return !__builtin_mul_overflow(per_vm, slots, &all) && !__builtin_add_overflow(all, instance_size, &all) &&
           all <= extent;
}

// ---- instance clusters ----

void instance_cluster(int id, FloorResult& result) {
    int shm = shmget(4500000 + id * 100, 0, 0600);
    if (shm < 0) return;
    void* address = shmat(shm, nullptr, SHM_RND);
    if (address == reinterpret_cast<void*>(-1)) return;
    struct shmid_ds info;
    const unsigned char* block = static_cast<const unsigned char*>(address);
    size_t size = shmctl(shm, IPC_STAT, &info) == 0 ? info.shm_segsz : 0;
    uint32_t version = size >= 12 ? load<uint32_t>(block, 4) : 0;
    int slots = size >= 12 ? load<int32_t>(block, 8) : 0;
    bool accepted = size >= sizeof(Header) && load<uint32_t>(block, 0) == INSTANCE_CONTROL_AREA_EYECATCHER &&
                    ((version >> 17) & 0xFF) == CONTROL_AREA_MAJOR_VERSION && slots >= 1 && slots <= MAX_SLOTS;
    uint64_t instance_size = accepted ? load<uint64_t>(block, offsetof(Header, _instance_control_area_size)) : 0;
    uint64_t per_vm = accepted ? load<uint64_t>(block, offsetof(Header, _control_area_size)) : 0;
    if (!accepted || !fits(instance_size, per_vm, static_cast<uint64_t>(slots), size)) {
        shmdt(address);
        return;
    }
    if ((version & 1) == 0 || per_vm < sizeof(Area)) {
        result.skipped++;  // 32-bit or short areas: left to the library
        shmdt(address);
        return;
    }
    std::vector<std::pair<int, int64_t>> alive;
    int live = load<int32_t>(block, offsetof(Instance, _attach_count));
    for (int slot = 0; slot < slots; slot++) {
        const unsigned char* a = block + instance_size + static_cast<size_t>(slot) * per_vm;
        if (!in_use(a)) continue;
        int64_t start = 0;
        if (read_process(load<int32_t>(a, offsetof(Area, _pid)), nullptr, &start)) {
            alive.push_back(std::make_pair(slot, start));
        } else {
            live--;
        }
    }
    if (live != 0) {
        write_cluster_head(2, id, true, static_cast<int>(version), slots);
        for (const auto& vm : alive) {
            const unsigned char* a = block + instance_size + static_cast<size_t>(vm.first) * per_vm;
            if (!in_use(a)) continue;
            write_vm(vm.first, a, block, size, vm.second);
            result.vms++;
        }
        out.i32(-1);
    }
    shmdt(address);
}

// The ids 0..98 whose segment key appears in /proc/sysvipc/shm.
void listed_instance_ids(bool* present) {
    std::fill(present, present + 99, false);
    int fd = open("/proc/sysvipc/shm", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    static char text[256 * 1024];
    size_t held = 0;
    ssize_t got;
    while ((got = read(fd, text + held, sizeof text - 1 - held)) > 0) held += static_cast<size_t>(got);
    close(fd);
    text[held] = '\0';
    for (char* line = strchr(text, '\n'); line != nullptr; line = strchr(line + 1, '\n')) {
        long key = strtol(line + 1, nullptr, 10) - 4500000;
        if (key >= 0 && key <= 98 * 100 && key % 100 == 0) present[key / 100] = true;
    }
}

// ---- process clusters ----

// A control-area name found in /tmp: its pid, and where its name lies in the pass's names.
struct Candidate {
    int pid;
    size_t name;
};

// "nox_jvm_<uid>_<pid>" with plain decimal numbers that fit an int and nothing after them.
bool parse_number(const char*& p, int* value) {
    if (*p < '0' || *p > '9') return false;
    long long number = 0;
    while (*p >= '0' && *p <= '9') {
        number = number * 10 + (*p++ - '0');
        if (number > 0x7fffffff) return false;
    }
    *value = static_cast<int>(number);
    return true;
}

bool control_area_name(const char* name, int* pid) {
    if (strncmp(name, "nox_jvm_", 8) != 0) return false;
    const char* p = name + 8;
    int uid = 0;
    if (!parse_number(p, &uid) || *p++ != '_' || !parse_number(p, pid)) return false;
    return *p == '\0' && *pid > 0;
}

void write_process_cluster(int pid, const unsigned char* block, size_t size, size_t extent, int64_t start,
                           FloorResult& result) {
    uint32_t eyecatcher = size >= 12 ? load<uint32_t>(block, 0) : 0;
    uint32_t version = size >= 12 ? load<uint32_t>(block, 4) : 0;
    bool eyecatcher_ok = eyecatcher == INSTANCE_CONTROL_AREA_EYECATCHER;
    bool major_ok = ((version >> 17) & 0xFF) == CONTROL_AREA_MAJOR_VERSION;
    bool wide = (version & 1) != 0;
    bool accepted = eyecatcher_ok && major_ok && size >= (wide ? 32u : 20u) && load<int32_t>(block, 8) == 1;
    if (accepted && !wide) {
        result.skipped++;  // a 32-bit block: left to the library
        return;
    }
    uint64_t instance_size = accepted ? load<uint64_t>(block, offsetof(Header, _instance_control_area_size)) : 0;
    uint64_t per_vm = accepted ? load<uint64_t>(block, offsetof(Header, _control_area_size)) : 0;
    int slots = accepted && fits(instance_size, per_vm, 1, extent) ? 1 : 0;
    if (slots == 1 && (per_vm < sizeof(Area) || !fits(instance_size, sizeof(Area), 1, size))) {
        result.skipped++;  // a short area, or one beyond the first copy: left to the library
        return;
    }
    write_cluster_head(1, pid, eyecatcher_ok && major_ok, eyecatcher_ok ? static_cast<int>(version) : -1, slots);
    const unsigned char* a = block + instance_size;
    if (slots == 1 && in_use(a)) {
        int slot_pid = load<int32_t>(a, offsetof(Area, _pid));
        if (slot_pid == pid || read_process(slot_pid, nullptr, &start)) {
            write_vm(0, a, block, size, start);
            result.vms++;
        }
    }
    out.i32(-1);
}

void process_cluster(int directory, int pid, const char* name, FloorResult& result) {
    uid_t owner = 0;
    int64_t start = 0;
    if (!read_process(pid, &owner, &start)) return;  // ended: the library removes the file
    int fd = openat(directory, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == owner && st.st_size > 0;
    size_t extent = ok && static_cast<size_t>(st.st_size) > LEAD_IN ? static_cast<size_t>(st.st_size) - LEAD_IN : 0;
    size_t wanted = std::min(extent, FIRST_COPY);
    ok = ok && pread(fd, file_copy, wanted, LEAD_IN) == static_cast<ssize_t>(wanted);
    close(fd);
    if (ok) write_process_cluster(pid, file_copy, wanted, extent, start, result);
}

void process_clusters(FloorResult& result) {
    static std::vector<Candidate> files;
    static std::vector<char> names;
    files.clear();
    names.clear();
    DIR* dir = opendir("/tmp");
    if (dir == nullptr) return;
    while (struct dirent* entry = readdir(dir)) {
        int pid = 0;
        if (!control_area_name(entry->d_name, &pid)) continue;
        if (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN) continue;
        files.push_back(Candidate{pid, names.size()});
        names.insert(names.end(), entry->d_name, entry->d_name + strlen(entry->d_name) + 1);
    }
    std::sort(files.begin(), files.end(), [](const Candidate& a, const Candidate& b) { return a.pid < b.pid; });
    for (size_t i = 0; i < files.size(); i++) {
        bool twice = (i > 0 && files[i - 1].pid == files[i].pid) ||
                     (i + 1 < files.size() && files[i + 1].pid == files[i].pid);
        if (twice) {
            result.skipped++;  // the newest-file rule: left to the library
            continue;
        }
        process_cluster(dirfd(dir), files[i].pid, &names[files[i].name], result);
    }
    closedir(dir);
}

}  // namespace

FloorResult floor_host_pass() {
    FloorResult result{0, 0, 0};
    out.reset();
    out.reserve(4);
    out.i32(HOST_PASS_FORMAT);
    bool present[99];
    listed_instance_ids(present);
    for (int id = 0; id < 99; id++) {
        if (present[id]) instance_cluster(id, result);
    }
    process_clusters(result);
    out.reserve(4);
    out.i32(0);
    result.bytes = out.size();
    return result;
}

const unsigned char* floor_stream() {
    return out.data();
}

namespace {

class Reader {
public:
    Reader(const unsigned char* data, size_t size) : _data(data), _size(size) {}
    int32_t i32() { return static_cast<int32_t>(take(4)); }
    void skip(size_t n) {
        if (n > _size - _at) throw std::runtime_error("stream ends early");
        _at += n;
    }
    size_t at() const { return _at; }

private:
    uint64_t take(size_t n) {
        if (n > _size - _at) throw std::runtime_error("stream ends early");
        uint64_t value = 0;
        for (size_t i = 0; i < n; i++) value = (value << 8) | _data[_at + i];
        _at += n;
        return value;
    }
    const unsigned char* _data;
    size_t _size;
    size_t _at = 0;
};

}  // namespace

StreamClusters split_clusters(const unsigned char* stream, size_t size) {
    Reader in(stream, size);
    if (in.i32() != HOST_PASS_FORMAT) throw std::runtime_error("wrong format version");
    StreamClusters clusters;
    for (;;) {
        size_t begin = in.at();
        int type = in.i32();
        if (type == 0) break;
        int id = in.i32();
        in.skip(1 + 4 + 4);
        while (in.i32() != -1) {
            in.skip(4 + 4 + 8);
            for (int record = 0; record < 4; record++) {
                int length = in.i32();
                if (length != -1) in.skip(static_cast<size_t>(length));
            }
        }
        clusters[std::make_pair(type, id)] = std::vector<unsigned char>(stream + begin, stream + in.at());
    }
    if (in.at() != size) throw std::runtime_error("bytes after the end of the stream");
    return clusters;
}
