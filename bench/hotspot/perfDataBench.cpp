// The HotSpot reader without the JVM.
// 1. A scrape of 100 VMs: copies of a real JDK 17 VM's file (its begin time set to now) published
//    under 100 live child processes in a folder of this benchmark's own. The listing followed by
//    one read per VM (what listVms0 and getVm0 per VM cost), the host pass (getHostPass0), and a
//    floor that copies each file once with one pread and parses nothing.
// 2. The whole-host scan of /proc with 1000 more processes: the process table (a stat of each
//    process's mount namespace), the test for the java launcher that picks the processes whose
//    maps are read, and a floor that lists /proc and stats each process once.
// `cmake --build <dir> --target bench_hotspot` runs it before the Java benchmark.
#include "hotspotQueries.h"
#include "perfDataHost.h"
#include "processProbe.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <pwd.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const int VMS = 100;
const int MORE_PROCESSES = 1000;

std::vector<pid_t> children;
std::string root;
std::string folder;

pid_t start_child() {
    pid_t pid = fork();
    if (pid == 0) {
        for (;;) pause();
    }
    if (pid < 0) throw std::runtime_error("fork failed");
    children.push_back(pid);
    return pid;
}

void stop_children() {
    for (pid_t pid : children) kill(pid, SIGKILL);
    for (pid_t pid : children) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    children.clear();
}

// A real VM's file with its begin time moved to now, so that the children count as its process.
std::vector<char> vm_file() {
    std::ifstream in(std::string(NOX_SOURCE_DIR) + "/fuzz/corpus/perf_data_buffer/g1-sleeping-vm", std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const char name[] = "sun.rt.createVmBeginTime";
    auto at = std::search(bytes.begin(), bytes.end(), name, name + sizeof name);
    if (bytes.size() < 32 || at == bytes.end()) throw std::runtime_error("no begin time in the seed file");
    size_t entry = static_cast<size_t>(at - bytes.begin()) - 20;  // the name follows the 20-byte header
    int32_t data_offset = 0;
    memcpy(&data_offset, &bytes[entry + 16], 4);  // little-endian, as this machine
    int64_t now = static_cast<int64_t>(time(nullptr)) * 1000;
    memcpy(&bytes[entry + static_cast<size_t>(data_offset)], &now, 8);
    return bytes;
}

void publish_vms() {
    char templ[] = "/tmp/nox_perfbench_XXXXXX";
    if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
    root = templ;
    folder = root + "/hsperfdata_" + getpwuid(geteuid())->pw_name;
    if (mkdir(folder.c_str(), 0755) != 0) throw std::runtime_error("mkdir failed");
    std::vector<char> bytes = vm_file();
    for (int i = 0; i < VMS; i++) {
        std::string path = folder + "/" + std::to_string(start_child());
        FILE* f = fopen(path.c_str(), "wb");
        if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || fclose(f) != 0) {
            throw std::runtime_error("cannot write " + path);
        }
    }
}

void remove_vms() {
    std::string command = "rm -rf '" + root + "'";
    if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", root.c_str());
}

// Seconds per VM (printed with a unit prefix: 9.5u is 9.5 microseconds).
void per_vm(benchmark::State& state) {
    state.counters["per_vm"] =
        benchmark::Counter(VMS, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Scrape_ListThenFiguresPerVm(benchmark::State& state) {
    J2SE::PerfDataHost host(root.c_str());
    for (auto _ : state) {
        ByteArrayOutputStream_CL list(16384);
        query_hotspot_vms(host, list);
        for (int i = 0; i < VMS; i++) {
            ByteArrayOutputStream_CL figures(16384);
            if (!query_hotspot_vm(host, children[static_cast<size_t>(i)], figures)) state.SkipWithError("a VM was not read");
        }
        benchmark::DoNotOptimize(list.size());
    }
    per_vm(state);
}

void BM_Scrape_HostPass(benchmark::State& state) {
    J2SE::PerfDataHost host(root.c_str());
    for (auto _ : state) {
        ByteArrayOutputStream_CL pass(16384);
        if (!query_hotspot_host_pass(host, pass)) state.SkipWithError("the pass failed");
        benchmark::DoNotOptimize(pass.size());
    }
    per_vm(state);
}

// The least any reader does: list the folder, open each file and copy it with one pread.
void BM_Scrape_FloorOnePreadPerFile(benchmark::State& state) {
    std::vector<char> buffer(1 << 20);
    for (auto _ : state) {
        int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* dir = fdopendir(dup(fd));
        size_t copied = 0;
        for (struct dirent* e = readdir(dir); e != nullptr; e = readdir(dir)) {
            if (e->d_name[0] == '.') continue;
            int file = openat(fd, e->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
            struct stat st;
            if (file < 0 || fstat(file, &st) != 0) continue;
            ssize_t got = pread(file, buffer.data(), static_cast<size_t>(st.st_size), 0);
            copied += got > 0 ? static_cast<size_t>(got) : 0;
            close(file);
        }
        closedir(dir);
        close(fd);
        benchmark::DoNotOptimize(copied);
    }
    per_vm(state);
}

// Seconds per process of the host.
void per_process(benchmark::State& state, int processes) {
    state.counters["processes"] = processes;
    state.counters["per_process"] =
        benchmark::Counter(processes, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_ProcScan_ProcessTable(benchmark::State& state) {
    J2SE::ProcessTable table;
    for (auto _ : state) {
        if (!table.scan()) state.SkipWithError("/proc cannot be read");
    }
    per_process(state, table.size());
}

// What picks the processes whose maps are read: the java-launcher test of every process.
void BM_ProcScan_JavaLauncherTest(benchmark::State& state) {
    J2SE::ProcessTable table;
    table.scan();
    int java = 0;
    for (auto _ : state) {
        java = 0;
        for (int i = 0; i < table.size(); i++) java += J2SE::process_runs_java(table.at(i).pid) ? 1 : 0;
    }
    state.counters["java"] = java;
    per_process(state, table.size());
}

// The least a scan of the host's processes does: list /proc and stat each process once.
void BM_ProcScan_FloorReaddirAndStat(benchmark::State& state) {
    int processes = 0;
    for (auto _ : state) {
        processes = 0;
        DIR* proc = opendir("/proc");
        for (struct dirent* e = readdir(proc); e != nullptr; e = readdir(proc)) {
            int pid = J2SE::pid_of_name(e->d_name);
            char path[32];
            struct stat st;
            snprintf(path, sizeof path, "/proc/%d", pid);
            if (pid > 0 && stat(path, &st) == 0) processes++;
        }
        closedir(proc);
    }
    per_process(state, processes);
}

}  // namespace

BENCHMARK(BM_Scrape_FloorOnePreadPerFile)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Scrape_HostPass)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Scrape_ListThenFiguresPerVm)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProcScan_FloorReaddirAndStat)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProcScan_ProcessTable)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProcScan_JavaLauncherTest)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    int status = 0;
    try {
        publish_vms();
        for (int i = 0; i < MORE_PROCESSES; i++) start_child();
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& e) {
        fprintf(stderr, "perf_data_bench: %s\n", e.what());
        status = 1;
    }
    stop_children();
    if (!root.empty()) remove_vms();
    benchmark::Shutdown();
    return status;
}
