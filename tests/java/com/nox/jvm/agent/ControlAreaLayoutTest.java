package com.nox.jvm.agent;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.cluster.VmState;
import com.nox.jvm.inspector.cluster.VmTimeInfo;
import com.nox.jvm.inspector.cluster.natives.ProfilingClusterNatives;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

import org.junit.jupiter.api.Test;

/**
 * The agent's writer against the library's readers: this test VM publishes its own control area
 * with the agent's classes, a distinct value in every field, and reads each back through the
 * cluster natives. A wrong offset in either shows as a wrong value here.
 */
class ControlAreaLayoutTest {
    private static final int PROCESS = 1;
    private static final int PID = (int) ProcessHandle.current().pid();
    private static final int EUID = ProcSelf.userId(1);

    /** The figures of the first publication (refresh 0) and of a refresh (1) with a smaller heap. */
    private static MxReadings.Figures figures(int refresh) {
        MxReadings.Figures f = new MxReadings.Figures();
        f.heapCommitted = refresh == 0 ? 1001L << 20 : 500L << 20;
        f.heapUsed = refresh == 0 ? 333L << 20 : 100L << 20;
        f.heapMax = (2002L + refresh) << 20;
        f.metaspaceCommitted = (44L + refresh) << 20;
        f.metaspaceMax = (555L + refresh) << 20;
        f.codeCacheCommitted = (66L + refresh) << 20;
        f.oldGenUsedAfterGc = (77L + refresh) << 20;
        f.gcCount = 12 + refresh;
        f.fullGcCount = 3 + refresh;
        f.gcMillis = 456 + refresh;
        f.fullGcMillis = 123 + refresh;
        f.concurrentGcMillis = 78 + refresh;
        f.processCpuMillis = 9876 + refresh;
        f.userMillis = 8000 + refresh;
        f.systemMillis = 1870 + refresh;
        return f;
    }

    @Test
    void everyPublishedFieldReadsBackThroughTheNatives() throws Exception {
        Path path = TmpFiles.controlArea(EUID, PID);
        try (PublishedArea area = PublishedArea.create(path, EUID)) {
            String longArgs = "-D" + "a".repeat(5000);
            area.publish(new ControlAreaWriter.Identity(PID, 1, "Test VM 17.0.99", longArgs, "-XX:+UseSerialGC -XX:MaxHeapSize=1",
                    "demo.Main x y", "/work/dir", "tag-7", "demo.Main"), figures(0));

            assertTrue(ProfilingClusterNatives.isValidVm0(PROCESS, PID, 0));
            assertEquals(1, ProfilingClusterNatives.getUniqueId0(PROCESS, PID, 0));
            assertFalse(ProfilingClusterNatives.isValidVm0(PROCESS, PID, 1), "one slot only");
            VmState state = VmState.decode(ProfilingClusterNatives.getVmStateInfo0(PROCESS, PID, 0));
            assertEquals(0, state.vmIndex());
            assertEquals(PID, state.pid());

            VmStartInfo start = VmStartInfo.decode(ProfilingClusterNatives.getVmStartInfo0(PROCESS, PID, 0));
            assertEquals("Test VM 17.0.99", start.vmVersion());
            assertEquals("/work/dir", start.workingDirectory());
            assertEquals("-XX:+UseSerialGC -XX:MaxHeapSize=1", start.vmFlags());
            assertEquals(longArgs.substring(0, 4096), start.vmArguments());
            assertEquals("demo.Main x y", start.javaArguments());
            assertEquals("tag-7", start.vmTag());
            assertEquals("", start.splittableJavaArguments());
            assertEquals("demo.Main", start.mainClass());
            assertFalse(start.runsWithMonitoringBoard());
            assertTrue(start.hasMetaspace());

            VmTimeInfo time = VmTimeInfo.decode(ProfilingClusterNatives.getVmTimeInfo0(PROCESS, PID, 0));
            assertEquals(new VmTimeInfo(9870, 1870, 8000, 9876), time);

            VmMemoryInfo m = VmMemoryInfo.decode(ProfilingClusterNatives.getVmMemoryInfo0(PROCESS, PID, 0));
            assertEquals(1001L << 20, m.committedJavaHeap());
            assertEquals(44L << 20, m.committedClassPool());
            assertEquals(66L << 20, m.committedCodeCache());
            assertEquals((1001L + 44 + 66) << 20, m.committedTotal());
            assertEquals(0, m.sharedPoolSize());
            assertEquals(1001L << 20, m.globalMemory());
            assertEquals(333L << 20, m.globalAllocatedMemory());
            assertEquals(1001L << 20, m.globalMemoryPeak());
            assertEquals(12, m.numberOfGcs());
            assertEquals(3, m.numberOfFullGcs());
            assertEquals(456, m.durationOfGcs());
            assertEquals(123, m.durationOfFullGcs());
            assertEquals(78, m.durationOfConcurrentGcs());
            assertEquals(0, m.workTimeOfGcs());
            assertEquals(0, m.outOfMemoryErrorCount());
            assertEquals(77L << 20, m.oldGenUsageAfterGc());
            assertEquals(0, m.permGenUsageAfterGc());
            assertEquals(2002L << 20, m.maxOldGenSize());
            assertEquals(555L << 20, m.maxPermGenSize());

            VmDebugInfo debug = VmDebugInfo.decode(ProfilingClusterNatives.getVmDebugInfo0(PROCESS, PID, 0));
            assertFalse(debug.canDebugOnDemand());
            assertEquals(-1, debug.fromPort());
            assertEquals(-1, debug.toPort());
            assertEquals(DebuggingState.NOT_ACTIVE, debug.state());
            assertEquals(-1, debug.currentDebugPort());
            assertEquals("", debug.debuggingClient());
            assertFalse(debug.debuggingLocally());

            // A refresh reaches the file with every figure; a smaller heap keeps the peaks.
            area.refresh(figures(1));
            m = VmMemoryInfo.decode(ProfilingClusterNatives.getVmMemoryInfo0(PROCESS, PID, 0));
            assertEquals(500L << 20, m.committedJavaHeap());
            assertEquals(45L << 20, m.committedClassPool());
            assertEquals(67L << 20, m.committedCodeCache());
            assertEquals(500L << 20, m.globalMemory());
            assertEquals(100L << 20, m.globalAllocatedMemory());
            assertEquals(1001L << 20, m.globalMemoryPeak());
            assertEquals(List.of(13L, 4L, 457L, 124L, 79L), List.of(m.numberOfGcs(), m.numberOfFullGcs(),
                    m.durationOfGcs(), m.durationOfFullGcs(), m.durationOfConcurrentGcs()));
            assertEquals(List.of(78L << 20, 2003L << 20, 556L << 20),
                    List.of(m.oldGenUsageAfterGc(), m.maxOldGenSize(), m.maxPermGenSize()));
            assertEquals(new VmTimeInfo(9872, 1871, 8001, 9877),
                    VmTimeInfo.decode(ProfilingClusterNatives.getVmTimeInfo0(PROCESS, PID, 0)));

            // A request raised through the natives lands on the flag the watcher looks at.
            assertTrue(ProfilingClusterNatives.exit0(PROCESS, PID, 0, 9));
            int[] code = {-1};
            RequestWatcher watcher = new RequestWatcher(area, c -> code[0] = c, () -> { });
            assertEquals(1, watcher.check());
            assertEquals(9, code[0]);
        }
        assertFalse(Files.exists(path));
        assertNull(ProfilingClusterNatives.getVmStartInfo0(PROCESS, PID, 0));
    }
}
