// One VM's per-VM area: every field's size guard at its exact boundary in both widths (with the
// instance area's figures), texts cut by their capacity or by the end of the block, and the requests:
// their flags, the order in which a request's stores reach the VM, and what a simulated VM does
// with them (start and stop debugging through vmsim are in the Java cluster tests). Offsets and
// thresholds come from the published tables, not from the library's layout structures.
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

using noxtest::Vmsim;

namespace {

typedef std::function<std::string(const ControlArea_CL&)> Getter;

template <int N>
std::string text(const ControlAreaText_CL<N>& s) {
    if (!s.is_present()) return "<null>";
    char* copy = s.get();
    std::string result(copy);
    wrap_free(alloc_site("test"), copy);
    return result;
}

template <typename R>
Getter num(R (ControlArea_CL::*get)() const) {
    return [get](const ControlArea_CL& v) { return std::to_string(static_cast<long long>((v.*get)())); };
}

template <int N>
Getter txt(ControlAreaText_CL<N> (ControlArea_CL::*get)() const) {
    return [get](const ControlArea_CL& v) { return text((v.*get)()); };
}

struct Guard {
    const char* name;       // field name for vmsim's --set
    size_t threshold32;     // published size from which the field is read
    size_t threshold64;
    const char* value;      // published value
    std::string expected;   // what the getter yields from the threshold on
    std::string absent;     // what it yields one byte below
    Getter get;
};

const std::vector<Guard>& guards() {
    typedef ControlArea_CL A;
    static const std::vector<Guard> table = {
        {"vm_index", 108, 116, "3", "3", "-1", num(&A::get_vm_index)},
        {"vm_id", 112, 120, "77", "77", "-1", num(&A::get_vm_id)},
        {"current_debug_port", 116, 124, "6006", "6006", "-1", num(&A::get_current_debug_port)},
        {"debugging_client", 120, 128, "jdb@host", "jdb@host", "<null>", txt(&A::get_debugging_client)},
        {"debugging_state", 376, 384, "5", "5", "0", num(&A::get_debugging_state)},
        {"can_debug_on_demand", 392, 400, "7", "1", "0", num(&A::can_debug_on_demand)},
        {"committed_java_heap_size", 912, 920, "1111", "1111", "-1", num(&A::get_committed_java_heap_size)},
        {"committed_class_pool_size", 920, 928, "2222", "2222", "-1", num(&A::get_committed_class_pool_size)},
        {"committed_code_cache_size", 928, 936, "3333", "3333", "-1", num(&A::get_committed_code_cache_size)},
        {"vm_args", 960, 968, "-Xmx2g", "-Xmx2g", "<null>", txt(&A::get_vm_args)},
        {"vm_flags", 5056, 5064, "+UseFoo", "+UseFoo", "<null>", txt(&A::get_vm_flags)},
        {"vm_java_args", 9152, 9160, "a b c", "a b c", "<null>", txt(&A::get_vm_java_args)},
        {"vm_work_dir", 13248, 13256, "/srv/app", "/srv/app", "<null>", txt(&A::get_vm_work_dir)},
        {"vm_version", 14272, 14280, "17.0.9", "17.0.9", "<null>", txt(&A::get_vm_version)},
        {"number_of_gcs", 25048, 25072, "41", "41", "0", num(&A::get_number_of_gcs)},
        {"number_of_full_gcs", 25056, 25080, "42", "42", "0", num(&A::get_number_of_full_gcs)},
        {"duration_of_gcs", 29192, 29216, "43", "43", "0", num(&A::get_duration_of_gcs)},
        {"duration_of_full_gcs", 35640, 35664, "44", "44", "0", num(&A::get_duration_of_full_gcs)},
        {"duration_of_concurrent_gcs", 35648, 35672, "45", "45", "0", num(&A::get_duration_of_concurrent_gcs)},
        {"work_time_of_gcs", 35656, 35680, "46", "46", "0", num(&A::get_work_time_of_gcs)},
        {"work_time_of_full_gcs", 35664, 35688, "47", "47", "0", num(&A::get_work_time_of_full_gcs)},
        {"java_heap_memory_shortages", 35672, 35696, "51", "51", "0", num(&A::get_java_heap_memory_shortages)},
        {"perm_gen_memory_shortages", 35676, 35700, "52", "52", "0", num(&A::get_perm_gen_memory_shortages)},
        {"gc_spinning_due_to_java_heap", 35680, 35704, "53", "53", "0", num(&A::get_gc_spinning_due_to_java_heap)},
        {"gc_spinning_due_to_perm_gen", 35684, 35708, "54", "54", "0", num(&A::get_gc_spinning_due_to_perm_gen)},
        {"out_of_memory_error_count", 35688, 35712, "55", "55", "0", num(&A::get_out_of_memory_error_count)},
        {"vm_tag", 35696, 35720, "blue", "blue", "<null>", txt(&A::get_vm_tag)},
        {"splittable_vm_java_args", 35760, 35784, "x\ty", "x\ty", "<null>", txt(&A::get_splittable_vm_java_args)},
        {"jar_main_class", 39856, 39880, "app.jar", "app.jar", "<null>", txt(&A::get_jar_main_class)},
        {"splittable_virtualization_info", 43952, 43976, "kvm", "kvm", "<null>", txt(&A::get_virtualization_info)},
        {"old_gen_usage_after_gc", 46000, 46024, "61", "61", "0", num(&A::get_old_gen_usage_after_gc)},
        {"perm_gen_usage_after_gc", 46008, 46032, "62", "62", "0", num(&A::get_perm_gen_usage_after_gc)},
        {"max_old_gen_size", 46016, 46040, "63", "63", "0", num(&A::get_max_old_gen_size)},
        {"max_perm_gen_size", 46024, 46048, "64", "64", "0", num(&A::get_max_perm_gen_size)},
        // Guarded by the offset of _max_perm_gen_size, not by their own (46032/46056, 46040/46064).
        {"run_with_monitoring_board", 46024, 46048, "1", "1", "0", num(&A::get_run_with_monitoring_board)},
        {"has_metaspace", 46024, 46048, "1", "1", "0", num(&A::get_has_metaspace)},
        {"start_local_debugging", 46036, 46060, "1", "1", "0", num(&A::get_debugging_locally)},
        // The port pair: both or neither, so the threshold is that of _to_port.
        {"from_port", 388, 396, "7000", "7000-7010", "-1--1",
         [](const A& v) {
             int from = 0, to = 0;
             v.get_default_port_range(&from, &to);
             return std::to_string(from) + "-" + std::to_string(to);
         }},
        // The three process times: all or none, so the threshold is that of _processing_time.
        {"system_time", 952, 960, "901", "901/902/903", "-1/-1/-1",
         [](const A& v) {
             long s = 0, u = 0, p = 0;
             v.get_process_time_info(&s, &u, &p);
             return std::to_string(s) + "/" + std::to_string(u) + "/" + std::to_string(p);
         }},
    };
    return table;
}

// Offsets of the request flags 0 to 27 in the 32-bit and the 64-bit layout: the enum order is not
// the layout order (16, exit, lies at 76; 20, method trace filter, at 68).
const size_t flag_offsets[28][2] = {
    {4, 4},   {8, 8},   {12, 12}, {16, 16}, {20, 20}, {24, 24}, {28, 28}, {32, 32}, {36, 36}, {40, 40},
    {44, 44}, {48, 48}, {52, 52}, {56, 56}, {60, 60}, {64, 64}, {76, 76}, {80, 80}, {84, 84}, {88, 88},
    {68, 68}, {72, 72}, {92, 92}, {96, 96}, {25068, 25092}, {29180, 29204}, {29184, 29208}, {35344, 35368}};

std::vector<std::string> publish_every_field(const char* width) {
    std::vector<std::string> args = {"--type", "process", "--width", width};
    for (const Guard& g : guards()) {
        args.insert(args.end(), {"--set", std::string(g.name) + "=" + g.value});
    }
    for (const char* extra : {"to_port=7010", "user_time=902", "processing_time=903"}) {
        args.insert(args.end(), {"--set", extra});
    }
    // The instance area: entry 0 of each heap array is the cluster's figure, entry 1 lies behind it.
    for (const char* figure : {"shared_pool_size=65536", "heap_size.0=1000", "heap_size.1=1", "heap_size_allocated.0=2000",
                               "heap_size_allocated.1=1", "heap_size_peak.0=3000", "heap_size_peak.1=1"}) {
        args.insert(args.end(), {"--ica-set", figure});
    }
    return args;
}

ClusterInfo_CL process_cluster(const Vmsim& vm) {
    return ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id());
}

