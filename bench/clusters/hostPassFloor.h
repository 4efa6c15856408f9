// The floor of the host pass: an independent reader, written apart from the library, that writes
// the same stream as query_host_pass with the fewest system calls that the pass's checks need.
//
// Per pass: one read of /proc/sysvipc/shm and one listing of /tmp. Per process cluster: one
// open, fstat, pread and close of its file (the fstat answers "regular file?", "owned by the
// process's owner?" and "how long?"; the pread copies the whole block), and one open, fstat,
// read and close of /proc/<pid>/stat (the open answers "alive?", the fstat "owned by whom?",
// the read the start time). Per instance cluster: shmget, shmat, shmctl and shmdt, and per slot
// in use one open, read and close of /proc/<pid>/stat. The boot time is read once per process,
// as the library does at load.
//
// It knows only what vmsim and a current VM publish: the 64-bit layout with whole per-VM areas.
// A cluster of any other shape (32-bit, short areas, a slot beyond the first 64 KiB, a pid with
// two files) is left out and counted in `skipped`; the byte comparison then covers the rest.
#ifndef NOX_BENCH_HOST_PASS_FLOOR_H
#define NOX_BENCH_HOST_PASS_FLOOR_H

#include <cstddef>
#include <map>
#include <utility>
#include <vector>

struct FloorResult {
    size_t bytes;  // of the stream in the floor's buffer
    int vms;
    int skipped;   // clusters the floor leaves to the library
};

// Writes the stream into the floor's own buffer; `stream()` shows it until the next pass.
FloorResult floor_host_pass();
const unsigned char* floor_stream();

// The clusters of a stream by (type, id): each cluster's bytes from its type to its end mark.
// Throws std::runtime_error on a stream that is not well formed.
typedef std::map<std::pair<int, int>, std::vector<unsigned char>> StreamClusters;
StreamClusters split_clusters(const unsigned char* stream, size_t size);

#endif
