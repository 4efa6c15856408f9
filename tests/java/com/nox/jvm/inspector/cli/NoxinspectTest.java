package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.testing.Vmsim;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.regex.Pattern;

import org.junit.jupiter.api.Test;

/**
 * tools/noxinspect run as a user runs it, against simulated VMs (vmsim): a process cluster and
 * instance clusters 84 to 89. Other tests may run VMs at the same time, so only our own VMs'
 * lines and entries are asserted on.
 */
class NoxinspectTest {

    /** The whitespace-separated cells of the list line of the VM with this pid. */
    private static String[] listLine(String out, long pid) {
        for (String line : out.split("\n")) {
            String[] cells = line.trim().split("\\s+");
            if (cells.length >= 3 && cells[2].equals(Long.toString(pid))) {
                return cells;
            }
        }
        return null;
    }

    /** The index i for which {@code vms.i.pid} is this pid in a flattened list, or -1. */
    private static int vmIndex(Map<String, String> flat, long pid) {
        for (int i = 0; flat.containsKey("vms." + i + ".pid"); i++) {
            if (flat.get("vms." + i + ".pid").equals(Long.toString(pid))) {
                return i;
            }
        }
        return -1;
    }

    private static String q(String text) {
        return "\"" + text + "\"";
    }

    private static void assertNoStackTrace(Launcher.Result r) {
        assertFalse(r.err().contains("Exception") || r.err().contains("\tat "), r.toString());
    }

    /** One process cluster (32-bit) and instance cluster 84 (64-bit, slots 1 and 3 empty), as text and as JSON. */
    @Test
    void listInTextAndJson() throws Exception {
        try (Vmsim proc = new Vmsim("--width", "32", "--set", "vm_version=17.0.9-proc",
                "--set", "jar_main_class=cli.Json\"Main", "--set", "vm_id=4711");
             Vmsim inst = new Vmsim("--type", "instance", "--id", "84", "--slots", "4", "--live", "0,2",
                     "--width", "64", "--set", "vm_version=17.0.9-inst", "--set", "0:jar_main_class=cli.SlotZero",
                     "--set", "2:debugging_state=5")) {
            Launcher.Result r = Launcher.run("list");
            assertEquals(0, r.exitCode(), r.toString());
            assertEquals("", r.err());
            assertEquals(List.of("CLUSTER", "SLOT", "PID", "VM-ID", "VERSION", "MAIN-CLASS", "DEBUGGING", "UPTIME", "USER"),
                    List.of(r.out().lines().findFirst().orElseThrow().trim().split("\\s+")));
            String[] p = listLine(r.out(), proc.id());
            assertNotNull(p, r.out());
            assertEquals(List.of("process:" + proc.id(), "0", Integer.toString(proc.id()), "4711", "17.0.9-proc",
                    "cli.Json\"Main", "not-active"), List.of(p).subList(0, 7));
            assertTrue(p[7].matches("[0-9]+s|[0-9]+m[0-9]{2}s"), p[7]);
            assertEquals(System.getProperty("user.name"), p[8], r.out());
            int[] pids = inst.slotPids();
            String[][] mains = {{"cli.SlotZero", "not-active"}, null, {"demo.Main", "debugger-attached"}};
            for (int slot : new int[] {0, 2}) {
                // vmsim gives slot s the VM id 100 + s.
                assertEquals(List.of("instance:84", Integer.toString(slot), Integer.toString(pids[slot]),
                        Integer.toString(100 + slot), "17.0.9-inst", mains[slot][0], mains[slot][1]),
                        List.of(listLine(r.out(), pids[slot])).subList(0, 7), r.out());
            }

            Launcher.Result j = Launcher.run("list", "--json");
            assertEquals(0, j.exitCode(), j.toString());
            Map<String, String> flat = Launcher.flatJson(j.out());
            int i = vmIndex(flat, proc.id());
            assertTrue(i >= 0, j.out());
            assertEquals(List.of(q("process:" + proc.id()), q("process"), "0", q("cli.Json\\\"Main"), q("NOT_ACTIVE")),
                    List.of(flat.get("vms." + i + ".cluster"), flat.get("vms." + i + ".clusterType"),
                            flat.get("vms." + i + ".slot"), flat.get("vms." + i + ".mainClass"),
                            flat.get("vms." + i + ".debuggingState")));
            // The start time agrees with what the JDK reports for the process, to the second.
            Instant started = ProcessHandle.of(proc.id()).orElseThrow().info().startInstant().orElseThrow();
            long startTime = Long.parseLong(flat.get("vms." + i + ".startTime"));
            assertTrue(Math.abs(startTime - started.getEpochSecond()) <= 1, startTime + " vs " + started);
            for (int slot : new int[] {0, 2}) {
                int k = vmIndex(flat, pids[slot]);
                assertEquals(List.of(q("instance:84"), "84", Integer.toString(slot), Integer.toString(100 + slot)),
                        List.of(flat.get("vms." + k + ".cluster"), flat.get("vms." + k + ".clusterId"),
                                flat.get("vms." + k + ".slot"), flat.get("vms." + k + ".vmId")), j.out());
            }
            assertEquals(2, flat.entrySet().stream().filter(e -> e.getKey().matches("vms\\.[0-9]+\\.cluster")
                    && e.getValue().equals(q("instance:84"))).count(), "slots 1 and 3 are empty: " + j.out());
            int c = 0;
            while (flat.containsKey("clusters." + c + ".id") && !flat.get("clusters." + c + ".cluster").equals(q("instance:84"))) {
                c++;
            }
            assertEquals(List.of("2", "true", "2"), List.of(flat.get("clusters." + c + ".liveVms"),
                    flat.get("clusters." + c + ".attachable"), flat.get("clusters." + c + ".typeCode")), j.out());
        }
    }

