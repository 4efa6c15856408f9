package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.hotspot.HotSpotInspector;
import com.nox.jvm.inspector.natives.NativeLibrary;
import com.nox.jvm.inspector.testing.JdkVm;

import java.util.List;
import java.util.Map;

import org.junit.jupiter.api.Test;

/** noxinspect with real JDK 17 VMs that publish no control area, only their performance data. */
class NoxinspectHotSpotTest {
    private static final String USER = System.getProperty("user.name");

    static String[] listLine(String out, long pid) {
        for (String line : out.split("\n")) {
            String[] cells = line.trim().split("\\s+");
            if (cells.length >= 3 && cells[2].equals(Long.toString(pid))) {
                return cells;
            }
        }
        return null;
    }

    /** The i of vms.i.pid == pid in a flattened list, or -1. */
    static int vmIndex(Map<String, String> flat, long pid) {
        for (int i = 0; flat.containsKey("vms." + i + ".pid"); i++) {
            if (flat.get("vms." + i + ".pid").equals(Long.toString(pid))) {
                return i;
            }
        }
        return -1;
    }

    /** Waits up to 10 s until the natives list the VM. */
    static void awaitListed(JdkVm vm) throws InterruptedException {
        NativeLibrary.load();
        HotSpotInspector inspector = new HotSpotInspector();
        long deadline = System.nanoTime() + 10_000_000_000L;
        while (System.nanoTime() < deadline) {
            if (inspector.vms().stream().anyMatch(v -> v.pid() == vm.pid())) {
                return;
            }
            Thread.sleep(20);
        }
        throw new AssertionError("VM " + vm.pid() + " did not publish its performance data within 10 s");
    }

    @Test
    void listShowsHotSpotVmsAndThoseWithoutPerfDataMarked() throws Exception {
        try (JdkVm a = new JdkVm(List.of(), List.of("-XX:+UseSerialGC"), "list", "a");
             JdkVm b = new JdkVm(List.of(), List.of(), "list", "b");
             JdkVm hidden = new JdkVm(List.of(), List.of("-XX:-UsePerfData"), "hidden")) {
            awaitListed(a);
            awaitListed(b);
            Launcher.Result r = Launcher.run("list");
            assertEquals(0, r.exitCode(), r.toString());
            String version = "OpenJDK 64-Bit Server VM " + System.getProperty("java.vm.version");
            for (JdkVm vm : List.of(a, b)) {
                String[] cells = listLine(r.out(), vm.pid());
                assertNotNull(cells, r.out());
                assertEquals(List.of("hotspot", "-", Integer.toString(vm.pid()), "-"), List.of(cells).subList(0, 4));
                assertTrue(String.join(" ", cells).contains(" " + version + " " + JdkVm.MAIN_CLASS + " - "), r.out());
            }
            // jps cannot see a VM without performance data; list shows it, marked, with what /proc tells.
            String[] quiet = listLine(r.out(), hidden.pid());
            assertNotNull(quiet, r.out());
            assertEquals(List.of("no-perf-data", "-", Integer.toString(hidden.pid()), "-", "-", JdkVm.MAIN_CLASS),
                    List.of(quiet).subList(0, 6), r.out());

            Launcher.Result j = Launcher.run("--json", "list");
            assertEquals(0, j.exitCode(), j.toString());
            Map<String, String> flat = Launcher.flatJson(j.out());
            int i = vmIndex(flat, a.pid());
            assertTrue(i >= 0, j.out());
            assertEquals("\"hotspot\"", flat.get("vms." + i + ".cluster"));
            assertEquals("null", flat.get("vms." + i + ".slot"));
            assertEquals("\"" + JdkVm.MAIN_CLASS + "\"", flat.get("vms." + i + ".mainClass"));
            assertEquals("\"hotspot\"", flat.get("vms." + i + ".sources.0"));
            assertEquals("\"" + USER + "\"", flat.get("vms." + i + ".user"));
            assertEquals("\"" + version + "\"", flat.get("vms." + i + ".version"));
            assertEquals(-1, vmIndex(flat, hidden.pid()));
            int q = 0;
            while (flat.containsKey("withoutPerfData." + q + ".pid")
                    && !flat.get("withoutPerfData." + q + ".pid").equals(Integer.toString(hidden.pid()))) {
                q++;
            }
            assertEquals("\"" + JdkVm.MAIN_CLASS + "\"", flat.get("withoutPerfData." + q + ".mainClass"), j.out());
            assertTrue(flat.get("withoutPerfData." + q + ".commandLine").contains("-XX:-UsePerfData"), j.out());
            assertTrue(Launcher.run("list", "-q").out().lines().anyMatch(Integer.toString(hidden.pid())::equals));
        }
    }

