package com.nox.jvm.inspector.cli;

import static com.nox.jvm.inspector.testing.ModelFixtures.area;
import static com.nox.jvm.inspector.testing.ModelFixtures.hotspot;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmTimeInfo;
import com.nox.jvm.inspector.host.ControlAreaView;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.hotspot.GcCollector;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.PerfCounter;
import com.nox.jvm.inspector.testing.ModelFixtures;

import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

import org.junit.jupiter.api.Test;

/**
 * The commands' renderers over a host model made by hand: the metric families against the README's
 * table, the format a scraper asks for, and text from a VM in every output. What list, info, watch
 * and the metrics show of one VM with both sources is ServeTest's, end to end.
 */
class RenderTest {
    private static final int PID = 4242;
    /** The VM known only by its performance data is this test's own process, whose CPU time /proc tells. */
    private static final int ALONE = (int) ProcessHandle.current().pid();
    private static final long NOW = ModelFixtures.BEGIN_MILLIS / 1000 + 60;
    private static final String VERSION = "OpenJDK 64-Bit Server VM 17.0.9+9-area";

    /**
     * A VM with both sources in process cluster PID whose collector is named as given, one known
     * only by its performance data, one of instance cluster 7 whose times are in milliseconds: both
     * of these are this test's process.
     */
    private static HostSnapshot snapshot(String mainClass, String collector) {
        List<ControlAreaView> areas = List.of(inMillis(area(ClusterType.INSTANCE, 7, 1, ALONE, 1000, "v7", "seven.Main", 1)),
                area(ClusterType.PROCESS, PID, 0, PID, 1000, VERSION, mainClass, 1024));
        HotSpotFigures perf = hotspot(PID, 1000, "perf.Main", 512, 2048, 4096, 300);
        HotSpotFigures alone = hotspot(ALONE, 1000, "alone.Main", 5, 6, 7, 300);
        return HostSnapshot.of(areas, Map.of(PID, 1000, ALONE, 1000), List.of(
                with(perf, List.of(new GcCollector(collector, 4, 250_000_000L, 0.25, 0, 0)), perf.processStartSeconds()),
                with(alone, alone.collectors(), 0)));
    }

    /** The figures with these collectors and this process start (0: unknown, any process of the pid is the VM's). */
    private static HotSpotFigures with(HotSpotFigures f, List<GcCollector> collectors, long processStart) {
        return new HotSpotFigures(f.pid(), f.uid(), f.user(), f.javaCommand(), f.vmName(), f.vmVersion(), f.vmVendor(),
                f.vmArguments(), f.vmFlags(), f.gcPolicy(), f.beginMillis(), f.initDoneMillis(), f.tickFrequency(),
                f.uptimeTicks(), f.heapUsed(), f.heapCommitted(), f.heapMax(), f.metaspaceUsed(),
                f.metaspaceCommitted(), f.metaspaceMax(), f.classesLoaded(), f.classesUnloaded(), f.threadsLive(),
                f.threadsPeak(), f.threadsDaemon(), f.threadsStarted(), collectors, f.namespacePid(), processStart,
                f.pools());
    }

    /** The view with the process start unknown and its CPU time in milliseconds as the kernel counts it. */
    private static ControlAreaView inMillis(ControlAreaView view) {
        long millis = (long) (com.nox.jvm.inspector.host.ProcessCpu.seconds(ALONE, 0) * 1000);
        HostPass.VmFigures f = view.figures();
        return new ControlAreaView(view.cluster(), new HostPass.VmFigures(f.vm(), 0, f.start(),
                java.util.Optional.of(new VmTimeInfo(millis, millis / 3, millis - millis / 3, millis)), f.memory(),
                f.debug()), view.ownerUid());
    }

    /**
     * The README's metrics table and the exposition name the same families with the same types,
     * and each has samples in both formats (the fixture publishes every figure): renaming,
     * dropping or adding a family without the README fails here.
     */
    @Test
    void everyDocumentedFamilyIsExposed() throws Exception {
        Map<String, String> documented = readmeFamilies();
        String prometheus = Metrics.render(snapshot("app.Main", "G1 young collection pauses"), Exposition.PROMETHEUS);
        String open = Metrics.render(snapshot("app.Main", "G1 young collection pauses"), Exposition.OPENMETRICS);
        Map<String, String> exposed = new java.util.TreeMap<>();
        Matcher types = Pattern.compile("(?m)^# TYPE (\\S+) (\\S+)$").matcher(prometheus);
        while (types.find()) {
            exposed.put(types.group(1), types.group(2).equals("gauge") && types.group(1).endsWith("_info")
                    ? "info" : types.group(2));
        }
        assertEquals(new java.util.TreeMap<>(documented), exposed);
        documented.forEach((name, type) -> {
            String base = name.replaceAll("_(total|info)$", "");
            for (String text : List.of(prometheus, open)) {
                assertTrue(Pattern.compile("(?m)^" + name + "(_count|_sum)?[{ ]").matcher(text).find(),
                        "a sample of " + name);
            }
            assertTrue(open.contains("# TYPE " + base + " " + type + "\n"), base + " " + type);
            boolean unit = base.endsWith("_bytes") || base.endsWith("_seconds");
            assertEquals(unit, open.contains("# UNIT " + base + " "), base);
        });
        assertFalse(prometheus.contains("# UNIT") || prometheus.contains("# EOF"));
        assertTrue(open.endsWith("\n# EOF\n") && open.indexOf("# EOF") == open.length() - 6);
    }

