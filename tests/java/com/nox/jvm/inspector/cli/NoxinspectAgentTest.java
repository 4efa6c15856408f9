package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmInspector;
import com.nox.jvm.inspector.cluster.VmInspector.Vm;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.cluster.VmTimeInfo;
import com.nox.jvm.inspector.filesocket.FileSocket;
import com.nox.jvm.inspector.filesocket.FileSocketAddress;
import com.nox.jvm.inspector.natives.InspectorNatives;
import com.nox.jvm.inspector.testing.AgentTarget;
import com.nox.jvm.inspector.testing.AgentVm;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.function.BooleanSupplier;

import org.junit.jupiter.api.Test;

/**
 * Real JDK 17 VMs that run nox-agent.jar (no simulated VM), read through the Java cluster API
 * and through tools/noxinspect: what a stock VM publishes, compared with what the VM itself reads
 * from its MXBeans; requests; the profiling server; the control-area file cut, overwritten and
 * deleted while the VM runs (the agent publishes again each time, with the VM's current figures,
 * and says so once on standard error); the files' removal; and a VM that gets the agent through
 * {@code noxinspect attach}. Other tests run VMs at the same time, so only our own VMs' entries
 * are asserted on.
 */
class NoxinspectAgentTest {
    private static final long MIB = 1024 * 1024;
    /** Offset of the VM's slot in the file: the lead-in and the 64-bit instance area. */
    private static final int SLOT = 8 + 288;
    /** The whole file: the lead-in, the header and instance area, one per-VM area (46072). */
    private static final int FILE_SIZE = SLOT + 46072;

    private final VmInspector inspector = new VmInspector();

    /** Waits up to {@code millis} for {@code condition}; fails with {@code what} when it does not come. */
    private static void await(long millis, String what, BooleanSupplier condition) throws InterruptedException {
        long deadline = System.nanoTime() + millis * 1_000_000;
        while (!condition.getAsBoolean()) {
            if (System.nanoTime() - deadline > 0) {
                fail(what + " did not happen within " + millis + " ms");
            }
            Thread.sleep(20);
        }
    }

    private Vm listed(AgentVm vm) throws InterruptedException {
        await(5000, "VM pid " + vm.pid() + " being listed", () -> inspector.byPid(vm.intPid()).isPresent());
        return inspector.byPid(vm.intPid()).orElseThrow();
    }

    /** The request flag at {@code offset} of the VM's slot; 0 once the agent has served it. */
    private static int flag(AgentVm vm, int offset) {
        try (FileChannel channel = FileChannel.open(vm.controlAreaFile(), StandardOpenOption.READ)) {
            ByteBuffer b = ByteBuffer.allocate(4).order(ByteOrder.nativeOrder());
            channel.read(b, SLOT + offset);
            return b.getInt(0);
        } catch (IOException e) {
            throw new AssertionError(e);
        }
    }

    private static void raiseFlag(AgentVm vm, int offset) throws IOException {
        try (FileChannel channel = FileChannel.open(vm.controlAreaFile(), StandardOpenOption.WRITE)) {
            channel.write(ByteBuffer.allocate(4).order(ByteOrder.nativeOrder()).putInt(0, 1), SLOT + offset);
        }
    }

