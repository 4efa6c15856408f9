package com.nox.jvm.inspector.cluster;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.cluster.natives.ProfilingClusterNatives;
import com.nox.jvm.inspector.testing.Vmsim;

import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.util.Arrays;
import java.util.List;
import java.util.Optional;

import org.junit.jupiter.api.Test;

/**
 * The host pass through the JVM: it decodes into the same records as the single natives give for
 * each VM, in a stable order; a damaged stream is refused with MalformedRecordException.
 * Instance cluster 59 is this class's own.
 */
class HostPassTest {
    private final VmInspector inspector = new VmInspector();

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