template <ArchType_CL arch>
void check_every_guard(const char* width) {
    Vmsim vm(publish_every_field(width));
    ControlAreaManager_CL manager(process_cluster(vm));
    ASSERT_TRUE(manager.is_valid());
    auto* full = dynamic_cast<ControlAreaImpl_CL<arch>*>(manager.get_control_area(0, true));
    ASSERT_NE(nullptr, full) << width;
    void* area = full->get_ca_pointer();
    const int w = arch == Bit64 ? 1 : 0;
    for (const Guard& g : guards()) {
        size_t threshold = w ? g.threshold64 : g.threshold32;
        EXPECT_EQ(g.expected, g.get(*full)) << width << " " << g.name;
        EXPECT_EQ(g.expected, g.get(ControlAreaImpl_CL<arch>(area, threshold))) << width << " " << g.name;
        EXPECT_EQ(g.absent, g.get(ControlAreaImpl_CL<arch>(area, threshold - 1))) << width << " " << g.name;
        EXPECT_EQ(g.absent, g.get(ControlAreaImpl_CL<arch>(area, 0))) << width << " " << g.name;
    }
    for (int flag = 0; flag < 28; flag++) {
        size_t offset = flag_offsets[flag][w];
        auto f = static_cast<ControlArea_CL::ControlAreaFlags>(flag);
        EXPECT_EQ(static_cast<char*>(area) + offset,
                  reinterpret_cast<char*>(ControlAreaImpl_CL<arch>(area, offset).get_flag_address(f)))
            << width << " flag " << flag;
        EXPECT_EQ(nullptr, ControlAreaImpl_CL<arch>(area, offset - 1).get_flag_address(f)) << width << " flag " << flag;
    }
    size_t pid_offset = w ? 112 : 104;
    EXPECT_EQ(vm.pid(), ControlAreaImpl_CL<arch>(area, pid_offset).get_pid());
    EXPECT_EQ(-1, ControlAreaImpl_CL<arch>(area, pid_offset - 1).get_pid());
    EXPECT_TRUE(ControlAreaImpl_CL<arch>(area, 0).is_valid());  // the eyecatcher has no size test
    InstanceControlArea_CL* instance = manager.get_instance_control_area();
    EXPECT_EQ(65536u, instance->get_shared_pool_size()) << width;
    EXPECT_EQ(1000u, instance->get_global_memory()) << width;
    EXPECT_EQ(2000u, instance->get_global_allocated_memory()) << width;
    EXPECT_EQ(3000u, instance->get_global_memory_peak()) << width;
    EXPECT_EQ(1, instance->get_attach_count()) << width;
}

