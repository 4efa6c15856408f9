// Starting the simulated VM (tools/vmsim) from a test: the process is started with its standard
// output on a pipe, the test waits for its READY line, and the object ends vmsim (which removes
// its files, segments and semaphores) when it goes out of scope, also when the test fails.
//
// Instance-cluster ids are global to the host and ctest runs test cases in parallel, so every
// test case that publishes an instance cluster uses ids of its own:
//   10-16      test_control_manager.cpp   ControlAreaHeader.*, ControlAreaManager.*
//   31-38, 99  test_control_manager.cpp   ClusterDiscovery.*
//   50         test_control_hostile.cpp   HostileBlocks.MutatedHeadersThroughARealSegmentAndARealFile
//   51-53      test_host_pass.cpp         HostPass.*
//   65         test_vmsim_board.cpp       VmsimBoard.*
// Process clusters need no table: their id is vmsim's own pid.
#ifndef NOX_TESTS_VMSIM_PROCESS_H
#define NOX_TESTS_VMSIM_PROCESS_H

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace noxtest {

class Vmsim {
public:
    // Starts vmsim with `args` and waits for its READY line; throws std::runtime_error when vmsim
    // ends or prints something else first.
    explicit Vmsim(const std::vector<std::string>& args);
    ~Vmsim();
    Vmsim(const Vmsim&) = delete;
    Vmsim& operator=(const Vmsim&) = delete;

    pid_t pid() const { return _pid; }
    // A field of the READY line ("id", "file", "segment_key", ...); empty when absent.
    std::string field(const std::string& key) const;
    int id() const;
    // The pid published in each slot (0 for a slot not in use).
    std::vector<int> slot_pids() const;
    const std::string& ready_line() const { return _ready; }

    // Every wait below is bounded by WAIT_MS, so that a test whose VM does not react fails with a
    // message (and still cleans up) instead of hanging until CTest kills it.
    static const int WAIT_MS = 10000;

    // Reads lines until one starts with `prefix` and returns it; otherwise a text that says none
    // came (which then shows in the failure of the test's comparison).
    std::string wait_for(const std::string& prefix);
    // Waits for vmsim to end on its own: its exit code, or 128 + signal; -1 (after a SIGTERM and
    // a message) when it does not end in time.
    int wait_exit();
    // Ends vmsim with SIGTERM and reaps it (SIGKILL when it has not ended in time).
    void terminate();
    // Writes `text` to vmsim's standard input (a pipe, open until the object ends).
    bool send_input(const std::string& text);

private:
    pid_t _pid;
    int _in;
    int _out;
    std::string _buffer;
    std::string _ready;
    std::map<std::string, std::string> _fields;
    bool _reaped;
    int _status;

    // The next line vmsim prints; empty at the end of its output or after WAIT_MS.
    std::string next_line();
    // Reaps vmsim if it ends within `timeout_ms`; true once it is reaped.
    bool reap_within(int timeout_ms);
};

}  // namespace noxtest

#endif
