// Every size guard of the per-VM area at its exact boundary, in both widths, over blocks that
// the simulated VM publishes. A view made with a published size equal to a field's threshold
// reads the field; one byte less yields the default. The thresholds and the values below come
// from the published tables, independently of the library's layout structures.
#include "controlAreaFile.h"
#include "controlAreaManager.h"
#include "testSupport.h"
#include "vmsimProcess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <functional>
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

std::string num(long long v) { return std::to_string(v); }

struct Guard {
    const char* name;        // field name for vmsim's --set
    size_t threshold32;
    size_t threshold64;
    const char* value;       // published value
    std::string expected;    // what the getter yields when the field is read
    std::string absent;      // what it yields below the threshold
    Getter get;
};

std::vector<Guard> guards() {
    return {
        {"vm_index", 108, 116, "3", "3", "-1", [](const ControlArea_CL& v) { return num(v.get_vm_index()); }},
        {"vm_id", 112, 120, "77", "77", "-1", [](const ControlArea_CL& v) { return num(v.get_vm_id()); }},
        {"current_debug_port", 116, 124, "6006", "6006", "-1",
         [](const ControlArea_CL& v) { return num(v.get_current_debug_port()); }},
        {"debugging_client", 120, 128, "jdb@host", "jdb@host", "<null>",
         [](const ControlArea_CL& v) { return text(v.get_debugging_client()); }},
        {"debugging_state", 376, 384, "5", "5", "0", [](const ControlArea_CL& v) { return num(v.get_debugging_state()); }},
        {"can_debug_on_demand", 392, 400, "7", "1", "0",
         [](const ControlArea_CL& v) { return num(v.can_debug_on_demand()); }},
        {"committed_java_heap_size", 912, 920, "1111", "1111", "-1",
         [](const ControlArea_CL& v) { return num(v.get_committed_java_heap_size()); }},
        {"committed_class_pool_size", 920, 928, "2222", "2222", "-1",
         [](const ControlArea_CL& v) { return num(v.get_committed_class_pool_size()); }},
        {"committed_code_cache_size", 928, 936, "3333", "3333", "-1",
         [](const ControlArea_CL& v) { return num(v.get_committed_code_cache_size()); }},
        {"vm_args", 960, 968, "-Xmx2g", "-Xmx2g", "<null>", [](const ControlArea_CL& v) { return text(v.get_vm_args()); }},
        {"vm_flags", 5056, 5064, "+UseFoo", "+UseFoo", "<null>", [](const ControlArea_CL& v) { return text(v.get_vm_flags()); }},
        {"vm_java_args", 9152, 9160, "a b c", "a b c", "<null>",
         [](const ControlArea_CL& v) { return text(v.get_vm_java_args()); }},
        {"vm_work_dir", 13248, 13256, "/srv/app", "/srv/app", "<null>",
         [](const ControlArea_CL& v) { return text(v.get_vm_work_dir()); }},
        {"vm_version", 14272, 14280, "17.0.9", "17.0.9", "<null>",
         [](const ControlArea_CL& v) { return text(v.get_vm_version()); }},
        {"number_of_gcs", 25048, 25072, "41", "41", "0", [](const ControlArea_CL& v) { return num(v.get_number_of_gcs()); }},
        {"number_of_full_gcs", 25056, 25080, "42", "42", "0",
         [](const ControlArea_CL& v) { return num(v.get_number_of_full_gcs()); }},
        {"duration_of_gcs", 29192, 29216, "43", "43", "0",
         [](const ControlArea_CL& v) { return num(v.get_duration_of_gcs()); }},
        {"duration_of_full_gcs", 35640, 35664, "44", "44", "0",
         [](const ControlArea_CL& v) { return num(v.get_duration_of_full_gcs()); }},
        {"duration_of_concurrent_gcs", 35648, 35672, "45", "45", "0",
         [](const ControlArea_CL& v) { return num(v.get_duration_of_concurrent_gcs()); }},
        {"work_time_of_gcs", 35656, 35680, "46", "46", "0",
         [](const ControlArea_CL& v) { return num(v.get_work_time_of_gcs()); }},
        {"work_time_of_full_gcs", 35664, 35688, "47", "47", "0",
         [](const ControlArea_CL& v) { return num(v.get_work_time_of_full_gcs()); }},
        {"java_heap_memory_shortages", 35672, 35696, "51", "51", "0",
         [](const ControlArea_CL& v) { return num(v.get_java_heap_memory_shortages()); }},
        {"perm_gen_memory_shortages", 35676, 35700, "52", "52", "0",
         [](const ControlArea_CL& v) { return num(v.get_perm_gen_memory_shortages()); }},
        {"gc_spinning_due_to_java_heap", 35680, 35704, "53", "53", "0",
         [](const ControlArea_CL& v) { return num(v.get_gc_spinning_due_to_java_heap()); }},
        {"gc_spinning_due_to_perm_gen", 35684, 35708, "54", "54", "0",
         [](const ControlArea_CL& v) { return num(v.get_gc_spinning_due_to_perm_gen()); }},
        {"out_of_memory_error_count", 35688, 35712, "55", "55", "0",
         [](const ControlArea_CL& v) { return num(v.get_out_of_memory_error_count()); }},
        {"vm_tag", 35696, 35720, "blue", "blue", "<null>", [](const ControlArea_CL& v) { return text(v.get_vm_tag()); }},
        {"splittable_vm_java_args", 35760, 35784, "x\ty", "x\ty", "<null>",
         [](const ControlArea_CL& v) { return text(v.get_splittable_vm_java_args()); }},
        {"jar_main_class", 39856, 39880, "app.jar", "app.jar", "<null>",
         [](const ControlArea_CL& v) { return text(v.get_jar_main_class()); }},
        {"splittable_virtualization_info", 43952, 43976, "kvm", "kvm", "<null>",
         [](const ControlArea_CL& v) { return text(v.get_virtualization_info()); }},
        {"old_gen_usage_after_gc", 46000, 46024, "61", "61", "0",
         [](const ControlArea_CL& v) { return num(v.get_old_gen_usage_after_gc()); }},
        {"perm_gen_usage_after_gc", 46008, 46032, "62", "62", "0",
         [](const ControlArea_CL& v) { return num(v.get_perm_gen_usage_after_gc()); }},
        {"max_old_gen_size", 46016, 46040, "63", "63", "0",
         [](const ControlArea_CL& v) { return num(v.get_max_old_gen_size()); }},
        {"max_perm_gen_size", 46024, 46048, "64", "64", "0",
         [](const ControlArea_CL& v) { return num(v.get_max_perm_gen_size()); }},
        // Guarded by the offset of _max_perm_gen_size, not by their own (46032/46056, 46040/46064).
        {"run_with_monitoring_board", 46024, 46048, "1", "1", "0",
         [](const ControlArea_CL& v) { return num(v.get_run_with_monitoring_board()); }},
        {"has_metaspace", 46024, 46048, "1", "1", "0", [](const ControlArea_CL& v) { return num(v.get_has_metaspace()); }},
        {"start_local_debugging", 46036, 46060, "1", "1", "0",
         [](const ControlArea_CL& v) { return num(v.get_debugging_locally()); }},
        // The port pair: both or neither, so the threshold is that of _to_port.
        {"from_port", 388, 396, "7000", "7000-7010", "-1--1",
         [](const ControlArea_CL& v) {
             int from = 0, to = 0;
             v.get_default_port_range(&from, &to);
             return num(from) + "-" + num(to);
         }},
        // The three process times: all or none, so the threshold is that of _processing_time.
        {"system_time", 952, 960, "901", "901/902/903", "-1/-1/-1",
         [](const ControlArea_CL& v) {
             long s = 0, u = 0, p = 0;
             v.get_process_time_info(&s, &u, &p);
             return num(s) + "/" + num(u) + "/" + num(p);
         }},
    };
}

