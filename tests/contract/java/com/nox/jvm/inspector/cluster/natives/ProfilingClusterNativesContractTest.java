package com.nox.jvm.inspector.cluster.natives;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.contract.ToolLibrary;
import com.nox.jvm.inspector.testing.Vmsim;
import java.io.ByteArrayInputStream;
import java.io.DataInputStream;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Test;

/**
 * Every cluster native through the tool's own ProfilingClusterNatives, against simulated VMs:
 * an instance cluster (id 91, used by no other test) with a live, a dead and a live slot, a
 * process cluster, and a process cluster whose file holds only the lead-in, the eyecatcher and
 * the version word.
 */
class ProfilingClusterNativesContractTest {
    private static final int PROCESS = 1;
    private static final int INSTANCE = 2;
    private static final int ID = 91;

    static {
        ToolLibrary.load();
    }

    interface VmCall {
        Object call(int type, int id, int index);
    }

    /** The per-VM natives that only read, each with its failure result. */
    private static final Map<String, Object> FAILURES = new LinkedHashMap<>();
    private static final Map<String, VmCall> READERS = new LinkedHashMap<>();

    static {
        reader("getUniqueId0", -1, ProfilingClusterNatives::getUniqueId0);
        reader("isValidVm0", false, ProfilingClusterNatives::isValidVm0);
        reader("getVmDebugInfo0", null, ProfilingClusterNatives::getVmDebugInfo0);
        reader("getVmStateInfo0", null, ProfilingClusterNatives::getVmStateInfo0);
        reader("getVmStartInfo0", null, ProfilingClusterNatives::getVmStartInfo0);
        reader("getVmTimeInfo0", null, ProfilingClusterNatives::getVmTimeInfo0);
        reader("getVmMemoryInfo0", null, ProfilingClusterNatives::getVmMemoryInfo0);
    }

    private static void reader(String name, Object failure, VmCall call) {
        FAILURES.put(name, failure);
        READERS.put(name, call);
    }

    /** Every per-VM native, requests included, gives its failure result for this VM. */
    private static void assertRefused(int type, int id, int index) {
        String where = type + "/" + id + "/" + index;
        for (Map.Entry<String, VmCall> reader : READERS.entrySet()) {
            assertEquals(FAILURES.get(reader.getKey()), reader.getValue().call(type, id, index), reader.getKey() + " " + where);
        }
        assertEquals(false, ProfilingClusterNatives.startDebug0(type, id, index, 1), "startDebug0 " + where);
        assertEquals(false, ProfilingClusterNatives.stopDebug0(type, id, index), "stopDebug0 " + where);
        assertEquals(false, ProfilingClusterNatives.exit0(type, id, index, 3), "exit0 " + where);
    }

    private record Entry(boolean attachable, int type, int id) {}

    private static List<Entry> clusters() throws IOException {
        byte[] record = ProfilingClusterNatives.getClusterInfo0();
        DataInputStream in = new DataInputStream(new ByteArrayInputStream(record));
        int n = in.readInt();
        assertEquals(4 + 9 * n, record.length, "count, then 9 bytes per cluster");
        List<Entry> entries = new ArrayList<>();
        for (int i = 0; i < n; i++) entries.add(new Entry(in.readBoolean(), in.readInt(), in.readInt()));
        return entries;
    }

    private static byte[] ints(int... values) {
        ByteBuffer buffer = ByteBuffer.allocate(4 * values.length);
        for (int v : values) buffer.putInt(v);
        return buffer.array();
    }

