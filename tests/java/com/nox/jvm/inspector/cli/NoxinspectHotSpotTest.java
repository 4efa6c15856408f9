package com.nox.jvm.inspector.cli;

import static com.nox.jvm.inspector.cli.Launcher.q;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;
import java.util.function.Predicate;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * noxinspect with real JDK 17 VMs that publish no control area, only their performance data: one
 * started with known options and arguments, one without performance data, one that refuses the
 * attach. What list, info, counters, stat and top show of them, and what the options jps users
 * reach for (-q, -m, -v, -u, -c) select.
 */
class NoxinspectHotSpotTest {
    private static final String USER = System.getProperty("user.name");
    private static JdkVm vm;
    private static JdkVm hidden;
    private static JdkVm noAttach;

    @BeforeAll
    static void start() throws Exception {
        vm = new JdkVm(List.of(), List.of("-XX:+UseSerialGC", "-Xmx80m", "-Dnox.cli.options=1"), "alpha", "beta");
        hidden = new JdkVm("-XX:-UsePerfData");
        noAttach = new JdkVm("-XX:+DisableAttachMechanism", "-XX:MaxMetaspaceSize=64m");
        vm.awaitListed();
        noAttach.awaitListed();
    }

    @AfterAll
    static void stop() throws Exception {
        for (JdkVm started : new JdkVm[] {vm, hidden, noAttach}) {
            if (started != null) {
                started.close();
            }
        }
    }

    @Test
    void listShowsHotSpotVmsAndThoseWithoutPerfDataMarked() throws Exception {
        Launcher.Result r = Launcher.run("list");
        assertEquals(0, r.exitCode(), r.toString());
        String version = "OpenJDK 64-Bit Server VM " + System.getProperty("java.vm.version");
        String[] cells = Launcher.row(r.out(), vm.pid());
        assertNotNull(cells, r.out());
        assertEquals(List.of("hotspot", "-", Integer.toString(vm.pid()), "-"), List.of(cells).subList(0, 4));
        assertTrue(String.join(" ", cells).contains(" " + version + " " + JdkVm.MAIN_CLASS + " - "), r.out());
        // jps cannot see a VM without performance data; list shows it, marked, with what /proc tells.
        String[] quiet = Launcher.row(r.out(), hidden.pid());
        assertNotNull(quiet, r.out());
        assertEquals(List.of("no-perf-data", "-", Integer.toString(hidden.pid()), "-", "-", JdkVm.MAIN_CLASS),
                List.of(quiet).subList(0, 6), r.out());

        Map<String, String> flat = Launcher.json("list");
        Map<String, String> listed = Launcher.vm(flat, vm.pid());
        assertEquals(List.of(q("hotspot"), "null", q(JdkVm.MAIN_CLASS), q("hotspot"), q(USER), q(version)),
                List.of(listed.get("cluster"), listed.get("slot"), listed.get("mainClass"), listed.get("sources.0"),
                        listed.get("user"), listed.get("version")));
        assertEquals(List.of(), Launcher.entries(flat, "vms", hidden.pid()));
        Map<String, String> without = Launcher.entries(flat, "withoutPerfData", hidden.pid()).get(0);
        assertEquals(q(JdkVm.MAIN_CLASS), without.get("mainClass"), flat.toString());
        assertTrue(without.get("commandLine").contains("-XX:-UsePerfData"), flat.toString());
    }

    @Test
    void infoShowsTheFiguresOfAHotSpotVm() throws Exception {
        Launcher.Result r = Launcher.run("info", Integer.toString(vm.pid()));
        assertEquals(0, r.exitCode(), r.toString());
        assertTrue(r.out().startsWith("VM pid " + vm.pid() + " (hotspot, performance data of user " + USER + ")"),
                r.out());
        for (String line : List.of("\n  main class    " + JdkVm.MAIN_CLASS + "\n", "\n  heap max             80 MiB\n",
                "Serial young collection pauses", "VM arguments  -XX:+UseSerialGC -Xmx80m",
                "VM flags (not default; as the VM tells them)\n")) {
            assertTrue(r.out().contains(line), line + "\n" + r.out());
        }
        assertTrue(r.out().matches("(?s).*\n  MaxHeapSize +83886080 \\(command line\\)\n.*"), r.out());
        assertTrue(r.out().matches("(?s).*\n  MaxNewSize +[0-9]+ \\(ergonomic\\)\n.*"), r.out());

        Map<String, String> flat = Launcher.json("info", Integer.toString(vm.pid()));
        assertEquals(List.of(q("hotspot"), Integer.toString(vm.pid()), "null", q(JdkVm.MAIN_CLASS),
                q(JdkVm.MAIN_CLASS + " alpha beta"), Long.toString(80L << 20), q("Serial young collection pauses"),
                "1000000000", q("attach")), List.of(flat.get("vm.cluster"), flat.get("vm.pid"), flat.get("start"),
                flat.get("vm.mainClass"), flat.get("hotspot.javaCommand"), flat.get("hotspot.heapMax"),
                flat.get("hotspot.collectors.0.name"), flat.get("hotspot.tickFrequency"), flat.get("flags.source")));
    }

