// vmsim: a simulated VM for tests and demonstrations. It publishes a control-area block as a VM
// does (a process cluster in its own /tmp control-area file, or an instance cluster of several
// VMs in a System V segment, one child process per live VM), gives each VM a wake-up semaphore,
// answers requests raised in the block, and removes everything it created when it ends. On
// request each running VM also publishes a monitoring board and a profiling server (vmServices).
//
// The block is written from vmsim's own table of the byte format (blockFormat.cpp), not with the
// library's structures, so that a mistake in either shows up as a disagreement in the tests.
#include "blockFormat.h"
#include "options.h"
#include "vmServices.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace vmsim {
namespace {

union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// Everything vmsim created, for the clean-up.
struct Published {
    bool instance = false;
    int shm_id = -1;
    std::string file;
    int own_sem_id = -1;
    std::vector<pid_t> children;       // one per live slot, -1 once reaped
    std::vector<int> child_slots;
    bool services = false;             // the VMs publish a board or a profiling server
    bool own_services = false;         // vmsim itself is such a VM (process cluster)
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    bool cleaned = false;
};

Published published;

void say(const std::string& line) {
    std::string text = line + "\n";
    // One write per line, so lines of several VM processes never interleave.
    ssize_t ignored = write(STDOUT_FILENO, text.data(), text.size());
    (void)ignored;
}

void fail(const std::string& message) {
    std::string text = "vmsim: " + message + "\n";
    ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
    (void)ignored;
}

std::string errno_name() {
    const char* name = strerrorname_np(errno);
    return name != nullptr ? name : "errno " + std::to_string(errno);
}

int event_key(pid_t pid) {
    int64_t key = 5000000 + static_cast<int64_t>(pid) * 100;
    return pid > 0 && key <= INT_MAX ? static_cast<int>(key) : 0;
}

int segment_key(int id) {
    return 4500000 + id * 100;
}

void remove_event_of(pid_t pid) {
    int key = event_key(pid);
    if (key == 0) return;
    int id = semget(key, 1, 0);
    if (id != -1) semctl(id, 0, IPC_RMID);
}

// Removes what vmsim created; runs once, from whichever thread ends vmsim first.
void clean_up() {
    pthread_mutex_lock(&published.lock);
    if (!published.cleaned) {
        published.cleaned = true;
        for (size_t i = 0; i < published.children.size(); i++) {
            pid_t child = published.children[i];
            if (child <= 0) continue;
            kill(child, SIGKILL);
            while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
            }
            remove_event_of(child);
            // A killed VM cannot remove its board and socket file itself.
            if (published.services) remove_services_of(child);
        }
        if (published.own_services) remove_services_of(getpid());
        if (published.own_sem_id != -1) semctl(published.own_sem_id, 0, IPC_RMID);
        if (published.shm_id != -1) shmctl(published.shm_id, IPC_RMID, nullptr);
        if (!published.file.empty()) unlink(published.file.c_str());
    }
    pthread_mutex_unlock(&published.lock);
}

void* signal_waiter(void* arg) {
    sigset_t* set = static_cast<sigset_t*>(arg);
    int signal_number = 0;
    sigwait(set, &signal_number);
    clean_up();
    _exit(0);
}

// Where the areas lie and how big the block is.
struct Geometry {
    uint64_t instance_size;  // placement of the first slot
    uint64_t vm_size;        // distance between slots
    uint64_t block_size;
};

Geometry geometry(const Options& options) {
    Width w = options.width;
    Geometry g;
    int64_t ica = options.ica_size_given ? options.ica_size : static_cast<int64_t>(instance_area_size(w));
    int64_t ca = options.ca_size_given ? options.ca_size : static_cast<int64_t>(vm_area_size(w));
    // A VM lays its slots out by the sizes it publishes; hostile sizes place them by the layout.
    bool sane = ica >= 0 && ica <= (1 << 24) && ca >= 0 && ca <= (1 << 24);
    g.instance_size = sane ? static_cast<uint64_t>(ica) : instance_area_size(w);
    g.vm_size = sane ? static_cast<uint64_t>(ca) : vm_area_size(w);
    uint64_t size = g.instance_size;
    if (options.slots > 0) {
        // The last slot gets room for its whole layout even when the published size is smaller,
        // so that every field can be set; a test that wants a short block says --block-size.
        uint64_t last = g.instance_size + (options.slots - 1) * g.vm_size;
        uint64_t vm_bytes = g.vm_size > vm_area_size(w) ? g.vm_size : vm_area_size(w);
        size = last + vm_bytes;
    }
    if (size < header_size(w)) size = header_size(w);
    g.block_size = options.block_size_given ? options.block_size : size;
    return g;
}