    private static long gcs(AgentVm vm) {
        try {
            return vm.readings().get("gcs");
        } catch (IOException e) {
            throw new AssertionError(e);
        }
    }

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
    void aStockVmWithTheAgentThroughTheApiAndTheCommandsWhileItsFileIsDamaged() throws Exception {
        Path errors = Files.createTempFile("nox-agent-cut-test", ".err");
        try {
            try (AgentVm vm = AgentVm.withAgentErrorsTo(errors, "refresh=100", "first", "second")) {
                Vm listed = listed(vm);
                assertEquals(ClusterType.PROCESS, listed.ref().type());
                assertEquals(vm.intPid(), listed.ref().clusterId());
                assertEquals(0, listed.ref().slot());
                assertEquals(1, listed.vmId());
                assertEquals(vm.intPid(), inspector.state(listed.ref()).orElseThrow().pid());
                VmStartInfo start = inspector.startInfo(listed.ref()).orElseThrow();
                assertEquals(AgentTarget.class.getName(), start.mainClass());
                assertEquals(AgentTarget.class.getName() + " first second", start.javaArguments());
                assertTrue(start.vmArguments().contains("-javaagent:" + AgentVm.agentJar()), start.vmArguments());
                assertEquals(System.getProperty("user.dir"), start.workingDirectory());
                assertTrue(start.vmVersion().contains(System.getProperty("java.vm.version")), start.vmVersion());
                assertEquals("nox-agent", start.vmTag());
                assertTrue(start.hasMetaspace());
                assertFalse(start.runsWithMonitoringBoard());
                assertTrue(start.vmFlags().contains("-XX:+UseSerialGC"), start.vmFlags());
                assertTrue(start.vmFlags().contains("-XX:MaxHeapSize=" + (64 << 20)), start.vmFlags());
                assertFalse(start.vmFlags().contains("UseG1GC"), "a flag at its default is not listed: " + start.vmFlags());

                Map<String, String> list = listUntilPresent(vm.pid(), 5);
                int i = vmIndex(list, vm.pid());
                assertEquals(q("process:" + vm.pid()), list.get("vms." + i + ".cluster"));
                assertEquals(q(AgentTarget.class.getName()), list.get("vms." + i + ".mainClass"));
                assertEquals(q("NOT_ACTIVE"), list.get("vms." + i + ".debuggingState"));
                Launcher.Result text = Launcher.run("list");
                assertTrue(text.out().lines().anyMatch(l -> l.contains(" " + vm.pid() + " ")
                        && l.contains(AgentTarget.class.getName())), text.toString());

                // Memory against the VM's own MXBeans; a fixed heap (-Xms = -Xmx): committed and maximum do not move.
                Map<String, Long> before = vm.readings();
                Thread.sleep(300);  // at least two refreshes
                VmMemoryInfo memory = inspector.memoryInfo(listed.ref()).orElseThrow();
                Map<String, Long> after = vm.readings();
                assertEquals(before.get("committed"), after.get("committed"));
                assertEquals(before.get("committed"), memory.committedJavaHeap());
                assertEquals(before.get("committed"), memory.globalMemory());
                assertEquals(before.get("max"), memory.maxOldGenSize());
                long low = Math.min(before.get("used"), after.get("used")) - 2 * MIB;
                long high = Math.max(before.get("used"), after.get("used")) + 2 * MIB;
                assertTrue(memory.globalAllocatedMemory() >= low && memory.globalAllocatedMemory() <= high,
                        "heap used " + memory.globalAllocatedMemory() + " not within " + low + ".." + high);
                assertTrue(memory.globalMemoryPeak() >= memory.globalMemory());
                assertTrue(memory.committedClassPool() > 0 && memory.committedCodeCache() > 0, memory.toString());
                assertEquals(memory.committedJavaHeap() + memory.committedClassPool() + memory.committedCodeCache(),
                        memory.committedTotal());
                assertTrue(memory.numberOfGcs() <= after.get("gcs"));

                // User and system come from /proc in clock ticks, processing from the JDK in
                // nanoseconds: they agree only if the tick rate is the one assumed.
                VmTimeInfo time = inspector.timeInfo(listed.ref()).orElseThrow();
                long cpuMillis = vm.readings().get("cpu") / 1_000_000;
                assertTrue(time.available(), time.toString());
                assertEquals(time.systemTime() + time.userTime(), time.totalTime());
                assertTrue(Math.abs(time.totalTime() - time.processingTime()) <= 100,
                        "user + system " + time.totalTime() + " ms against processing " + time.processingTime() + " ms");
                assertTrue(time.processingTime() > 0 && time.processingTime() <= cpuMillis, time + " vs " + cpuMillis);

                // info shows the figures as they are read; its start time is the process's, in whole seconds.
                Launcher.Result r = Launcher.run("--json", "info", Long.toString(vm.pid()));
                assertEquals(0, r.exitCode(), r.toString());
                Map<String, String> info = Launcher.flatJson(r.out());
                assertEquals(Long.toString(before.get("committed")), info.get("memory.committedJavaHeap"), r.toString());
                long startSeconds = Long.parseLong(info.get("vm.startTime"));
                long vmStart = before.get("start") / 1000;
                assertTrue(startSeconds <= vmStart && vmStart - startSeconds <= 2,
                        "process started " + startSeconds + ", VM says " + vmStart);
                assertEquals(q(AgentTarget.class.getName() + " first second"), info.get("start.javaArguments"));

                // A GC request runs a collection; requests a stock VM cannot serve are cleared.
                long gcs = gcs(vm);
                for (int flag : new int[] {80, 12, 35368}) {  // gc, dump stacks, enqueue operation
                    raiseFlag(vm, flag);
                }
                for (int flag : new int[] {80, 12, 35368}) {
                    await(1000, "flag " + flag + " being cleared", () -> flag(vm, flag) == 0);
                }
                await(2000, "the GC count growing", () -> gcs(vm) > gcs);
                await(2000, "the published GC count growing",
                        () -> inspector.memoryInfo(listed.ref()).orElseThrow().numberOfFullGcs() > 0);

                // The profiling server answers through a file socket.
                String path = InspectorNatives.getProfilingServerIdentifier0(vm.intPid());
                assertEquals(vm.serverSocket().toString(), path);
                assertEquals(0, InspectorNatives.isFileSocketServerAttachable0(vm.intPid()), "our own server is attachable");
                try (FileSocket socket = new FileSocket(new FileSocketAddress(path), 2000)) {
                    socket.setSoTimeout(2000);
                    OutputStream out = socket.getOutputStream();
                    InputStream in = socket.getInputStream();
                    out.write("hello\nworld\n".getBytes(StandardCharsets.US_ASCII));
                    out.flush();
                    assertEquals("PONG hello\nPONG world\n", new String(in.readNBytes(22), StandardCharsets.US_ASCII));
                }

                for (Case c : CASES) {
                    c.damage().apply(vm.controlAreaFile());
                    vm.gc();  // a figure that changes after the damage: the agent must still refresh
                    awaitCurrentFigures(vm, "after the file was " + c.name());
                    assertEquals(FILE_SIZE, Files.size(vm.controlAreaFile()), c.name());
                }

                // A stock VM does not debug on demand: the request is raised, cleared, and changes nothing.
                VmDebugInfo debug = inspector.debugInfo(listed.ref()).orElseThrow();
                assertFalse(debug.canDebugOnDemand());
                assertEquals(DebuggingState.NOT_ACTIVE, debug.state());
                assertEquals(-1, debug.fromPort());
                assertEquals(-1, debug.currentDebugPort());
                Launcher.Result raised = Launcher.run("--json", "debug", "start", Long.toString(vm.pid()));
                assertEquals(0, raised.exitCode(), raised.toString());
                assertEquals("true", Launcher.flatJson(raised.out()).get("raised"), raised.toString());
                await(5000, "the start-debugging flag being cleared", () -> flag(vm, 4) == 0);
                Launcher.Result told = Launcher.run("debug", "start", Long.toString(vm.pid()));
                assertTrue(told.out().contains("it does not debug on demand"), told.toString());
                Launcher.Result shown = Launcher.run("info", Long.toString(vm.pid()));
                assertTrue(shown.out().lines().anyMatch(l -> l.trim().matches("on demand\\s+no")), shown.toString());
                assertTrue(shown.out().lines().anyMatch(l -> l.trim().matches("state\\s+not-active")), shown.toString());

                Launcher.Result exit = Launcher.run("exit", Long.toString(vm.pid()), "4");
                assertEquals(0, exit.exitCode(), exit.toString());
                assertEquals(4, vm.awaitExit(5), "the VM did not end with status 4 within 5 s");
                assertFalse(Files.exists(vm.controlAreaFile()), "the file made again is removed at the end");
                assertFalse(Files.exists(vm.serverSocket()), "profiling-server socket left behind");
                assertTrue(inspector.byPid(vm.intPid()).isEmpty());
            }
            String said = Files.readString(errors);
            assertFalse(said.contains("\tat ") || said.contains("Exception") || said.contains("Error"),
                    "a stack trace on the VM's standard error:\n" + said);
            List<String> lines = said.lines().filter(l -> l.startsWith("nox-agent")).toList();
            assertEquals(1, lines.size(), "the agent reports the damage once:\n" + said);
            assertTrue(lines.get(0).contains("/tmp/nox_jvm_"), lines.get(0));
        } finally {
            Files.deleteIfExists(errors);
        }
    }

