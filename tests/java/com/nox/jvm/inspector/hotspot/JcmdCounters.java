package com.nox.jvm.inspector.hotspot;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.function.Function;
import java.util.stream.Collectors;

/** The JDK's own reading of a VM's counters ({@code jcmd PID PerfCounter.print}), the reference for ours. */
final class JcmdCounters {
    private JcmdCounters() {
    }

    /** What jcmd prints, as name to value (strings without their quotes). */
    static Map<String, String> print(int pid) throws IOException, InterruptedException {
        Process jcmd = new ProcessBuilder(Path.of(System.getProperty("java.home"), "bin", "jcmd").toString(),
                Integer.toString(pid), "PerfCounter.print").redirectErrorStream(true).start();
        String text = new String(jcmd.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        if (!jcmd.waitFor(30, TimeUnit.SECONDS) || jcmd.exitValue() != 0) {
            jcmd.destroyForcibly();
            throw new IOException("jcmd failed: " + text);
        }
        Map<String, String> counters = new LinkedHashMap<>();
        for (String line : text.split("\n")) {
            int eq = line.indexOf('=');
            if (eq <= 0) {
                continue;  // the "PID:" line
            }
            String value = line.substring(eq + 1);
            if (value.length() >= 2 && value.startsWith("\"") && value.endsWith("\"")) {
                value = value.substring(1, value.length() - 1);
            }
            counters.put(line.substring(0, eq), value);
        }
        return counters;
    }

    /**
     * Our counters name the same counters as jcmd's readings taken before and after ours, and
     * each counter that cannot have moved between the readings (constant, monotonic and text
     * counters that jcmd read the same twice) has jcmd's value.
     */
    static void assertSameAs(Map<String, String> before, List<PerfCounter> ours, Map<String, String> after) {
        Map<String, PerfCounter> byName = ours.stream()
                .collect(Collectors.toMap(PerfCounter::name, Function.identity()));
        assertTrue(before.size() > 150, "jcmd printed " + before.size() + " counters");
        assertEquals(before.keySet(), byName.keySet());
        int compared = 0;
        List<String> differing = new ArrayList<>();
        for (Map.Entry<String, String> e : before.entrySet()) {
            PerfCounter c = byName.get(e.getKey());
            boolean unchanged = e.getValue().equals(after.get(e.getKey()));
            boolean fixed = c.variability() == 1 || c.variability() == 2 || c.type() == 'B';
            if (!unchanged || !fixed) {
                continue;  // a variable counter may have moved away and back between the two readings
            }
            String value = c.isLong() ? Long.toString(c.longValue()) : c.stringValue();
            if (!value.equals(e.getValue())) {
                differing.add(e.getKey() + ": jcmd " + e.getValue() + ", ours " + value);
            }
            compared++;
        }
        assertEquals(List.of(), differing);
        assertTrue(compared > 100, "only " + compared + " counters compared");
    }
}
