// Cost of the cluster natives' work without the JVM, beside floors: a bare loop that scans
// /tmp for control-area files and maps and reads each header, as any lister must at least do;
// and, for the one-pass read of the whole host, an independent reader that writes the same
// stream with the fewest system calls that the pass's checks need (hostPassFloor.h), checked to
// write the same bytes before it is timed. The simulated VMs are real vmsim processes (one
// process cluster each), started before the runs and ended afterwards.
#include "clusterQueries.h"
#include "hostPass.h"
#include "hostPassFloor.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct Vm {
    pid_t pid;
    FILE* out;
};

std::vector<Vm> running_vms;

void start_vm() {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) throw std::runtime_error("pipe");
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipe_fds[1], STDOUT_FILENO);
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        execl(NOX_VMSIM, "vmsim", "--type", "process", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipe_fds[1]);
    FILE* out = fdopen(pipe_fds[0], "r");
    char line[1024];
    if (out == nullptr || fgets(line, sizeof line, out) == nullptr || strncmp(line, "READY ", 6) != 0) {
        throw std::runtime_error("vmsim did not start");
    }
    running_vms.push_back(Vm{pid, out});
}

void stop_last_vm() {
    Vm vm = running_vms.back();
    running_vms.pop_back();
    kill(vm.pid, SIGTERM);
    while (waitpid(vm.pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    fclose(vm.out);
}

// Exactly `count` VMs run afterwards: more are started, surplus ones ended.
void ensure_vms(size_t count) {
    while (running_vms.size() < count) start_vm();
    while (running_vms.size() > count) stop_last_vm();
}

void stop_vms() {
    for (const Vm& vm : running_vms) kill(vm.pid, SIGTERM);
    for (const Vm& vm : running_vms) {
        while (waitpid(vm.pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        fclose(vm.out);
    }
    running_vms.clear();
}

// The floor: readdir of /tmp, then for each name of the form nox_jvm_<n>_<n> open, fstat, map,
// read the header's eyecatcher and version behind the 8-byte lead-in, unmap and close.
int floor_scan_map_read() {
    int found = 0;
    DIR* dir = opendir("/tmp");
    if (dir == nullptr) return 0;
    while (struct dirent* entry = readdir(dir)) {
        unsigned uid = 0;
        unsigned pid = 0;
        int consumed = 0;
        if (sscanf(entry->d_name, "nox_jvm_%u_%u%n", &uid, &pid, &consumed) != 2 || entry->d_name[consumed] != '\0') {
            continue;
        }
        char path[512];
        snprintf(path, sizeof path, "/tmp/%s", entry->d_name);
        int fd = open(path, O_RDWR | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_size >= 40) {
            void* map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            if (map != MAP_FAILED) {
                const unsigned* header = reinterpret_cast<const unsigned*>(static_cast<const char*>(map) + 8);
                if (header[0] == 0xFADEBABEu && (header[1] >> 17) == 3) found++;
                munmap(map, static_cast<size_t>(st.st_size));
            }
        }
        close(fd);
    }
    closedir(dir);
    return found;
}

// The floor and the pass must write the same bytes before either is timed: every cluster the
// floor writes equals the pass's, the benchmark's own VMs among them. Other helpers' VMs may
// come and go between the two readings, so a difference is looked at again before it counts.
void check_floor_against_pass(benchmark::State& state) {
    std::string problem;
    for (int attempt = 0; attempt < 5; attempt++) {
        ByteArrayOutputStream_CL buffer(64 * 1024);
        query_host_pass(buffer);
        FloorResult floor = floor_host_pass();
        StreamClusters pass = split_clusters(buffer.data(), buffer.size());
        StreamClusters mine = split_clusters(floor_stream(), floor.bytes);
        problem.clear();
        for (const auto& cluster : mine) {
            auto found = pass.find(cluster.first);
            if (found == pass.end() || found->second != cluster.second) {
                problem = "cluster " + std::to_string(cluster.first.first) + "/" + std::to_string(cluster.first.second) +
                          (found == pass.end() ? " is not in the pass" : " differs from the pass");
            }
        }
        for (const Vm& vm : running_vms) {
            if (mine.count(std::make_pair(1, static_cast<int>(vm.pid))) == 0) {
                problem = "the floor misses vmsim " + std::to_string(vm.pid);
            }
        }
        if (!problem.empty()) continue;
        bool whole = floor.bytes == buffer.size() && memcmp(floor_stream(), buffer.data(), buffer.size()) == 0;
        state.counters["same_bytes"] = whole ? 1 : 0;  // 0: the host holds clusters the floor leaves out
        state.counters["compared"] = static_cast<double>(mine.size());
        return;
    }
    state.SkipWithError(("floor and pass disagree: " + problem).c_str());
}

void BM_HostPass(benchmark::State& state) {
    ensure_vms(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        ByteArrayOutputStream_CL buffer(64 * 1024);
        query_host_pass(buffer);
        benchmark::DoNotOptimize(buffer.size());
    }
    state.counters["vms"] = static_cast<double>(running_vms.size());
}

void BM_FewestCallsLoop(benchmark::State& state) {
    ensure_vms(static_cast<size_t>(state.range(0)));
    check_floor_against_pass(state);
    FloorResult floor{0, 0, 0};
    for (auto _ : state) {
        floor = floor_host_pass();
        benchmark::DoNotOptimize(floor.bytes);
    }
    state.counters["vms"] = static_cast<double>(running_vms.size());
    state.counters["found"] = static_cast<double>(floor.vms);
}

// What a lister did before the host pass: the cluster list, the live VMs of each cluster, then
// three record natives per VM (start, time, memory), each attaching its cluster afresh. (The
// host pass reads the debugging record as well, which this leaves out.)
void BM_ListPlusThreeNatives(benchmark::State& state) {
    ensure_vms(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        ByteArrayOutputStream_CL list(1024);
        query_cluster_list(list);
        // Every VM here is slot 0 of its own process cluster; its pid is the cluster id.
        for (const Vm& vm : running_vms) {
            ByteArrayOutputStream_CL state_record(1024);
            if (!query_vm_record(1, vm.pid, 0, VM_RECORD_STATE, state_record)) continue;
            int id = query_unique_id(1, vm.pid, 0);
            ByteArrayOutputStream_CL start(1024);
            ByteArrayOutputStream_CL time(1024);
            ByteArrayOutputStream_CL memory(1024);
            query_vm_record(1, vm.pid, 0, VM_RECORD_START, start);
            query_vm_record(1, vm.pid, 0, VM_RECORD_TIME, time);
            query_vm_record(1, vm.pid, 0, VM_RECORD_MEMORY, memory);
            benchmark::DoNotOptimize(id + start.size() + time.size() + memory.size());
        }
    }
    state.counters["vms"] = static_cast<double>(running_vms.size());
}

void BM_ListClusters(benchmark::State& state) {
    ensure_vms(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        ByteArrayOutputStream_CL buffer(1024);
        query_cluster_list(buffer);
        benchmark::DoNotOptimize(buffer.size());
    }
    state.counters["vms"] = static_cast<double>(running_vms.size());
}

void BM_FloorScanMapRead(benchmark::State& state) {
    ensure_vms(static_cast<size_t>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(floor_scan_map_read());
    state.counters["vms"] = static_cast<double>(running_vms.size());
}

void BM_MemoryRecord(benchmark::State& state) {
    ensure_vms(1);
    int pid = running_vms[0].pid;
    for (auto _ : state) {
        ByteArrayOutputStream_CL buffer(1024);
        benchmark::DoNotOptimize(query_vm_record(1, pid, 0, VM_RECORD_MEMORY, buffer));
    }
}

// Pairs of lister and floor at each size, so each ratio compares runs taken close together.
BENCHMARK(BM_FloorScanMapRead)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ListClusters)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloorScanMapRead)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ListClusters)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloorScanMapRead)->Arg(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ListClusters)->Arg(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MemoryRecord)->Unit(benchmark::kMicrosecond);
// The host pass against the fewest-calls loop and the old way, at each size.
BENCHMARK(BM_FewestCallsLoop)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HostPass)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ListPlusThreeNatives)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FewestCallsLoop)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HostPass)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ListPlusThreeNatives)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FewestCallsLoop)->Arg(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HostPass)->Arg(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ListPlusThreeNatives)->Arg(100)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    int rc = 0;
    try {
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& e) {
        fprintf(stderr, "%s\n", e.what());
        rc = 1;
    }
    stop_vms();
    benchmark::Shutdown();
    return rc;
}