// Offsets of the request flags, by flag number, from the published table.
struct FlagPlace {
    int flag;
    size_t offset32;
    size_t offset64;
};
const FlagPlace flag_places[] = {
    {0, 4, 4},   {1, 8, 8},   {2, 12, 12}, {3, 16, 16}, {4, 20, 20}, {5, 24, 24}, {6, 28, 28},
    {7, 32, 32}, {8, 36, 36}, {9, 40, 40}, {10, 44, 44}, {11, 48, 48}, {12, 52, 52}, {13, 56, 56},
    {14, 60, 60}, {15, 64, 64}, {16, 76, 76}, {17, 80, 80}, {18, 84, 84}, {19, 88, 88}, {20, 68, 68},
    {21, 72, 72}, {22, 92, 92}, {23, 96, 96}, {24, 25068, 25092}, {25, 29180, 29204}, {26, 29184, 29208},
    {27, 35344, 35368}};

std::vector<std::string> publish_all(const char* width) {
    std::vector<std::string> args = {"--type", "process", "--width", width};
    for (const Guard& g : guards()) {
        args.push_back("--set");
        args.push_back(std::string(g.name) + "=" + g.value);
    }
    for (const char* extra : {"to_port=7010", "user_time=902", "processing_time=903"}) {
        args.push_back("--set");
        args.push_back(extra);
    }
    return args;
}