    @Test
    void infoShowsTheFiguresOfAHotSpotVm() throws Exception {
        try (JdkVm vm = new JdkVm(List.of(), List.of("-XX:+UseSerialGC", "-Xmx80m"), "info")) {
            awaitListed(vm);
            Launcher.Result r = Launcher.run("info", Integer.toString(vm.pid()));
            assertEquals(0, r.exitCode(), r.toString());
            assertTrue(r.out().startsWith("VM pid " + vm.pid() + " (hotspot, performance data of user " + USER + ")"),
                    r.out());
            assertTrue(r.out().contains("\n  main class    " + JdkVm.MAIN_CLASS + "\n"), r.out());
            assertTrue(r.out().contains("\n  heap max             80 MiB\n"), r.out());
            assertTrue(r.out().contains("Serial young collection pauses"), r.out());
            assertTrue(r.out().contains("VM arguments  -XX:+UseSerialGC -Xmx80m"), r.out());

            Launcher.Result j = Launcher.run("--json", "info", Integer.toString(vm.pid()));
            assertEquals(0, j.exitCode(), j.toString());
            Map<String, String> flat = Launcher.flatJson(j.out());
            assertEquals("\"hotspot\"", flat.get("vm.cluster"));
            assertEquals(Integer.toString(vm.pid()), flat.get("vm.pid"));
            assertEquals("null", flat.get("start"));
            assertEquals("\"" + JdkVm.MAIN_CLASS + "\"", flat.get("vm.mainClass"));
            assertEquals("\"" + JdkVm.MAIN_CLASS + " info\"", flat.get("hotspot.javaCommand"));
            assertEquals(Long.toString(80L << 20), flat.get("hotspot.heapMax"));
            assertEquals("\"Serial young collection pauses\"", flat.get("hotspot.collectors.0.name"));
            assertEquals("1000000000", flat.get("hotspot.tickFrequency"));
            assertTrue(r.out().contains("VM flags (not default; as the VM tells them)\n"), r.out());
            assertTrue(r.out().matches("(?s).*\n  MaxHeapSize +83886080 \\(command line\\)\n.*"), r.out());
            assertTrue(r.out().matches("(?s).*\n  MaxNewSize +[0-9]+ \\(ergonomic\\)\n.*"), r.out());
            assertEquals("\"attach\"", flat.get("flags.source"));
        }
    }

    /** A VM that refuses the attach: info shows its command line's flags, and says so. */
    @Test
    void infoShowsTheCommandLineFlagsOfAVmThatCannotBeAsked() throws Exception {
        try (JdkVm vm = new JdkVm(List.of(), List.of("-XX:+DisableAttachMechanism", "-XX:MaxMetaspaceSize=64m"),
                "noattach")) {
            awaitListed(vm);
            Map<String, String> flat = Launcher.flatJson(Launcher.run("--json", "info", Integer.toString(vm.pid())).out());
            assertEquals("\"command line\"", flat.get("flags.source"), flat.toString());
            assertEquals(List.of("\"DisableAttachMechanism\"", "\"true\"", "\"MaxMetaspaceSize\"", "\"64m\""),
                    List.of(flat.get("flags.flags.0.name"), flat.get("flags.flags.0.value"),
                            flat.get("flags.flags.1.name"), flat.get("flags.flags.1.value")));
            assertTrue(Launcher.run("info", Integer.toString(vm.pid())).out()
                    .contains("VM flags (not default; the command line's: the VM could not be asked)\n"));
        }
    }

    @Test
    void countersAreReadByName() throws Exception {
        try (JdkVm vm = new JdkVm(List.of(), List.of(), "counters");
             JdkVm hidden = new JdkVm(List.of(), List.of("-XX:-UsePerfData"), "hidden")) {
            awaitListed(vm);
            String pid = Integer.toString(vm.pid());
            Launcher.Result r = Launcher.run("counters", pid, "sun.os.hrt.frequency", "sun.rt.javaCommand");
            assertEquals(0, r.exitCode(), r.toString());
            assertEquals("sun.os.hrt.frequency=1000000000\nsun.rt.javaCommand=\"" + JdkVm.MAIN_CLASS
                    + " counters\"\n", r.out());
            Launcher.Result all = Launcher.run("counters", pid);
            assertEquals(0, all.exitCode(), all.toString());
            assertTrue(all.out().lines().count() > 150, all.out());
            assertTrue(all.out().startsWith("sun.perfdata.majorVersion=2\n"), all.out());

            Launcher.Result j = Launcher.run("--json", "counters", pid, "java.property.java.vm.version");
            Map<String, String> flat = Launcher.flatJson(j.out());
            assertEquals("\"" + System.getProperty("java.vm.version") + "\"", flat.get("counters.0.value"));
            assertEquals("\"constant\"", flat.get("counters.0.variability"));

            Launcher.Result missing = Launcher.run("counters", pid, "no.such.counter");
            assertEquals(1, missing.exitCode(), missing.toString());
            assertEquals("noxinspect: VM pid " + pid + " has no counter no.such.counter\n", missing.err());
            Launcher.Result none = Launcher.run("counters", Integer.toString(hidden.pid()));
            assertEquals(1, none.exitCode(), none.toString());
            assertTrue(none.err().startsWith("noxinspect: no HotSpot VM with pid " + hidden.pid()), none.err());
            Launcher.Result debug = Launcher.run("debug", "start", pid);
            assertEquals(1, debug.exitCode(), debug.toString());
            assertEquals("noxinspect: VM pid " + pid + " is a stock HotSpot VM without a control area of its own, so"
                    + " it takes no requests; run `noxinspect attach " + pid + "` to give it one\n", debug.err());
            Launcher.Result usage = Launcher.run("counters");
            assertEquals(2, usage.exitCode(), usage.toString());
            assertFalse(usage.err().contains("Exception"), usage.err());
        }
    }
}
