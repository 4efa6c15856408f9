package com.nox.jvm.inspector.cli;

import static com.nox.jvm.inspector.cli.Launcher.q;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.natives.NativeLibrary;
import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.Vmsim;

import java.util.Arrays;
import java.util.List;
import java.util.Map;

import org.junit.jupiter.api.Test;

/**
 * A second local user (nobody, through setpriv) publishes a control area whose slot names a VM
 * of root's: root's inspector must keep showing that VM as what it is (its own performance data,
 * its own row and series) and must not put a request for it into the other user's file. Needs
 * root to act as two users; skipped with a message otherwise.
 */
class SecondUserTest {
    static final List<String> AS_NOBODY = List.of("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups");

    static boolean isRoot() {
        return "root".equals(System.getProperty("user.name"));
    }

    @Test
    void anotherUsersControlAreaNamingRootsVmNeitherHidesItNorTakesItsRequests() throws Exception {
        assumeTrue(isRoot(), "needs root to run a second user (setpriv): skipped");
        try (JdkVm vm = new JdkVm(List.of(), List.of(), "spoofed")) {
            vm.awaitListed();
            int pid = vm.pid();
            try (Vmsim spoof = new Vmsim(AS_NOBODY, "--set", "pid=" + pid, "--set", "vm_version=forged",
                    "--set", "jar_main_class=forged.Main", "--set", "committed_java_heap_size=1")) {
                String spoofPid = Integer.toString(spoof.id());
                List<Map<String, String>> entries = Launcher.entries(Launcher.json("list"), "vms", pid);
                assertEquals(2, entries.size(), "root's VM keeps its own entry: " + entries);
                Map<String, String> own = entries.get(q("hotspot").equals(entries.get(0).get("cluster")) ? 0 : 1);
                Map<String, String> claim = entries.get(own == entries.get(0) ? 1 : 0);
                // The other user's control area is shown as what it is: that user's, naming root's process.
                assertEquals(List.of(q("process:" + spoofPid), "65534", "0"), List.of(claim.get("cluster"),
                        claim.get("controlAreaUid"), claim.get("uid")));
                assertTrue(Launcher.run("list").out().contains("process:" + spoofPid + "(uid 65534) "));
                // Not merged with the other user's control area.
                assertEquals(Arrays.asList(q("hotspot"), q("hotspot"), null, q(JdkVm.MAIN_CLASS),
                        q("OpenJDK 64-Bit Server VM " + System.getProperty("java.vm.version"))), Arrays.asList(
                        own.get("cluster"), own.get("sources.0"), own.get("sources.1"), own.get("mainClass"),
                        own.get("version")));
                assertEquals(q("hotspot"), Launcher.json("info", Integer.toString(pid)).get("vm.cluster"));

                NativeLibrary.load();
                String metrics = Metrics.render(new Host().snapshot(), Exposition.PROMETHEUS);
                String labels = "{cluster_type=\"hotspot\",cluster_id=\"\",slot=\"\",pid=\"" + pid + "\"";
                assertEquals("1", ServeTest.value(metrics, "nox_vm_up", labels), metrics);
                assertNotNull(ServeTest.value(metrics, "jvm_memory_max_bytes", labels, "area=\"heap\""), metrics);
                assertNull(ServeTest.value(metrics, "jvm_memory_max_bytes", "cluster_id=\"" + spoofPid + "\""),
                        "no figure of root's VM under the other user's cluster: " + metrics);

                // Root's VM by pid is a stock VM (no control area of its own); the other user's slot is not its VM.
                Map<String, String> refusals = Map.of(Integer.toString(pid), "noxinspect: VM pid " + pid
                        + " is a stock HotSpot VM without a control area of its own (the control area in slot 0 of"
                        + " process cluster " + spoofPid + " that names it belongs to uid 65534), so it takes no"
                        + " requests; run `noxinspect attach " + pid + "`",
                        "process:" + spoofPid + ":0", "noxinspect: no live VM ");
                for (Map.Entry<String, String> refusal : refusals.entrySet()) {
                    Launcher.Result exit = Launcher.run("exit", refusal.getKey(), "0");
                    assertEquals(CliError.REFUSED, exit.exitCode(), exit.toString());
                    assertTrue(exit.err().startsWith(refusal.getValue()), exit.toString());
                }
                assertNull(spoof.nextLine(500), "no request reached the other user's file");
                assertTrue(ProcessHandle.of(pid).map(ProcessHandle::isAlive).orElse(false), "root's VM runs on");
            }
        }
    }
}