    @Test
    void infoByPidAndBySlotInTextAndJson() throws Exception {
        try (Vmsim inst = new Vmsim("--type", "instance", "--id", "85", "--slots", "2", "--width", "64",
                "--set", "1:vm_version=17.0.9+9-info", "--set", "1:jar_main_class=cli.InfoMain",
                "--set", "1:vm_args=-Xmx2g -Dname=\"v\" \\ back\ttab\nline\u0001end", "--set", "1:vm_tag=info-tag",
                "--set", "1:committed_java_heap_size=1610612736", "--set", "1:committed_class_pool_size=1048576",
                "--set", "1:committed_code_cache_size=3072", "--set", "1:number_of_gcs=12",
                "--set", "1:system_time=250", "--set", "1:user_time=750")) {
            int pid = inst.slotPids()[1];
            Launcher.Result text = Launcher.run("info", Integer.toString(pid));
            assertEquals(0, text.exitCode(), text.toString());
            assertEquals("", text.err());
            String out = text.out();
            assertTrue(out.startsWith("VM pid " + pid + ", VM id 101, slot 1 of instance cluster 85"), out);
            for (String heading : new String[] {"\nStart\n", "\nTime", "\nMemory\n", "\nDebugging\n"}) {
                assertTrue(out.contains(heading), heading + "\n" + out);
            }
            assertTrue(out.matches("(?s).*\n  version +17\\.0\\.9\\+9-info\n.*"), out);
            assertTrue(out.matches("(?s).*\n  main class +cli\\.InfoMain\n.*"), out);
            // Control characters made visible, on one line.
            assertTrue(out.contains("\n  VM arguments               -Xmx2g -Dname=\"v\" \\ back\\ttab\\nline\\x01end\n"), out);
            assertTrue(out.matches("(?s).*\n  tag +info-tag\n.*"), out);
            // 1.5 GiB + 1 MiB + 3 KiB, in binary units.
            assertTrue(out.matches("(?s).*\n    Java heap +1\\.5 GiB\n.*"), out);
            assertTrue(out.matches("(?s).*\n    class pool +1 MiB\n.*"), out);
            assertTrue(out.matches("(?s).*\n    code cache +3 KiB\n.*"), out);
            assertTrue(out.matches("(?s).*\n  committed total +1\\.5 GiB\n.*"), out);
            assertTrue(out.matches("(?s).*\n  GCs \\(full\\) +12 \\(0\\)\n.*"), out);
            assertTrue(out.matches("(?s).*\n  total \\(system \\+ user\\) +1000\n.*"), out);
            assertTrue(out.matches("(?s).*\n  port range +8010-8019\n.*"), out);
            assertTrue(out.matches("(?s).*\n  state +not-active\n.*"), out);

            // The same VM named by its place, as JSON.
            Launcher.Result json = Launcher.run("--json", "info", "instance:85:1");
            assertEquals(0, json.exitCode(), json.toString());
            Map<String, String> flat = Launcher.flatJson(json.out());
            assertEquals(Integer.toString(pid), flat.get("vm.pid"));
            assertEquals("101", flat.get("vm.vmId"));
            assertEquals(q("17.0.9+9-info"), flat.get("start.vmVersion"));
            assertEquals(q("cli.InfoMain"), flat.get("start.mainClass"));
            assertEquals(q("info-tag"), flat.get("start.vmTag"));
            // JSON holds the text as a terminal shows it: a consumer that prints it prints no control character.
            assertTrue(Launcher.jsonStringAt(json.out(), "-Xmx2g -Dname=\"v\" \\ back\\ttab\\nline\\x01end", "start",
                    "vmArguments"), json.out());
            assertEquals("true", flat.get("start.hasMetaspace"));
            assertEquals("1610612736", flat.get("memory.committedJavaHeap"));
            assertEquals(Long.toString(1610612736L + 1048576 + 3072), flat.get("memory.committedTotal"));
            assertEquals("12", flat.get("memory.numberOfGcs"));
            assertEquals("1000", flat.get("time.totalTime"));
            assertEquals("250", flat.get("time.systemTime"));
            assertEquals("8010", flat.get("debugging.fromPort"));
            assertEquals("8019", flat.get("debugging.toPort"));
            assertEquals(q("NOT_ACTIVE"), flat.get("debugging.state"));

            // Type codes name the cluster type as well; the same VM by "2:85:1".
            Launcher.Result byCode = Launcher.run("info", "2:85:1", "--json");
            assertEquals(0, byCode.exitCode(), byCode.toString());
            assertEquals(Integer.toString(pid), Launcher.flatJson(byCode.out()).get("vm.pid"));
        }
    }

