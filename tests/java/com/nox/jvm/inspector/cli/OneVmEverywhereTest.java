package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.PlantedFiles;
import com.nox.jvm.inspector.testing.Vmsim;

import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;

import org.junit.jupiter.api.Test;

/**
 * A VM that publishes both a control area and performance data, run as a user runs noxinspect:
 * list, info, the metrics of serve and watch show it once, with one version, one main class and
 * one heap. A simulated VM publishes the control area; a copy of a real JDK VM's performance-data
 * file, planted under the simulated VM's pid (which started first, as a VM's process does),
 * plays its performance data.
 */
class OneVmEverywhereTest {
    private static final String USER = System.getProperty("user.name");

    @Test
    void aVmWithBothSourcesIsShownOnceWithTheSameFactsEverywhere() throws Exception {
        try (Vmsim sim = new Vmsim("--set", "vm_version=17.0.9-both", "--set", "jar_main_class=both.Main",
                "--set", "committed_java_heap_size=123456789");
             JdkVm jdk = new JdkVm(List.of(), List.of("-XX:+UseSerialGC"), "both");
             PlantedFiles planted = new PlantedFiles()) {
            NoxinspectHotSpotTest.awaitListed(jdk);
            long pid = sim.pid();
            planted.file(Path.of("/tmp", "hsperfdata_" + USER, Long.toString(pid)),
                    Files.readAllBytes(jdk.perfDataFile(USER)));

            List<Map<String, String>> shown = new ArrayList<>();
            Map<String, String> list = Launcher.flatJson(Launcher.run("--json", "list").out());
            int i = NoxinspectHotSpotTest.vmIndex(list, pid);
            assertTrue(i >= 0 && NoxinspectHotSpotTest.vmIndex(rest(list, i), pid) < 0, "listed once: " + list);
            shown.add(prefixed(list, "vms." + i + "."));
            shown.add(prefixed(Launcher.flatJson(Launcher.run("--json", "info", Long.toString(pid)).out()), "vm."));
            try (LongRunning watch = new LongRunning("--json", "watch")) {
                shown.add(Launcher.flatJson(watch.nextContaining("\"pid\":" + pid + ",", 20).text()));
            }
            for (Map<String, String> vm : shown) {
                assertEquals("\"process:" + pid + "\"", vm.get("cluster"), vm.toString());
                assertEquals("\"control-area\"", vm.get("sources.0"), vm.toString());
                assertEquals("\"hotspot\"", vm.get("sources.1"), vm.toString());
                assertEquals("\"17.0.9-both\"", vm.get("version"), vm.toString());
                assertEquals("\"both.Main\"", vm.get("mainClass"), vm.toString());
                assertEquals("123456789", vm.get("heap.committed"), vm.toString());
                assertEquals(shown.get(0).get("heap.used"), vm.get("heap.used"));
                assertEquals(shown.get(0).get("heap.max"), vm.get("heap.max"));
            }
            assertTrue(Long.parseLong(shown.get(0).get("heap.max")) > 0, shown.get(0).toString());
            String metrics = scrape();
            String labels = "{cluster_type=\"process\",cluster_id=\"" + pid + "\",slot=\"0\",pid=\"" + pid + "\"";
            assertNotNull(ServeTest.value(metrics, "nox_vm_info", labels, "vm_version=\"17.0.9-both\"",
                    "main_class=\"both.Main\""), metrics);
            String heap = "area=\"heap\"";
            assertEquals("123456789", ServeTest.value(metrics, "jvm_memory_committed_bytes", labels, heap));
            // A heap in use that the VM has not published yet is null in JSON and has no sample.
            String used = shown.get(0).get("heap.used");
            assertEquals(used.equals("null") ? null : used,
                    ServeTest.value(metrics, "jvm_memory_used_bytes", labels, heap));
            assertEquals(shown.get(0).get("heap.max"), ServeTest.value(metrics, "jvm_memory_max_bytes", labels, heap));
            assertEquals(1, metrics.lines().filter(l -> l.startsWith("nox_vm_up{") && l.contains("pid=\"" + pid + "\""))
                    .count(), metrics);
        }
    }

    private static String scrape() throws Exception {
        try (LongRunning serve = new LongRunning("serve", "--port", "0")) {
            String line = serve.next(20, "the address serve listens on").text();
            URI uri = URI.create(line.substring(line.indexOf("http://")).trim());
            HttpClient http = HttpClient.newBuilder().connectTimeout(Duration.ofSeconds(5)).build();
            return http.send(HttpRequest.newBuilder(uri).timeout(Duration.ofSeconds(10)).build(),
                    HttpResponse.BodyHandlers.ofString()).body();
        }
    }

    /** The members under {@code prefix}, without it. */
    private static Map<String, String> prefixed(Map<String, String> flat, String prefix) {
        Map<String, String> inner = new java.util.HashMap<>();
        flat.forEach((k, v) -> {
            if (k.startsWith(prefix)) {
                inner.put(k.substring(prefix.length()), v);
            }
        });
        return inner;
    }

    /** The list without its first {@code i + 1} VMs, renumbered from 0. */
    private static Map<String, String> rest(Map<String, String> flat, int i) {
        Map<String, String> tail = new java.util.HashMap<>();
        for (int k = i + 1; flat.containsKey("vms." + k + ".pid"); k++) {
            tail.put("vms." + (k - i - 1) + ".pid", flat.get("vms." + k + ".pid"));
        }
        return tail;
    }
}
