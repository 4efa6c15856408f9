package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.PlantedFiles;
import com.nox.jvm.inspector.testing.Vmsim;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Map;

import org.junit.jupiter.api.Test;

/**
 * {@code noxinspect watch} as a real process: VMs that run when it starts, VMs of process and
 * instance clusters that appear, end on request, on SIGTERM and killed outright. Instance
 * clusters 56 and 57 are this class's own.
 */
class WatchTest {
    /** Generous bounds for a loaded host; the benchmark measures the real latency. */
    private static final double SECONDS = 5;

    /**
     * The line of {@code event} for {@code pid}, among the lines already read or the next ones
     * (the order of events of different VMs is not fixed, so no line is thrown away).
     */
    private static LongRunning.Line await(LongRunning watch, String event, long pid) throws InterruptedException {
        return await(watch, event, event, pid);
    }

    /** As await, for either of two events. */
    private static LongRunning.Line await(LongRunning watch, String event, String orEvent, long pid)
            throws InterruptedException {
        String wanted = "\"event\":\"" + event + "\",";
        String orWanted = "\"event\":\"" + orEvent + "\",";
        String wantedPid = "\"pid\":" + pid + ",";
        for (LongRunning.Line line : watch.seen()) {
            if ((line.text().contains(wanted) || line.text().contains(orWanted)) && line.text().contains(wantedPid)) {
                return line;
            }
        }
        long deadline = System.nanoTime() + (long) (SECONDS * 1e9);
        while (true) {
            double left = (deadline - System.nanoTime()) / 1e9;
            if (left <= 0) {
                throw new AssertionError("watch reported no '" + event + "' of pid " + pid + " within " + SECONDS
                        + " s; it printed: " + watch.seen());
            }
            LongRunning.Line line = watch.poll(left);
            if (line != null && (line.text().contains(wanted) || line.text().contains(orWanted))
                    && line.text().contains(wantedPid)) {
                return line;
            }
        }
    }

    /**
     * Waits until watch runs: a VM started now is reported, as present when watch's first pass
     * sees it, else as appeared.
     */
    private static void awaitStarted(LongRunning watch) throws Exception {
        try (Vmsim marker = new Vmsim("--type", "process")) {
            await(watch, "present", "appeared", marker.pid());
        }
    }

    @Test
    void processVmsAppearAndVanish() throws Exception {
        try (Vmsim before = new Vmsim("--type", "process");
             LongRunning watch = new LongRunning("--json", "watch")) {
            LongRunning.Line present = await(watch, "present", before.pid());
            Map<String, String> fields = Launcher.flatJson(present.text());
            assertEquals("\"process:" + before.pid() + "\"", fields.get("cluster"));
            assertEquals("0", fields.get("slot"));
            assertTrue(fields.containsKey("time") && fields.containsKey("vmId"), fields.toString());

            Vmsim after = new Vmsim("--type", "process");
            try {
                await(watch, "appeared", after.pid());
            } finally {
                after.close();
            }
            await(watch, "vanished", after.pid());
            before.close();
            await(watch, "vanished", before.pid());
        }
    }

    /**
     * JDK VMs known by their performance data: one running before watch is present, one started
     * later appears once live and vanishes when it ends, one killed outright (its file stays)
     * vanishes too; all with the cluster "hotspot" and no cluster id, slot or VM id.
     */
    @Test
    void hotSpotVmsAppearAndVanish() throws Exception {
        String user = System.getProperty("user.name");
        JdkVm killed = null;
        try (JdkVm before = new JdkVm();
             LongRunning watch = new LongRunning("--json", "watch")) {
            assertTrue(before.awaitPerfDataFile(user), "the first JDK VM published no performance data");
            Map<String, String> present = Launcher.flatJson(await(watch, "present", "appeared", before.pid()).text());
            assertEquals("\"hotspot\"", present.get("cluster"), present.toString());
            assertEquals("\"hotspot\"", present.get("clusterType"), present.toString());
            assertEquals("null", present.get("slot"), present.toString());
            assertEquals("null", present.get("vmId"), present.toString());

            JdkVm after = new JdkVm();
            try {
                Map<String, String> appeared = Launcher.flatJson(await(watch, "appeared", after.pid()).text());
                assertEquals("\"hotspot\"", appeared.get("cluster"), appeared.toString());
            } finally {
                after.close();
            }
            await(watch, "vanished", after.pid());

            killed = new JdkVm();
            await(watch, "appeared", killed.pid());
            ProcessHandle.of(killed.pid()).ifPresent(ProcessHandle::destroyForcibly);
            await(watch, "vanished", killed.pid());
            for (LongRunning.Line line : watch.seen()) {
                assertFalse(line.text().contains("\"pid\":" + after.pid() + ",") && line.text().contains("\"cluster\":\"process"),
                        "a JDK VM without a control area is told only as hotspot: " + line.text());
            }
            long told = watch.seen().stream().filter(l -> l.text().contains("\"pid\":" + before.pid() + ",")).count();
            assertEquals(1, told, "the running JDK VM is told once: " + watch.seen());
        } finally {
            if (killed != null) {
                killed.close();
                // A VM killed outright leaves its performance-data file behind.
                Files.deleteIfExists(killed.perfDataFile(user));
            }
        }
    }

