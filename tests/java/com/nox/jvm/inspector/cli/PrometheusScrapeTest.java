package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

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
import java.util.Comparator;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;

import org.junit.jupiter.api.Test;

/**
 * The real Prometheus server scrapes {@code noxinspect serve} once a second and finds every
 * vmsim VM with its figures through its HTTP API. Skipped where the Debian package prometheus
 * is not installed. Instance cluster 55 is this class's own.
 */
class PrometheusScrapeTest {
    private static final Path PROMETHEUS = Path.of("/usr/bin/prometheus");
    private static final HttpClient HTTP = HttpClient.newBuilder().connectTimeout(Duration.ofSeconds(5)).build();
    /** Prometheus starts, scrapes once a second and evaluates queries within this time on a slow host. */
    private static final double WAIT_SECONDS = 20;

    private static int freePort() throws IOException {
        try (ServerSocket socket = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            return socket.getLocalPort();
        }
    }

    private static String query(String prometheus, String promql) throws IOException, InterruptedException {
        URI uri = URI.create(prometheus + "/api/v1/query?query=" + URLEncoder.encode(promql, StandardCharsets.UTF_8));
        HttpResponse<String> response = HTTP.send(HttpRequest.newBuilder(uri).timeout(Duration.ofSeconds(5)).build(),
                HttpResponse.BodyHandlers.ofString());
        return response.statusCode() == 200 ? response.body() : "";
    }

    /** Asks until the answer to {@code promql} contains every one of {@code parts}; fails after WAIT_SECONDS. */
    private static String awaitAnswer(String prometheus, String promql, Process server, String... parts)
            throws Exception {
        long deadline = System.nanoTime() + (long) (WAIT_SECONDS * 1e9);
        String answer = "";
        while (System.nanoTime() < deadline) {
            if (!server.isAlive()) {
                throw new AssertionError("prometheus ended with " + server.exitValue());
            }
            try {
                answer = query(prometheus, promql);
            } catch (IOException e) {
                answer = "";  // not listening yet
            }
            boolean all = !answer.isEmpty();
            for (String part : parts) {
                all &= answer.contains(part);
            }
            if (all) {
                return answer;
            }
            Thread.sleep(200);
        }
        throw new AssertionError("within " + WAIT_SECONDS + " s Prometheus' answer to " + promql
                + " did not contain " + String.join(", ", parts) + "; last answer: " + answer);
    }

    @Test
    void prometheusFindsEveryVmWithItsFigures() throws Exception {
        assumeTrue(Files.isExecutable(PROMETHEUS),
                "the Prometheus server is not installed (Debian package prometheus): skipped");
        Path dir = Files.createTempDirectory("nox-prometheus-test");
        Process prometheus = null;
        try (Vmsim process = new Vmsim("--type", "process", "--set", "committed_java_heap_size=987654321",
                "--set", "jar_main_class=scraped.Main");
             Vmsim instance = new Vmsim("--type", "instance", "--id", "55", "--slots", "2");
             LongRunning serve = new LongRunning("serve", "--port", "0")) {
            String line = serve.next(20, "the address serve listens on").text();
            String target = line.substring(line.indexOf("http://") + "http://".length(), line.indexOf("/metrics"));

            int port = freePort();
            Files.writeString(dir.resolve("prometheus.yml"), String.join("\n",
                    "global:",
                    "  scrape_interval: 1s",
                    "  scrape_timeout: 1s",
                    "  evaluation_interval: 1s",
                    "scrape_configs:",
                    "  - job_name: noxinspect",
                    "    static_configs:",
                    "      - targets: ['" + target + "']",
                    ""));
            prometheus = new ProcessBuilder(PROMETHEUS.toString(),
                    "--config.file=" + dir.resolve("prometheus.yml"),
                    "--storage.tsdb.path=" + dir.resolve("data"),
                    "--web.listen-address=127.0.0.1:" + port)
                    .redirectErrorStream(true).redirectOutput(dir.resolve("prometheus.log").toFile()).start();
            String api = "http://127.0.0.1:" + port;

            awaitAnswer(api, "up{job=\"noxinspect\"}", prometheus, "\"value\":[", "\"1\"]");
            int[] pids = instance.slotPids();
            String up = awaitAnswer(api, "nox_vm_up", prometheus, "\"pid\":\"" + process.pid() + "\"",
                    "\"pid\":\"" + pids[0] + "\"", "\"pid\":\"" + pids[1] + "\"");
            assertTrue(up.contains("\"cluster_id\":\"55\""), up);
            String heap = awaitAnswer(api, "jvm_memory_committed_bytes{area=\"heap\",pid=\"" + process.pid() + "\"}",
                    prometheus, "\"987654321\"");
            assertTrue(heap.contains("\"cluster_type\":\"process\""), heap);
            awaitAnswer(api, "nox_vm_info{main_class=\"scraped.Main\"}", prometheus,
                    "\"pid\":\"" + process.pid() + "\"");
            awaitAnswer(api, "process_start_time_seconds{cluster_id=\"55\",slot=\"1\"}", prometheus,
                    "\"pid\":\"" + pids[1] + "\"");
            String count = awaitAnswer(api, "nox_host_vms", prometheus, "\"value\":[");
            assertTrue(count.matches("(?s).*\"value\":\\[[0-9.]+,\"([3-9]|[1-9][0-9]+)\"\\].*"),
                    "at least the three VMs of this test: " + count);
        } finally {
            if (prometheus != null) {
                prometheus.destroy();
                if (!prometheus.waitFor(10, TimeUnit.SECONDS)) {
                    prometheus.destroyForcibly();
                    prometheus.waitFor(5, TimeUnit.SECONDS);
                }
                assertEquals(false, prometheus.isAlive(), "prometheus did not end");
            }
            try (Stream<Path> files = Files.walk(dir)) {
                files.sorted(Comparator.reverseOrder()).forEach(p -> p.toFile().delete());
            }
        }
    }
}
