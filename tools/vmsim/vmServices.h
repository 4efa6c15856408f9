// What a running VM offers besides its control area: a monitoring board (a shared file under
// /tmp whose bytes the VM keeps changing) and a profiling server (a Unix-domain stream socket
// whose address is a file under /tmp). Both are named after the effective user id and the pid of
// the VM that owns them, and both are written here from vmsim's own statement of the formats.
#ifndef VMSIM_VM_SERVICES_H
#define VMSIM_VM_SERVICES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace vmsim {

// Layout of a monitoring board, all numbers little-endian; every byte after the last field is 0.
constexpr size_t BOARD_MAGIC = 0;     // 8 bytes, the text "NOXBOARD" without terminator
constexpr size_t BOARD_PID = 8;       // int32, the pid of the VM that owns the board
constexpr size_t BOARD_SLOT = 12;     // int32, the VM's slot in its cluster's block
constexpr size_t BOARD_COUNTER = 16;  // uint64, ticks since the board was made, one about every 10 ms
constexpr size_t BOARD_TIME = 24;     // uint64, CLOCK_REALTIME in milliseconds at the last tick
constexpr size_t BOARD_SIZE = 32;     // uint32, bytes of the board (the file's size)
constexpr int64_t BOARD_MIN_SIZE = 64;
constexpr long BOARD_TICK_NS = 10 * 1000 * 1000;

// "/tmp/nox_jvm_monitoringboard_<euid>_<pid>" and "/tmp/nox_jvm_profiling_server_<euid>_<pid>".
std::string board_path(pid_t pid);
std::string server_path(pid_t pid);

// Creates the board of the calling process (a stale file of the same name is unlinked first),
// fills in its header and starts the thread that ticks its counter. On failure returns false
// with a message in `error` and leaves no file behind.
bool start_board(size_t size, int slot, std::string* error);

// Binds the profiling-server socket of the calling process (mode 0600) and starts the thread
// that serves its connections: every line received is answered with "PONG " and the line.
// On failure returns false with a message in `error` and leaves no file behind.
bool start_server(std::string* error);

// Unlinks the board and the socket file named after `pid`, if they exist. Used by a VM that
// leaves and by vmsim for children that ended without cleaning up (killed).
void remove_services_of(pid_t pid);

}  // namespace vmsim

#endif
