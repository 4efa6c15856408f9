package com.nox.jvm.inspector.cluster;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.cluster.natives.ProfilingClusterNatives;
import com.nox.jvm.inspector.testing.Vmsim;

import java.nio.ByteBuffer;
import java.util.Arrays;

import org.junit.jupiter.api.Test;

/**
 * A process cluster whose owner cuts its control-area file to nothing and writes it whole again
 * in a loop (vmsim --flap), while this JVM runs every cluster native against it thousands of
 * times. The JVM must live through it, and every answer must be the VM's own or the sentinel.
 */
class CutControlAreaFileTest {
    private static final int PROCESS = 1;

    /** True when the list names the pid's process cluster; when `whole`, as attachable. */
    private static boolean listed(byte[] list, int pid, boolean whole) {
        ByteBuffer in = ByteBuffer.wrap(list);
        int count = in.getInt();
        for (int i = 0; i < count; i++) {
            boolean attachable = in.get() != 0;
            int type = in.getInt();
            int id = in.getInt();
            if (type == PROCESS && id == pid) {
                // While the file is cut, the list may name it with a header it cannot read.
                assertTrue(attachable || !whole, "the whole file is listed as attachable");
                return true;
            }
        }
        return false;
    }

    private static final class Tally {
        int correct;
        int sentinel;

        void record(String what, int round, byte[] expected, byte[] answer) {
            if (answer == null) {
                sentinel++;
            } else if (Arrays.equals(expected, answer)) {
                correct++;
            } else {
                fail(what + " in round " + round + " is neither the VM's answer nor null");
            }
        }

        void record(String what, int round, int expected, int sentinelValue, int answer) {
            if (answer == sentinelValue) {
                sentinel++;
            } else if (answer == expected) {
                correct++;
            } else {
                fail(what + " in round " + round + " is " + answer + ", neither " + expected + " nor " + sentinelValue);
            }
        }
    }

    @Test
    void everyNativeAnswersTheVmOrTheSentinelWhileTheFileIsCutAndRestored() throws Exception {
        for (String width : new String[] {"64", "32"}) {
            try (Vmsim vm = new Vmsim("--type", "process", "--width", width, "--flap", "--set", "vm_id=515",
                    "--set", "vm_version=17.0.9-cut", "--set", "number_of_gcs=12", "--set", "system_time=100",
                    "--set", "user_time=200", "--set", "processing_time=300")) {
                int pid = vm.id();
                byte[] state = ProfilingClusterNatives.getVmStateInfo0(PROCESS, pid, 0);
                byte[] debug = ProfilingClusterNatives.getVmDebugInfo0(PROCESS, pid, 0);
                byte[] start = ProfilingClusterNatives.getVmStartInfo0(PROCESS, pid, 0);
                byte[] time = ProfilingClusterNatives.getVmTimeInfo0(PROCESS, pid, 0);
                byte[] memory = ProfilingClusterNatives.getVmMemoryInfo0(PROCESS, pid, 0);
                assertNotNull(start, width);
                assertNotNull(memory, width);
                assertEquals(515, ProfilingClusterNatives.getUniqueId0(PROCESS, pid, 0));
                assertTrue(listed(ProfilingClusterNatives.getClusterInfo0(), pid, true));

                vm.poke();  // the owner starts cutting and restoring its file
                Tally tally = new Tally();
                for (int round = 0; round < 2000; round++) {
                    tally.record("state record", round, state, ProfilingClusterNatives.getVmStateInfo0(PROCESS, pid, 0));
                    tally.record("debug record", round, debug, ProfilingClusterNatives.getVmDebugInfo0(PROCESS, pid, 0));
                    tally.record("start record", round, start, ProfilingClusterNatives.getVmStartInfo0(PROCESS, pid, 0));
                    tally.record("time record", round, time, ProfilingClusterNatives.getVmTimeInfo0(PROCESS, pid, 0));
                    tally.record("memory record", round, memory, ProfilingClusterNatives.getVmMemoryInfo0(PROCESS, pid, 0));
                    tally.record("unique id", round, 515, -1, ProfilingClusterNatives.getUniqueId0(PROCESS, pid, 0));
                    tally.record("valid VM", round, 1, 0, ProfilingClusterNatives.isValidVm0(PROCESS, pid, 0) ? 1 : 0);
                    // Requests are raised or refused; the owner's next restore clears any flag.
                    ProfilingClusterNatives.startDebug0(PROCESS, pid, 0, 1);
                    ProfilingClusterNatives.stopDebug0(PROCESS, pid, 0);
                    ProfilingClusterNatives.exit0(PROCESS, pid, 0, 3);
                    if (round % 10 == 0) {
                        listed(ProfilingClusterNatives.getClusterInfo0(), pid, false);
                    }
                }
                // The file was really cut (sentinels), and still read whole at times.
                assertTrue(tally.sentinel > 0, width + ": no answer met a cut file");
                assertTrue(tally.correct > 0, width + ": no answer met the whole file");
            }
        }
    }
}
