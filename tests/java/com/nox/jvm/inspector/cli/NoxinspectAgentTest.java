package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static com.nox.jvm.inspector.cli.Launcher.q;

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
import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.Spawned;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.Arrays;
import java.util.List;
import java.util.Map;

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

    private Vm listed(JdkVm vm) throws Exception {
        Spawned.until(5, "VM pid " + vm.pid() + " being listed", () -> inspector.byPid(vm.pid()).isPresent());
        return inspector.byPid(vm.pid()).orElseThrow();
    }

    /** The request flag at {@code offset} of the VM's slot; 0 once the agent has served it. */
    private static int flag(JdkVm vm, int offset) throws IOException {
        try (FileChannel channel = FileChannel.open(vm.controlAreaFile(), StandardOpenOption.READ)) {
            ByteBuffer b = ByteBuffer.allocate(4).order(ByteOrder.nativeOrder());
            channel.read(b, SLOT + offset);
            return b.getInt(0);
        }
    }

    private static void raiseFlag(JdkVm vm, int offset) throws IOException {
        try (FileChannel channel = FileChannel.open(vm.controlAreaFile(), StandardOpenOption.WRITE)) {
            channel.write(ByteBuffer.allocate(4).order(ByteOrder.nativeOrder()).putInt(0, 1), SLOT + offset);
        }
    }

    private static long gcs(JdkVm vm) throws IOException {
        return vm.readings().get("gcs");
    }

    /** The list's entries of this pid; a stock VM is listed from its performance data as well. */
    private static List<Map<String, String>> entries(long pid) throws Exception {
        return Launcher.entries(Launcher.json("list"), "vms", pid);
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
            new Case("header overwritten", NoxinspectAgentTest::overwriteHeader),
            new Case("deleted", Files::delete));

    private static void cut(Path file, long size) throws IOException {
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
            channel.truncate(size);
        }
    }

    private static void overwriteHeader(Path file) throws IOException {
        byte[] junk = new byte[64];
        Arrays.fill(junk, (byte) 0x5A);
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
            channel.write(ByteBuffer.wrap(junk), 0);
        }
    }

    @Test
    void aStockVmWithTheAgentThroughTheApiAndTheCommandsWhileItsFileIsDamaged() throws Exception {
        String said;
        try (JdkVm vm = JdkVm.withAgent("refresh=100", "first", "second")) {
            Vm listed = listed(vm);
            assertEquals(List.of(ClusterType.PROCESS, vm.pid(), 0, 1, vm.pid()), List.of(listed.ref().type(),
                    listed.ref().clusterId(), listed.ref().slot(), listed.vmId(),
                    inspector.state(listed.ref()).orElseThrow().pid()));
            VmStartInfo start = inspector.startInfo(listed.ref()).orElseThrow();
            assertEquals(List.of(JdkVm.MAIN_CLASS, JdkVm.MAIN_CLASS + " first second", System.getProperty("user.dir"),
                    "nox-agent", true, false), List.of(start.mainClass(), start.javaArguments(),
                    start.workingDirectory(), start.vmTag(), start.hasMetaspace(), start.runsWithMonitoringBoard()));
            assertTrue(start.vmArguments().contains("-javaagent:" + JdkVm.agentJar()), start.vmArguments());
            assertTrue(start.vmVersion().contains(System.getProperty("java.vm.version")), start.vmVersion());
            assertTrue(start.vmFlags().contains("-XX:+UseSerialGC"), start.vmFlags());
            assertTrue(start.vmFlags().contains("-XX:MaxHeapSize=" + (64 << 20)), start.vmFlags());
            assertFalse(start.vmFlags().contains("UseG1GC"), "a flag at its default is not listed: " + start.vmFlags());

            Spawned.until(5, "VM pid " + vm.pid() + " in noxinspect --json list", () -> entries(vm.pid()).stream()
                    .anyMatch(e -> q("control-area").equals(e.get("sources.0"))));
            Map<String, String> entry = entries(vm.pid()).get(0);
            assertEquals(List.of(q("process:" + vm.pid()), q(JdkVm.MAIN_CLASS), q("NOT_ACTIVE")),
                    List.of(entry.get("cluster"), entry.get("mainClass"), entry.get("debuggingState")));

            // Memory against the VM's own MXBeans; a fixed heap (-Xms = -Xmx): committed and maximum do not move.
            Map<String, Long> before = vm.readings();
            Thread.sleep(300);  // at least two refreshes
            VmMemoryInfo memory = inspector.memoryInfo(listed.ref()).orElseThrow();
            Map<String, Long> after = vm.readings();
            assertEquals(List.of(before.get("committed"), before.get("committed"), before.get("committed"),
                    before.get("max")), List.of(after.get("committed"), memory.committedJavaHeap(),
                    memory.globalMemory(), memory.maxOldGenSize()), memory.toString());
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
            Map<String, String> info = Launcher.json("info", Long.toString(vm.pid()));
            assertEquals(Long.toString(before.get("committed")), info.get("memory.committedJavaHeap"), info.toString());
            long startSeconds = Long.parseLong(info.get("vm.startTime"));
            long vmStart = before.get("start") / 1000;
            assertTrue(startSeconds <= vmStart && vmStart - startSeconds <= 2,
                    "process started " + startSeconds + ", VM says " + vmStart);
            assertEquals(q(JdkVm.MAIN_CLASS + " first second"), info.get("start.javaArguments"));

            // A GC request runs a collection; requests a stock VM cannot serve are cleared.
            long gcs = gcs(vm);
            for (int flag : new int[] {80, 12, 35368}) {  // gc, dump stacks, enqueue operation
                raiseFlag(vm, flag);
            }
            for (int flag : new int[] {80, 12, 35368}) {
                Spawned.until(1, "flag " + flag + " being cleared", () -> flag(vm, flag) == 0);
            }
            Spawned.until(2, "the GC count growing", () -> gcs(vm) > gcs);
            Spawned.until(2, "the published GC count growing",
                    () -> inspector.memoryInfo(listed.ref()).orElseThrow().numberOfFullGcs() > 0);

            // The profiling server answers through a file socket.
            String path = InspectorNatives.getProfilingServerIdentifier0(vm.pid());
            assertEquals(vm.serverSocket().toString(), path);
            assertEquals(0, InspectorNatives.isFileSocketServerAttachable0(vm.pid()), "our own server is attachable");
            try (FileSocket socket = new FileSocket(new FileSocketAddress(path), 2000)) {
                socket.setSoTimeout(2000);
                socket.getOutputStream().write("hello\nworld\n".getBytes(StandardCharsets.US_ASCII));
                assertEquals("PONG hello\nPONG world\n",
                        new String(socket.getInputStream().readNBytes(22), StandardCharsets.US_ASCII));
            }

            for (Case c : CASES) {
                c.damage().apply(vm.controlAreaFile());
                vm.gc();  // a figure that changes after the damage: the agent must still refresh
                long collections = gcs(vm);
                Spawned.until(5, "info reading the VM's " + collections + " collections after the file was "
                        + c.name(), () -> Long.toString(collections).equals(
                        Launcher.flatJson(Launcher.run("--json", "info", Long.toString(vm.pid())).out())
                                .get("memory.numberOfGcs")));
                assertEquals(FILE_SIZE, Files.size(vm.controlAreaFile()), c.name());
            }

            // A stock VM does not debug on demand: the request is raised, cleared, and changes nothing.
            VmDebugInfo debug = inspector.debugInfo(listed.ref()).orElseThrow();
            assertFalse(debug.canDebugOnDemand());
            assertEquals(List.of(DebuggingState.NOT_ACTIVE, -1, -1), List.of(debug.state(), debug.fromPort(),
                    debug.currentDebugPort()));
            assertEquals("true", Launcher.json("debug", "start", Long.toString(vm.pid())).get("raised"));
            Spawned.until(5, "the start-debugging flag being cleared", () -> flag(vm, 4) == 0);
            Launcher.Result told = Launcher.run("debug", "start", Long.toString(vm.pid()));
            assertTrue(told.out().contains("it does not debug on demand"), told.toString());
            Launcher.Result shown = Launcher.run("info", Long.toString(vm.pid()));
            assertTrue(shown.out().lines().anyMatch(l -> l.trim().matches("on demand\\s+no")), shown.toString());
            assertTrue(shown.out().lines().anyMatch(l -> l.trim().matches("state\\s+not-active")), shown.toString());

            Launcher.Result exit = Launcher.run("exit", Long.toString(vm.pid()), "4");
            assertEquals(0, exit.exitCode(), exit.toString());
            assertEquals(4, vm.process().awaitExit(5), "the VM did not end with status 4 within 5 s");
            assertFalse(Files.exists(vm.controlAreaFile()), "the file made again is removed at the end");
            assertFalse(Files.exists(vm.serverSocket()), "profiling-server socket left behind");
            assertTrue(inspector.byPid(vm.pid()).isEmpty());
            said = vm.process().stderr();
        }
        assertFalse(said.contains("\tat ") || said.contains("Exception") || said.contains("Error"),
                "a stack trace on the VM's standard error:\n" + said);
        List<String> lines = said.lines().filter(l -> l.startsWith("nox-agent")).toList();
        assertEquals(1, lines.size(), "the agent reports the damage once:\n" + said);
        assertTrue(lines.get(0).contains("/tmp/nox_jvm_"), lines.get(0));
    }

    @Test
    void figuresChangeOnlyAtTheRefreshAndAKilledVmsFilesGoAtTheNextScan() throws Exception {
        try (JdkVm vm = JdkVm.withAgent("refresh=3600000")) {
            Vm listed = listed(vm);
            long published = inspector.memoryInfo(listed.ref()).orElseThrow().numberOfGcs();
            long gcs = gcs(vm);
            raiseFlag(vm, 80);  // gc
            Spawned.until(2, "the GC count growing", () -> gcs(vm) > gcs);
            Thread.sleep(300);
            assertEquals(published, inspector.memoryInfo(listed.ref()).orElseThrow().numberOfGcs(),
                    "figures changed although the next refresh is an hour away");

            vm.process().process().destroyForcibly();
            assertTrue(vm.process().awaitExit(5) >= 0, "the VM was not killed");
            assertTrue(Files.exists(vm.controlAreaFile()), "a killed VM leaves its file");
            assertTrue(inspector.byPid(vm.pid()).isEmpty());
            inspector.clusters();
            assertFalse(Files.exists(vm.controlAreaFile()), "the scan left the stale control-area file");
            assertEquals(null, InspectorNatives.getProfilingServerIdentifier0(vm.pid()));
            assertFalse(Files.exists(vm.serverSocket()), "the scan left the stale socket");
        }
    }

    @Test
    void attachMakesARunningVmVisibleAndRefusesWhatIsNoVmOfTheUser() throws Exception {
        try (JdkVm vm = new JdkVm("-Xmx64m")) {
            vm.awaitListed();
            assertEquals(List.of(q("hotspot")), entries(vm.pid()).stream().map(e -> e.get("sources.0")).toList(),
                    "listed once, from its performance data");

            // A mistyped agent option is refused before anything reaches the VM.
            Launcher.Result mistyped = Launcher.run("attach", Long.toString(vm.pid()), "refresh=500,pol=20");
            assertEquals(2, mistyped.exitCode(), mistyped.toString());
            assertTrue(mistyped.err().contains("unknown agent option 'pol'"), mistyped.toString());
            assertFalse(mistyped.err().contains("\tat "), mistyped.toString());
            assertFalse(Files.exists(Path.of("/tmp/.java_pid" + vm.pid())), "the VM was attached");

            Launcher.Result attach = Launcher.run("attach", Long.toString(vm.pid()), "refresh=200,poll=20");
            assertEquals(0, attach.exitCode(), attach.toString());
            assertTrue(attach.out().contains("VM pid " + vm.pid() + " now publishes its control area"), attach.toString());
            // Both sources describe one VM: it is listed once, with both.
            Map<String, String> entry = Launcher.vm(Launcher.json("list"), vm.pid());
            assertEquals(List.of(q("control-area"), q("hotspot"), q(JdkVm.MAIN_CLASS)),
                    List.of(entry.get("sources.0"), entry.get("sources.1"), entry.get("mainClass")));

            Map<String, String> again = Launcher.json("attach", Long.toString(vm.pid()));
            assertEquals(List.of("false", "true"), List.of(again.get("attached"), again.get("publishing")));
            // The VM the agent came to answers requests like one that had it from the start.
            assertEquals(0, Launcher.run("exit", Long.toString(vm.pid()), "7").exitCode());
            assertEquals(7, vm.process().awaitExit(5), "the attached VM did not end with status 7 within 5 s");
            assertEquals("", vm.process().stderr(), "the VM's own standard error");
        }
        long gone;
        try (Spawned sleeper = new Spawned(List.of("sleep", "30"))) {
            gone = sleeper.pid();
            Launcher.Result notVm = Launcher.run("attach", Long.toString(gone));
            assertEquals(1, notVm.exitCode(), notVm.toString());
            assertTrue(notVm.err().contains("is not a Java VM"), notVm.toString());
            assertTrue(sleeper.process().isAlive(), "the probe must not signal a process that is not a VM");
        }
        Launcher.Result noProcess = Launcher.run("attach", Long.toString(gone));
        assertEquals(1, noProcess.exitCode(), noProcess.toString());
        assertTrue(noProcess.err().contains("no process with pid " + gone), noProcess.toString());
        assertEquals(2, Launcher.run("attach", "zero").exitCode());
    }
}
