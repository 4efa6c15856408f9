package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;

import java.util.Locale;
import java.util.Optional;

/**
 * How the user names a VM on the command line: by the pid of its process, or by its place as
 * {@code type:id:slot}, where type is {@code process} (or 1) or {@code instance} (or 2).
 * Exactly one of {@link #pid} and {@link #ref} is set.
 */
record Target(Integer pid, VmRef ref) {

    static Target parse(String text) {
        if (text.indexOf(':') < 0) {
            int pid = number(text, "pid");
            if (pid <= 0) {
                throw CliError.usage("a pid is a positive number, not " + text);
            }
            return new Target(pid, null);
        }
        String[] parts = text.split(":", -1);
        if (parts.length != 3) {
            throw CliError.usage("expected type:id:slot, got " + text);
        }
        ClusterType type = switch (parts[0].toLowerCase(Locale.ROOT)) {
            case "process", "1" -> ClusterType.PROCESS;
            case "instance", "2" -> ClusterType.INSTANCE;
            default -> throw CliError.usage("cluster type must be process, instance, 1 or 2, not " + parts[0]);
        };
        int id = number(parts[1], "cluster id");
        int slot = number(parts[2], "slot");
        if (slot < 0) {
            throw CliError.usage("a slot is 0 or more, not " + slot);
        }
        return new Target(null, new VmRef(type, id, slot));
    }

    /** A decimal int, or a usage error naming what was expected. */
    static int number(String text, String what) {
        if (!text.matches("-?[0-9]{1,10}")) {
            throw CliError.usage(what + " must be a number, not '" + text + "'");
        }
        long value = Long.parseLong(text);
        if (value != (int) value) {
            throw CliError.usage(what + " out of range: " + text);
        }
        return (int) value;
    }

    /** The VM this names in the snapshot: by pid the process's own record, by place the slot's. */
    Optional<HostVm> find(HostSnapshot snapshot) {
        return pid != null ? snapshot.byPid(pid) : snapshot.bySlot(ref);
    }

    /** The refusal for a VM that {@link #find} did not find, saying what is there instead. */
    CliError notFound() {
        if (pid == null) {
            return CliError.refused("no live VM in " + ref);
        }
        String named = "no live VM with pid " + pid;
        return unreadable(pid, named).orElseGet(() -> CliError.refused(named
                + " (the process publishes no control area and no performance data: not a Java VM, or one started"
                + " with -XX:-UsePerfData; `noxinspect attach " + pid + "` gives a VM of this user a control area)"));
    }

    /** The refusal for a pid without performance data this user may read (stat, counters). */
    static CliError noPerformanceData(int pid) {
        String named = "no HotSpot VM with pid " + pid;
        return unreadable(pid, named).orElseGet(() -> CliError.refused(named
                + " publishes performance data (not a Java VM, or one started with -XX:-UsePerfData)"));
    }

    /**
     * The refusal when the process is not there or is another user's, whose files this user may
     * not read (root reads every user's); empty when neither is so.
     */
    private static Optional<CliError> unreadable(int pid, String named) {
        if (!Host.processExists(pid)) {
            return Optional.of(CliError.refused(named + " (no such process)"));
        }
        int owner = Host.processOwner(pid);
        int self = Host.processOwner((int) ProcessHandle.current().pid());
        if (owner >= 0 && self != 0 && owner != self) {
            return Optional.of(CliError.refused(named + " that this user may read: the process is owned by uid "
                    + owner + ", which this user may not read (its performance data and control area are that user's)"));
        }
        return Optional.empty();
    }

    @Override
    public String toString() {
        return pid != null ? "pid " + pid : ref.toString();
    }
}
