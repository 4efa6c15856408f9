package com.nox.jvm.agent;

import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.file.Path;
import java.util.Arrays;

/**
 * What the agent costs a VM while it runs: the CPU time of one refresh (reading the MXBeans and
 * /proc/self/stat, writing the figures into a control-area file in /tmp) and of one look at the
 * request flags (the file's size, header and flags read back), measured on this
 * thread's CPU clock, and from them the CPU time per second at the default intervals (one
 * refresh a second, one look every 50 ms). The peer measured in the same run is the cheapest
 * figure a refresh reads, one MemoryMXBean heap reading. Each figure is the median of rounds.
 */
public final class AgentRefreshBench {
    private static final int ROUNDS = 9;
    private static final int PER_ROUND = 2000;

    private AgentRefreshBench() {
    }

    public static void main(String[] args) throws Exception {
        ThreadMXBean threads = ManagementFactory.getThreadMXBean();
        Path path = Path.of("/tmp/nox_agent_bench_" + ProcessHandle.current().pid());
        var memory = ManagementFactory.getMemoryMXBean();
        try (ProcSelf proc = new ProcSelf(); PublishedArea area = PublishedArea.create(path, ProcSelf.userId(1))) {
            area.publish(NoxAgent.identity((int) ProcessHandle.current().pid(), "bench"), new MxReadings.Figures());
            RequestWatcher watcher = new RequestWatcher(area, code -> { }, () -> { });
            MxReadings readings = new MxReadings(proc);
            MxReadings.Figures figures = new MxReadings.Figures();
            double[] refresh = new double[ROUNDS];
            double[] check = new double[ROUNDS];
            double[] heap = new double[ROUNDS];
            long sink = 0;
            for (int warm = 0; warm < 3; warm++) {
                for (int i = 0; i < PER_ROUND; i++) {
                    readings.read(figures);
                    area.refresh(figures);
                    sink += watcher.check() + memory.getHeapMemoryUsage().getUsed();
                }
            }
            for (int r = 0; r < ROUNDS; r++) {
                long t0 = threads.getCurrentThreadCpuTime();
                for (int i = 0; i < PER_ROUND; i++) {
                    readings.read(figures);
                    area.refresh(figures);
                }
                long t1 = threads.getCurrentThreadCpuTime();
                for (int i = 0; i < PER_ROUND; i++) {
                    sink += watcher.check();
                }
                long t2 = threads.getCurrentThreadCpuTime();
                for (int i = 0; i < PER_ROUND; i++) {
                    sink += memory.getHeapMemoryUsage().getUsed();
                }
                long t3 = threads.getCurrentThreadCpuTime();
                refresh[r] = (t1 - t0) / 1000.0 / PER_ROUND;
                check[r] = (t2 - t1) / 1000.0 / PER_ROUND;
                heap[r] = (t3 - t2) / 1000.0 / PER_ROUND;
            }
            double refreshUs = median(refresh);
            double checkUs = median(check);
            double heapUs = median(heap);
            double perSecondUs = refreshUs * (1000.0 / AgentOptions.DEFAULT_REFRESH)
                    + checkUs * (1000.0 / AgentOptions.DEFAULT_POLL);
            System.out.printf("collectors: %s%n", readings.collectorKinds());
            System.out.printf("one refresh:                 %8.2f us CPU (%.1f x one heap reading)%n", refreshUs,
                    refreshUs / heapUs);
            System.out.printf("one look at the 28 flags:    %8.3f us CPU%n", checkUs);
            System.out.printf("peer, one heap reading:      %8.3f us CPU%n", heapUs);
            System.out.printf("per second at the defaults:  %8.1f us CPU (%.4f %% of one CPU)%n", perSecondUs,
                    perSecondUs / 10_000.0);
            System.out.printf("(rounds: refresh %s)%n", Arrays.toString(round(refresh)));
            if (sink == 42) {
                System.out.println();
            }
        }
    }

    private static double median(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        return sorted[sorted.length / 2];
    }

    private static String[] round(double[] values) {
        return Arrays.stream(values).mapToObj(v -> String.format("%.1f", v)).toArray(String[]::new);
    }
}
