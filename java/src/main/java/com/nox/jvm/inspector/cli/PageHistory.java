package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/**
 * What the page of {@code serve} charts: per VM, a point for every pass over the host (the passes
 * of /metrics scrapes and of the page's own polls alike) within the last {@value #KEEP_MILLIS} ms,
 * with the heap used, committed and maximum, the CPU and GC shares since the pass before, and the
 * live threads. Only the VMs of the latest pass are kept. Safe for concurrent use.
 */
final class PageHistory {
    static final long KEEP_MILLIS = 10 * 60 * 1000;
    /** At most this many points per VM, however often the host is read. */
    static final int MAX_POINTS = 1200;

    /** One point: time (ms since the epoch) and figures, -1 for what is not known. */
    record Point(long time, long heapUsed, long heapCommitted, long heapMax, double cpuPercent, double gcPercent,
                 long threads) {
    }

    /** A VM as the latest pass saw it, with its points, oldest first. */
    record Series(HostVm vm, Deque<Point> points) {
    }

    private final LoadTracker loads = new LoadTracker();
    private Map<HostVm.Key, Series> series = new LinkedHashMap<>();
    private long lastPassMillis;

    /** Adds a point per VM of the snapshot; the VMs it lacks are dropped. */
    synchronized void record(HostSnapshot snapshot) {
        if (snapshot.takenMillis() <= lastPassMillis) {
            return;
        }
        lastPassMillis = snapshot.takenMillis();
        Map<HostVm.Key, LoadTracker.Load> measured = loads.update(snapshot);
        Map<HostVm.Key, Series> next = new LinkedHashMap<>();
        for (HostVm vm : snapshot.vms()) {
            Series old = series.get(vm.key());
            Deque<Point> points = old != null ? old.points() : new ArrayDeque<>();
            LoadTracker.Load load = measured.getOrDefault(vm.key(), LoadTracker.Load.UNKNOWN);
            long threads = vm.hotspot().map(h -> h.threadsLive()).orElse(-1L);
            points.addLast(new Point(snapshot.takenMillis(), vm.heap().used(), vm.heap().committed(),
                    vm.heap().max(), load.cpuPercent(), load.gcPercent(), threads));
            while (points.size() > MAX_POINTS
                    || points.peekFirst().time() < snapshot.takenMillis() - KEEP_MILLIS) {
                points.removeFirst();
            }
            next.putIfAbsent(vm.key(), new Series(vm, points));
        }
        series = next;
    }

    synchronized long lastPassMillis() {
        return lastPassMillis;
    }

    /**
     * The page's data: every VM of the latest pass with its points later than {@code since}
     * (ms since the epoch; 0 for all), as JSON.
     */
    synchronized String json(long since) {
        List<Doc> vms = new ArrayList<>();
        Map<Integer, Integer> seen = new HashMap<>();
        for (Series s : series.values()) {
            HostVm vm = s.vm();
            List<Object> points = new ArrayList<>();
            for (Point p : s.points()) {
                if (p.time() > since) {
                    points.add(List.of(p.time(), p.heapUsed(), p.heapCommitted(), p.heapMax(), round(p.cpuPercent()),
                            round(p.gcPercent()), p.threads()));
                }
            }
            // A pid is named by two records only when another user's control area names it too.
            int n = seen.merge(vm.pid(), 1, Integer::sum);
            vms.add(new Doc().put("id", vm.pid() + "-" + vm.startTime() + (n > 1 ? "-" + n : ""))
                    .put("pid", vm.pid()).put("user", vm.user()).put("mainClass", vm.mainClass())
                    .put("version", vm.version()).put("cluster", vm.clusterName()).put("points", points));
        }
        return Output.json(new Doc().put("now", lastPassMillis).put("keepMillis", KEEP_MILLIS).put("vms", vms),
                false);
    }

    private static double round(double value) {
        return value < 0 ? -1 : Math.round(value * 100) / 100.0;
    }
}