    /** A VM that refuses the attach: info shows its command line's flags, and says so. */
    @Test
    void infoShowsTheCommandLineFlagsOfAVmThatCannotBeAsked() throws Exception {
        Map<String, String> flat = Launcher.json("info", Integer.toString(noAttach.pid()));
        assertEquals(q("command line"), flat.get("flags.source"), flat.toString());
        assertEquals(List.of(q("DisableAttachMechanism"), q("true"), q("MaxMetaspaceSize"), q("64m")),
                List.of(flat.get("flags.flags.0.name"), flat.get("flags.flags.0.value"),
                        flat.get("flags.flags.1.name"), flat.get("flags.flags.1.value")));
        assertTrue(Launcher.run("info", Integer.toString(noAttach.pid())).out()
                .contains("VM flags (not default; the command line's: the VM could not be asked)\n"));
    }

    @Test
    void countersAreReadByName() throws Exception {
        String pid = Integer.toString(vm.pid());
        Launcher.Result r = Launcher.run("counters", pid, "sun.os.hrt.frequency", "sun.rt.javaCommand");
        assertEquals(0, r.exitCode(), r.toString());
        assertEquals("sun.os.hrt.frequency=1000000000\nsun.rt.javaCommand=\"" + JdkVm.MAIN_CLASS
                + " alpha beta\"\n", r.out());
        Launcher.Result all = Launcher.run("counters", pid);
        assertEquals(0, all.exitCode(), all.toString());
        assertTrue(all.out().lines().count() > 150, all.out());
        assertTrue(all.out().startsWith("sun.perfdata.majorVersion=2\n"), all.out());

        Map<String, String> flat = Launcher.json("counters", pid, "java.property.java.vm.version");
        assertEquals(q(System.getProperty("java.vm.version")), flat.get("counters.0.value"));
        assertEquals(q("constant"), flat.get("counters.0.variability"));

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

    private record Case(List<String> args, int exitCode, Predicate<Launcher.Result> holds, String what) {
    }

    /** Each command line with what its output must show. */
    @Test
    void optionsShowWhatTheySay() throws Exception {
        String pid = Integer.toString(vm.pid());
        String prefix = "sun.gc.collector.0.";
        List<Case> cases = List.of(
                new Case(List.of("list", "-q"), 0, r -> r.out().lines().anyMatch(pid::equals)
                        && r.out().lines().anyMatch(Integer.toString(hidden.pid())::equals)
                        && r.out().lines().allMatch(l -> l.matches("[0-9]+")), "pids alone, these VMs' among them"),
                new Case(List.of("--json", "list", "-q", "-c", "SleepingVm"), 0,
                        r -> r.out().replaceAll("\\s", "").matches("\\{\"pids\":\\[([0-9]+,)*" + pid + "(,[0-9]+)*]}"),
                        "JSON pids of the VMs whose main class has the text"),
                new Case(List.of("list", "-m", "-c", "SleepingVm"), 0,
                        r -> line(r).endsWith("alpha beta")
                                && r.out().lines().findFirst().get().matches("CLUSTER .*ARGUMENTS"),
                        "a column of main's arguments"),
                new Case(List.of("list", "-v", "-u", USER), 0, r -> line(r).contains(" " + USER + " ")
                        && line(r).contains("-XX:+UseSerialGC -Xmx80m -Dnox.cli.options=1"), "the VM's arguments and user"),
                new Case(List.of("list", "-u", "no-such-user-here"), 0,
                        r -> r.out().equals("No Java VMs on this host that match.\n"), "nothing of another user"),
                new Case(List.of("counters", pid, prefix + "*"), 0, r -> r.out().lines().count() >= 5
                        && r.out().lines().allMatch(l -> l.startsWith(prefix)), "every counter of the prefix"),
                new Case(List.of("counters", pid, "no.such.prefix.*"), 1, r -> r.err().equals("noxinspect: VM pid "
                        + pid + " has no counter that begins with no.such.prefix.\n"), "a prefix nothing begins with"),
                new Case(List.of("--version"), 0, r -> r.out().startsWith("noxinspect 1.") && r.out().contains("\njava "),
                        "the version, the library and the Java"),
                new Case(List.of("serve", "--bind", "192.0.2.77", "--port", "0"), 1,
                        r -> r.err().contains("this host has no address 192.0.2.77; its addresses are ")
                                && r.err().contains("127.0.0.1"), "the host's own addresses"));
        for (Case c : cases) {
            Launcher.Result r = Launcher.run(c.args().toArray(String[]::new));
            assertEquals(c.exitCode(), r.exitCode(), c.args() + "\n" + r);
            assertTrue(c.holds().test(r), c.what() + ": " + c.args() + "\n" + r);
            assertFalse(r.err().contains("Exception"), r.toString());
        }
    }

    /** The row of the VM in a table, its cells joined by one blank; "" when there is none. */
    private static String line(Launcher.Result r) {
        String[] cells = Launcher.row(r.out(), vm.pid());
        return cells == null ? "" : String.join(" ", cells);
    }

    /** An interval and a count: that many samples, one JSON object per line, on the VM's clock at least the interval apart. */
    @Test
    void statSamplesOnScheduleAsJsonLines() throws Exception {
        Launcher.Result r = Launcher.run("--json", "stat", Integer.toString(vm.pid()), "100ms", "20");
        assertEquals(0, r.exitCode(), r.toString());
        List<String> lines = r.out().lines().toList();
        assertEquals(20, lines.size(), r.out());
        double first = -1;
        double last = 0;
        for (String line : lines) {
            Map<String, String> flat = Launcher.flatJson(line);
            assertEquals(List.of(Integer.toString(vm.pid()), q("No GC"), "null"),
                    List.of(flat.get("pid"), flat.get("cause"), flat.get("concurrentCollections")), line);
            double uptime = Double.parseDouble(flat.get("uptime"));
            first = first < 0 ? uptime : first;
            assertTrue(uptime >= last, r.out());
            last = uptime;
        }
        // The VM's clock ticks in 50 ms steps (its sampler publishes it), hence the margin.
        assertTrue(last - first >= 1.9 - 0.1, r.out());
    }

    /** Output that is not a terminal gets one plain table per refresh (or one JSON object per line), no escapes. */
    @Test
    void topPrintsPlainTablesWhenNotATerminal() throws Exception {
        String pid = Integer.toString(vm.pid());
        Launcher.Result text = Launcher.run("top", "-n", "2", "-d", "0.2", "-s", "pid");
        assertEquals(0, text.exitCode(), text.toString());
        assertFalse(text.out().contains("\033"), text.out());
        List<String> lines = text.out().lines().toList();
        assertEquals(2, lines.stream().filter(l -> l.startsWith("noxinspect top ")).count(), text.out());
        assertEquals(2, lines.stream().filter(l -> l.trim().startsWith("PID USER")).count(), text.out());
        // The second refresh has a CPU share for the VM: a difference of two readings.
        String row = lines.stream().filter(l -> l.trim().startsWith(pid + " ")).reduce((x, y) -> y).orElseThrow();
        assertTrue(row.trim().split(" +")[2].matches("[0-9]+(\\.[0-9])?"), row);

        String uid = Files.getAttribute(Path.of("/proc/self"), "unix:uid").toString();
        Launcher.Result json = Launcher.run("--json", "top", "-n", "1", "-c", "SleepingVm", "-u", uid);
        assertEquals(0, json.exitCode(), json.toString());
        assertTrue(Launcher.flatJson(json.out()).containsValue(pid), json.out());
        assertEquals(1, json.out().lines().count(), json.out());
        Launcher.Result none = Launcher.run("--json", "top", "-n", "1", "-u", "no-such-user-here");
        assertEquals("{\"vms\":[]}", none.out().replaceAll("\\s|\"time\":[0-9]+,", ""), none.toString());
    }
}