    /** The series of the README's metrics table (every backquoted name of a row's first cell) with the row's type. */
    private static Map<String, String> readmeFamilies() throws Exception {
        Path readme = Path.of(System.getProperty("nox.launcher", "tools/noxinspect")).toAbsolutePath().getParent()
                .getParent().resolve("README.md");
        Map<String, String> families = new java.util.LinkedHashMap<>();
        for (String line : Files.readAllLines(readme)) {
            String[] cells = line.split("\\|");
            if (!line.startsWith("| `") || cells.length < 3) {
                continue;
            }
            Matcher m = Pattern.compile("`((nox|jvm|process)_[a-z_]+)(\\{[^`]*)?`").matcher(cells[1]);
            while (m.find()) {
                families.put(m.group(1), cells[2].trim());
            }
        }
        return families;
    }

    @Test
    void theScraperChoosesTheFormat() {
        String[][] cases = {
            {null, "PROMETHEUS"}, {"text/plain;version=0.0.4", "PROMETHEUS"}, {"*/*", "PROMETHEUS"},
            {"application/openmetrics-text;version=1.0.0;q=0.5,text/plain;version=0.0.4;q=0.3", "OPENMETRICS"},
            {"Application/OpenMetrics-Text", "OPENMETRICS"},
        };
        for (String[] c : cases) {
            assertEquals(c[1], Exposition.forAccept(c[0]).name(), String.valueOf(c[0]));
        }
    }

    /** Text from a VM reaches a terminal, a JSON string and a label only made printable, and stays on its line. */
    @Test
    void textFromAVmIsPrintableInEveryOutput() throws Exception {
        String hostile = "a\"b\\c\nline\u001b]0;title\u0007\u009b31m\u202eevil";
        String printable = "a\"b\\c\\nline\\x1b]0;title\\x07\\u009b31m\\u202eevil";
        // The main class, a collector's name and a counter's name and value all come from the VM.
        HostSnapshot snapshot = snapshot(hostile, hostile);
        HostVm vm = snapshot.byPid(PID).orElseThrow();
        List<PerfCounter> counters = List.of(new PerfCounter(hostile, 'B', 5, 3, 0, 0, hostile),
                new PerfCounter("sun." + hostile, 'J', 4, 3, 0, 7, null));
        List<String> outputs = new ArrayList<>();
        for (boolean json : new boolean[] {false, true}) {
            java.io.ByteArrayOutputStream bytes = new java.io.ByteArrayOutputStream();
            Output out = new Output(new java.io.PrintStream(bytes, true, "UTF-8"), json);
            out.table(ListCommand.render(snapshot, NOW), "vms", "none");
            out.sections(InfoCommand.title(vm), InfoCommand.render(vm, NOW));
            out.line(Watch.line("appeared", vm, Instant.now()));
            CountersCommand.print(PID, counters, out);
            outputs.add(bytes.toString("UTF-8"));
        }
        outputs.add(Metrics.render(snapshot, Exposition.OPENMETRICS));
        for (String text : outputs) {
            assertTrue(text.chars().allMatch(c -> c == '\n' || (c >= 0x20 && c < 0x7f)), text);
        }
        assertTrue(outputs.get(0).contains(printable), outputs.get(0));
        assertTrue(outputs.get(0).contains("\n" + printable + "=\"" + printable + "\"\n"), outputs.get(0));
        assertTrue(outputs.get(0).contains("\nsun." + printable + "=7\n"), outputs.get(0));
        assertTrue(outputs.get(0).lines().filter(l -> l.contains(printable)).count() >= 5,
                "main class, collector label, counters: " + outputs.get(0));
        assertEquals(Launcher.q(printable), Launcher.flatJson(Output.json(InfoCommand.render(vm, NOW), true))
                .get("vm.mainClass"));
        assertTrue(outputs.get(2).contains("main_class=\"a\\\"b\\\\c\\\\nline\\\\x1b]0;title\\\\x07\\\\u009b31m"
                + "\\\\u202eevil\""), outputs.get(2));
    }
}
