package com.nox.jvm.inspector.cli;

import static com.nox.jvm.inspector.cli.Launcher.q;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.testing.HeadlessChromium;
import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.PlantedFiles;
import com.nox.jvm.inspector.testing.Spawned;
import com.nox.jvm.inspector.testing.Vmsim;

import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.ByteBuffer;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;
import java.util.stream.Stream;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * {@code noxinspect serve} as a real process with real vmsim VMs: the metrics of every VM over
 * HTTP, in both exposition formats, accepted by promtool; refusals for a taken port and wrong
 * requests; clients that hold connections without finishing their requests; its page in a real
 * browser. The process VM publishes both sources: a copy of the JDK VM's performance-data file is
 * planted under its pid (which started first, as a VM's process does). Instance clusters 54 and
 * 71 are this class's own.
 */
class ServeTest {
    private static final HttpClient HTTP = HttpClient.newBuilder().connectTimeout(Duration.ofSeconds(5)).build();
    private static final String USER = System.getProperty("user.name");
    /** The process VM's main class. */
    private static final String MAIN = "fleet.\"Quoted\"\\Main";

    private static Vmsim process;
    private static Vmsim instance;
    private static JdkVm jdk;
    private static PlantedFiles planted;
    private static Spawned serve;
    private static String url;

    @BeforeAll
    static void start() throws Exception {
        process = new Vmsim("--type", "process", "--set", "committed_java_heap_size=123456789",
                "--set", "jar_main_class=" + MAIN, "--set", "number_of_gcs=17", "--set", "vm_version=17.0.9-both");
        instance = new Vmsim("--type", "instance", "--id", "54", "--slots", "3", "--dead", "1");
        jdk = new JdkVm();
        jdk.awaitListed();
        planted = new PlantedFiles();
        planted.file(Path.of("/tmp", "hsperfdata_" + USER, Long.toString(process.pid())),
                Files.readAllBytes(jdk.perfDataFile(USER)));
        serve = Launcher.start("serve", "--port", "0");
        url = Launcher.metricsUrl(serve);
        assertTrue(url.startsWith("http://127.0.0.1:"), "serve binds to loopback by default: " + url);
    }

    @AfterAll
    static void stop() throws Exception {
        for (AutoCloseable started : new AutoCloseable[] {serve, instance, process, jdk, planted}) {
            if (started != null) {
                started.close();
            }
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
        List<String> found = body.lines().filter(l -> l.startsWith(name + "{") || l.startsWith(name + " "))
                .filter(l -> Stream.of(labels).allMatch(l::contains)).toList();
        assertTrue(found.size() <= 1, "two samples of " + name + " with " + List.of(labels) + ": " + found);
        return found.isEmpty() ? null : found.get(0).substring(found.get(0).lastIndexOf(' ') + 1);
    }

    @Test
    void everyVmWithItsFiguresInThePrometheusTextFormat() throws Exception {
        HttpResponse<String> response = get(url, null);
        assertEquals(200, response.statusCode());
        assertEquals(Exposition.PROMETHEUS.contentType(), response.headers().firstValue("Content-Type").orElse(""));
        String body = response.body();
        String pid = "pid=\"" + process.pid() + "\"";
        String cluster = "cluster_id=\"" + process.pid() + "\"";
        assertEquals("1", value(body, "nox_vm_up", pid, cluster, "cluster_type=\"process\"", "slot=\"0\""), body);
        assertEquals("123456789", value(body, "jvm_memory_committed_bytes", pid, "area=\"heap\""));
        assertEquals("17", value(body, "nox_vm_gc_collections_total", pid));
        assertEquals("1", value(body, "nox_vm_info", pid, "main_class=\"fleet.\\\"Quoted\\\"\\\\Main\""),
                "main class with escaped quotes and backslash: " + body);
        assertEquals("1", value(body, "nox_vm_debugging_state", pid, "state=\"not-active\""));
        assertEquals("0", value(body, "nox_vm_debugging_state", pid, "state=\"debugger-attached\""));
        assertNotNull(value(body, "process_start_time_seconds", pid));

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

    /**
     * A sleeping JDK VM known only by its performance data: its series carry cluster_type
     * "hotspot" with empty cluster id and slot, and its heap in use is what the VM's own
     * MemoryMXBean says. The VM collects first, as its collector (G1) publishes the heap in use
     * as of its last collection; the reading may differ by the little the VM allocates between.
     */
    @Test
    void aHotSpotVmWithItsHeapAsTheVmReadsIt() throws Exception {
        jdk.gc();
        String labels = "{cluster_type=\"hotspot\",cluster_id=\"\",slot=\"\",pid=\"" + jdk.pid() + "\"";
        String[] scraped = {""};
        // A VM started just now is there once it has published its figures.
        Spawned.until(5, "a series of the JDK VM", () -> {
            scraped[0] = get(url, null).body();
            return value(scraped[0], "nox_vm_up", labels) != null;
        });
        String body = scraped[0];
        assertEquals("1", value(body, "nox_vm_up", labels), body);
        long[] own = jdk.heap();
        assertEquals("1", value(body, "nox_vm_info", labels, "main_class=\"" + JdkVm.MAIN_CLASS + "\"",
                "vm_version=\"OpenJDK 64-Bit Server VM " + System.getProperty("java.vm.version") + "\""), body);
        long used = Long.parseLong(value(body, "jvm_memory_used_bytes", labels, "area=\"heap\""));
        long committed = Long.parseLong(value(body, "jvm_memory_committed_bytes", labels, "area=\"heap\""));
        long max = Long.parseLong(value(body, "jvm_memory_max_bytes", labels, "area=\"heap\""));
        long slack = Math.max(2L << 20, own[0] / 4);
        assertTrue(used > 0 && Math.abs(used - own[0]) <= slack,
                "heap used " + used + " against the VM's own " + own[0] + " (slack " + slack + ")");
        // The performance data adds up the generations' capacities, which may differ by a few bytes.
        assertTrue(Math.abs(committed - own[1]) <= own[1] / 100,
                "heap committed " + committed + " against the VM's own " + own[1]);
        assertTrue(max >= committed && max > 0, "heap max " + max + " below committed " + committed);
        assertTrue(Long.parseLong(value(body, "jvm_classes_loaded_total", labels)) > 100, body);
        assertTrue(Long.parseLong(value(body, "jvm_threads_current", labels)) >= 1, body);
        assertTrue(Long.parseLong(value(body, "jvm_gc_collection_seconds_count", labels,
                "gc=\"G1 Old Generation\"")) >= 1, "the VM's System.gc() ran a full collection: " + body);
        assertNotNull(value(body, "jvm_gc_collection_seconds_sum", labels, "gc=\"G1 Old Generation\""));
        assertNotNull(value(body, "process_start_time_seconds", labels));
        assertTrue(Integer.parseInt(value(body, "nox_host_hotspot_only_vms")) >= 1, body);
        assertNull(value(body, "nox_vm_gc_collections_total", labels), "a control-area figure the VM has not");
    }

    @Test
    void openMetricsWhenTheScraperAsksForIt() throws Exception {
        HttpResponse<String> response = get(url, "application/openmetrics-text;version=1.0.0,text/plain;q=0.5");
        assertEquals(200, response.statusCode());
        assertEquals(Exposition.OPENMETRICS.contentType(), response.headers().firstValue("Content-Type").orElse(""));
        String body = response.body();
        assertTrue(body.endsWith("# EOF\n"), "OpenMetrics ends with # EOF");
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

    /**
     * A VM that publishes both a control area and performance data, as a user sees it: list, info,
     * watch and the metrics show it once, with one version, one main class and one heap.
     */
    @Test
    void aVmWithBothSourcesIsShownOnceWithTheSameFactsEverywhere() throws Exception {
        long pid = process.pid();
        List<Map<String, String>> shown = new ArrayList<>();
        shown.add(Launcher.vm(Launcher.json("list"), pid));
        shown.add(Launcher.members(Launcher.json("info", Long.toString(pid)), "vm."));
        try (Spawned watch = Launcher.start("--json", "watch")) {
            shown.add(Launcher.flatJson(watch.await("\"pid\":" + pid + ",", 20)));
        }
        Map<String, String> first = shown.get(0);
        for (Map<String, String> vm : shown) {
            assertEquals(List.of(q("process:" + pid), q("control-area"), q("hotspot"), q("17.0.9-both"), q(MAIN),
                    "123456789", first.get("heap.used"), first.get("heap.max")), List.of(vm.get("cluster"),
                    vm.get("sources.0"), vm.get("sources.1"), vm.get("version"), vm.get("mainClass"),
                    vm.get("heap.committed"), vm.get("heap.used"), vm.get("heap.max")), vm.toString());
        }
        assertTrue(Long.parseLong(first.get("heap.max")) > 0, first.toString());
        String metrics = get(url, null).body();
        String labels = "{cluster_type=\"process\",cluster_id=\"" + pid + "\",slot=\"0\",pid=\"" + pid + "\"";
        assertNotNull(value(metrics, "nox_vm_info", labels, "vm_version=\"17.0.9-both\""), metrics);
        String heap = "area=\"heap\"";
        assertEquals("123456789", value(metrics, "jvm_memory_committed_bytes", labels, heap));
        // A heap in use that the VM has not published yet is null in JSON and has no sample.
        String used = first.get("heap.used");
        assertEquals(used.equals("null") ? null : used, value(metrics, "jvm_memory_used_bytes", labels, heap));
        assertEquals(first.get("heap.max"), value(metrics, "jvm_memory_max_bytes", labels, heap));
        assertEquals(1, metrics.lines().filter(l -> l.startsWith("nox_vm_up{") && l.contains("pid=\"" + pid + "\""))
                .count(), metrics);
    }

    /**
     * Clients that hold connections without finishing their requests, some sending nothing, some one
     * byte, some a byte now and then: a normal scrape is still answered, the slow connections are
     * closed once their time to send a request is up, and no more connections than the cap stay open.
     */
    @Test
    void slowClientsNeitherStallAScrapeNorStayOpen() throws Exception {
        URI uri = URI.create(url);
        InetSocketAddress address = new InetSocketAddress(uri.getHost(), uri.getPort());
        List<SocketChannel> slow = new ArrayList<>();
        Thread dribbler = null;
        try {
            long openedAt = System.nanoTime();
            List<SocketChannel> dribbling = new ArrayList<>();
            for (int i = 0; i < 100; i++) {
                slow.add(open(address));
                if (i % 3 == 1) {
                    slow.get(i).write(ByteBuffer.wrap(new byte[] {'G'}));
                } else if (i % 3 == 2) {
                    dribbling.add(slow.get(i));
                }
            }
            dribbler = dribble(dribbling);
            Thread.sleep(300);  // every slow connection has been accepted and has sent what it sends

            // Answered while every slow connection is still open: they do not stall it (how
            // fast it is answered is the benchmark's to measure).
            HttpResponse<String> response = get(url, null);
            assertEquals(200, response.statusCode());
            assertTrue(response.body().contains("nox_host_vms "), response.body());
            assertEquals(0, closedByServer(slow), "the slow connections are still within their time");

            // All are closed once their time to send a request is up, and not long after.
            long bound = openedAt + HttpFrontEnd.HEAD_NANOS + TimeUnit.SECONDS.toNanos(3);
            while (closedByServer(slow) < slow.size() && System.nanoTime() - bound < 0) {
                Thread.sleep(100);
            }
            assertEquals(slow.size(), closedByServer(slow), "slow connections left open 3 s after their time");
            assertTrue(System.nanoTime() - openedAt >= HttpFrontEnd.HEAD_NANOS - TimeUnit.MILLISECONDS.toNanos(500),
                    "closed before their time");
        } finally {
            if (dribbler != null) {
                dribbler.interrupt();
                dribbler.join();
            }
            closeAll(slow);
        }
        // Twice the cap of silent connections: at most the cap stay open, and a scrape still gets through.
        List<SocketChannel> silent = new ArrayList<>();
        try {
            for (int i = 0; i < 2 * HttpFrontEnd.MAX_CONNECTIONS; i++) {
                silent.add(open(address));
            }
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(3);
            while (silent.size() - closedByServer(silent) > HttpFrontEnd.MAX_CONNECTIONS
                    && System.nanoTime() - deadline < 0) {
                Thread.sleep(50);
            }
            int stillOpen = silent.size() - closedByServer(silent);
            assertTrue(stillOpen <= HttpFrontEnd.MAX_CONNECTIONS, stillOpen + " connections open, above the cap");
            assertEquals(200, get(url, null).statusCode());
        } finally {
            closeAll(silent);
        }
    }

    private static SocketChannel open(InetSocketAddress address) throws IOException {
        SocketChannel channel = SocketChannel.open(address);
        channel.configureBlocking(false);
        return channel;
    }

    /** Sends one more byte of a request that never ends to each connection, every 200 ms. */
    private static Thread dribble(List<SocketChannel> channels) {
        byte[] request = ("GET /metrics HTTP/1.1\r\nX-Slow: " + "a".repeat(4000)).getBytes(StandardCharsets.US_ASCII);
        Thread thread = new Thread(() -> {
            for (int sent = 0; sent < request.length && !Thread.currentThread().isInterrupted(); sent++) {
                for (SocketChannel channel : channels) {
                    try {
                        channel.write(ByteBuffer.wrap(request, sent, 1));
                    } catch (IOException e) {
                        // closed by the server: that is what the test waits for
                    }
                }
                try {
                    Thread.sleep(200);
                } catch (InterruptedException e) {
                    return;
                }
            }
        }, "slow-client");
        thread.setDaemon(true);
        thread.start();
        return thread;
    }

    /** How many of the (non-blocking) connections the server has closed (end of stream or reset). */
    private static int closedByServer(List<SocketChannel> channels) {
        int closed = 0;
        ByteBuffer buffer = ByteBuffer.allocate(4096);
        for (SocketChannel channel : channels) {
            try {
                int n;
                do {
                    n = channel.read(buffer.clear());
                } while (n > 0);
                closed += n < 0 ? 1 : 0;
            } catch (IOException e) {
                closed++;
            }
        }
        return closed;
    }

    private static void closeAll(List<SocketChannel> channels) throws IOException {
        for (SocketChannel channel : channels) {
            channel.close();
        }
    }

    /** Per card: pid, then per chart line its class and point count, e.g. "123 used:4 cpu:3 ...". */
    private static final String CARDS = "[...document.querySelectorAll('section.card')].map(c => c.dataset.pid + ' '"
            + " + [...c.querySelectorAll('polyline')].map(l => l.dataset.series + ':'"
            + " + (l.getAttribute('points') || '').split(' ').filter(Boolean).length).join(' ')).join('\\n')";
    private static final String POINTS = "[...document.querySelectorAll('polyline')].map(l => l.getAttribute('points'))"
            + ".join('|')";

    private static Map<String, String> cards(HeadlessChromium chromium) throws Exception {
        return chromium.evaluate(CARDS).lines().filter(l -> !l.isEmpty())
                .collect(Collectors.toMap(l -> l.split(" ")[0], l -> l, (x, y) -> x + "\n" + y));
    }

    /** The number of points of one line of a card ("123 used:4 cpu:3 ..."); 0 when it has none. */
    private static int points(String card, String series) {
        return Stream.of(card.split(" ")).filter(t -> t.startsWith(series + ":"))
                .mapToInt(t -> Integer.parseInt(t.substring(series.length() + 1))).findFirst().orElse(0);
    }

    /**
     * The page of serve in headless Chromium, with 20 VMs: every VM the test started has a card whose
     * charts draw points (CPU needs two passes: a share is a difference), the points and the picture
     * change as the page polls, and the page asked nothing of anyone but serve.
     */
    @Test
    void pageChartsEveryVmFromServeAlone() throws Exception {
        assumeTrue(Files.isExecutable(HeadlessChromium.CHROMIUM),
                "chromium is not installed (Debian package chromium): skipped");
        try (JdkVm serial = new JdkVm("-XX:+UseSerialGC");
             // 15 simulated VMs (this test's instance cluster 71): 20 VMs on the page with the fixture's.
             Vmsim simulated = new Vmsim("--type", "instance", "--id", "71", "--slots", "15");
             HeadlessChromium chromium = new HeadlessChromium()) {
            String origin = url.substring(0, url.indexOf("/metrics"));
            serial.awaitListed();
            List<Integer> pids = new ArrayList<>(List.of(serial.pid(), jdk.pid(), (int) process.pid(),
                    instance.slotPids()[0], instance.slotPids()[2]));
            Arrays.stream(simulated.slotPids()).forEach(pids::add);
            assertEquals(20, pids.stream().distinct().count(), pids.toString());

            chromium.navigate(origin + "/");
            Map<String, Map<String, String>> shown = new HashMap<>();
            Spawned.until(40, "the page charting every VM of the test " + pids, () -> {
                shown.put("first", cards(chromium));
                return pids.stream().map(pid -> shown.get("first").get(Integer.toString(pid))).allMatch(card ->
                        card != null && points(card, "cpu") >= 1 && points(card, "committed") >= 2);
            });
            String pointsBefore = chromium.evaluate(POINTS);
            byte[] before = chromium.screenshot();
            Thread.sleep(4500);  // two more polls (one every 2 s)
            Map<String, String> later = cards(chromium);
            assertFalse(pointsBefore.equals(chromium.evaluate(POINTS)), "the charts did not move: " + shown + later);
            assertFalse(Arrays.equals(before, chromium.screenshot()), "two screenshots 4.5 s apart are the same");
            for (int pid : pids) {
                assertTrue(later.containsKey(Integer.toString(pid)), "no card for " + pid + ": " + later);
            }
            List<String> requests = chromium.requests();
            assertTrue(requests.contains(origin + "/page.js") && requests.contains(origin + "/page.css"), requests.toString());
            assertTrue(requests.stream().anyMatch(r -> r.startsWith(origin + "/api/vms")), requests.toString());
            for (String request : requests) {
                assertTrue(request.startsWith(origin + "/") || request.startsWith("data:"),
                        "a request outside serve: " + request + " (all: " + requests + ")");
            }
        }
    }
}
