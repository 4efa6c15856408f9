// Shows what the library sees on this host: the nox files under /tmp of each family, with their
// owner pid and whether that process is alive, and the instance-cluster segments that exist.
// Reads only; it deletes nothing (its stale handler keeps every file).
#include "controlAreaFile.h"
#include "sharedFile.h"
#include "sharedUtils.h"

#include <cstdio>
#include <sys/stat.h>

namespace {

class KeepEverything : public J2SE::StaleSharedFileHandler {
public:
    bool is_stale(const J2SE::cstring&, int) const override { return false; }
    void on_stale(const J2SE::cstring&, int) const override {}
};

void show_family(const char* title, const J2SE::cstring& pattern) {
    J2SE::cvector<J2SE::SharedFile> files;
    KeepEverything keep;
    J2SE::SharedFile::get_shared_files(files, pattern, false, false, nullptr, false, keep);
    printf("%s (%s): %d\n", title, pattern.c_str(), files.size());
    for (int i = 0; i < files.size(); i++) {
        const J2SE::SharedFile& f = files[i];
        struct stat st;
        long long size = stat(f.get_file_name().c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
        printf("  pid %-8d %-6s %10lld bytes  %s\n", f.get_pid(),
               J2SE::SharedUtils::process_exists(f.get_pid()) ? "alive" : "gone", size, f.get_file_name().c_str());
    }
}

}  // namespace

int main() {
    printf("own pid %d, %d configured CPUs, started at %llu (seconds since the epoch)\n",
           J2SE::SharedUtils::get_own_pid(), J2SE::SharedUtils::get_num_cpu(),
           static_cast<unsigned long long>(
               J2SE::SharedUtils::creationtime_of_process(J2SE::SharedUtils::get_own_pid())));
    show_family("control areas", J2SE::get_controlarea_format_string());
    show_family("monitoring boards", J2SE::get_monitor_board_format_string());
    show_family("profiling servers", J2SE::get_profiling_server_format_string());

    int segments = 0;
    printf("instance-cluster segments (ids 0 to 98):\n");
    for (int id = 0; id < 99; id++) {
        J2SE::SharedMemory memory =
            J2SE::ControlAreaFile::attach_shared_memory(id, J2SE::SharedMemory::SHARED_MEMORY_KEY_CONTROLS, nullptr, nullptr);
        if (memory.get_map_address() == nullptr) continue;
        printf("  id %-3d key %d, %zu bytes\n", id, memory.get_key(), memory.get_map_size());
        memory.detach();
        segments++;
    }
    if (segments == 0) printf("  none\n");
    return 0;
}
