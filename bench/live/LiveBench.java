package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * What watching costs, with real processes:
 * 1. `noxinspect stat PID 100` (10 samples a second) against one sleeping JDK VM: the CPU time of
 *    the sampler's process over 30 s once it runs, beside an idle JVM started with the same options
 *    (the JVM's own housekeeping, the floor), as a share of one CPU;
 * 2. `top` with 50 simulated VMs (an instance cluster, id 52, this benchmark's own), refreshing
 *    every second: CPU time per refresh of the `noxinspect top -b -d 1` process, and in this JVM
 *    the CPU time of one refresh (snapshot, loads, table) beside the snapshot alone.
 * Started by `cmake --build <dir> --target bench_live`; not a test.
 */
public final class LiveBench {
    private static final String VMSIM = System.getProperty("nox.vmsim");
    private static final String LAUNCHER = System.getProperty("nox.launcher");
    private static final String BUILD = System.getProperty("nox.build.dir");
    private static final String IDLE_CLASSES = System.getProperty("nox.idle.classes");
    private static final double TICKS = 100;
    private static final int WARM_SECONDS = 10;
    private static final int MEASURED_SECONDS = 30;

    private LiveBench() {
    }

    public static void main(String[] args) throws Exception {
        statCost();
        topCost();
    }

    /** User plus system seconds of a process so far. */
    static double cpuSeconds(long pid) throws IOException {
        String stat = Files.readString(Path.of("/proc", Long.toString(pid), "stat"));
        String[] f = stat.substring(stat.lastIndexOf(')') + 2).split(" ");
        return (Long.parseLong(f[11]) + Long.parseLong(f[12])) / TICKS;
    }

    private static Process start(List<String> command, AtomicLong lines) throws IOException {
        ProcessBuilder builder = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT);
        builder.environment().put("NOX_BUILD_DIR", BUILD);
        Process p = builder.start();
        Thread reader = new Thread(() -> {
            try (BufferedReader in = new BufferedReader(new InputStreamReader(p.getInputStream(),
                    StandardCharsets.UTF_8))) {
                while (in.readLine() != null) {
                    lines.incrementAndGet();
                }
            } catch (IOException e) {
                // ended
            }
        });
        reader.setDaemon(true);
        reader.start();
        return p;
    }

    private static String java() {
        return Path.of(System.getProperty("java.home"), "bin", "java").toString();
    }

    /** CPU seconds and lines of each process over the measured window, after the warm-up. */
    private static double[][] measure(Process[] processes, AtomicLong[] lines) throws Exception {
        Thread.sleep(WARM_SECONDS * 1000L);
        double[][] from = new double[processes.length][2];
        for (int i = 0; i < processes.length; i++) {
            from[i] = new double[] {cpuSeconds(processes[i].pid()), lines[i].get()};
        }
        Thread.sleep(MEASURED_SECONDS * 1000L);
        double[][] used = new double[processes.length][2];
        for (int i = 0; i < processes.length; i++) {
            used[i] = new double[] {cpuSeconds(processes[i].pid()) - from[i][0], lines[i].get() - from[i][1]};
        }
        return used;
    }

    private static void statCost() throws Exception {
        Process vm = new ProcessBuilder(java(), "-Xmx64m", "-cp", IDLE_CLASSES, "Idle", "3600000").start();
        Process stat = null;
        Process idle = null;
        try {
            Thread.sleep(2000);
            AtomicLong[] lines = {new AtomicLong(), new AtomicLong()};
            stat = start(List.of(LAUNCHER, "stat", Long.toString(vm.pid()), "100"), lines[0]);
            // The launcher's options for stat: C1 only, the serial collector, no perf-data file.
            idle = start(List.of(java(), "-XX:TieredStopAtLevel=1", "-XX:+UseSerialGC", "-XX:-UsePerfData",
                    "-Xshare:auto", "-cp", IDLE_CLASSES, "Idle", "3600000"), lines[1]);
            double[][] used = measure(new Process[] {stat, idle}, lines);
            double samples = used[0][1];
            System.out.printf(Locale.ROOT, "stat PID 100 over %d s: %.0f samples (%.1f a second), %.3f s of CPU = "
                    + "%.2f %% of one CPU (%.1f us a sample)%n", MEASURED_SECONDS, samples, samples / MEASURED_SECONDS,
                    used[0][0], used[0][0] * 100 / MEASURED_SECONDS, used[0][0] * 1e6 / Math.max(1, samples));
            System.out.printf(Locale.ROOT, "idle JVM, same options, same %d s: %.3f s of CPU = %.2f %% of one CPU; "
                    + "the sampling itself: %.2f %%%n", MEASURED_SECONDS, used[1][0], used[1][0] * 100 / MEASURED_SECONDS,
                    (used[0][0] - used[1][0]) * 100 / MEASURED_SECONDS);
        } finally {
            for (Process p : new Process[] {stat, idle, vm}) {
                if (p != null) {
                    p.destroy();
                    p.waitFor(10, TimeUnit.SECONDS);
                }
            }
        }
    }

    private static void topCost() throws Exception {
        Process vmsim = new ProcessBuilder(VMSIM, "--type", "instance", "--id", "52", "--slots", "50")
                .redirectError(ProcessBuilder.Redirect.INHERIT).start();
        Process top = null;
        try {
            String ready = new BufferedReader(new InputStreamReader(vmsim.getInputStream(), StandardCharsets.UTF_8))
                    .readLine();
            if (ready == null || !ready.startsWith("READY ")) {
                throw new IllegalStateException("vmsim did not start: " + ready);
            }
            inProcess();
            AtomicLong[] lines = {new AtomicLong()};
            top = start(List.of(LAUNCHER, "top", "-b", "-d", "1"), lines[0]);
            double[][] used = measure(new Process[] {top}, lines);
            // Each refresh prints its title, the header and a line per VM, and a blank line between.
            System.out.printf(Locale.ROOT, "top -b -d 1 with %d VMs over %d s: %.3f s of CPU, %.2f ms a refresh "
                    + "(%.2f %% of one CPU)%n", vms(), MEASURED_SECONDS, used[0][0],
                    used[0][0] * 1000 / MEASURED_SECONDS, used[0][0] * 100 / MEASURED_SECONDS);
        } finally {
            if (top != null) {
                top.destroy();
                top.waitFor(10, TimeUnit.SECONDS);
            }
            vmsim.destroy();
            vmsim.waitFor(10, TimeUnit.SECONDS);
        }
    }

    private static int vms() {
        return new Host().snapshot().vms().size();
    }

    /** In this JVM: one refresh of top against the snapshot alone, median CPU time of many. */
    private static void inProcess() {
        ThreadMXBean threads = ManagementFactory.getThreadMXBean();
        Host host = new Host();
        LoadTracker loads = new LoadTracker();
        int rounds = 300;
        long[] pass = new long[rounds];
        long[] refresh = new long[rounds];
        int vms = 0;
        for (int round = 0; round < 2 * rounds; round++) {
            long began = threads.getCurrentThreadCpuTime();
            HostSnapshot snapshot = host.snapshot();
            long snapshotDone = threads.getCurrentThreadCpuTime();
            Map<HostVm.Key, LoadTracker.Load> measured = loads.update(snapshot);
            List<TopTable.Row> rows = TopTable.sort(TopTable.rows(snapshot, measured, System.currentTimeMillis() / 1000),
                    TopTable.Sort.CPU, false);
            List<String> lines = new ArrayList<>(TopTable.lines(rows, 160));
            long done = threads.getCurrentThreadCpuTime();
            vms = Math.max(vms, lines.size() - 1);
            if (round >= rounds) {
                pass[round - rounds] = snapshotDone - began;
                refresh[round - rounds] = done - began;
            }
        }
        Arrays.sort(pass);
        Arrays.sort(refresh);
        double p = pass[rounds / 2] / 1e6;
        double r = refresh[rounds / 2] / 1e6;
        System.out.printf(Locale.ROOT, "in this JVM, %d VMs, median of %d: host snapshot %.3f ms of CPU; top's "
                + "refresh (snapshot, CPU readings, table) %.3f ms (%.2fx the snapshot alone)%n", vms, rounds, p, r,
                r / p);
    }
}