    @Test
    void debugStartAndStopReachTheVm() throws Exception {
        try (Vmsim inst = new Vmsim("--type", "instance", "--id", "86", "--slots", "2")) {
            int pid = inst.slotPids()[0];
            Launcher.Result start = Launcher.run("debug", "start", Integer.toString(pid), "--suspend", "2");
            assertEquals(0, start.exitCode(), start.toString());
            assertTrue(start.out().contains("VM pid " + pid), start.out());
            assertEquals("REQUEST slot=0 pid=" + pid + " flag=start_debugging suspend=2", inst.waitFor("REQUEST"));
            // vmsim has acted once it printed the line: the VM now waits for a debugger on its first port.
            Map<String, String> flat = Launcher.flatJson(Launcher.run("info", "--json", "instance:86:0").out());
            assertEquals(q("WAIT_FOR_DEBUGGER"), flat.get("debugging.state"));
            assertEquals("8000", flat.get("debugging.currentDebugPort"));
            String[] cells = listLine(Launcher.run("list").out(), pid);
            assertNotNull(cells);
            // The version holds blanks; the debugging state comes before the uptime and the user.
            assertEquals("wait-for-debugger", cells[cells.length - 3]);

            Launcher.Result stop = Launcher.run("debug", "stop", "instance:86:0", "--json");
            assertEquals(0, stop.exitCode(), stop.toString());
            Map<String, String> stopJson = Launcher.flatJson(stop.out());
            assertEquals(q("stop-debugging"), stopJson.get("request"));
            assertEquals(Integer.toString(pid), stopJson.get("vm.pid"));
            assertEquals("REQUEST slot=0 pid=" + pid + " flag=stop_debugging", inst.waitFor("REQUEST"));
            flat = Launcher.flatJson(Launcher.run("info", "--json", Integer.toString(pid)).out());
            assertEquals(q("NOT_ACTIVE"), flat.get("debugging.state"));
            assertEquals("-1", flat.get("debugging.currentDebugPort"));
        }
    }

    @Test
    void exitEndsTheProcessClusterWithTheCode() throws Exception {
        try (Vmsim proc = new Vmsim()) {
            Launcher.Result r = Launcher.run("exit", Integer.toString(proc.id()), "7");
            assertEquals(0, r.exitCode(), r.toString());
            assertEquals("", r.err());
            assertEquals(7, proc.waitExit());
            Launcher.Result after = Launcher.run("info", Integer.toString(proc.id()));
            assertEquals(1, after.exitCode(), after.toString());
            assertTrue(after.err().startsWith("noxinspect: no live VM with pid " + proc.id()), after.err());
            assertEquals("", after.out());
            assertNoStackTrace(after);
        }
    }

