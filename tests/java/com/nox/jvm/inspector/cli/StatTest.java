package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * noxinspect stat against the JDK's own jstat -gcutil and -gccause, on real VMs of three
 * collectors, after young collections that left survivors, so that the figures have values (the
 * survivor spaces' among them, which alternate). Its JSON samples are NoxinspectHotSpotTest's.
 */
class StatTest {

    /** One sample line read by the header's columns: numbers split at blanks, then the causes (if any) by position. */
    static Map<String, String> row(String header, String line) {
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

    static Map<String, String> sample(String out) {
        String[] lines = out.split("\n");
        assertEquals(2, lines.length, out);
        return row(lines[0], lines[1]);
    }

    static Map<String, String> jstat(String option, int pid) throws Exception {
        Path jstat = Path.of(System.getProperty("java.home"), "bin", "jstat");
        Process p = new ProcessBuilder(jstat.toString(), option, Integer.toString(pid)).redirectErrorStream(true)
                .start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(p.waitFor(60, TimeUnit.SECONDS) && p.exitValue() == 0, out);
        return sample(out);
    }

    static Map<String, String> stat(int pid) throws Exception {
        Launcher.Result r = Launcher.run("stat", Integer.toString(pid));
        assertEquals(0, r.exitCode(), r.toString());
        return sample(r.out());
    }

    /**
     * Ours, jstat -gcutil's, jstat -gccause's (the same columns and the causes), ours again: when
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
                Map<String, String> before = stat(vm.pid());
                Map<String, String> gcutil = jstat("-gcutil", vm.pid());
                Map<String, String> gccause = jstat("-gccause", vm.pid());
                Map<String, String> after = stat(vm.pid());
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
}
