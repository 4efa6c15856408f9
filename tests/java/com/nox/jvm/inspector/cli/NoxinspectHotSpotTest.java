package com.nox.jvm.inspector.cli;

import static com.nox.jvm.inspector.cli.Launcher.q;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.Spawned;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.function.Predicate;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * noxinspect with real JDK 17 VMs that publish no control area, only their performance data: one
 * started with known options and arguments, one without performance data, one that refuses the
 * attach. What list, info, counters, stat and top (in a real terminal too) show of them, and what the options jps users
 * reach for (-q, -m, -v, -u, -c) select; and stat against jstat on VMs of three collectors.
 */
class NoxinspectHotSpotTest {
    private static final String USER = System.getProperty("user.name");
    private static final Path TMUX = Path.of("/usr/bin/tmux");
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
    void samplesOnScheduleAsJsonLines() throws Exception {
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
    void plainTablesWhenNotATerminal() throws Exception {
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

    /** One sample line read by the header's columns: numbers split at blanks, then the causes (if any) by position. */
    private static Map<String, String> row(String header, String line) {
        int causes = header.contains("LGCC") ? header.indexOf("LGCC") : header.length();
        String[] names = header.substring(0, causes).trim().split("\\s+");
        String[] values = line.substring(0, Math.min(causes, line.length())).trim().split("\\s+");
        assertEquals(names.length, values.length, header + "\n" + line);
        Map<String, String> row = new LinkedHashMap<>();
        for (int i = 0; i < names.length; i++) {
            row.put(names[i], values[i]);
        }
        if (causes < header.length()) {
            int current = header.indexOf("GCC", causes + 4);
            row.put("LGCC", line.substring(causes, Math.min(current, line.length())).trim());
            row.put("GCC", line.length() > current ? line.substring(current).trim() : "");
        }
        return row;
    }

    /** The one sample that {@code noxinspect stat} or jstat printed, by the header's columns. */
    private static Map<String, String> sample(Launcher.Result r) {
        assertEquals(0, r.exitCode(), r.toString());
        String[] lines = r.out().split("\n");
        assertEquals(2, lines.length, r.out());
        return row(lines[0], lines[1]);
    }

    private static Map<String, String> jstat(String option, int pid) throws Exception {
        String jstat = Path.of(System.getProperty("java.home"), "bin", "jstat").toString();
        return sample(Launcher.exec(List.of(jstat, option, Integer.toString(pid)), Map.of(), null));
    }

    /**
     * noxinspect stat against the JDK's own jstat -gcutil and -gccause, on real VMs of three
     * collectors, after young collections that left survivors, so that the figures have values (the
     * survivor spaces' among them, which alternate). Ours, jstat -gcutil's, jstat -gccause's (the same columns and the causes), ours again: when
     * both of ours agree the VM stood still meanwhile, and jstat's must be the same figures. An
     * idle VM stands still; a few tries allow for a stray collection.
     */
    @ParameterizedTest
    @ValueSource(strings = {"-XX:+UseSerialGC", "-XX:+UseParallelGC", "-XX:+UseG1GC"})
    void sameFiguresAsJstat(String collector) throws Exception {
        try (JdkVm vm = new JdkVm(collector, "-Xmx64m")) {
            vm.awaitListed();
            vm.churn();
            List<String> moved = new ArrayList<>();
            for (int attempt = 0; attempt < 5; attempt++) {
                Map<String, String> before = sample(Launcher.run("stat", Integer.toString(vm.pid())));
                Map<String, String> gcutil = jstat("-gcutil", vm.pid());
                Map<String, String> gccause = jstat("-gccause", vm.pid());
                Map<String, String> after = sample(Launcher.run("stat", Integer.toString(vm.pid())));
                if (before.equals(after)) {
                    assertEquals(gccause, before, collector);
                    Map<String, String> utilisation = new LinkedHashMap<>(before);
                    utilisation.keySet().removeAll(List.of("LGCC", "GCC"));
                    assertEquals(gcutil, utilisation, collector);
                    assertTrue(Integer.parseInt(before.get("YGC")) > 0, before.toString());
                    assertTrue(!before.get("S0").equals(before.get("S1")), "one survivor space in use: " + before);
                    return;
                }
                moved.add(before + " -> " + after);
            }
            throw new AssertionError("the VM never stood still: " + moved);
        }
    }

    private static String tmux(String... args) throws Exception {
        List<String> command = new ArrayList<>(List.of(TMUX.toString(), "-L", "nox-top-" + ProcessHandle.current().pid()));
        command.addAll(List.of(args));
        // tmux runs the session's command with $SHELL, else the account's login shell: for an
        // account such as nobody that is nologin, and the session would end at once.
        Launcher.Result r = Launcher.exec(command, Map.of("SHELL", "/bin/sh"), null);
        return r.out() + r.err();
    }

    /** The screen of the tmux session once {@code until} is true of it; fails when not within {@code seconds}. */
    private static String screen(double seconds, String what, Predicate<String> until) throws Exception {
        String[] screen = {""};
        Spawned.until(seconds, what, () -> {
            screen[0] = tmux("capture-pane", "-p", "-t", "top");
            return until.test(screen[0]);
        });
        return screen[0];
    }

    /** The pids of the table's rows, top to bottom. */
    private static List<Integer> pids(String screen) {
        return screen.lines().filter(l -> l.matches(" *[0-9]+ .*")).map(l -> Integer.parseInt(l.trim().split(" +")[0]))
                .toList();
    }

    private static boolean showsOurs(String screen) {
        return pids(screen).containsAll(List.of(vm.pid(), noAttach.pid()));
    }

    /** noxinspect top in a real terminal: a tmux session of 60 columns on a server of its own. */
    @Test
    void liveTableInSixtyColumns() throws Exception {
        assumeTrue(Files.isExecutable(TMUX), "tmux is not installed (Debian package tmux): skipped");
        String launcher = Path.of(System.getProperty("nox.launcher", "tools/noxinspect")).toAbsolutePath().toString();
        String build = Path.of(Launcher.buildDir()).toAbsolutePath().toString();
        try {
            String started = tmux("-f", "/dev/null", "new-session", "-d", "-s", "top", "-x", "60", "-y", "30",
                    "env NOX_BUILD_DIR=" + build + " " + launcher + " top -d 1; echo top-ended-$?; sleep 60");
            assertEquals("", started, "tmux new-session");
            // The VMs within two refreshes of the first table.
            screen(30, "the first table", s -> s.contains("noxinspect top"));
            String screen = screen(2.5, "the test's VMs", NoxinspectHotSpotTest::showsOurs);

            // Columns cut to the width, never wrapped: joining wrapped lines changes nothing (-J also
            // keeps trailing blanks, which the plain capture drops).
            String joined = tmux("capture-pane", "-p", "-J", "-t", "top").replaceAll(" +\n", "\n");
            assertEquals(joined, tmux("capture-pane", "-p", "-t", "top"), screen);
            assertTrue(screen.lines().allMatch(l -> l.length() <= 60), "wider than the terminal:\n" + screen);

            tmux("send-keys", "-t", "top", "p");
            screen = screen(5, "sorted by pid", s -> s.contains("sort pid") && !s.contains("reversed") && showsOurs(s));
            assertEquals(pids(screen).stream().sorted().toList(), pids(screen), screen);
            tmux("send-keys", "-t", "top", "p");
            screen = screen(5, "sorted by pid, reversed", s -> s.contains("sort pid, reversed") && showsOurs(s));
            assertEquals(pids(screen).stream().sorted((x, y) -> y - x).toList(), pids(screen), screen);

            tmux("send-keys", "-t", "top", "q");
            screen(10, "top ended with status 0, the screen as it was", s -> s.contains("top-ended-0")
                    && !s.contains("noxinspect top"));
        } finally {
            tmux("kill-server");
        }
    }
}
