package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.testing.AgentTarget;
import com.nox.jvm.inspector.testing.AgentVm;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * tools/noxinspect against real JDK 17 VMs: one started with nox-agent.jar, whose control-area
 * file someone cuts, overwrites and deletes while it runs (the agent publishes again each time,
 * with the VM's current figures, and says so once on standard error), and one that gets the agent
 * through {@code noxinspect attach}. Other tests run VMs at the same time, so only our own VMs'
 * entries are asserted on.
 */
class NoxinspectAgentTest {
    /**
     * The index of the VM with this pid that publishes a control area; -1 when there is none. A
     * stock VM is also listed, without a control area, from its performance data.
     */
    private static int vmIndex(Map<String, String> flat, long pid) {
        for (int i = 0; flat.containsKey("vms." + i + ".pid"); i++) {
            if (flat.get("vms." + i + ".pid").equals(Long.toString(pid))
                    && q("control-area").equals(flat.get("vms." + i + ".sources.0"))) {
                return i;
            }
        }
        return -1;
    }

    /** How many entries of the list name this pid. */
    private static int entriesOf(Map<String, String> flat, long pid) {
        int count = 0;
        for (int i = 0; flat.containsKey("vms." + i + ".pid"); i++) {
            if (flat.get("vms." + i + ".pid").equals(Long.toString(pid))) {
                count++;
            }
        }
        return count;
    }

    private static String q(String text) {
        return "\"" + text + "\"";
    }

    /** Runs {@code --json list} until the VM is in it (at most {@code seconds}); the flattened answer. */
    private static Map<String, String> listUntilPresent(long pid, int seconds) throws Exception {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
        while (true) {
            Launcher.Result r = Launcher.run("--json", "list");
            assertEquals(0, r.exitCode(), r.toString());
            Map<String, String> flat = Launcher.flatJson(r.out());
            if (vmIndex(flat, pid) >= 0) {
                return flat;
            }
            if (System.nanoTime() - deadline > 0) {
                fail("VM pid " + pid + " not in noxinspect --json list within " + seconds + " s:\n" + r);
            }
        }
    }

    /** The whole file: an 8-byte lead-in, the header and instance area (288), one per-VM area (46072). */
    private static final int FILE_SIZE = 8 + 288 + 46072;
    /** The start-debugging flag of the one slot, from the start of the file. */
    private static final int START_DEBUGGING_FLAG = 8 + 288 + 4;

    /** One way of damaging the file. */
    private interface Damage {
        void apply(Path file) throws IOException;
    }

    private record Case(String name, Damage damage) {
    }

    private static final List<Case> CASES = List.of(
            new Case("cut to 0 bytes", file -> cut(file, 0)),
            new Case("cut to 8 bytes", file -> cut(file, 8)),
            new Case("cut inside the per-VM area", file -> cut(file, 20000)),
            new Case("header overwritten", file -> overwrite(file, 0, 64, (byte) 0x5A)),
            new Case("deleted", Files::delete));

    private static void cut(Path file, long size) throws IOException {
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
            channel.truncate(size);
        }
    }

    private static void overwrite(Path file, long at, int count, byte value) throws IOException {
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
            ByteBuffer bytes = ByteBuffer.allocate(count);
            while (bytes.hasRemaining()) {
                bytes.put(value);
            }
            bytes.flip();
            while (bytes.hasRemaining()) {
                channel.write(bytes, at + bytes.position());
            }
        }
    }

    @Test
    void listInfoDebugAndExitOfAnAgentVmWhoseFileIsDamagedWhileItRuns() throws Exception {
        Path errors = Files.createTempFile("nox-agent-cut-test", ".err");
        Path file;
        try {
            try (AgentVm vm = AgentVm.withAgentErrorsTo(errors, "refresh=100", "alpha", "beta")) {
                file = vm.controlAreaFile();
                Map<String, String> list = listUntilPresent(vm.pid(), 5);
                int i = vmIndex(list, vm.pid());
                assertEquals(q("process:" + vm.pid()), list.get("vms." + i + ".cluster"));
                assertEquals("0", list.get("vms." + i + ".slot"));
                assertEquals(q(AgentTarget.class.getName()), list.get("vms." + i + ".mainClass"));
                assertEquals(q("NOT_ACTIVE"), list.get("vms." + i + ".debuggingState"));
                assertTrue(list.get("vms." + i + ".version").contains(System.getProperty("java.vm.version")));
                Launcher.Result text = Launcher.run("list");
                assertEquals(0, text.exitCode(), text.toString());
                assertTrue(text.out().lines().anyMatch(l -> l.contains(" " + vm.pid() + " ")
                        && l.contains(AgentTarget.class.getName())), text.toString());

                // The figures themselves are the cluster API test's; info shows them as they are read.
                Map<String, Long> before = vm.readings();
                Launcher.Result r = Launcher.run("--json", "info", Long.toString(vm.pid()));
                assertEquals(0, r.exitCode(), r.toString());
                Map<String, String> flat = Launcher.flatJson(r.out());
                assertEquals(Long.toString(before.get("committed")), flat.get("memory.committedJavaHeap"), r.toString());
                assertEquals(Long.toString(before.get("max")), flat.get("memory.maxOldGenSize"));
                // The process start time is whole seconds; the VM's own start time a little later.
                long startSeconds = Long.parseLong(flat.get("vm.startTime"));
                long vmStart = before.get("start") / 1000;
                assertTrue(startSeconds <= vmStart && vmStart - startSeconds <= 2,
                        "process started " + startSeconds + ", VM says " + vmStart);
                assertEquals(q(AgentTarget.class.getName() + " alpha beta"), flat.get("start.javaArguments"));
                assertTrue(flat.get("start.vmArguments").contains("-javaagent:"), flat.get("start.vmArguments"));
                assertEquals(q(System.getProperty("user.dir")), flat.get("start.workingDirectory"));
                assertTrue(Long.parseLong(flat.get("time.processingTime")) > 0, r.toString());

                for (Case c : CASES) {
                    c.damage().apply(vm.controlAreaFile());
                    vm.gc();  // a figure that changes after the damage: the agent must still refresh
                    awaitCurrentFigures(vm, "after the file was " + c.name());
                    assertEquals(FILE_SIZE, Files.size(vm.controlAreaFile()), c.name());
                }

                // A stock VM does not debug on demand: the request is raised, cleared, and changes nothing.
                Launcher.Result debug = Launcher.run("--json", "debug", "start", Long.toString(vm.pid()));
                assertEquals(0, debug.exitCode(), debug.toString());
                assertEquals("true", Launcher.flatJson(debug.out()).get("raised"), debug.toString());
                awaitFlagCleared(vm.controlAreaFile(), START_DEBUGGING_FLAG);
                Launcher.Result start = Launcher.run("debug", "start", Long.toString(vm.pid()));
                assertTrue(start.out().contains("it does not debug on demand"), start.toString());
                Launcher.Result info = Launcher.run("info", Long.toString(vm.pid()));
                assertTrue(info.out().lines().anyMatch(l -> l.trim().matches("on demand\\s+no")), info.toString());
                assertTrue(info.out().lines().anyMatch(l -> l.trim().matches("state\\s+not-active")), info.toString());

                Launcher.Result exit = Launcher.run("exit", Long.toString(vm.pid()), "4");
                assertEquals(0, exit.exitCode(), exit.toString());
                assertEquals(4, vm.awaitExit(5), "the VM did not end with status 4 within 5 s");
                assertFalse(Files.exists(vm.controlAreaFile()), "the file made again is removed at the end");
            }
            String said = Files.readString(errors);
            assertFalse(said.contains("\tat ") || said.contains("Exception") || said.contains("Error"),
                    "a stack trace on the VM's standard error:\n" + said);
            List<String> lines = said.lines().filter(l -> l.startsWith("nox-agent")).toList();
            assertEquals(1, lines.size(), "the agent reports the damage once:\n" + said);
            assertTrue(lines.get(0).contains(file.toString()), lines.get(0));
        } finally {
            Files.deleteIfExists(errors);
        }
    }

    @Test
    void attachMakesARunningVmVisibleAndRefusesWhatIsNoVmOfTheUser() throws Exception {
        try (AgentVm vm = AgentVm.plain("plain")) {
            Launcher.Result before = Launcher.run("--json", "list");
            assertEquals(-1, vmIndex(Launcher.flatJson(before.out()), vm.pid()), before.toString());
            assertEquals(1, entriesOf(Launcher.flatJson(before.out()), vm.pid()), "listed from its performance data");

            Launcher.Result attach = Launcher.run("attach", Long.toString(vm.pid()), "refresh=200");
            assertEquals(0, attach.exitCode(), attach.toString());
            assertTrue(attach.out().contains("VM pid " + vm.pid() + " now publishes its control area"), attach.toString());

            Map<String, String> flat = Launcher.flatJson(Launcher.run("--json", "list").out());
            int i = vmIndex(flat, vm.pid());
            assertTrue(i >= 0, "attached VM not listed");
            assertEquals(q(AgentTarget.class.getName()), flat.get("vms." + i + ".mainClass"));
            // Both sources describe one VM: it is listed once, with both.
            assertEquals(1, entriesOf(flat, vm.pid()), "the attached VM is listed once");
            assertEquals(q("hotspot"), flat.get("vms." + i + ".sources.1"));

            Launcher.Result again = Launcher.run("--json", "attach", Long.toString(vm.pid()));
            assertEquals(0, again.exitCode(), again.toString());
            Map<String, String> answer = Launcher.flatJson(again.out());
            assertEquals("false", answer.get("attached"));
            assertEquals("true", answer.get("publishing"));

            // The VM the agent came to answers requests like one that had it from the start.
            assertEquals(0, Launcher.run("exit", Long.toString(vm.pid()), "7").exitCode());
            assertEquals(7, vm.awaitExit(5), "the attached VM did not end with status 7 within 5 s");
        }
        Process sleeper = new ProcessBuilder("sleep", "30").start();
        try {
            Launcher.Result notVm = Launcher.run("attach", Long.toString(sleeper.pid()));
            assertEquals(1, notVm.exitCode(), notVm.toString());
            assertTrue(notVm.err().contains("is not a Java VM"), notVm.toString());
            assertTrue(sleeper.isAlive(), "the probe must not signal a process that is not a VM");
        } finally {
            sleeper.destroyForcibly();
            sleeper.waitFor(5, TimeUnit.SECONDS);
        }
        Launcher.Result gone = Launcher.run("attach", Long.toString(sleeper.pid()));
        assertEquals(1, gone.exitCode(), gone.toString());
        assertTrue(gone.err().contains("no process with pid " + sleeper.pid()), gone.toString());

        Launcher.Result usage = Launcher.run("attach", "zero");
        assertEquals(2, usage.exitCode(), usage.toString());

        try (AgentVm closed = AgentVm.plainWith(List.of("-XX:+DisableAttachMechanism"))) {
            Launcher.Result refused = Launcher.run("attach", Long.toString(closed.pid()));
            assertEquals(1, refused.exitCode(), refused.toString());
            assertTrue(refused.err().contains("VM pid " + closed.pid() + " does not accept attach requests"),
                    refused.toString());
            assertTrue(closed.process().isAlive(), "a VM that refuses the attach runs on");
        }
    }

    /**
     * Waits (at most 5 s) until {@code info} reads the VM's control area with the collections the
     * VM itself counts, which the agent publishes within one refresh.
     */
    private static void awaitCurrentFigures(AgentVm vm, String when) throws Exception {
        long gcs = vm.readings().get("gcs");
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(5);
        Launcher.Result last = null;
        while (System.nanoTime() - deadline < 0) {
            last = Launcher.run("--json", "info", Long.toString(vm.pid()));
            if (last.exitCode() == 0) {
                Map<String, String> flat = Launcher.flatJson(last.out());
                if (("\"process:" + vm.pid() + "\"").equals(flat.get("vm.cluster"))
                        && Long.toString(gcs).equals(flat.get("memory.numberOfGcs"))) {
                    return;
                }
            }
            Thread.sleep(50);
        }
        fail("the VM's control area did not show its " + gcs + " collections within 5 s " + when + ":\n" + last);
    }

    /** Waits (at most 5 s) until the int32 at {@code offset} of the file reads 0. */
    private static void awaitFlagCleared(Path file, int offset) throws Exception {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(5);
        while (System.nanoTime() - deadline < 0) {
            ByteBuffer bytes = ByteBuffer.wrap(Files.readAllBytes(file)).order(ByteOrder.nativeOrder());
            if (bytes.capacity() >= offset + 4 && bytes.getInt(offset) == 0) {
                return;
            }
            Thread.sleep(20);
        }
        fail("the agent did not clear the request flag at " + offset + " within 5 s");
    }
}
