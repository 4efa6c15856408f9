package com.nox.jvm.inspector.cluster;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.cluster.natives.ProfilingClusterNatives;
import com.nox.jvm.inspector.testing.Vmsim;

import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.List;
import java.util.Optional;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * The cluster natives in a real JVM against real simulated VMs: every record byte for byte
 * against the values vmsim published, in both layout widths, and requests that vmsim sees; and
 * the host pass, which decodes into the same records as the single natives give for each VM, in
 * a stable order (a damaged stream is refused with MalformedRecordException). Instance clusters
 * 80 to 83 and 59 are this class's own.
 */
class ProfilingClusterNativesTest {
    private final VmInspector inspector = new VmInspector();
    private static final int PROCESS = 1;
    private static final int INSTANCE = 2;

    /** Big-endian bytes of the given ints and longs, as the natives lay them out. */
    private static final class Expected {
        private final ByteBuffer buffer = ByteBuffer.allocate(4096);

        Expected ints(int... values) {
            for (int v : values) {
                buffer.putInt(v);
            }
            return this;
        }

        Expected longs(long... values) {
            for (long v : values) {
                buffer.putLong(v);
            }
            return this;
        }

        byte[] bytes() {
            return Arrays.copyOf(buffer.array(), buffer.position());
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {32, 64})
    void stateAndTimeRecords(int width) throws Exception {
        try (Vmsim vm = new Vmsim("--width", Integer.toString(width), "--set", "vm_index=0",
                "--set", "system_time=111", "--set", "user_time=222", "--set", "processing_time=-333")) {
            int pid = vm.id();
            assertArrayEquals(new Expected().ints(0, pid, -1, -1).bytes(),
                    ProfilingClusterNatives.getVmStateInfo0(PROCESS, pid, 0));
            byte[] time = ProfilingClusterNatives.getVmTimeInfo0(PROCESS, pid, 0);
            assertArrayEquals(new Expected().longs(333, 111, 222, -333).bytes(), time);
            assertEquals(new VmTimeInfo(333, 111, 222, -333), VmTimeInfo.decode(time));
        }
        // An area published too short for the process times: both parts -1, their sum -2.
        String shortArea = width == 64 ? "943" : "935";
        try (Vmsim vm = new Vmsim("--width", Integer.toString(width), "--ca-size", shortArea,
                "--set", "system_time=111")) {
            byte[] time = ProfilingClusterNatives.getVmTimeInfo0(PROCESS, vm.id(), 0);
            assertArrayEquals(new Expected().longs(-2, -1, -1, -1).bytes(), time);
            assertFalse(VmTimeInfo.decode(time).available());
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {32, 64})
    void memoryRecordWithZeroSlotsSumAndNegativeValues(int width) throws Exception {
        try (Vmsim vm = new Vmsim("--width", Integer.toString(width),
                "--set", "committed_java_heap_size=1000000", "--set", "committed_class_pool_size=20000",
                "--set", "committed_code_cache_size=300", "--set", "number_of_gcs=5",
                "--set", "number_of_full_gcs=6", "--set", "duration_of_gcs=7", "--set", "duration_of_full_gcs=8",
                "--set", "duration_of_concurrent_gcs=9", "--set", "work_time_of_gcs=10",
                "--set", "work_time_of_full_gcs=11", "--set", "java_heap_memory_shortages=-2",
                "--set", "perm_gen_memory_shortages=13", "--set", "gc_spinning_due_to_java_heap=14",
                "--set", "gc_spinning_due_to_perm_gen=15", "--set", "out_of_memory_error_count=16",
                "--set", "old_gen_usage_after_gc=17", "--set", "perm_gen_usage_after_gc=18",
                "--set", "max_old_gen_size=19", "--set", "max_perm_gen_size=-1",
                "--ica-set", "shared_pool_size=65536", "--ica-set", "heap_size.0=777",
                "--ica-set", "heap_size_allocated.0=555", "--ica-set", "heap_size_peak.0=999")) {
            byte[] record = ProfilingClusterNatives.getVmMemoryInfo0(PROCESS, vm.id(), 0);
            Expected expected = new Expected().longs(0, 0, 0, 0, 0, 1020300, 1000000, 20000, 300, 0, 65536, 777, 0, 0,
                    777, 0, 555, 0, 0, 555, 0, 0, 0, 999, 0, 5, 6, 7, 8, 9, 10, 11).ints(-2, 13, 14, 15, 16)
                    .longs(17, 18, 19, -1);
            assertArrayEquals(expected.bytes(), record);
            assertEquals(308, record.length);
            VmMemoryInfo info = VmMemoryInfo.decode(record);
            assertEquals(info.committedJavaHeap() + info.committedClassPool() + info.committedCodeCache(),
                    info.committedTotal());
            assertEquals(-1, info.maxPermGenSize());
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {32, 64})
    void startRecordWithEveryStringFullAndNoTerminator(int width) throws Exception {
        try (Vmsim vm = new Vmsim("--width", Integer.toString(width), "--fill", "vm_version=v:256",
                "--fill", "vm_work_dir=w:1024", "--fill", "vm_flags=f:4096", "--fill", "vm_args=a:4096",
                "--fill", "vm_java_args=j:4096", "--fill", "vm_tag=t:64", "--fill", "splittable_vm_java_args=s:4096",
                "--fill", "jar_main_class=m:4096", "--set", "run_with_monitoring_board=true",
                "--set", "has_metaspace=false")) {
            byte[] record = ProfilingClusterNatives.getVmStartInfo0(PROCESS, vm.id(), 0);
            assertEquals(21842, record.length);
            assertEquals(0x01, record[0]);  // 256 = 0x0100
            assertEquals(0x00, record[1]);
            VmStartInfo info = VmStartInfo.decode(record);
            assertEquals("v".repeat(256), info.vmVersion());
            assertEquals("w".repeat(1024), info.workingDirectory());
            assertEquals("f".repeat(4096), info.vmFlags());
            assertEquals("a".repeat(4096), info.vmArguments());
            assertEquals("j".repeat(4096), info.javaArguments());
            assertEquals("t".repeat(64), info.vmTag());
            assertEquals("s".repeat(4096), info.splittableJavaArguments());
            assertEquals("m".repeat(4096), info.mainClass());
            assertTrue(info.runsWithMonitoringBoard());
            assertFalse(info.hasMetaspace());
        }
        // Terminated texts end at their NUL.
        try (Vmsim vm = new Vmsim("--width", Integer.toString(width), "--set", "vm_tag=", "--set", "vm_version=17.0.1",
                "--set", "jar_main_class=com.example.Main")) {
            VmStartInfo info = VmStartInfo.decode(ProfilingClusterNatives.getVmStartInfo0(PROCESS, vm.id(), 0));
            assertEquals("", info.vmTag());
            assertEquals("17.0.1", info.vmVersion());
            assertEquals("com.example.Main", info.mainClass());
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {32, 64})
    void debugRecordAndTheRequestsThatMoveIt(int width) throws Exception {
        try (Vmsim vm = new Vmsim("--width", Integer.toString(width), "--fill", "debugging_client=c:256",
                "--set", "can_debug_on_demand=true", "--set", "from_port=8000", "--set", "to_port=8009",
                "--set", "debugging_state=1", "--set", "current_debug_port=-1", "--set", "start_local_debugging=1")) {
            int pid = vm.id();
            byte[] record = ProfilingClusterNatives.getVmDebugInfo0(PROCESS, pid, 0);
            ByteBuffer expected = ByteBuffer.allocate(1 + 4 * 4 + 2 + 256 + 1);
            expected.put((byte) 1).putInt(8000).putInt(8009).putInt(1).putInt(-1).putShort((short) 256);
            expected.put("c".repeat(256).getBytes()).put((byte) 1);
            assertArrayEquals(expected.array(), record);

            assertTrue(ProfilingClusterNatives.startDebug0(PROCESS, pid, 0, 3));
            assertEquals("REQUEST slot=0 pid=" + pid + " flag=start_debugging suspend=3", vm.waitFor("REQUEST"));
            VmDebugInfo started = VmDebugInfo.decode(ProfilingClusterNatives.getVmDebugInfo0(PROCESS, pid, 0));
            assertEquals(DebuggingState.WAIT_FOR_DEBUGGER, started.state());
            assertEquals(8000, started.currentDebugPort());

            assertTrue(ProfilingClusterNatives.stopDebug0(PROCESS, pid, 0));
            assertEquals("REQUEST slot=0 pid=" + pid + " flag=stop_debugging", vm.waitFor("REQUEST"));
            VmDebugInfo stopped = VmDebugInfo.decode(ProfilingClusterNatives.getVmDebugInfo0(PROCESS, pid, 0));
            assertEquals(DebuggingState.NOT_ACTIVE, stopped.state());

            assertTrue(ProfilingClusterNatives.exit0(PROCESS, pid, 0, 7));
            assertEquals(7, vm.waitExit());
        }
    }

    @Test
    void clusterListHoldsOurClustersInOrderWithoutVersions() throws Exception {
        try (Vmsim instance = new Vmsim("--type", "instance", "--id", "82", "--slots", "2");
             Vmsim process = new Vmsim("--width", "32")) {
            byte[] record = ProfilingClusterNatives.getClusterInfo0();
            assertNotNull(record);
            List<ClusterEntry> clusters = ClusterEntry.decodeList(record);
            assertEquals(4 + 9 * clusters.size(), record.length);
            int instanceAt = clusters.indexOf(new ClusterEntry(true, ClusterType.INSTANCE, INSTANCE, 82));
            int processAt = clusters.indexOf(new ClusterEntry(true, ClusterType.PROCESS, PROCESS, process.id()));
            assertTrue(instanceAt >= 0, clusters.toString());
            assertTrue(processAt > instanceAt, clusters.toString());

            List<VmInspector.Vm> vms = inspector.vmsOf(ClusterType.INSTANCE, 82);
            assertEquals(2, vms.size());
            assertEquals(instance.slotPids()[1], vms.get(1).pid());
            assertEquals(process.id(), inspector.byPid(process.id()).orElseThrow().ref().clusterId());
        }
    }

    @Test
    void theFacadeTurnsRefusalsIntoExceptionsAndEmptyResults() {
        VmRef nowhere = new VmRef(ClusterType.INSTANCE, 83, 0);
        assertTrue(inspector.state(nowhere).isEmpty());
        assertTrue(inspector.memoryInfo(nowhere).isEmpty());
        assertTrue(inspector.vmsOf(ClusterType.INSTANCE, 83).isEmpty());
        VmNotFoundException e = assertThrows(VmNotFoundException.class,
                () -> inspector.exit(nowhere, 1));
        assertEquals("no live VM in slot 0 of instance cluster 83", e.getMessage());
    }

    private static Optional<HostPass.VmFigures> find(HostPass pass, ClusterType type, int id, int slot) {
        return pass.vms().stream().filter(vm -> vm.vm().ref().equals(new VmRef(type, id, slot))).findFirst();
    }

    @Test
    void everyVmWithTheRecordsTheSingleNativesGive() throws Exception {
        try (Vmsim process = new Vmsim("--type", "process", "--set", "vm_tag=host-pass", "--set", "system_time=5",
                "--set", "user_time=7");
             Vmsim instance = new Vmsim("--type", "instance", "--id", "59", "--slots", "3", "--dead", "1")) {
            HostPass pass = inspector.host();
            assertTrue(pass.durationNanos() > 0);

            int pid = (int) process.pid();
            HostPass.VmFigures own = find(pass, ClusterType.PROCESS, pid, 0)
                    .orElseThrow(() -> new AssertionError("vmsim " + pid + " is not in the pass"));
            VmRef ref = own.vm().ref();
            assertEquals(pid, own.vm().pid());
            assertEquals(ProfilingClusterNatives.getUniqueId0(1, pid, 0), own.vm().vmId());
            assertEquals(inspector.startInfo(ref), own.start());
            assertEquals("host-pass", own.start().orElseThrow().vmTag());
            assertEquals(inspector.timeInfo(ref), own.time());
            assertEquals(12, own.time().orElseThrow().totalTime());
            assertEquals(inspector.memoryInfo(ref), own.memory());
            assertEquals(inspector.debugInfo(ref), own.debug());

            int[] pids = instance.slotPids();
            HostPass.Cluster cluster = pass.clusters().stream()
                    .filter(c -> c.entry().type() == ClusterType.INSTANCE && c.entry().id() == 59).findFirst()
                    .orElseThrow(() -> new AssertionError("instance cluster 59 is not in the pass"));
            assertEquals(3, cluster.slots());
            assertTrue(cluster.entry().attachable());
            assertEquals(List.of(0, 2), cluster.vms().stream().map(vm -> vm.vm().ref().slot()).toList());
            assertEquals(List.of(pids[0], pids[2]), cluster.vms().stream().map(vm -> vm.vm().pid()).toList());
            for (HostPass.VmFigures vm : cluster.vms()) {
                assertEquals(inspector.memoryInfo(vm.vm().ref()), vm.memory());
                assertTrue(vm.processStart() > 0);
            }

            // Instance clusters first, then by id; VMs by slot.
            List<HostPass.Cluster> clusters = pass.clusters();
            for (int i = 1; i < clusters.size(); i++) {
                ClusterEntry before = clusters.get(i - 1).entry();
                ClusterEntry after = clusters.get(i).entry();
                boolean ordered = before.type() == after.type() ? before.id() < after.id()
                        : before.type() == ClusterType.INSTANCE;
                assertTrue(ordered, before + " before " + after);
            }
            for (HostPass.Cluster c : clusters) {
                List<Integer> slots = c.vms().stream().map(vm -> vm.vm().ref().slot()).toList();
                assertEquals(slots.stream().sorted().toList(), slots);
            }
        }
    }

    private static byte[] stream(int format, int... clusterHead) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream out = new DataOutputStream(bytes);
        out.writeInt(format);
        for (int value : clusterHead) {
            out.writeInt(value);
        }
        return bytes.toByteArray();
    }

    @Test
    void damagedStreamsAreRefused() throws Exception {
        assertThrows(MalformedRecordException.class, () -> HostPass.decode(stream(2, 0), 0));
        assertThrows(MalformedRecordException.class, () -> HostPass.decode(stream(1), 0), "no end mark");
        assertThrows(MalformedRecordException.class, () -> HostPass.decode(stream(1, 0, 7), 0), "bytes after the end");
        assertEquals(List.of(), HostPass.decode(stream(1, 0), 0).clusters());

        byte[] real = ProfilingClusterNatives.getHostPass0();
        for (int cut = 0; cut < Math.min(real.length - 1, 400); cut++) {
            byte[] shorter = Arrays.copyOf(real, cut);
            assertThrows(MalformedRecordException.class, () -> HostPass.decode(shorter, 0), "cut at " + cut);
        }
    }
}