// The VM side of a request, observed without a race. The area's first 128 bytes (request flags,
// eyecatcher, pid) lie on a page of their own that is write-protected; the request parameters
// lie on the next page. The store of the flag faults, and the handler records what the VM
// would see at that moment (the parameter and its wake-up semaphore) before it lets the store
// through.
struct FlagWatch {
    char* page = nullptr;
    size_t page_size = 0;
    const char* parameter = nullptr;
    int semaphore = -1;
    int faults = 0;
    int32_t parameter_seen = 0;
    int semaphore_seen = 0;
};
FlagWatch watch;

void on_flag_store(int, siginfo_t* info, void*) {
    char* at = static_cast<char*>(info->si_addr);
    if (at < watch.page || at >= watch.page + watch.page_size) {
        signal(SIGSEGV, SIG_DFL);  // not ours: the access repeats and ends the test
        return;
    }
    watch.faults++;
    memcpy(&watch.parameter_seen, watch.parameter, sizeof watch.parameter_seen);
    watch.semaphore_seen = semctl(watch.semaphore, 0, GETVAL);
    mprotect(watch.page, watch.page_size, PROT_READ | PROT_WRITE);
}

struct Request {
    const char* name;
    size_t flag;               // offset of its flag (both widths)
    size_t parameter[2];       // offset of its parameter, 32-bit and 64-bit
    void (*raise)(ControlArea_CL& view, int value);
};