bool apply(Block& block, uint64_t area, const std::vector<Field>& fields, Width width, const FieldSetting& setting) {
    const Field* field = find_field(fields, setting.field);
    std::string error;
    if (field == nullptr) {
        fail("unknown field " + setting.field);
        return false;
    }
    if (!block.set_field(area, *field, width, setting.value, setting.index, &error)) {
        fail(error);
        return false;
    }
    return true;
}

void set_number(Block& block, uint64_t area, Width width, const char* name, int64_t value) {
    const Field* field = find_field(vm_fields(), name);
    std::string error;
    if (field != nullptr) block.set_field(area, *field, width, std::to_string(value), 0, &error);
}

void set_text(Block& block, uint64_t area, Width width, const char* name, const std::string& value) {
    const Field* field = find_field(vm_fields(), name);
    std::string error;
    if (field != nullptr) block.set_field(area, *field, width, value, 0, &error);
}

uint64_t field_offset(const char* name, Width width) {
    return find_field(vm_fields(), name)->offset(width);
}

bool write_header(Block& block, const Options& options, const Geometry& g, int in_use) {
    Width w = options.width;
    const std::vector<Field>& f = instance_fields();
    uint32_t version = options.version_given ? options.version : (w == Width::Bit64 ? VERSION_64 : VERSION_32);
    int64_t values[] = {
        options.eyecatcher_given ? static_cast<int64_t>(options.eyecatcher) : static_cast<int64_t>(INSTANCE_EYECATCHER),
        static_cast<int64_t>(version),
        options.max_vm_nr_given ? options.max_vm_nr : options.slots,
        options.ica_size_given ? options.ica_size : static_cast<int64_t>(instance_area_size(w)),
        options.ca_size_given ? options.ca_size : static_cast<int64_t>(vm_area_size(w)),
        options.attach_count_given ? options.attach_count : in_use,
    };
    const char* names[] = {"eyecatcher", "version", "max_vm_nr", "instance_control_area_size", "control_area_size",
                           "attach_count"};
    for (size_t i = 0; i < sizeof values / sizeof values[0]; i++) {
        FieldSetting setting{-1, names[i], 0, std::to_string(values[i])};
        if (!apply(block, 0, f, w, setting)) return false;
    }
    for (const FieldSetting& setting : options.instance_settings) {
        if (!apply(block, 0, f, w, setting)) return false;
    }
    (void)g;
    return true;
}

// The fields a VM publishes about itself when it starts; --set values come on top.
bool write_vm(Block& block, const Options& options, uint64_t area, int slot, pid_t pid, bool live) {
    Width w = options.width;
    set_number(block, area, w, "eyecatcher", static_cast<int32_t>(VM_EYECATCHER));
    set_number(block, area, w, "pid", pid);
    set_number(block, area, w, "vm_index", slot);
    set_number(block, area, w, "vm_id", 100 + slot);
    set_number(block, area, w, "current_debug_port", -1);
    set_number(block, area, w, "debugging_state", DEBUGGING_STATE_NOT_ACTIVE);
    set_number(block, area, w, "from_port", 8000 + slot * 10);
    set_number(block, area, w, "to_port", 8009 + slot * 10);
    set_number(block, area, w, "can_debug_on_demand", 1);
    set_number(block, area, w, "committed_java_heap_size", 256LL << 20);
    set_number(block, area, w, "committed_class_pool_size", 32LL << 20);
    set_number(block, area, w, "committed_code_cache_size", 48LL << 20);
    set_number(block, area, w, "max_old_gen_size", 192LL << 20);
    set_number(block, area, w, "has_metaspace", 1);
    if (live && options.board_size > 0) set_number(block, area, w, "run_with_monitoring_board", 1);
    set_text(block, area, w, "vm_version", "vmsim 1.0 (simulated VM)");
    set_text(block, area, w, "vm_args", "-Xmx256m");
    set_text(block, area, w, "vm_java_args", "demo.Main");
    set_text(block, area, w, "jar_main_class", "demo.Main");
    set_text(block, area, w, "vm_tag", "vmsim-" + std::to_string(slot));
    char cwd[1024];
    if (getcwd(cwd, sizeof cwd) != nullptr) set_text(block, area, w, "vm_work_dir", cwd);
    for (const FieldSetting& setting : options.vm_settings) {
        if (setting.slot != -1 && setting.slot != slot) continue;
        if (!apply(block, area, vm_fields(), w, setting)) return false;
    }
    return true;
}