    @Test
    void figuresChangeOnlyAtTheRefreshAndAKilledVmsFilesGoAtTheNextScan() throws Exception {
        try (AgentVm vm = AgentVm.withAgent("refresh=3600000")) {
            Vm listed = listed(vm);
            long published = inspector.memoryInfo(listed.ref()).orElseThrow().numberOfGcs();
            long gcs = gcs(vm);
            raiseFlag(vm, 80);  // gc
            await(2000, "the GC count growing", () -> gcs(vm) > gcs);
            Thread.sleep(300);
            assertEquals(published, inspector.memoryInfo(listed.ref()).orElseThrow().numberOfGcs(),
                    "figures changed although the next refresh is an hour away");

            vm.process().destroyForcibly();
            assertTrue(vm.process().waitFor(5, TimeUnit.SECONDS), "the VM was not killed");
            assertTrue(Files.exists(vm.controlAreaFile()), "a killed VM leaves its file");
            assertTrue(inspector.byPid(vm.intPid()).isEmpty());
            inspector.clusters();
            assertFalse(Files.exists(vm.controlAreaFile()), "the scan left the stale control-area file");
            assertEquals(null, InspectorNatives.getProfilingServerIdentifier0(vm.intPid()));
            assertFalse(Files.exists(vm.serverSocket()), "the scan left the stale socket");
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
}
