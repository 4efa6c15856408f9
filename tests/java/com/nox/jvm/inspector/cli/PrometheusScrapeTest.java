package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.Spawned;
import com.nox.jvm.inspector.testing.Vmsim;

import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.URI;
import java.net.URLEncoder;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

import org.junit.jupiter.api.Test;

/**
 * The real Prometheus server scrapes {@code noxinspect serve} once a second and finds every VM
 * through its HTTP API: vmsim VMs with their figures, and real JDK VMs of three collectors (heap
 * fixed at 64 MiB, where G1's padded sizes put committed above the maximum) and a G1 VM that has
 * not collected, scraped for a minute: each family per VM answers a PromQL query, the collectors
 * carry their GC beans' names, committed never went above the maximum, and the VM that has not
 * collected says its heap in use is not published. Skipped where the Debian package prometheus is
 * not installed. Instance cluster 55 is this class's own.
 */
class PrometheusScrapeTest {
    private static final Path PROMETHEUS = Path.of("/usr/bin/prometheus");
    private static final HttpClient HTTP = HttpClient.newBuilder().connectTimeout(Duration.ofSeconds(5)).build();
    /** Prometheus starts, scrapes once a second and evaluates queries within this time on a slow host. */
    private static final double WAIT_SECONDS = 20;

    /** A Prometheus server that scrapes one target once a second, in its own folder; ended and removed on close. */
    private static final class Prometheus implements AutoCloseable {
        final Path dir;
        final Spawned server;
        final String api;

        Prometheus(String target) throws IOException {
            dir = Files.createTempDirectory("nox-prometheus-test");
            int port;
            try (ServerSocket socket = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
                port = socket.getLocalPort();
            }
            Files.writeString(dir.resolve("prometheus.yml"), String.join("\n", "global:", "  scrape_interval: 1s",
                    "  scrape_timeout: 1s", "  evaluation_interval: 1s", "scrape_configs:", "  - job_name: noxinspect",
                    "    static_configs:", "      - targets: ['" + target + "']", ""));
            server = new Spawned(new ProcessBuilder(PROMETHEUS.toString(), "--config.file=" + dir.resolve("prometheus.yml"),
                    "--storage.tsdb.path=" + dir.resolve("data"), "--web.listen-address=127.0.0.1:" + port)
                    .redirectErrorStream(true));
            api = "http://127.0.0.1:" + port;
        }

        /** Asks until the answer to {@code promql} contains every one of {@code parts}; fails after WAIT_SECONDS. */
        String await(String promql, String... parts) throws Exception {
            URI uri = URI.create(api + "/api/v1/query?query=" + URLEncoder.encode(promql, StandardCharsets.UTF_8));
            String[] answer = {""};
            Spawned.until(WAIT_SECONDS, "an answer to " + promql + " with " + List.of(parts), () -> {
                assertTrue(server.process().isAlive(), "prometheus ended: " + server.seen());
                try {
                    HttpResponse<String> response = HTTP.send(HttpRequest.newBuilder(uri)
                            .timeout(Duration.ofSeconds(5)).build(), HttpResponse.BodyHandlers.ofString());
                    answer[0] = response.statusCode() == 200 ? response.body() : "";
                } catch (IOException e) {
                    answer[0] = "";  // not listening yet
                }
                return !answer[0].isEmpty() && Stream.of(parts).allMatch(answer[0]::contains);
            });
            return answer[0];
        }

        @Override
        public void close() throws Exception {
            server.close();
            try (Stream<Path> files = Files.walk(dir)) {
                files.sorted(Comparator.reverseOrder()).forEach(p -> p.toFile().delete());
            }
        }
    }

    private static String target(Spawned serve) throws Exception {
        String url = Launcher.metricsUrl(serve);
        return url.substring("http://".length(), url.indexOf("/metrics"));
    }

    /** Every sample of an answer: its labels (as text) and its value. */
    private static Map<String, Double> samples(String answer) {
        Map<String, Double> samples = new LinkedHashMap<>();
        Matcher m = Pattern.compile("\"metric\":\\{([^}]*)\\},\"value\":\\[[0-9.]+,\"([^\"]+)\"\\]").matcher(answer);
        while (m.find()) {
            samples.put(m.group(1), Double.parseDouble(m.group(2)));
        }
        return samples;
    }

