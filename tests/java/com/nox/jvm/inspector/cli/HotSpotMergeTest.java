package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.PlantedFiles;
import com.nox.jvm.inspector.testing.Vmsim;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;

import org.junit.jupiter.api.Test;

/**
 * A VM that publishes both a control area and performance data is listed once, with both merged.
 * The simulated VM publishes the control area; a copy of a real JDK VM's performance-data file,
 * planted under the simulated VM's pid, plays its performance data.
 */
class HotSpotMergeTest {
    private static final String USER = System.getProperty("user.name");

    @Test
    void aVmWithBothSourcesIsListedOnceWithBoth() throws Exception {
        try (Vmsim sim = new Vmsim("--set", "vm_version=17.0.9-merged");
             JdkVm jdk = new JdkVm(List.of(), List.of(), "merge");
             PlantedFiles planted = new PlantedFiles()) {
            NoxinspectHotSpotTest.awaitListed(jdk);
            long pid = sim.pid();
            planted.file(Path.of("/tmp", "hsperfdata_" + USER, Long.toString(pid)),
                    Files.readAllBytes(jdk.perfDataFile(USER)));

            Launcher.Result r = Launcher.run("list");
            assertEquals(0, r.exitCode(), r.toString());
            String[] cells = NoxinspectHotSpotTest.listLine(r.out(), pid);
            assertNotNull(cells, r.out());
            assertEquals("process:" + pid + "+hotspot", cells[0]);
            assertEquals("17.0.9-merged", cells[4]);  // the control area's own version is kept
            assertEquals(1, r.out().lines().filter(l -> {
                String[] c = l.trim().split("\\s+");
                return c.length > 2 && c[2].equals(Long.toString(pid));
            }).count(), r.out());

            Map<String, String> flat = Launcher.flatJson(Launcher.run("--json", "list").out());
            int i = NoxinspectHotSpotTest.vmIndex(flat, pid);
            assertTrue(i >= 0, flat.toString());
            assertEquals("\"process:" + pid + "\"", flat.get("vms." + i + ".cluster"));
            assertEquals("\"control-area\"", flat.get("vms." + i + ".sources.0"));
            assertEquals("\"hotspot\"", flat.get("vms." + i + ".sources.1"));
            assertEquals("\"" + JdkVm.MAIN_CLASS + " merge\"", flat.get("vms." + i + ".hotspot.javaCommand"));
            for (int k = 0; flat.containsKey("vms." + k + ".pid"); k++) {
                if (k != i) {
                    assertNotEquals(Long.toString(pid), flat.get("vms." + k + ".pid"), "listed twice");
                }
            }

            Launcher.Result info = Launcher.run("info", Long.toString(pid));
            assertEquals(0, info.exitCode(), info.toString());
            assertTrue(info.out().contains("\nDebugging\n"), info.out());
            assertTrue(info.out().contains("\nHotSpot (performance data)\n"), info.out());
            Map<String, String> infoJson = Launcher.flatJson(Launcher.run("--json", "info", Long.toString(pid)).out());
            assertEquals("\"17.0.9-merged\"", infoJson.get("start.vmVersion"));
            assertEquals("\"" + JdkVm.MAIN_CLASS + "\"", infoJson.get("hotspot.mainClass"));
        }
    }
}