const Request requests[] = {
    {"start_debugging", 4, {380, 388}, [](ControlArea_CL& v, int value) { v.start_debugging(value); }},
    {"exit", 76, {396, 404}, [](ControlArea_CL& v, int value) { v.exit(value); }},
};

template <ArchType_CL arch>
void check_request_order(const Request& request, int fake_pid, int semaphore) {
    const int w = arch == Bit64 ? 1 : 0;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char* pages = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, pages);
    char* area = pages + page - 128;
    const uint32_t eyecatcher = 0xDEADBEEFu;
    const int32_t unset = -7;
    memcpy(area, &eyecatcher, 4);
    memcpy(area + (w ? 112 : 104), &fake_pid, 4);
    memcpy(area + request.parameter[w], &unset, 4);
    ASSERT_EQ(0, semctl(semaphore, 0, SETVAL, 1));

    watch = FlagWatch{pages, page, area + request.parameter[w], semaphore};
    struct sigaction handler = {}, previous = {};
    handler.sa_sigaction = on_flag_store;
    handler.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &handler, &previous);
    ASSERT_EQ(0, mprotect(pages, page, PROT_READ));
    ControlAreaImpl_CL<arch> view(area, w ? 46072 : 46048, 128 + page);
    request.raise(view, 1234);
    sigaction(SIGSEGV, &previous, nullptr);

    int32_t flag = 0;
    memcpy(&flag, area + request.flag, 4);
    EXPECT_EQ(1, flag) << request.name;
    EXPECT_EQ(1, watch.faults) << request.name << ": the flag's page was written " << watch.faults << " times";
    EXPECT_EQ(1234, watch.parameter_seen) << request.name << ": the flag was raised before the parameter was stored";
    EXPECT_EQ(1, watch.semaphore_seen) << request.name << ": the VM was woken before its flag was raised";
    EXPECT_EQ(0, semctl(semaphore, 0, GETVAL)) << request.name << ": the VM was not woken";
    munmap(pages, 2 * page);
}

}  // namespace

TEST(ControlAreaGuards, EveryFieldAndFlagAtItsBoundaryInBothWidths) {
    check_every_guard<Bit32>("32");
    check_every_guard<Bit64>("64");
}

TEST(ControlAreaGuards, TextsEndAtTheirCapacityOrWhereTheBlockEnds) {
    for (const char* width : {"32", "64"}) {
        Vmsim vm({"--type", "process", "--width", width, "--fill", "vm_args=a:4096", "--fill", "vm_tag=t:64", "--fill",
                  "debugging_client=c:256", "--fill", "vm_work_dir=w:1024", "--fill",
                  "splittable_virtualization_info=v:2048", "--set", "vm_version=", "--fill", "jar_main_class=j:4095"});
        ControlAreaManager_CL manager(process_cluster(vm));
        ControlArea_CL* view = manager.get_control_area(0, true);
        ASSERT_NE(nullptr, view);
        EXPECT_EQ(std::string(4096, 'a'), text(view->get_vm_args())) << width;
        EXPECT_EQ(std::string(64, 't'), text(view->get_vm_tag()));
        EXPECT_EQ(std::string(256, 'c'), text(view->get_debugging_client()));
        EXPECT_EQ(std::string(1024, 'w'), text(view->get_vm_work_dir()));
        EXPECT_EQ(std::string(2048, 'v'), text(view->get_virtualization_info()));
        EXPECT_EQ(std::string(4095, 'j'), text(view->get_jar_main_class()));
        EXPECT_EQ("", text(view->get_vm_version()));  // a NUL at byte 0
    }
    // A block that ends 10 bytes into the version text (64-bit offset 14280), without a
    // terminator, and 2 bytes into the VM id of a second view: read no further than the block.
    noxtest::GuardedBytes block(14290);
    memcpy(block.data() + 14280, "0123456789", 10);
    ControlAreaImpl_CL<Bit64> cut(block.data(), 46072, block.size());
    EXPECT_EQ("0123456789", text(cut.get_vm_version()));
    EXPECT_EQ("<null>", text(cut.get_vm_tag()));
    EXPECT_EQ(-1, ControlAreaImpl_CL<Bit64>(block.data() + 14290 - 122, 46072, 122).get_vm_id());
}

