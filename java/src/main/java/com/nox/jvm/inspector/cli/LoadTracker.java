package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.host.ProcessCpu;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.util.HashMap;
import java.util.Map;

/**
 * The load of each VM between two snapshots: the share of one CPU its process used and the share
 * of the wall time its collectors took, from the process's CPU time (/proc) and the collectors'
 * time (performance data) at each snapshot. A VM seen for the first time, or a figure that is not
 * published, has no share (-1). Used by {@code top} and by the page of {@code serve}.
 */
final class LoadTracker {
    /**
     * A VM's load.
     *
     * @param cpuSeconds  CPU time of the process so far, -1 when unknown
     * @param gcSeconds   time of its collections so far, -1 when unknown
     * @param cpuPercent  CPU time over the interval in percent of one CPU, -1 when unknown
     * @param gcPercent   collection time over the interval in percent of the interval, -1 when unknown
     */
    record Load(double cpuSeconds, double gcSeconds, double cpuPercent, double gcPercent) {
        static final Load UNKNOWN = new Load(-1, -1, -1, -1);
    }

    private record Reading(long nanos, double cpuSeconds, double gcSeconds) {
    }

    private Map<HostVm.Key, Reading> last = new HashMap<>();

    /** The load of every VM of the snapshot, read now, against the readings of the previous call. */
    Map<HostVm.Key, Load> update(HostSnapshot snapshot) {
        long now = System.nanoTime();
        Map<HostVm.Key, Reading> readings = new HashMap<>();
        Map<HostVm.Key, Load> loads = new HashMap<>();
        for (HostVm vm : snapshot.vms()) {
            Reading reading = new Reading(now, ProcessCpu.seconds(vm.pid(), vm.startTime()), gcSeconds(vm));
            readings.put(vm.key(), reading);
            Reading before = last.get(vm.key());
            loads.put(vm.key(), new Load(reading.cpuSeconds(), reading.gcSeconds(),
                    percent(before, reading, before == null ? -1 : before.cpuSeconds(), reading.cpuSeconds()),
                    percent(before, reading, before == null ? -1 : before.gcSeconds(), reading.gcSeconds())));
        }
        last = readings;
        return loads;
    }

    /** The collectors' time in seconds, from the performance data; -1 without it. */
    static double gcSeconds(HostVm vm) {
        return vm.hotspot().map(HotSpotFigures::gcSeconds).orElse(-1.0);
    }

    private static double percent(Reading before, Reading now, double from, double to) {
        long nanos = before == null ? 0 : now.nanos() - before.nanos();
        if (nanos <= 0 || from < 0 || to < 0) {
            return -1;
        }
        return Math.max(0, to - from) * 1e11 / nanos;
    }
}
