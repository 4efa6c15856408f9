package com.nox.jvm.inspector.testing;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.lang.management.ManagementFactory;
import java.lang.management.MemoryUsage;
import java.nio.charset.StandardCharsets;

/**
 * The main class of the real JDK VMs that tests start (see {@link JdkVm}): prints READY with its
 * pid, then sleeps, answering one command per line on stdin: "heap" prints the heap as its own
 * MemoryMXBean sees it ("HEAP used committed max"); "gc" collects; "churn" allocates 256 MiB in
 * 1 KiB arrays, the last 4 MiB of them kept alive, so that young collections run and leave
 * survivors; end of input ends the VM.
 */
public final class SleepingVm {
    private SleepingVm() {
    }

    public static void main(String[] args) throws Exception {
        System.out.println("READY " + ProcessHandle.current().pid());
        System.out.flush();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        for (String line = in.readLine(); line != null; line = in.readLine()) {
            if (line.equals("heap")) {
                MemoryUsage heap = ManagementFactory.getMemoryMXBean().getHeapMemoryUsage();
                System.out.println("HEAP " + heap.getUsed() + " " + heap.getCommitted() + " " + heap.getMax());
                System.out.flush();
            } else if (line.equals("churn")) {
                byte[][] kept = new byte[4096][];
                for (int i = 0; i < 256 * 1024; i++) {
                    kept[i % kept.length] = new byte[1024];
                }
                System.out.println("CHURNED " + kept.length);
                System.out.flush();
            } else if (line.equals("gc")) {
                System.gc();
                System.out.println("GC");
                System.out.flush();
            }
        }
    }
}
