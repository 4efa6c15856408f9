package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.testing.Vmsim;

import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * {@code noxinspect serve} as a real process with real vmsim VMs: the metrics of every VM over
 * HTTP, in both exposition formats, accepted by promtool; refusals for a taken port and wrong
 * requests. Instance cluster 54 is this class's own.
 */
class ServeTest {
    private static final HttpClient HTTP = HttpClient.newBuilder().connectTimeout(Duration.ofSeconds(5)).build();

    private static Vmsim process;
    private static Vmsim instance;
    private static LongRunning serve;
    private static String url;

    @BeforeAll
    static void start() throws Exception {
        process = new Vmsim("--type", "process", "--set", "committed_java_heap_size=123456789",
                "--set", "jar_main_class=fleet.\"Quoted\"\\Main", "--set", "number_of_gcs=17");
        instance = new Vmsim("--type", "instance", "--id", "54", "--slots", "3", "--dead", "1");
        serve = new LongRunning("serve", "--port", "0");
        String line = serve.next(20, "the address serve listens on").text();
        int at = line.indexOf("http://");
        assertTrue(at >= 0, "serve printed no address: " + line);
        url = line.substring(at).trim();
        assertTrue(url.startsWith("http://127.0.0.1:"), "serve binds to loopback by default: " + url);
    }

    @AfterAll
    static void stop() throws Exception {
        if (serve != null) {
            serve.close();
        }
        if (instance != null) {
            instance.close();
        }
        if (process != null) {
            process.close();
        }
    }

    static HttpResponse<String> get(String target, String accept) throws IOException, InterruptedException {
        HttpRequest.Builder request = HttpRequest.newBuilder(URI.create(target)).timeout(Duration.ofSeconds(10));
        if (accept != null) {
            request.header("Accept", accept);
        }
        return HTTP.send(request.build(), HttpResponse.BodyHandlers.ofString(StandardCharsets.UTF_8));
    }

    /** The value of the one sample of {@code name} whose labels include all of {@code labels}; null when none. */
    static String value(String body, String name, String... labels) {
        String found = null;
        for (String line : body.split("\n")) {
            if (!line.startsWith(name + "{") && !line.equals(name) && !line.startsWith(name + " ")) {
                continue;
            }
            boolean all = true;
            for (String label : labels) {
                all &= line.contains(label);
            }
            if (all) {
                if (found != null) {
                    throw new AssertionError("two samples of " + name + " with " + List.of(labels));
                }
                found = line.substring(line.lastIndexOf(' ') + 1);
            }
        }
        return found;
    }

    @Test
    void everyVmWithItsFiguresInThePrometheusTextFormat() throws Exception {
        HttpResponse<String> response = get(url, null);
        assertEquals(200, response.statusCode());
        assertEquals(Metrics.PROMETHEUS_CONTENT_TYPE, response.headers().firstValue("Content-Type").orElse(""));
        String body = response.body();
        String pid = "pid=\"" + process.pid() + "\"";
        String cluster = "cluster_id=\"" + process.pid() + "\"";
        assertEquals("1", value(body, "nox_vm_up", pid, cluster, "cluster_type=\"process\"", "slot=\"0\""), body);
        assertEquals("123456789", value(body, "jvm_memory_committed_bytes", pid, "area=\"heap\""));
        assertEquals("17", value(body, "nox_vm_gc_collections_total", pid));
        assertEquals("1", value(body, "nox_vm_info", pid, "main_class=\"fleet.\\\"Quoted\\\"\\\\Main\""),
                "main class with escaped quotes and backslash");
        assertEquals("1", value(body, "nox_vm_debugging_state", pid, "state=\"not-active\""));
        assertEquals("0", value(body, "nox_vm_debugging_state", pid, "state=\"debugger-attached\""));
        assertNotNull(value(body, "process_start_time_seconds", pid));
        assertTrue(body.contains("# TYPE nox_vm_gc_collections_total counter\n"));
        assertTrue(body.contains("# TYPE nox_vm_info gauge\n"));

        int[] slotPids = instance.slotPids();
        for (int slot : new int[] {0, 2}) {
            String labels = "cluster_id=\"54\",slot=\"" + slot + "\",pid=\"" + slotPids[slot] + "\"";
            assertEquals("1", value(body, "nox_vm_up", "cluster_type=\"instance\"," + labels), "slot " + slot);
            assertNotNull(value(body, "jvm_memory_committed_bytes", labels), "slot " + slot);
        }
        assertNull(value(body, "nox_vm_up", "cluster_id=\"54\",slot=\"1\""), "slot 1 holds an ended VM");
        assertTrue(Integer.parseInt(value(body, "nox_host_vms")) >= 3, body);
        assertTrue(Integer.parseInt(value(body, "nox_host_clusters", "cluster_type=\"instance\"")) >= 1);
        assertTrue(Double.parseDouble(value(body, "nox_host_pass_duration_seconds")) > 0);
    }

