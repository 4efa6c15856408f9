package com.nox.jvm.inspector.cluster;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
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
 * Our cluster classes over the natives, against simulated VMs: the records byte for byte in both
 * layout widths, the facade's refusals, and the host pass, which decodes into the same records
 * as the single natives give for each VM, in a stable order (a damaged stream is refused with
 * MalformedRecordException). Instance clusters 83 and 59 are this class's own.
 */
class ProfilingClusterNativesTest {
    private final VmInspector inspector = new VmInspector();
    private static final int PROCESS = 1;

    /** Big-endian bytes of the given ints and longs, as the natives lay them out. */
    private static final class Expected {
        private final ByteBuffer buffer = ByteBuffer.allocate(4096);

        Expected ints(int... values) {
            for (int v : values) buffer.putInt(v);
            return this;
        }

        Expected longs(long... values) {
            for (long v : values) buffer.putLong(v);
            return this;
        }

        byte[] bytes() {
            return Arrays.copyOf(buffer.array(), buffer.position());
        }
    }

    /**
     * The per-VM records byte for byte against the values vmsim published, in both layout widths
     * (negative values, a memory slot left at zero and the committed sum included).
     */
    @ParameterizedTest
    @ValueSource(ints = {32, 64})
    void recordsInBothWidths(int width) throws Exception {
        try (Vmsim vm = new Vmsim("--width", Integer.toString(width), "--set", "vm_index=0",
                "--set", "system_time=111", "--set", "user_time=222", "--set", "processing_time=-333",
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
                "--ica-set", "heap_size_allocated.0=555", "--ica-set", "heap_size_peak.0=999",
                "--fill", "debugging_client=c:256", "--set", "can_debug_on_demand=true", "--set", "from_port=8000",
                "--set", "to_port=8009", "--set", "debugging_state=1", "--set", "current_debug_port=-1",
                "--set", "start_local_debugging=1")) {
            int pid = vm.id();
            assertArrayEquals(new Expected().ints(0, pid, -1, -1).bytes(),
                    ProfilingClusterNatives.getVmStateInfo0(PROCESS, pid, 0));
            byte[] time = ProfilingClusterNatives.getVmTimeInfo0(PROCESS, pid, 0);
            assertArrayEquals(new Expected().longs(333, 111, 222, -333).bytes(), time);
            assertEquals(new VmTimeInfo(333, 111, 222, -333), VmTimeInfo.decode(time));
            Expected memory = new Expected().longs(0, 0, 0, 0, 0, 1020300, 1000000, 20000, 300, 0, 65536, 777, 0, 0,
                    777, 0, 555, 0, 0, 555, 0, 0, 0, 999, 0, 5, 6, 7, 8, 9, 10, 11).ints(-2, 13, 14, 15, 16)
                    .longs(17, 18, 19, -1);
            assertArrayEquals(memory.bytes(), ProfilingClusterNatives.getVmMemoryInfo0(PROCESS, pid, 0));
            ByteBuffer debug = ByteBuffer.allocate(1 + 4 * 4 + 2 + 256 + 1);
            debug.put((byte) 1).putInt(8000).putInt(8009).putInt(1).putInt(-1).putShort((short) 256);
            debug.put("c".repeat(256).getBytes()).put((byte) 1);
            assertArrayEquals(debug.array(), ProfilingClusterNatives.getVmDebugInfo0(PROCESS, pid, 0));
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
        for (int value : clusterHead) out.writeInt(value);
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