TEST(ControlAreaRequests, ParametersAreStoredBeforeTheFlagIsRaised) {
    // A made-up pid and the semaphore its VM would wait on (key 5000000 + pid * 100).
    const int fake_pid = 3100000 + getpid() % 100000;
    noxtest::TestSemaphore semaphore(5000000 + fake_pid * 100, 1);
    ASSERT_GE(semaphore.id(), 0) << "the event key of pid " << fake_pid << " is in use";
    for (const Request& request : requests) {
        check_request_order<Bit32>(request, fake_pid, semaphore.id());
        check_request_order<Bit64>(request, fake_pid, semaphore.id());
    }
}

TEST(ControlAreaRequests, ExitNeedsTheExitCodeFieldAndEndsTheVmWithIt) {
    {
        // 403 bytes published: the exit code at 404 is not there, so nothing is written.
        Vmsim vm({"--type", "process", "--ca-size", "403"});
        ControlAreaManager_CL manager(process_cluster(vm));
        ControlArea_CL* view = manager.get_control_area(0, true);
        ASSERT_NE(nullptr, view);
        view->exit(3);
        EXPECT_EQ(0, noxtest::file_int32(vm.field("file"), 8 + 288 + 404));
        EXPECT_EQ(0, noxtest::file_int32(vm.field("file"), 8 + 288 + 76));
    }
    Vmsim vm({"--type", "process", "--width", "32", "--ca-size", "400"});
    std::string file = vm.field("file");
    ControlAreaManager_CL manager(process_cluster(vm));
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    view->exit(7);
    EXPECT_EQ("REQUEST slot=0 pid=" + std::to_string(vm.pid()) + " flag=exit code=7", vm.wait_for("REQUEST"));
    EXPECT_EQ(7, vm.wait_exit());
    EXPECT_FALSE(noxtest::path_exists(file));
}

TEST(ControlAreaRequests, UnsupportedFlagsPrintTheMessageAndWriteNothing) {
    Vmsim vm({"--type", "process"});
    ControlAreaManager_CL manager(process_cluster(vm));
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    std::string area(reinterpret_cast<const char*>(dynamic_cast<ControlAreaImpl_CL<Bit64>*>(view)->get_ca_pointer()), 46072);
    for (int flag : {28, -1, 1000}) {
        fflush(stdout);
        testing::internal::CaptureStdout();
        view->set_flag(static_cast<ControlArea_CL::ControlAreaFlags>(flag));
        fflush(stdout);
        EXPECT_EQ("Flag " + std::to_string(flag) + " not supported by the monitored VM",
                  testing::internal::GetCapturedStdout());
    }
    EXPECT_FALSE(manager.write_failed());
    EXPECT_TRUE(area == std::string(reinterpret_cast<const char*>(dynamic_cast<ControlAreaImpl_CL<Bit64>*>(view)->get_ca_pointer()), 46072));
    // The supported one next to them reaches the VM.
    view->set_flag(ControlArea_CL::ZUL_CONTROLS_ENQUEUE_OPERATION);
    EXPECT_EQ("REQUEST slot=0 pid=" + std::to_string(vm.pid()) + " flag=enqueue_operation", vm.wait_for("REQUEST"));
}
