package com.nox.jvm.inspector.testing;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;
import java.lang.management.MemoryUsage;
import java.nio.charset.StandardCharsets;

/**
 * The main class of the real JDK VMs that the agent tests start. Prints "UP pid=<pid>" and then
 * answers commands read from standard input, one a line:
 * <ul>
 * <li>{@code readings}: one line "READINGS" with its own MXBean figures (heap committed, used and
 * maximum in bytes, start time in epoch milliseconds, GC count, process CPU time in ns);</li>
 * <li>{@code gc}: runs {@code System.gc()} and prints "GC".</li>
 * </ul>
 * The end of standard input ends it with status 0.
 */
public final class AgentTarget {
    private AgentTarget() {
    }

    public static void main(String[] args) throws Exception {
        System.out.println("UP pid=" + ProcessHandle.current().pid());
        System.out.flush();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        for (String line = in.readLine(); line != null; line = in.readLine()) {
            if (line.equals("readings")) {
                System.out.println(readings());
            } else if (line.equals("gc")) {
                System.gc();
                System.out.println("GC");
            }
            System.out.flush();
        }
    }

    static String readings() {
        MemoryUsage heap = ManagementFactory.getMemoryMXBean().getHeapMemoryUsage();
        long gcs = 0;
        for (GarbageCollectorMXBean gc : ManagementFactory.getGarbageCollectorMXBeans()) {
            gcs += Math.max(0, gc.getCollectionCount());
        }
        long cpu = ((com.sun.management.OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean())
                .getProcessCpuTime();
        return "READINGS committed=" + heap.getCommitted() + " used=" + heap.getUsed() + " max=" + heap.getMax()
                + " start=" + ManagementFactory.getRuntimeMXBean().getStartTime() + " gcs=" + gcs + " cpu=" + cpu;
    }
}
