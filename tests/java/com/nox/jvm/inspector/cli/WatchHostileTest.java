package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.Vmsim;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * {@code watch} against a neighbour who plants, touches and deletes names under /tmp: forged
 * deletions end no VM, and a storm of names does not delay the report of a new VM.
 */
class WatchHostileTest {
    private static final String USER = System.getProperty("user.name");

    /** Runs a shell script as nobody when root (a second user), else as this user; returns it started. */
    private static Process script(String script) throws IOException {
        List<String> command = new ArrayList<>(SecondUserTest.isRoot() ? SecondUserTest.AS_NOBODY : List.of());
        command.addAll(List.of("sh", "-c", script));
        return new ProcessBuilder(command).redirectErrorStream(true).start();
    }

    private static String uid() throws IOException {
        return SecondUserTest.isRoot() ? "65534" : Files.getAttribute(Path.of("/proc/self"), "unix:uid").toString();
    }

    private static boolean saw(LongRunning watch, String event, long pid) {
        return watch.seen().stream().anyMatch(l -> l.text().contains("\"event\":\"" + event + "\"")
                && l.text().contains("\"pid\":" + pid + ","));
    }

    /** Reads watch's lines for {@code seconds}. */
    private static void drain(LongRunning watch, double seconds) throws InterruptedException {
        long end = System.nanoTime() + (long) (seconds * 1e9);
        while (System.nanoTime() < end) {
            watch.poll(Math.max(0.01, (end - System.nanoTime()) / 1e9));
        }
    }

    /**
     * Another user creates and deletes a control-area name of its own under the pid of root's
     * simulated VM, and a performance-data file under the pid of root's JDK VM in its own folder:
     * neither VM is reported vanished; their real ends still are.
     */
    @Test
    void forgedDeletionsEndNoVm() throws Exception {
        assumeTrue(SecondUserTest.isRoot(), "needs root to run a second user (setpriv): skipped");
        Path folder = Path.of("/tmp/hsperfdata_nobody");
        boolean made = !Files.exists(folder);
        try (Vmsim sim = new Vmsim("--type", "process");
             JdkVm jdk = new JdkVm();
             LongRunning watch = new LongRunning("--json", "watch")) {
            assertTrue(jdk.awaitPerfDataFile(USER));
            NoxinspectHotSpotTest.awaitListed(jdk);
            watch.nextContaining("\"pid\":" + sim.pid() + ",", 20);
            while (!saw(watch, "present", jdk.pid()) && !saw(watch, "appeared", jdk.pid())) {
                watch.next(20, "the JDK VM");
            }
            Process forger = script("mkdir -p -m 700 /tmp/hsperfdata_nobody; for i in 1 2 3; do "
                    + ": > /tmp/nox_jvm_65534_" + sim.pid() + "; : > /tmp/hsperfdata_nobody/" + jdk.pid()
                    + "; sleep 0.1; rm -f /tmp/nox_jvm_65534_" + sim.pid() + " /tmp/hsperfdata_nobody/" + jdk.pid()
                    + "; sleep 0.1; done");
            assertTrue(forger.waitFor(20, TimeUnit.SECONDS) && forger.exitValue() == 0,
                    new String(forger.getInputStream().readAllBytes()));
            drain(watch, 1.0);
            assertTrue(!saw(watch, "vanished", sim.pid()) && !saw(watch, "vanished", jdk.pid()),
                    "a forged deletion ended a VM: " + watch.seen());
            sim.close();
            jdk.close();
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(20);
            while (!(saw(watch, "vanished", sim.pid()) && saw(watch, "vanished", jdk.pid()))
                    && System.nanoTime() < deadline) {
                watch.poll(0.5);
            }
            assertTrue(saw(watch, "vanished", sim.pid()) && saw(watch, "vanished", jdk.pid()),
                    "the real ends are told: " + watch.seen());
        } finally {
            if (made) {
                Files.deleteIfExists(folder);
            }
        }
    }

    /**
     * 2,000 empty control-area names, 400 of them touched every 2 s (by a second user when this
     * runs as root): a VM started meanwhile is still reported within 1 s of its READY line.
     */
    @Test
    void aStormOfNamesDoesNotDelayANewVm() throws Exception {
        int base = Integer.parseInt(Files.readString(Path.of("/proc/sys/kernel/pid_max")).trim()) + 1000;
        String names = "/tmp/nox_jvm_" + uid() + "_";
        String touched = "$(i=0; while [ $i -lt 400 ]; do echo " + names + "$((" + base + " + i * 5)); i=$((i+1)); done)";
        Process storm = script("i=0; while [ $i -lt 2000 ]; do : > " + names + "$((" + base + " + i)); i=$((i+1)); done; "
                + "echo READY; t=\"" + touched + "\"; while :; do touch $t; sleep 2; done");
        try (LongRunning watch = new LongRunning("--json", "watch")) {
            assertTrue(new String(storm.getInputStream().readNBytes(6)).startsWith("READY"), "the storm did not start");
            try (Vmsim marker = new Vmsim("--type", "process")) {
                watch.nextContaining("\"pid\":" + marker.pid() + ",", 20);
            }
            Thread.sleep(2500);  // at least one round of touches
            for (int round = 0; round < 3; round++) {
                try (Vmsim vm = new Vmsim("--type", "process")) {
                    long ready = System.nanoTime();
                    LongRunning.Line line = watch.nextContaining("\"pid\":" + vm.pid() + ",", 20);
                    double seconds = (line.nanos() - ready) / 1e9;
                    assertTrue(seconds < 1.0, "new VM reported after " + seconds + " s under the storm");
                }
                Thread.sleep(700);
            }
        } finally {
            storm.destroyForcibly();
            storm.waitFor(10, TimeUnit.SECONDS);
            for (int i = 0; i < 2000; i++) {
                Files.deleteIfExists(Path.of(names + (base + i)));
            }
        }
    }
}