    @Test
    void instanceClusterThroughEveryNative() throws Exception {
        try (Vmsim vm = new Vmsim("--type", "instance", "--id", Integer.toString(ID), "--slots", "3", "--dead", "1",
                "--set", "0:vm_id=9100", "--set", "2:vm_id=9102", "--set", "debugging_client=tool")) {
            int[] pids = vm.slotPids();
            assertTrue(clusters().contains(new Entry(true, INSTANCE, ID)));
            assertEquals(3, ProfilingClusterNatives.getMaxVms0(ID));
            assertArrayEquals(ints(3, 0, pids[0], 9100, 2, pids[2], 9102, -1),
                    ProfilingClusterNatives.getClusterDetailedInfo0(ID));

            for (Map.Entry<String, VmCall> reader : READERS.entrySet()) {
                Object result = reader.getValue().call(INSTANCE, ID, 0);
                assertNotEquals(FAILURES.get(reader.getKey()), result, reader.getKey() + " of a live VM");
            }
            assertEquals(9102, ProfilingClusterNatives.getUniqueId0(INSTANCE, ID, 2));
            byte[] state = ProfilingClusterNatives.getVmStateInfo0(INSTANCE, ID, 2);
            assertEquals(pids[2], ByteBuffer.wrap(state).getInt(4));
            assertArrayEquals(ints(-1, -1), java.util.Arrays.copyOfRange(state, 8, 16));
            assertEquals(32, ProfilingClusterNatives.getVmTimeInfo0(INSTANCE, ID, 2).length);
            assertEquals(308, ProfilingClusterNatives.getVmMemoryInfo0(INSTANCE, ID, 2).length);
            DataInputStream debug = new DataInputStream(new ByteArrayInputStream(
                    ProfilingClusterNatives.getVmDebugInfo0(INSTANCE, ID, 2)));
            debug.skipBytes(1 + 4 * 4);
            assertEquals("tool", debug.readUTF());
            DataInputStream start = new DataInputStream(new ByteArrayInputStream(
                    ProfilingClusterNatives.getVmStartInfo0(INSTANCE, ID, 2)));
            for (int i = 0; i < 5; i++) start.readUTF();
            assertEquals("vmsim-2", start.readUTF());

            // The dead slot, indexes outside the cluster, and clusters that do not exist.
            for (int index : new int[] {1, 3, -1}) assertRefused(INSTANCE, ID, index);
            assertRefused(INSTANCE, 97, 0);
            assertRefused(0, ID, 0);
            assertEquals(-1, ProfilingClusterNatives.getMaxVms0(97));
            assertEquals(null, ProfilingClusterNatives.getClusterDetailedInfo0(97));

            // Requests are raised in the VM's area, and the VM acts on them.
            assertTrue(ProfilingClusterNatives.startDebug0(INSTANCE, ID, 0, 1));
            assertTrue(vm.waitFor("REQUEST slot=0").endsWith("flag=start_debugging suspend=1"));
            assertTrue(ProfilingClusterNatives.stopDebug0(INSTANCE, ID, 0));
            assertTrue(vm.waitFor("REQUEST slot=0").endsWith("flag=stop_debugging"));
            assertTrue(ProfilingClusterNatives.exit0(INSTANCE, ID, 2, 7));
            assertEquals("EXITED slot=2 pid=" + pids[2] + " code=7", vm.waitFor("EXITED slot=2"));
            assertRefused(INSTANCE, ID, 2);
        }
    }

    @Test
    void processClustersAreListedByTheirHeaderAlone() throws Exception {
        // A whole block, and a file of 16 bytes: the lead-in, the eyecatcher and the version word.
        try (Vmsim whole = new Vmsim("--set", "vm_id=4711");
                Vmsim cut = new Vmsim("--block-size", "8")) {
            List<Entry> listed = clusters();
            assertTrue(listed.contains(new Entry(true, PROCESS, whole.id())), listed.toString());
            assertTrue(listed.contains(new Entry(true, PROCESS, cut.id())), listed.toString());

            assertEquals(4711, ProfilingClusterNatives.getUniqueId0(PROCESS, whole.id(), 0));
            assertEquals(true, ProfilingClusterNatives.isValidVm0(PROCESS, whole.id(), 0));
            assertRefused(PROCESS, whole.id(), 1);
            // Every other native refuses the block that holds no more than the two fields.
            assertRefused(PROCESS, cut.id(), 0);
        }
    }
}