// A setting that names this slot's pid overrides the VM's own pid.
bool pid_overridden(const Options& options, int slot) {
    for (const FieldSetting& setting : options.vm_settings) {
        if (setting.field == "pid" && (setting.slot == -1 || setting.slot == slot)) return true;
    }
    return false;
}

int create_event(pid_t pid, unsigned mode) {
    int key = event_key(pid);
    if (key == 0) return -1;
    int id = semget(key, 1, IPC_CREAT | IPC_EXCL | static_cast<int>(mode));
    if (id == -1 && errno == EEXIST) {
        // Left behind by an ended process that had this pid before: take it over.
        id = semget(key, 1, 0);
    }
    return id;
}

void set_event(int sem_id, int value) {
    union semun arg;
    arg.val = value;
    semctl(sem_id, 0, SETVAL, arg);
}

// How the VM of one slot leaves on an exit request.
typedef void (*ExitAction)(Block& block, const Options& options, uint64_t area, int code);

// Looks at every request flag of the slot, clears the ones that are set and acts on them.
// Returns whether any was set.
bool answer_requests(Block& block, const Options& options, uint64_t area, int slot, ExitAction on_exit) {
    Width w = options.width;
    bool any = false;
    for (const Flag& flag : flags()) {
        uint64_t offset = area + field_offset(flag.name, w);
        if (!block.fits(offset, 4) || block.get_int32(offset) == 0) continue;
        block.put_int32(offset, 0);
        any = true;
        int32_t pid = block.get_int32(area + field_offset("pid", w));
        std::string line = "REQUEST slot=" + std::to_string(slot) + " pid=" + std::to_string(pid) + " flag=" + flag.name;
        if (flag.number == 0) {  // start debugging: the suspend policy was stored before the flag
            int32_t suspend = block.get_int32(area + field_offset("suspend_policy", w));
            set_number(block, area, w, "debugging_state", DEBUGGING_STATE_WAIT_FOR_DEBUGGER);
            set_number(block, area, w, "current_debug_port", block.get_int32(area + field_offset("from_port", w)));
            line += " suspend=" + std::to_string(suspend);
        } else if (flag.number == 1) {  // stop debugging
            set_number(block, area, w, "debugging_state", DEBUGGING_STATE_NOT_ACTIVE);
            set_number(block, area, w, "current_debug_port", -1);
        } else if (flag.number == 17 || flag.number == 18) {  // gc, maximum compaction gc
            int64_t count = 0;
            block.get(area + field_offset("number_of_gcs", w), &count, sizeof count);
            set_number(block, area, w, "number_of_gcs", count + 1);
        } else if (flag.number == 16) {  // exit with the code stored before the flag
            int32_t code = block.get_int32(area + field_offset("requested_exit_code", w));
            say(line + " code=" + std::to_string(code));
            on_exit(block, options, area, code);
        }
        say(line);
    }
    return any;
}

// The VM's wait: set the semaphore to 1, look for requests raised meanwhile, then wait until a
// requester drives it to 0.
void run_vm(Block& block, const Options& options, uint64_t area, int slot, int sem_id, ExitAction on_exit) {
    for (;;) {
        set_event(sem_id, 1);
        if (answer_requests(block, options, area, slot, on_exit)) continue;
        struct sembuf wait_for_zero = {0, 0, 0};
        if (semop(sem_id, &wait_for_zero, 1) == 0) continue;
        if (errno == EINTR) continue;
        return;  // the set was removed: vmsim is ending
    }
}

