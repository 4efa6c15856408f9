package com.nox.jvm.inspector.testing;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;
import java.lang.management.MemoryUsage;
import java.nio.charset.StandardCharsets;

/**
 * The main class of the real JDK VMs that tests start (see {@link JdkVm}): prints READY with its
 * pid, then sleeps, answering one command per line on stdin: "readings" prints its own MXBean
 * figures (heap committed, used and maximum in bytes, start time in epoch milliseconds, GC count,
 * process CPU time in ns); "gc" collects; "churn" allocates 256 MiB in 1 KiB arrays, the last
 * 4 MiB of them kept alive, so that young collections run and leave survivors; end of input ends
 * the VM.
 */
public final class SleepingVm {
    private SleepingVm() {
    }

    public static void main(String[] args) throws Exception {
        System.out.println("READY " + ProcessHandle.current().pid());
        System.out.flush();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        for (String line = in.readLine(); line != null; line = in.readLine()) {
            if (line.equals("readings")) {
                System.out.println(readings());
            } else if (line.equals("churn")) {
                byte[][] kept = new byte[4096][];
                for (int i = 0; i < 256 * 1024; i++) {
                    kept[i % kept.length] = new byte[1024];
                }
                System.out.println("CHURNED " + kept.length);
            } else if (line.equals("gc")) {
                System.gc();
                System.out.println("GC");
            }
            System.out.flush();
        }
    }

    private static String readings() {
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