template <ArchType_CL arch>
void check_every_guard(const char* width) {
    Vmsim vm(publish_all(width));
    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id()));
    ASSERT_TRUE(manager.is_valid());
    auto* full = dynamic_cast<ControlAreaImpl_CL<arch>*>(manager.get_control_area(0, true));
    ASSERT_NE(nullptr, full);
    void* area = full->get_ca_pointer();
    for (const Guard& g : guards()) {
        size_t threshold = arch == Bit64 ? g.threshold64 : g.threshold32;
        ControlAreaImpl_CL<arch> at(area, threshold);
        ControlAreaImpl_CL<arch> below(area, threshold - 1);
        EXPECT_EQ(g.expected, g.get(at)) << width << " " << g.name << " at " << threshold;
        EXPECT_EQ(g.absent, g.get(below)) << width << " " << g.name << " at " << threshold - 1;
        EXPECT_EQ(g.expected, g.get(*full)) << width << " " << g.name;
    }
    for (const FlagPlace& f : flag_places) {
        size_t offset = arch == Bit64 ? f.offset64 : f.offset32;
        auto flag = static_cast<ControlArea_CL::ControlAreaFlags>(f.flag);
        ControlAreaImpl_CL<arch> at(area, offset);
        ControlAreaImpl_CL<arch> below(area, offset - 1);
        EXPECT_EQ(static_cast<char*>(area) + offset, reinterpret_cast<char*>(at.get_flag_address(flag))) << f.flag;
        EXPECT_EQ(nullptr, below.get_flag_address(flag)) << width << " flag " << f.flag;
    }
    // The pid: its own offset, and the VM's real pid.
    size_t pid_offset = arch == Bit64 ? 112 : 104;
    EXPECT_EQ(vm.pid(), ControlAreaImpl_CL<arch>(area, pid_offset).get_pid());
    EXPECT_EQ(-1, ControlAreaImpl_CL<arch>(area, pid_offset - 1).get_pid());
    // A published size of 0: every default, while the eyecatcher is still read.
    ControlAreaImpl_CL<arch> empty(area, 0);
    EXPECT_TRUE(empty.is_valid());
    for (const Guard& g : guards()) EXPECT_EQ(g.absent, g.get(empty)) << width << " " << g.name;
}

}  // namespace

TEST(ControlAreaGuards, EveryFieldAtItsBoundaryIn32Bit) {
    check_every_guard<Bit32>("32");
}

TEST(ControlAreaGuards, EveryFieldAtItsBoundaryIn64Bit) {
    check_every_guard<Bit64>("64");
}

TEST(ControlAreaGuards, PairAndTripleAreAllOrNone) {
    Vmsim vm(publish_all("64"));
    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id()));
    auto* full = dynamic_cast<ControlAreaImpl_CL<Bit64>*>(manager.get_control_area(0, true));
    ASSERT_NE(nullptr, full);
    // 395 reaches _from_port (392) but not _to_port (396): neither is read.
    int from = 0, to = 0;
    ControlAreaImpl_CL<Bit64>(full->get_ca_pointer(), 395).get_default_port_range(&from, &to);
    EXPECT_EQ(-1, from);
    EXPECT_EQ(-1, to);
    // 959 reaches the system (944) and user (952) times but not the processing time (960).
    long s = 0, u = 0, p = 0;
    ControlAreaImpl_CL<Bit64>(full->get_ca_pointer(), 959).get_process_time_info(&s, &u, &p);
    EXPECT_EQ(-1, s);
    EXPECT_EQ(-1, u);
    EXPECT_EQ(-1, p);
}

TEST(ControlAreaGuards, PublishedSizeAtTheMaxPermGenBoundary) {
    struct Case {
        const char* width;
        const char* size;
        bool read;
    } cases[] = {{"64", "46048", true}, {"64", "46047", false}, {"32", "46024", true}, {"32", "46023", false}};
    for (const Case& c : cases) {
        Vmsim vm({"--type", "process", "--width", c.width, "--ca-size", c.size, "--set", "max_perm_gen_size=99",
                  "--set", "run_with_monitoring_board=1", "--set", "has_metaspace=1", "--set", "max_old_gen_size=98"});
        ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id()));
        ASSERT_TRUE(manager.is_valid()) << c.width << "/" << c.size;
        ControlArea_CL* view = manager.get_control_area(0, true);
        ASSERT_NE(nullptr, view);
        EXPECT_EQ(c.read ? 99 : 0, view->get_max_perm_gen_size()) << c.width << "/" << c.size;
        EXPECT_EQ(c.read, view->get_run_with_monitoring_board()) << c.width << "/" << c.size;
        EXPECT_EQ(c.read, view->get_has_metaspace()) << c.width << "/" << c.size;
        EXPECT_EQ(98, view->get_max_old_gen_size());
    }
}