void process_exit(Block&, const Options&, uint64_t, int code) {
    clean_up();
    _exit(code & 0xFF);
}

int instance_attach_count_offset(Width w) {
    return static_cast<int>(find_field(instance_fields(), "attach_count")->offset(w));
}

// A VM of an instance cluster that leaves cleanly marks its slot free and detaches.
void child_exit(Block& block, const Options& options, uint64_t area, int code) {
    block.put_int32(area + field_offset("eyecatcher", options.width), 0);
    uint64_t count_offset = instance_attach_count_offset(options.width);
    block.put_int32(count_offset, block.get_int32(count_offset) - 1);
    remove_event_of(getpid());
    if (published.services) remove_services_of(getpid());
    _exit(code & 0xFF);
}

pid_t ended_process_pid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    if (pid > 0) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    return pid;
}

bool contains(const std::vector<int>& list, int value) {
    for (int v : list) {
        if (v == value) return true;
    }
    return false;
}

std::string join(const std::vector<std::string>& items) {
    if (items.empty()) return "-";
    std::string out;
    for (size_t i = 0; i < items.size(); i++) out += (i > 0 ? "," : "") + items[i];
    return out;
}

// `vm_pids`: the pids of the running VMs in slot order; `event_pids`: the owners of semaphores.
std::string ready_line(const Options& options, const Geometry& g, const std::vector<pid_t>& slot_pids, int seg_key,
                       const std::vector<int>& event_pids, const std::vector<int>& vm_pids) {
    std::vector<std::string> pids, live, dead, events;
    for (size_t i = 0; i < slot_pids.size(); i++) {
        pids.push_back(std::to_string(slot_pids[i]));
        if (contains(options.dead, static_cast<int>(i))) dead.push_back(std::to_string(i));
        else if (slot_pids[i] > 0) live.push_back(std::to_string(i));
    }
    for (int pid : event_pids) events.push_back(std::to_string(event_key(pid)));
    std::string line = "READY type=" + std::string(options.instance ? "instance" : "process");
    line += " id=" + std::to_string(options.instance ? options.id : getpid());
    line += " width=" + std::string(options.width == Width::Bit64 ? "64" : "32");
    line += " slots=" + std::to_string(options.slots);
    line += " pids=" + join(pids) + " live=" + join(live) + " dead=" + join(dead);
    line += " segment_key=" + std::to_string(seg_key);
    line += " file=" + (published.file.empty() ? std::string("-") : published.file);
    line += " event_keys=" + join(events);
    line += " block_size=" + std::to_string(g.block_size);
    line += " vmsim_pid=" + std::to_string(getpid());
    // One board and one socket file per running VM, in slot order (the event pids are the VMs').
    std::vector<std::string> boards, servers;
    for (int pid : vm_pids) {
        if (options.board_size > 0) boards.push_back(board_path(pid));
        if (options.profiling_server) servers.push_back(server_path(pid));
    }
    line += " boards=" + join(boards) + " servers=" + join(servers);
    return line;
}

// Publishes the calling VM's monitoring board and profiling server, as the options ask.
bool start_services(const Options& options, int slot) {
    std::string error;
    if (options.board_size > 0 && !start_board(options.board_size, slot, &error)) {
        fail(error);
        return false;
    }
    if (options.profiling_server && !start_server(&error)) {
        fail(error);
        return false;
    }
    return true;
}

