package com.nox.jvm.inspector.cluster;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.cluster.VmInspector.Vm;
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
import java.util.Map;
import java.util.function.BooleanSupplier;

import org.junit.jupiter.api.Test;

/**
 * The Java cluster API against real JDK 17 VMs that run nox-agent.jar (no simulated VM): what a
 * stock VM publishes through the agent, read with the library's natives, compared with what the
 * VM itself reads from its MXBeans; requests; the profiling server; the files' removal. One VM
 * answers everything but the refresh and the kill, which a second one takes.
 */
class AgentVmClusterTest {
    private static final long MIB = 1024 * 1024;
    /** Offset of the VM's slot in the file: the lead-in and the 64-bit instance area. */
    private static final int SLOT = 8 + 288;

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

    private static int readInt(Path file, int offset) throws IOException {
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.READ)) {
            ByteBuffer b = ByteBuffer.allocate(4).order(ByteOrder.nativeOrder());
            channel.read(b, offset);
            return b.getInt(0);
        }
    }

    private static void raiseFlag(Path file, int flagOffset) throws IOException {
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
            ByteBuffer one = ByteBuffer.allocate(4).order(ByteOrder.nativeOrder()).putInt(0, 1);
            channel.write(one, SLOT + flagOffset);
        }
    }

    @Test
    void aStockVmPublishesItsFiguresAnswersRequestsAndRemovesItsFilesOnExit() throws Exception {
        try (AgentVm vm = AgentVm.withAgent("refresh=100", "first", "second")) {
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

            // A stock VM cannot debug on demand: its debug requests are cleared and change nothing.
            VmDebugInfo debug = inspector.debugInfo(listed.ref()).orElseThrow();
            assertFalse(debug.canDebugOnDemand());
            assertEquals(DebuggingState.NOT_ACTIVE, debug.state());
            assertEquals(-1, debug.fromPort());
            assertEquals(-1, debug.currentDebugPort());
            inspector.startDebugging(listed.ref(), 1);
            await(1000, "the start-debugging flag being cleared", () -> flag(vm, 4) == 0);
            inspector.stopDebugging(listed.ref());
            await(1000, "the stop-debugging flag being cleared", () -> flag(vm, 8) == 0);
            assertEquals(DebuggingState.NOT_ACTIVE, inspector.debugInfo(listed.ref()).orElseThrow().state());

            // A GC request runs a collection; requests a stock VM cannot serve are cleared.
            long gcs = vm.readings().get("gcs");
            raiseFlag(vm.controlAreaFile(), 80);  // gc
            raiseFlag(vm.controlAreaFile(), 12);  // dump stacks
            raiseFlag(vm.controlAreaFile(), 35368);  // enqueue operation, beyond the first flags
            for (int flag : new int[] {80, 12, 35368}) {
                await(1000, "flag " + flag + " being cleared", () -> flag(vm, flag) == 0);
            }
            await(2000, "the GC count growing", () -> vmReadings(vm).get("gcs") > gcs);
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
                byte[] expected = "PONG hello\nPONG world\n".getBytes(StandardCharsets.US_ASCII);
                assertEquals(new String(expected, StandardCharsets.US_ASCII),
                        new String(in.readNBytes(expected.length), StandardCharsets.US_ASCII));
            }

            inspector.exit(listed.ref(), 3);
            assertEquals(3, vm.awaitExit(5), "the VM did not end with status 3 within 5 s");
            assertFalse(Files.exists(vm.controlAreaFile()), "control-area file left behind");
            assertFalse(Files.exists(vm.serverSocket()), "profiling-server socket left behind");
            assertTrue(inspector.byPid(vm.intPid()).isEmpty());
        }
    }

    private static int flag(AgentVm vm, int offset) {
        try {
            return readInt(vm.controlAreaFile(), SLOT + offset);
        } catch (IOException e) {
            throw new AssertionError(e);
        }
    }

    private static Map<String, Long> vmReadings(AgentVm vm) {
        try {
            return vm.readings();
        } catch (IOException e) {
            throw new AssertionError(e);
        }
    }

    @Test
    void figuresChangeOnlyAtTheRefreshAndAKilledVmsFilesGoAtTheNextScan() throws Exception {
        try (AgentVm vm = AgentVm.withAgent("refresh=3600000")) {
            Vm listed = listed(vm);
            long published = inspector.memoryInfo(listed.ref()).orElseThrow().numberOfGcs();
            long gcs = vm.readings().get("gcs");
            raiseFlag(vm.controlAreaFile(), 80);  // gc
            await(2000, "the GC count growing", () -> vmReadings(vm).get("gcs") > gcs);
            Thread.sleep(300);
            assertEquals(published, inspector.memoryInfo(listed.ref()).orElseThrow().numberOfGcs(),
                    "figures changed although the next refresh is an hour away");

            vm.process().destroyForcibly();
            assertTrue(vm.process().waitFor(5, java.util.concurrent.TimeUnit.SECONDS), "the VM was not killed");
            assertTrue(Files.exists(vm.controlAreaFile()), "a killed VM leaves its file");
            assertTrue(inspector.byPid(vm.intPid()).isEmpty());
            inspector.clusters();
            assertFalse(Files.exists(vm.controlAreaFile()), "the scan left the stale control-area file");
            assertEquals(null, InspectorNatives.getProfilingServerIdentifier0(vm.intPid()));
            assertFalse(Files.exists(vm.serverSocket()), "the scan left the stale socket");
        }
    }
}