    @Test
    void exitEndsOneVmOfAnInstanceCluster() throws Exception {
        try (Vmsim inst = new Vmsim("--type", "instance", "--id", "87", "--slots", "3")) {
            int[] pids = inst.slotPids();
            Launcher.Result r = Launcher.run("--json", "exit", "instance:87:1", "5");
            assertEquals(0, r.exitCode(), r.toString());
            Map<String, String> flat = Launcher.flatJson(r.out());
            assertEquals(q("exit"), flat.get("request"));
            assertEquals("5", flat.get("code"));
            assertEquals(Integer.toString(pids[1]), flat.get("vm.pid"));
            assertEquals("EXITED slot=1 pid=" + pids[1] + " code=5", inst.waitFor("EXITED"));
            String list = Launcher.run("list").out();
            assertEquals(null, listLine(list, pids[1]), list);
            assertNotNull(listLine(list, pids[0]), list);
            assertNotNull(listLine(list, pids[2]), list);
            Launcher.Result again = Launcher.run("exit", "instance:87:1", "5");
            assertEquals(1, again.exitCode(), again.toString());
            assertEquals("noxinspect: no live VM in slot 1 of instance cluster 87\n", again.err());
        }
    }

    @Test
    void unknownVmsAreRefusedWithExitCodeOne() throws Exception {
        long self = ProcessHandle.current().pid();
        // This test's JVM publishes performance data, which info shows: a plain process does not.
        Process sleeper = new ProcessBuilder("sleep", "60").start();
        long plain = sleeper.pid();
        List<String[]> cases = new ArrayList<>();
        cases.add(new String[] {"no live VM with pid " + plain
            + " (the process publishes no control area and no performance data", "info", Long.toString(plain)});
        for (String command : List.of("stat", "counters")) {
            cases.add(new String[] {"no HotSpot VM with pid " + plain + " publishes performance data (not a Java VM",
                command, Long.toString(plain)});
        }
        String stock = "VM pid " + self + " is a stock HotSpot VM without a control area of its own, so it takes no"
                + " requests; run `noxinspect attach " + self + "` to give it one";
        cases.add(new String[] {stock, "debug", "start", Long.toString(self)});
        cases.add(new String[] {stock, "exit", Long.toString(self), "3"});
        if (!System.getProperty("user.name").equals("root")) {
            // init is root's: a user who may not read its files is told so, not that it publishes nothing.
            cases.add(new String[] {"no live VM with pid 1 that this user may read: the process is owned by uid 0,"
                + " which this user may not read", "info", "1"});
            for (String command : List.of("stat", "counters")) {
                cases.add(new String[] {"no HotSpot VM with pid 1 that this user may read: the process is owned by"
                    + " uid 0, which this user may not read", command, "1"});
            }
        }
        cases.add(new String[] {"no live VM in slot 0 of instance cluster 89", "info", "instance:89:0"});
        cases.add(new String[] {"no live VM in slot 0 of process cluster " + self, "debug", "stop",
            "process:" + self + ":0", "--json"});
        try {
            for (String[] c : cases) {
                String[] args = java.util.Arrays.copyOfRange(c, 1, c.length);
                Launcher.Result r = Launcher.run(args);
                assertEquals(1, r.exitCode(), String.join(" ", args) + "\n" + r);
                assertTrue(r.err().startsWith("noxinspect: " + c[0]), r.toString());
                assertEquals(1, r.err().lines().count(), r.toString());
                assertEquals("", r.out());
                assertNoStackTrace(r);
            }
        } finally {
            sleeper.destroyForcibly();
            sleeper.waitFor();
        }
    }