// --flap: the owner of a control-area file that cuts it to nothing and writes it whole again,
// over and over, as soon as a byte (or the end) arrives on standard input, until vmsim is ended.
// Readers of the file then meet it whole, cut, or half written. The VM answers no request
// meanwhile: its own mapping of the file must not be touched while the file is cut (that would
// raise SIGBUS here), so what it published is copied once and only written with pwrite.
[[noreturn]] void flap_file(const void* map, uint64_t file_size) {
    std::vector<unsigned char> content(static_cast<const unsigned char*>(map),
                                       static_cast<const unsigned char*>(map) + file_size);
    int fd = open(published.file.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    char go = 0;
    ssize_t ignored = read(STDIN_FILENO, &go, 1);
    (void)ignored;
    for (;;) {
        if (fd < 0 || ftruncate(fd, 0) != 0) break;
        if (pwrite(fd, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) break;
        usleep(50);  // whole for a moment, so that readers meet both states
    }
    for (;;) pause();  // the signal thread ends vmsim
}

int run_process_cluster(const Options& options, const Geometry& g) {
    pid_t own = getpid();
    published.file = "/tmp/nox_jvm_" + std::to_string(geteuid()) + "_" + std::to_string(own);
    const uint64_t lead_in = 8;
    uint64_t file_size = lead_in + g.block_size;
    int fd = open(published.file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        fail("cannot create " + published.file + ": " + errno_name());
        published.file.clear();
        return 2;
    }
    // Space is reserved before the file is written through the mapping, so a full /tmp fails
    // here and not with SIGBUS later.
    int reserve = posix_fallocate(fd, 0, static_cast<off_t>(file_size));
    void* map = reserve == 0 ? mmap(nullptr, file_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    if (map == MAP_FAILED) {
        fail("cannot map " + published.file);
        clean_up();
        return 2;
    }
    memset(map, 0, file_size);
    Block block(static_cast<unsigned char*>(map) + lead_in, g.block_size);
    std::vector<pid_t> slot_pids(options.slots, 0);
    int in_use = 0;
    for (int slot = 0; slot < options.slots; slot++) {
        bool dead = contains(options.dead, slot);
        if (slot != 0 && !dead) continue;
        slot_pids[slot] = slot == 0 && !dead ? own : ended_process_pid();
        in_use++;
        uint64_t area = g.instance_size + slot * g.vm_size;
        if (!write_vm(block, options, area, slot, slot_pids[slot], !dead)) { clean_up(); return 2; }
        if (slot == 0 && pid_overridden(options, 0)) slot_pids[0] = block.get_int32(area + field_offset("pid", options.width));
    }
    if (!write_header(block, options, g, in_use)) { clean_up(); return 2; }
    published.own_sem_id = create_event(own, options.mode);
    if (published.own_sem_id == -1) {
        fail(std::string("cannot create the event: ") + errno_name());
        clean_up();
        return 2;
    }
    bool runs_a_vm = options.slots > 0 && !contains(options.dead, 0);
    published.own_services = runs_a_vm && published.services;
    if (runs_a_vm && !start_services(options, 0)) { clean_up(); return 2; }
    say(ready_line(options, g, slot_pids, 0, {own}, runs_a_vm ? std::vector<int>{own} : std::vector<int>()));
    if (options.flap) flap_file(map, file_size);
    if (runs_a_vm) {
        run_vm(block, options, g.instance_size, 0, published.own_sem_id, process_exit);
    }
    for (;;) pause();  // the signal thread ends vmsim
}

// One VM of an instance cluster: publishes its pid, creates its event, answers requests.
void run_child(Block& block, const Options& options, uint64_t area, int slot, int ready_fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    if (!pid_overridden(options, slot)) set_number(block, area, options.width, "pid", getpid());
    set_number(block, area, options.width, "eyecatcher", static_cast<int32_t>(VM_EYECATCHER));
    int sem_id = create_event(getpid(), options.mode);
    char ok = sem_id != -1 && start_services(options, slot) ? 'y' : 'n';
    ssize_t ignored = write(ready_fd, &ok, 1);
    (void)ignored;
    close(ready_fd);
    if (ok != 'y') {
        remove_event_of(getpid());
        if (published.services) remove_services_of(getpid());
        _exit(2);
    }
    run_vm(block, options, area, slot, sem_id, child_exit);
    _exit(0);
}

int run_instance_cluster(const Options& options, const Geometry& g) {
    int key = segment_key(options.id);
    size_t bytes = g.block_size > 0 ? g.block_size : 1;
    published.shm_id = shmget(key, bytes, IPC_CREAT | IPC_EXCL | static_cast<int>(options.mode));
    if (published.shm_id == -1) {
        fail("cannot create segment " + std::to_string(key) + ": " + errno_name());
        return 2;
    }
    void* address = shmat(published.shm_id, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) {
        fail(std::string("cannot attach the segment: ") + errno_name());
        clean_up();
        return 2;
    }
    memset(address, 0, bytes);
    Block block(static_cast<unsigned char*>(address), g.block_size);
    std::vector<int> live = options.live_given ? options.live : std::vector<int>();
    if (!options.live_given) {
        for (int slot = 0; slot < options.slots; slot++) {
            if (!contains(options.dead, slot)) live.push_back(slot);
        }
    }
    std::vector<pid_t> slot_pids(options.slots, 0);
    int in_use = 0;
    for (int slot = 0; slot < options.slots; slot++) {
        bool is_live = contains(live, slot), is_dead = contains(options.dead, slot);
        if (!is_live && !is_dead) continue;
        in_use++;
        if (is_dead) slot_pids[slot] = ended_process_pid();
        uint64_t area = g.instance_size + slot * g.vm_size;
        if (!write_vm(block, options, area, slot, slot_pids[slot], is_live && !is_dead)) { clean_up(); return 2; }
        // A live VM marks its slot in use itself, once it runs.
        if (is_live) block.put_int32(area + field_offset("eyecatcher", options.width), 0);
    }
    if (!write_header(block, options, g, in_use)) { clean_up(); return 2; }

    std::vector<int> event_pids;
    for (int slot = 0; slot < options.slots; slot++) {
        if (!contains(live, slot) || contains(options.dead, slot)) continue;
        int ready[2];
        if (pipe(ready) != 0) { clean_up(); return 2; }
        uint64_t area = g.instance_size + slot * g.vm_size;
        pid_t child = fork();
        if (child == 0) {
            close(ready[0]);
            run_child(block, options, area, slot, ready[1]);
        }
        close(ready[1]);
        if (child < 0) { close(ready[0]); clean_up(); return 2; }
        published.children.push_back(child);
        published.child_slots.push_back(slot);
        char ok = 'n';
        ssize_t got = read(ready[0], &ok, 1);
        close(ready[0]);
        if (got != 1 || ok != 'y') {
            fail("VM of slot " + std::to_string(slot) + " could not start");
            clean_up();
            return 2;
        }
        slot_pids[slot] = child;
        event_pids.push_back(child);
    }
    say(ready_line(options, g, slot_pids, key, event_pids, event_pids));

    // Report VMs that leave; when the last live VM has left, the cluster ends.
    bool had_children = !published.children.empty();
    for (;;) {
        int status = 0;
        pid_t ended = waitpid(-1, &status, 0);
        if (ended < 0) {
            if (errno == EINTR) continue;
            break;
        }
        pthread_mutex_lock(&published.lock);
        for (size_t i = 0; i < published.children.size(); i++) {
            if (published.children[i] != ended) continue;
            published.children[i] = -1;
            // Gone before EXITED is told, so a reader of that line finds no file of the VM.
            if (published.services) remove_services_of(ended);
            int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            say("EXITED slot=" + std::to_string(published.child_slots[i]) + " pid=" + std::to_string(ended) +
                " code=" + std::to_string(code));
            remove_event_of(ended);
        }
        pthread_mutex_unlock(&published.lock);
    }
    if (had_children) {
        clean_up();
        _exit(0);
    }
    for (;;) pause();  // no VM ever ran: wait for the signal that ends vmsim
}

}  // namespace
}  // namespace vmsim

int main(int argc, char** argv) {
    using namespace vmsim;
    Options options;
    std::string error;
    if (!parse_options(argc, argv, &options, &error)) {
        if (!error.empty()) fail(error);
        fputs(usage(), stderr);
        return error.empty() ? 0 : 2;
    }
    // SIGTERM, SIGINT and SIGHUP are taken by one thread that cleans up and ends vmsim.
    static sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    signal(SIGPIPE, SIG_IGN);
    Geometry g = geometry(options);
    published.instance = options.instance;
    published.services = options.board_size > 0 || options.profiling_server;
    // The VMs of an instance cluster are forked after this thread exists; a forked child has
    // only the forking thread, unblocks the signals and touches nothing the waiter holds.
    pthread_t waiter;
    if (pthread_create(&waiter, nullptr, signal_waiter, &ending) != 0) {
        fail("cannot start the signal thread");
        return 2;
    }
    if (options.instance) return run_instance_cluster(options, g);
    return run_process_cluster(options, g);
}