    @Test
    void aMinuteOfRealVmsOfThreeCollectors() throws Exception {
        assumeTrue(Files.isExecutable(PROMETHEUS),
                "the Prometheus server is not installed (Debian package prometheus): skipped");
        String[][] collectors = {
            {"-XX:+UseG1GC", "G1 Old Generation", "G1 Young Generation", "G1 Eden Space"},
            {"-XX:+UseSerialGC", "MarkSweepCompact", "Copy", "Eden Space"},
            {"-XX:+UseParallelGC", "PS MarkSweep", "PS Scavenge", "PS Eden Space"},
        };
        List<JdkVm> vms = new ArrayList<>();
        try (Vmsim process = new Vmsim("--type", "process", "--set", "committed_java_heap_size=987654321",
                "--set", "jar_main_class=scraped.Main");
             Vmsim instance = new Vmsim("--type", "instance", "--id", "55", "--slots", "2");
             Spawned serve = Launcher.start("serve", "--port", "0");
             Prometheus prometheus = new Prometheus(target(serve))) {
            prometheus.await("up{job=\"noxinspect\"}", "\"value\":[", "\"1\"]");
            int[] pids = instance.slotPids();
            String up = prometheus.await("nox_vm_up", "\"pid\":\"" + process.pid() + "\"",
                    "\"pid\":\"" + pids[0] + "\"", "\"pid\":\"" + pids[1] + "\"");
            assertTrue(up.contains("\"cluster_id\":\"55\""), up);
            String heap = prometheus.await("jvm_memory_committed_bytes{area=\"heap\",pid=\"" + process.pid() + "\"}",
                    "\"987654321\"");
            assertTrue(heap.contains("\"cluster_type\":\"process\""), heap);
            prometheus.await("nox_vm_info{main_class=\"scraped.Main\"}", "\"pid\":\"" + process.pid() + "\"");
            prometheus.await("process_start_time_seconds{cluster_id=\"55\",slot=\"1\"}",
                    "\"pid\":\"" + pids[1] + "\"");
            String count = prometheus.await("nox_host_vms", "\"value\":[");
            assertTrue(count.matches("(?s).*\"value\":\\[[0-9.]+,\"([3-9]|[1-9][0-9]+)\"\\].*"),
                    "at least the three VMs of this test: " + count);
            for (String[] c : collectors) {
                vms.add(new JdkVm(c[0], "-Xms64m", "-Xmx64m"));
                vms.get(vms.size() - 1).gc();  // its collector publishes its heap and metaspace afresh
            }
            JdkVm idle = new JdkVm("-XX:+UseG1GC", "-Xms64m", "-Xmx64m");
            vms.add(idle);
            String user = "user=\"" + System.getProperty("user.name") + "\"";
            for (JdkVm vm : vms) {
                prometheus.await("nox_vm_up{pid=\"" + vm.pid() + "\"," + user + "}", "\"1\"]");
            }
            long began = System.nanoTime();
            Thread.sleep(60_000);
            for (int i = 0; i < collectors.length; i++) {
                String pid = "pid=\"" + vms.get(i).pid() + "\"";
                for (String promql : List.of("jvm_memory_used_bytes{area=\"heap\"," + pid + "} > 0",
                        "jvm_memory_used_bytes{area=\"nonheap\"," + pid + "} > 0",
                        "jvm_memory_committed_bytes{area=\"nonheap\"," + pid + "} > 0",
                        "jvm_memory_max_bytes{area=\"heap\"," + pid + "} == 64 * 1024 * 1024",
                        "jvm_memory_pool_used_bytes{pool=\"Metaspace\"," + pid + "} > 0",
                        "jvm_memory_pool_committed_bytes{pool=\"" + collectors[i][3] + "\"," + pid + "} > 0",
                        "jvm_memory_pool_max_bytes{pool=\"Compressed Class Space\"," + pid + "} > 0",
                        "jvm_gc_collection_seconds_count{gc=\"" + collectors[i][1] + "\"," + pid + "} >= 1",
                        "jvm_gc_collection_seconds_sum{gc=\"" + collectors[i][2] + "\"," + pid + "} >= 0",
                        "rate(process_cpu_seconds_total{" + pid + "}[30s]) >= 0",
                        "nox_vm_up{" + user + "," + pid + "}")) {
                    prometheus.await(promql, "\"pid\":\"" + vms.get(i).pid() + "\"");
                }
                assertEquals(List.of(), new ArrayList<>(samples(prometheus.await(
                        "count by (pid) (nox_vm_memory_unpublished{" + pid + "})")).keySet()),
                        "every figure of a VM that has collected is published");
            }
            String idlePid = "pid=\"" + idle.pid() + "\"";
            prometheus.await("nox_vm_memory_unpublished{area=\"nonheap\",pool=\"\"," + idlePid + "} == 1",
                    "\"pid\":\"" + idle.pid() + "\"");
            assertEquals(Map.of(), samples(prometheus.await("jvm_memory_used_bytes{area=\"nonheap\"," + idlePid + "}")),
                    "no sample for a metaspace the VM has not published");

            // Over the whole minute, for every VM of the test: committed never above the maximum.
            String window = "[" + ((System.nanoTime() - began) / 1_000_000_000L + 5) + "s:1s]";
            for (String family : List.of("jvm_memory", "jvm_memory_pool")) {
                Map<String, Double> headroom = samples(prometheus.await("min_over_time((" + family + "_max_bytes - "
                        + family + "_committed_bytes)" + window + ")", "\"value\":["));
                for (JdkVm vm : vms) {
                    long seen = headroom.entrySet().stream().filter(e -> e.getKey().contains("\"pid\":\"" + vm.pid()
                            + "\"")).peek(e -> assertTrue(e.getValue() >= 0, family + " committed above max: " + e))
                            .count();
                    // The heap area of each (the idle VM's metaspace is not published), the heap pools of each.
                    assertTrue(seen >= (family.equals("jvm_memory") ? 1 : 3),
                            family + ": committed and max of VM " + vm.pid() + " in " + headroom);
                }
            }
        } finally {
            for (JdkVm vm : vms) {
                vm.close();
            }
        }
    }
}