TEST(ControlAreaGuards, ExitNeedsTheExitCodeField) {
    {
        Vmsim vm({"--type", "process", "--ca-size", "403"});
        ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id()));
        ControlArea_CL* view = manager.get_control_area(0, true);
        ASSERT_NE(nullptr, view);
        auto* impl = dynamic_cast<ControlAreaImpl_CL<Bit64>*>(view);
        const char* base = reinterpret_cast<const char*>(impl->get_ca_pointer());
        view->exit(3);
        int32_t code = -1, flag = -1;
        memcpy(&code, base + 404, 4);
        memcpy(&flag, base + 76, 4);
        EXPECT_EQ(0, code);
        EXPECT_EQ(0, flag);
    }
    Vmsim vm({"--type", "process", "--ca-size", "404"});
    ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id()));
    ControlArea_CL* view = manager.get_control_area(0, true);
    ASSERT_NE(nullptr, view);
    view->exit(3);
    EXPECT_EQ(3, vm.wait_exit());
}

TEST(ControlAreaGuards, EnqueueOperationFlagIsGuardedByItsOffset) {
    Vmsim vm({"--type", "process", "--width", "64"});
    // Views over a copy of the VM's file, whose stores a writer puts into the file; the slot
    // lies behind the 288-byte instance area.
    J2SE::ControlAreaCopy copy = J2SE::ControlAreaFile::copy_control_area(vm.id(), 1 << 20);
    ASSERT_TRUE(copy.is_open());
    FileCopyWriter_CL writer(copy);
    char* base = static_cast<char*>(copy.block()) + 288;
    size_t readable = copy.size() - 288;
    fflush(stdout);
    testing::internal::CaptureStdout();
    ControlAreaImpl_CL<Bit64>(base, 35367, readable, &writer, 288).set_flag(ControlArea_CL::ZUL_CONTROLS_ENQUEUE_OPERATION);
    fflush(stdout);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, noxtest::file_int32(vm.field("file"), 8 + 288 + 35368));
    // 35368 reaches the field's first byte, though its last bytes lie beyond the published size.
    ControlAreaImpl_CL<Bit64>(base, 35368, readable, &writer, 288).set_flag(ControlArea_CL::ZUL_CONTROLS_ENQUEUE_OPERATION);
    EXPECT_FALSE(writer.failed());
    EXPECT_EQ("REQUEST slot=0 pid=" + std::to_string(vm.pid()) + " flag=enqueue_operation", vm.wait_for("REQUEST"));
}

TEST(ControlAreaStrings, FullCapacityWithoutTerminator) {
    for (const char* width : {"32", "64"}) {
        Vmsim vm({"--type", "process", "--width", width, "--fill", "vm_args=a:4096", "--fill", "vm_tag=t:64", "--fill",
                  "debugging_client=c:256", "--fill", "vm_work_dir=w:1024", "--fill",
                  "splittable_virtualization_info=v:2048", "--set", "vm_version=", "--fill", "jar_main_class=j:4095"});
        ControlAreaManager_CL manager(ClusterInfo_CL(false, -1, CLUSTER_TYPE_PROCESS, vm.id()));
        ControlArea_CL* view = manager.get_control_area(0, true);
        ASSERT_NE(nullptr, view);
        EXPECT_EQ(std::string(4096, 'a'), text(view->get_vm_args())) << width;
        EXPECT_EQ(4096, view->get_vm_args().length());
        EXPECT_EQ(std::string(64, 't'), text(view->get_vm_tag()));
        EXPECT_EQ(std::string(256, 'c'), text(view->get_debugging_client()));
        EXPECT_EQ(std::string(1024, 'w'), text(view->get_vm_work_dir()));
        EXPECT_EQ(std::string(2048, 'v'), text(view->get_virtualization_info()));
        EXPECT_EQ(std::string(4095, 'j'), text(view->get_jar_main_class()));
        // A NUL at byte 0 is the empty text.
        EXPECT_EQ("", text(view->get_vm_version()));
        EXPECT_EQ("", std::string(view->get_vm_version().to_cstring().c_str()));
    }
}
