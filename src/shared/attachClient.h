// A client of HotSpot's attach listener: runs a command (a diagnostic command through "jcmd",
// "load" of an agent, "properties", ...) in a running VM of this host and streams its answer.
//
// A VM starts its listener on demand: a client creates the trigger file .attach_pid<pid> in the
// VM's working folder (or its /tmp) and sends SIGQUIT; the VM, seeing the file, binds the socket
// /tmp/.java_pid<pid> (mode 0600, owned by the VM's user) and serves one request per connection.
// A VM in a container knows itself by the pid of its own namespace (the last NSpid field of
// /proc/<pid>/status) and has its own /tmp, reached from here as /proc/<pid>/root/tmp.
//
// The checks, stricter than the JDK's own client:
// - only a process that maps libjvm.so is ever signalled (SIGQUIT ends any other process), and
//   never one that would die of it (-Xrs) or ignores it for attach (-XX:+DisableAttachMechanism);
// - the caller is the VM's user with the VM's group (the VM drops other clients unanswered), or
//   root, which may attach to any user's VM as jcmd does;
// - the socket is used only when it is a socket (not a link) owned by the VM's user and open to
//   nobody else, and the process serving it is the VM itself (its peer credentials);
// - the trigger file is created anew (never through a link nor over another's file) and removed
//   again, also when the attach fails;
// - every wait ends at the time-out, and a VM that ends meanwhile is noticed at once.
#ifndef NOX_SHARED_ATTACH_CLIENT_H
#define NOX_SHARED_ATTACH_CLIENT_H

#include "attachProtocol.h"
#include "cstring.h"
#include "fileSocket.h"

#include <cstddef>
#include <cstdint>

namespace J2SE {

// Why an attach or a command failed. The Java class AttachException.Reason lists the same
// reasons in the same order.
enum AttachReason {
    ATTACH_OK = 0,
    ATTACH_BAD_REQUEST,    // the VM would drop the request (name or argument too long)
    ATTACH_NO_PROCESS,     // no process with this pid (a thread id is not a process either)
    ATTACH_NOT_PERMITTED,  // another user's (or group's) VM, and the caller is not root
    ATTACH_NOT_A_VM,       // the process maps no libjvm.so: it was not signalled
    ATTACH_DISABLED,       // the VM refuses attach, or SIGQUIT would end it: not signalled
    ATTACH_FOREIGN_FILE,   // the socket or trigger name is taken by a file that is not the VM's
    ATTACH_NO_ANSWER,      // the VM started no listener within the time-out
    ATTACH_GONE,           // the process ended during the attach
    ATTACH_TIMED_OUT,      // the VM did not answer within the time-out
    ATTACH_PROTOCOL,       // the reply is not what a VM sends
    ATTACH_IO              // a system call failed
};

struct AttachError {
    AttachError() : reason(ATTACH_OK) {}
    // Records the reason and the message; always returns false, for `return error->set(...)`.
    bool set(AttachReason why, const cstring& text);

    AttachReason reason;
    cstring message;
};

// The fields of /proc/<pid>/status the attach needs.
struct ProcStatus {
    int pid;
    int tgid;       // equals pid for a process; a thread has its process's
    unsigned euid;
    unsigned egid;
    int nspid;      // the pid in the process's own namespace (pid when NSpid is not shown)
    bool catches_quit;  // a handler is installed for SIGQUIT (SigCgt)
};

// Parses the text of /proc/<pid>/status. False when Pid, Tgid, Uid, Gid or SigCgt is missing or
// not a number.
bool parse_proc_status(const char* text, size_t length, ProcStatus* status);

// A process to attach to, as /proc describes it.
class AttachTarget {
public:
    AttachTarget();

    // Looks the process up and checks that the caller may attach to it.
    bool resolve(int pid, AttachError* error);

    // Before a signal: the process maps libjvm.so, catches SIGQUIT (a VM starting up, or one run
    // with -Xrs, would die of it) and does not ignore the trigger (-XX:+DisableAttachMechanism).
    bool check_signal_safe(AttachError* error) const;

    int pid;              // in our namespace
    int nspid;            // in the VM's namespace: it names its files with this one
    unsigned euid;
    unsigned egid;
    bool other_mounts;    // the VM lives in another mount namespace
    cstring tmp_dir;      // the VM's /tmp as seen from here
    cstring socket_path;  // tmp_dir + "/.java_pid<nspid>"
};

// Makes the VM start its listener: trigger file, SIGQUIT, a wait until the socket appears or
// deadline_ms (monotonic milliseconds) passes, the trigger removed. False with the reason.
bool start_attach_listener(const AttachTarget& target, int64_t deadline_ms, AttachError* error);

// One command run in one VM: open() sends it and reads the status, read() streams the output.
// read() and shutdown() may be called from two threads; the object is freed by one owner after
// both have returned.
class AttachConnection {
public:
    AttachConnection();
    ~AttachConnection();
    AttachConnection(const AttachConnection&) = delete;
    AttachConnection& operator=(const AttachConnection&) = delete;

    // Attaches to `pid` (starting its listener when there is none), sends the request and
    // waits for the status line; each step ends at the time-out (milliseconds, at least 1).
    bool open(int pid, const AttachRequest& request, int timeout_ms, AttachError* error);

    // The status of the command: 0 when the VM ran it.
    int status() const { return _parser.status(); }

    // The next bytes of the output: the count, 0 at its end, -1 when the time-out passed or
    // the connection failed (error says which).
    int read(char* buffer, int length, int timeout_ms, AttachError* error);

    // Closes the connection; a thread blocked in read() returns at once.
    void close();

private:
    bool connect(const AttachTarget& target, int64_t deadline_ms, AttachError* error);
    bool read_status(int64_t deadline_ms, AttachError* error);

    FileSocket* _socket;
    int _pid;
    AttachReplyParser _parser;
    // Output that arrived with the status line, handed out by the first reads.
    char _pending[256];
    size_t _pending_start;
    size_t _pending_end;
};

}  // namespace J2SE

#endif