    @Test
    void openMetricsWhenTheScraperAsksForIt() throws Exception {
        HttpResponse<String> response = get(url, "application/openmetrics-text;version=1.0.0,text/plain;q=0.5");
        assertEquals(200, response.statusCode());
        assertEquals(Metrics.OPENMETRICS_CONTENT_TYPE, response.headers().firstValue("Content-Type").orElse(""));
        String body = response.body();
        assertTrue(body.endsWith("# EOF\n"), "OpenMetrics ends with # EOF");
        assertTrue(body.contains("# TYPE nox_vm_gc_collections counter\n"));
        assertTrue(body.contains("# TYPE nox_vm info\n"));
        assertTrue(body.contains("# UNIT jvm_memory_committed_bytes bytes\n"));
        assertEquals("17", value(body, "nox_vm_gc_collections_total", "pid=\"" + process.pid() + "\""));
    }

    @Test
    void promtoolAcceptsTheExposition() throws Exception {
        Path promtool = Path.of("/usr/bin/promtool");
        assumeTrue(Files.isExecutable(promtool), "promtool is not installed (Debian package prometheus): skipped");
        String body = get(url, null).body();
        Process check = new ProcessBuilder(promtool.toString(), "check", "metrics").redirectErrorStream(true).start();
        check.getOutputStream().write(body.getBytes(StandardCharsets.UTF_8));
        check.getOutputStream().close();
        String said = new String(check.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(check.waitFor(10, TimeUnit.SECONDS), "promtool did not end");
        assertEquals(0, check.exitValue(), "promtool check metrics: " + said);
        assertEquals("", said.trim(), "promtool found problems");
    }

    @Test
    void concurrentScrapesAllGetTheWholeHost() throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(8);
        try {
            List<Future<HttpResponse<String>>> answers = new ArrayList<>();
            for (int i = 0; i < 64; i++) {
                answers.add(pool.submit(() -> get(url, null)));
            }
            for (Future<HttpResponse<String>> answer : answers) {
                HttpResponse<String> response = answer.get(30, TimeUnit.SECONDS);
                assertEquals(200, response.statusCode());
                assertEquals("1", value(response.body(), "nox_vm_up", "pid=\"" + process.pid() + "\""));
            }
        } finally {
            pool.shutdownNow();
        }
    }

    @Test
    void otherPathsAndMethodsAreRefused() throws Exception {
        String root = url.substring(0, url.length() - "/metrics".length());
        assertEquals(404, get(root + "/nothing", null).statusCode());
        assertEquals(200, get(root + "/", null).statusCode());
        HttpResponse<String> post = HTTP.send(HttpRequest.newBuilder(URI.create(url))
                .POST(HttpRequest.BodyPublishers.ofString("x")).build(), HttpResponse.BodyHandlers.ofString());
        assertEquals(405, post.statusCode());
    }

    @Test
    void aTakenPortIsNamedInTheMessage() throws Exception {
        try (ServerSocket taken = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            Launcher.Result result = Launcher.run("serve", "--port", Integer.toString(taken.getLocalPort()));
            assertEquals(CliError.REFUSED, result.exitCode(), result.toString());
            assertTrue(result.err().contains("port " + taken.getLocalPort()), result.toString());
            assertFalse(result.err().contains("Exception in thread"), result.toString());
        }
    }

    @Test
    void wrongOptionsAreUsageErrors() throws Exception {
        assertEquals(CliError.USAGE, Launcher.run("serve", "--port", "70000").exitCode());
        assertEquals(CliError.USAGE, Launcher.run("serve", "--port").exitCode());
        assertEquals(CliError.USAGE, Launcher.run("serve", "--colour", "red").exitCode());
        assertEquals(CliError.USAGE, Launcher.run("watch", "extra").exitCode());
    }
}