    /**
     * A VM that publishes both a control area and performance data is told once, under the
     * model's merged identity (its control area, with both sources), whether it runs when watch
     * starts or its performance data shows after its control area (then it is told as changed).
     * As in OneVmEverywhereTest, a simulated VM publishes the control area and a copy of a real
     * JDK VM's file, planted under its pid, plays its performance data.
     */
    @Test
    void aVmWithBothSourcesIsToldOnceUnderItsMergedIdentity() throws Exception {
        String user = System.getProperty("user.name");
        try (Vmsim sim = new Vmsim("--type", "process");
             JdkVm jdk = new JdkVm();
             PlantedFiles planted = new PlantedFiles()) {
            NoxinspectHotSpotTest.awaitListed(jdk);
            byte[] perfData = Files.readAllBytes(jdk.perfDataFile(user));
            planted.file(Path.of("/tmp", "hsperfdata_" + user, Long.toString(sim.pid())), perfData);
            try (LongRunning watch = new LongRunning("--json", "watch")) {
                Map<String, String> present = Launcher.flatJson(await(watch, "present", sim.pid()).text());
                assertEquals("\"process:" + sim.pid() + "\"", present.get("cluster"), present.toString());
                assertEquals("\"hotspot\"", present.get("sources.1"), present.toString());
                try (Vmsim later = new Vmsim("--type", "process")) {
                    await(watch, "appeared", later.pid());
                    planted.file(Path.of("/tmp", "hsperfdata_" + user, Long.toString(later.pid())), perfData);
                    Map<String, String> changed = Launcher.flatJson(await(watch, "changed", later.pid()).text());
                    assertEquals("\"process:" + later.pid() + "\"", changed.get("cluster"), changed.toString());
                    assertEquals("\"hotspot\"", changed.get("sources.1"), changed.toString());
                    later.close();
                    await(watch, "vanished", later.pid());
                    for (long pid : new long[] {sim.pid(), later.pid()}) {
                        for (LongRunning.Line line : watch.seen()) {
                            assertFalse(line.text().contains("\"pid\":" + pid + ",")
                                    && line.text().contains("\"cluster\":\"hotspot\""),
                                    "a VM with a control area is told under it only: " + line.text());
                        }
                    }
                    assertEquals(1, watch.seen().stream().filter(l -> l.text().contains("\"pid\":" + sim.pid() + ","))
                            .count(), "told once: " + watch.seen());
                }
            }
        }
    }

    @Test
    void instanceVmsAppearAndVanishOneByOne() throws Exception {
        try (LongRunning watch = new LongRunning("--json", "watch")) {
            awaitStarted(watch);
            try (Vmsim instance = new Vmsim("--type", "instance", "--id", "56", "--slots", "2")) {
                int[] pids = instance.slotPids();
                await(watch, "appeared", pids[0]);
                await(watch, "appeared", pids[1]);
                Launcher.Result exit = Launcher.run("exit", "instance:56:0", "3");
                assertEquals(0, exit.exitCode(), exit.toString());
                await(watch, "vanished", pids[0]);
                instance.close();
                await(watch, "vanished", pids[1]);
            }
        }
    }

    @Test
    void aKilledVmVanishesThoughItsFileStays() throws Exception {
        try (LongRunning watch = new LongRunning("watch")) {
            Vmsim victim = new Vmsim("--type", "process");
            long pid = victim.pid();
            Path file = Path.of(victim.field("file"));
            try {
                // Present when watch's first pass already saw it, else appeared.
                LongRunning.Line found = watch.nextContaining("process:" + pid + ":0", SECONDS);
                assertTrue(found.text().contains("appeared") || found.text().contains("present"), found.text());
                assertTrue(ProcessHandle.of(pid).map(ProcessHandle::destroyForcibly).orElse(false));
                LongRunning.Line vanished = watch.nextContaining("process:" + pid + ":0", SECONDS);
                assertTrue(vanished.text().contains("vanished"), vanished.text());
            } finally {
                victim.close();
                victim.removeEventSets();  // killed outright, vmsim could not remove them
                // A VM killed outright leaves its file; the next scan of the files removes it.
                Launcher.run("list");
            }
            assertFalse(Files.exists(file), "the stale file of the killed VM is removed by the next list");
        }
    }

    @Test
    void anInstanceClusterThatStartsWithWatchIsPresent() throws Exception {
        try (Vmsim instance = new Vmsim("--type", "instance", "--id", "57", "--slots", "3", "--dead", "1");
             LongRunning watch = new LongRunning("--json", "watch")) {
            int[] pids = instance.slotPids();
            await(watch, "present", pids[0]);
            await(watch, "present", pids[2]);
            awaitStarted(watch);
            instance.close();
            await(watch, "vanished", pids[0]);
            await(watch, "vanished", pids[2]);
        }
    }
}
