package com.nox.jvm.inspector.cli;

import static com.nox.jvm.inspector.cli.Launcher.q;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.Spawned;
import com.nox.jvm.inspector.testing.Vmsim;

import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.regex.Pattern;
import java.util.stream.Stream;

import org.junit.jupiter.api.Test;

/**
 * tools/noxinspect run as a user runs it, against simulated VMs (vmsim): a process cluster and
 * instance clusters 84 to 89. Other tests may run VMs at the same time, so only our own VMs'
 * lines and entries are asserted on.
 */
class NoxinspectTest {

    private static void assertNoStackTrace(Launcher.Result r) {
        assertFalse(r.err().contains("Exception") || r.err().contains("\tat "), r.toString());
    }

    /** The cells of a row from the cluster to the debugging state. */
    private static List<String> cells(String out, long pid) {
        String[] row = Launcher.row(out, pid);
        assertNotNull(row, "no row of " + pid + ":\n" + out);
        return List.of(row).subList(0, 7);
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
            String[] p = Launcher.row(r.out(), proc.id());
            assertEquals(List.of("process:" + proc.id(), "0", Integer.toString(proc.id()), "4711", "17.0.9-proc",
                    "cli.Json\"Main", "not-active"), cells(r.out(), proc.id()));
            assertTrue(p[7].matches("[0-9]+s|[0-9]+m[0-9]{2}s"), p[7]);
            assertEquals(System.getProperty("user.name"), p[8], r.out());
            int[] pids = inst.slotPids();
            // vmsim gives slot s the VM id 100 + s.
            assertEquals(List.of("instance:84", "0", Integer.toString(pids[0]), "100", "17.0.9-inst", "cli.SlotZero",
                    "not-active"), cells(r.out(), pids[0]));
            assertEquals(List.of("instance:84", "2", Integer.toString(pids[2]), "102", "17.0.9-inst", "demo.Main",
                    "debugger-attached"), cells(r.out(), pids[2]));

            Map<String, String> flat = Launcher.json("list");
            Map<String, String> vm = Launcher.vm(flat, proc.id());
            assertEquals(List.of(q("process:" + proc.id()), q("process"), "0", q("cli.Json\"Main"), q("NOT_ACTIVE")),
                    List.of(vm.get("cluster"), vm.get("clusterType"), vm.get("slot"), vm.get("mainClass"),
                            vm.get("debuggingState")));
            // The start time agrees with what the JDK reports for the process, to the second.
            Instant started = ProcessHandle.of(proc.id()).orElseThrow().info().startInstant().orElseThrow();
            long startTime = Long.parseLong(vm.get("startTime"));
            assertTrue(Math.abs(startTime - started.getEpochSecond()) <= 1, startTime + " vs " + started);
            for (int slot : new int[] {0, 2}) {
                Map<String, String> k = Launcher.vm(flat, pids[slot]);
                assertEquals(List.of(q("instance:84"), "84", Integer.toString(slot), Integer.toString(100 + slot)),
                        List.of(k.get("cluster"), k.get("clusterId"), k.get("slot"), k.get("vmId")), flat.toString());
            }
            assertEquals(2, flat.entrySet().stream().filter(e -> e.getKey().matches("vms\\.[0-9]+\\.cluster")
                    && e.getValue().equals(q("instance:84"))).count(), "slots 1 and 3 are empty: " + flat);
            int c = 0;
            while (flat.containsKey("clusters." + c + ".id") && !flat.get("clusters." + c + ".cluster").equals(q("instance:84"))) {
                c++;
            }
            assertEquals(List.of("2", "true", "2"), List.of(flat.get("clusters." + c + ".liveVms"),
                    flat.get("clusters." + c + ".attachable"), flat.get("clusters." + c + ".typeCode")), flat.toString());
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
            // Control characters made visible, on one line; 1.5 GiB + 1 MiB + 3 KiB, in binary units.
            for (String line : List.of("  version +17\\.0\\.9\\+9-info", "  main class +cli\\.InfoMain",
                    "  VM arguments +" + Pattern.quote("-Xmx2g -Dname=\"v\" \\ back\\ttab\\nline\\x01end"),
                    "  tag +info-tag", "    Java heap +1\\.5 GiB", "    class pool +1 MiB", "    code cache +3 KiB",
                    "  committed total +1\\.5 GiB", "  GCs \\(full\\) +12 \\(0\\)", "  total \\(system \\+ user\\) +1000",
                    "  port range +8010-8019", "  state +not-active")) {
                assertTrue(out.matches("(?s).*\n" + line + "\n.*"), line + "\n" + out);
            }

            // The same VM named by its place, as JSON.
            Map<String, String> flat = Launcher.json("info", "instance:85:1");
            assertEquals(List.of(Integer.toString(pid), "101", q("17.0.9+9-info"), q("cli.InfoMain"), q("info-tag"),
                    "true", "1610612736", Long.toString(1610612736L + 1048576 + 3072), "12", "1000", "250", "8010",
                    "8019", q("NOT_ACTIVE")), Stream.of("vm.pid", "vm.vmId", "start.vmVersion", "start.mainClass",
                    "start.vmTag", "start.hasMetaspace", "memory.committedJavaHeap", "memory.committedTotal",
                    "memory.numberOfGcs", "time.totalTime", "time.systemTime", "debugging.fromPort", "debugging.toPort",
                    "debugging.state").map(flat::get).toList());
            // JSON holds the text as a terminal shows it: a consumer that prints it prints no control character.
            assertEquals(q("-Xmx2g -Dname=\"v\" \\ back\\ttab\\nline\\x01end"), flat.get("start.vmArguments"));
            // Type codes name the cluster type as well; the same VM by "2:85:1".
            assertEquals(Integer.toString(pid), Launcher.json("info", "2:85:1").get("vm.pid"));
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
            Map<String, String> flat = Launcher.json("info", "instance:86:0");
            assertEquals(List.of(q("WAIT_FOR_DEBUGGER"), "8000"), List.of(flat.get("debugging.state"),
                    flat.get("debugging.currentDebugPort")));
            String[] cells = Launcher.row(Launcher.run("list").out(), pid);
            // The version holds blanks; the debugging state comes before the uptime and the user.
            assertEquals("wait-for-debugger", cells[cells.length - 3]);

            Map<String, String> stop = Launcher.json("debug", "stop", "instance:86:0");
            assertEquals(List.of(q("stop-debugging"), Integer.toString(pid)), List.of(stop.get("request"),
                    stop.get("vm.pid")));
            assertEquals("REQUEST slot=0 pid=" + pid + " flag=stop_debugging", inst.waitFor("REQUEST"));
            flat = Launcher.json("info", Integer.toString(pid));
            assertEquals(List.of(q("NOT_ACTIVE"), "-1"), List.of(flat.get("debugging.state"),
                    flat.get("debugging.currentDebugPort")));
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
            Map<String, String> flat = Launcher.json("exit", "instance:87:1", "5");
            assertEquals(List.of(q("exit"), "5", Integer.toString(pids[1])), List.of(flat.get("request"),
                    flat.get("code"), flat.get("vm.pid")));
            assertEquals("EXITED slot=1 pid=" + pids[1] + " code=5", inst.waitFor("EXITED"));
            String list = Launcher.run("list").out();
            assertEquals(null, Launcher.row(list, pids[1]), list);
            assertNotNull(Launcher.row(list, pids[0]), list);
            assertNotNull(Launcher.row(list, pids[2]), list);
            Launcher.Result again = Launcher.run("exit", "instance:87:1", "5");
            assertEquals(1, again.exitCode(), again.toString());
            assertEquals("noxinspect: no live VM in slot 1 of instance cluster 87\n", again.err());
        }
    }

    @Test
    void unknownVmsAreRefusedWithExitCodeOne() throws Exception {
        long self = ProcessHandle.current().pid();
        // This test's JVM publishes performance data, which info shows: a plain process does not.
        Spawned sleeper = new Spawned(List.of("sleep", "60"));
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
            sleeper.close();
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
            {"list", "-x"}, {"list", "-u"}, {"stat"}, {"counters"}, {"stat", "1", "5"}, {"stat", "1", "100", "0"},
            {"stat", "-x", "1"}, {"top", "-d", "0"}, {"top", "-s", "colour"}, {"top", "-n"},
            {"serve", "--port", "70000"}, {"serve", "--port"}, {"serve", "--colour", "red"}, {"watch", "extra"},
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
                Map<String, String> board = Launcher.entries(flat, "boards", pid).get(0);
                // vmsim's board: "NOXBOARD", then the VM's pid and slot as little-endian int32.
                String first = "4e 4f 58 42 4f 41 52 44 " + hexLe(pid) + " " + hexLe(slot);
                assertEquals(List.of("4096", q(first)), List.of(board.get("size"), board.get("firstBytes")));
                // The text column shows printable ASCII as is, the rest as dots (a pid byte may be either).
                assertTrue(text.out().lines().anyMatch(l -> l.trim().matches(pid + " +4 KiB +" + first
                        + " +NOXBOARD.{4}\\.{4}")), text.out());
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
