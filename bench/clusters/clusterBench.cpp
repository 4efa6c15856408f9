// Cost of the cluster natives' work without the JVM, beside a floor: a bare loop that scans
// /tmp for control-area files and maps and reads each header, as any lister must at least do.
// The simulated VMs are real vmsim processes (one process cluster each), started before the
// runs and ended afterwards.
#include "clusterQueries.h"

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

void ensure_vms(size_t count) {
    while (running_vms.size() < count) start_vm();
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