    @Test
    void badCommandLinesGiveOneLineAndExitCodeTwo() throws Exception {
        String[][] cases = {
            {}, {"frob"}, {"list", "extra"}, {"info"}, {"info", "abc"}, {"info", "0"}, {"info", "-5"},
            {"info", "galaxy:1:0"}, {"info", "instance:1"}, {"info", "instance:x:0"}, {"info", "instance:84:-1"},
            {"info", "99999999999"}, {"exit", "123"}, {"exit", "123", "256"}, {"exit", "123", "-1"},
            {"exit", "123", "seven"}, {"debug"}, {"debug", "pause", "123"}, {"debug", "start"},
            {"debug", "start", "123", "--suspend"}, {"debug", "start", "123", "--suspend", "x"},
            {"debug", "stop", "123", "--suspend", "1"}, {"debug", "start", "123", "--frob"}, {"boards", "1"},
            {"list", "-x"}, {"list", "-u"}, {"stat"}, {"stat", "1", "5"}, {"stat", "1", "100", "0"}, {"stat", "-x", "1"},
            {"top", "-d", "0"}, {"top", "-s", "colour"}, {"top", "-n"},
        };
        for (String[] args : cases) {
            Launcher.Result r = Launcher.run(args);
            assertEquals(2, r.exitCode(), String.join(" ", args) + "\n" + r);
            assertTrue(r.err().startsWith("noxinspect: "), r.toString());
            assertTrue(r.err().endsWith(" (noxinspect help lists the commands)\n"), r.toString());
            assertEquals(1, r.err().lines().count(), r.toString());
            assertEquals("", r.out());
            assertNoStackTrace(r);
        }
        Launcher.Result help = Launcher.run("help");
        assertEquals(0, help.exitCode(), help.toString());
        assertTrue(help.out().startsWith("usage: noxinspect"), help.out());
        assertEquals("", help.err());
        assertEquals(help.out(), Launcher.run("--help").out());
    }

    /** The hex pairs of a little-endian int32, as the boards listing prints them. */
    private static String hexLe(int value) {
        return String.format("%02x %02x %02x %02x", value & 0xff, (value >> 8) & 0xff, (value >> 16) & 0xff,
                (value >>> 24) & 0xff);
    }

    @Test
    void boardsShowEachVmsBoardInTextAndJson() throws Exception {
        try (Vmsim inst = new Vmsim("--type", "instance", "--id", "89", "--slots", "2", "--board", "4096")) {
            int[] pids = inst.slotPids();
            Launcher.Result json = Launcher.run("boards", "--json");
            assertEquals(0, json.exitCode(), json.toString());
            assertEquals("", json.err());
            Map<String, String> flat = Launcher.flatJson(json.out());
            Launcher.Result text = Launcher.run("boards");
            assertEquals(0, text.exitCode(), text.toString());
            assertEquals(List.of("PID", "SIZE", "FIRST", "BYTES", "AS", "TEXT"),
                    List.of(text.out().lines().findFirst().orElseThrow().trim().split("\\s+")), text.out());
            for (int slot = 0; slot < 2; slot++) {
                int pid = pids[slot];
                int k = -1;
                for (int i = 0; flat.containsKey("boards." + i + ".pid"); i++) {
                    if (flat.get("boards." + i + ".pid").equals(Integer.toString(pid))) {
                        k = i;
                    }
                }
                assertTrue(k >= 0, "board of slot " + slot + "\n" + json.out());
                assertEquals("4096", flat.get("boards." + k + ".size"));
                // vmsim's board: "NOXBOARD", then the VM's pid and slot as little-endian int32.
                String first = "4e 4f 58 42 4f 41 52 44 " + hexLe(pid) + " " + hexLe(slot);
                assertEquals(q(first), flat.get("boards." + k + ".firstBytes"));
                String line = text.out().lines().filter(l -> l.trim().startsWith(pid + " ")).findFirst()
                        .orElse(null);
                assertNotNull(line, text.out());
                // The text column shows printable ASCII as is (a pid byte may be), the rest as dots.
                StringBuilder asText = new StringBuilder("NOXBOARD");
                for (int shift = 0; shift < 32; shift += 8) {
                    int b = (pid >>> shift) & 0xff;
                    asText.append(b >= 0x20 && b < 0x7f ? (char) b : '.');
                }
                asText.append("....");
                assertTrue(line.trim().matches(pid + " +4 KiB +" + first + " +" + Pattern.quote(asText.toString())),
                        line);
            }
            // The start record says so as well.
            assertTrue(Launcher.run("info", Integer.toString(pids[0])).out()
                    .matches("(?s).*\n  monitoring board +yes\n.*"));
        }
    }

    @Test
    void launcherWithoutABuildSaysWhereItLooked() throws Exception {
        Launcher.Result r = Launcher.runWith(Map.of("NOX_BUILD_DIR", "/nonexistent/nox-build"), "list");
        assertEquals(3, r.exitCode(), r.toString());
        assertTrue(r.err().startsWith("noxinspect: no built inspector in /nonexistent/nox-build"), r.err());
        assertEquals("", r.out());
    }
}
