package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;

/**
 * The fleet view's costs with real processes:
 * 1. a scrape of `noxinspect serve` over HTTP with 100 simulated VMs (process clusters), median
 *    of many, beside the same pass and rendering done in this JVM without HTTP;
 * 2. how long after a vmsim VM's READY line `noxinspect watch` reports it, and how long after
 *    the VM's process has ended it reports its end, for process clusters and for a VM of an
 *    instance cluster (id 58, this benchmark's own).
 * Started by `cmake --build <dir> --target bench_fleet`; not a test.
 */
public final class FleetBench {
    private static final String VMSIM = System.getProperty("nox.vmsim");
    private static final String LAUNCHER = System.getProperty("nox.launcher");
    private static final String BUILD = System.getProperty("nox.build.dir");

    private record Line(String text, long nanos) {
    }

    /** A started process with its stdout lines queued as they arrive, with their arrival time. */
    private static final class Started implements AutoCloseable {
        final Process process;
        final BlockingQueue<Line> lines = new LinkedBlockingQueue<>();

        Started(List<String> command) throws IOException {
            ProcessBuilder builder = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT);
            builder.environment().put("NOX_BUILD_DIR", BUILD);
            process = builder.start();
            Thread reader = new Thread(() -> {
                try (BufferedReader in = new BufferedReader(new InputStreamReader(process.getInputStream(),
                        StandardCharsets.UTF_8))) {
                    for (String line = in.readLine(); line != null; line = in.readLine()) {
                        lines.add(new Line(line, System.nanoTime()));
                    }
                } catch (IOException e) {
                    // ended
                }
            });
            reader.setDaemon(true);
            reader.start();
        }

        Line await(String... parts) throws InterruptedException {
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(30);
            while (true) {
                Line line = lines.poll(Math.max(1, deadline - System.nanoTime()), TimeUnit.NANOSECONDS);
                if (line == null) {
                    throw new IllegalStateException("no line with " + Arrays.toString(parts));
                }
                boolean all = true;
                for (String part : parts) {
                    all &= line.text().contains(part);
                }
                if (all) {
                    return line;
                }
            }
        }

        /** Ends the process with SIGTERM; the time at which it was seen ended. */
        long end() throws InterruptedException {
            process.destroy();
            process.waitFor();
            return System.nanoTime();
        }

        @Override
        public void close() throws InterruptedException {
            if (process.isAlive()) {
                end();
            }
        }
    }

    private static Started vmsim(String... args) throws IOException {
        List<String> command = new ArrayList<>();
        command.add(VMSIM);
        command.addAll(Arrays.asList(args));
        return new Started(command);
    }

    private static Started noxinspect(String... args) throws IOException {
        List<String> command = new ArrayList<>();
        command.add(LAUNCHER);
        command.addAll(Arrays.asList(args));
        return new Started(command);
    }

    private static double median(List<Double> values) {
        List<Double> sorted = new ArrayList<>(values);
        sorted.sort(null);
        int n = sorted.size();
        return n % 2 == 1 ? sorted.get(n / 2) : (sorted.get(n / 2 - 1) + sorted.get(n / 2)) / 2;
    }

    private static double percentile(List<Double> values, double p) {
        List<Double> sorted = new ArrayList<>(values);
        sorted.sort(null);
        return sorted.get(Math.min(sorted.size() - 1, (int) Math.ceil(p * sorted.size()) - 1));
    }

    private static String ms(double nanos) {
        return String.format(Locale.ROOT, "%.2f ms", nanos / 1e6);
    }

    public static void main(String[] args) throws Exception {
        int vms = Integer.getInteger("fleet.vms", 100);
        int scrapes = Integer.getInteger("fleet.scrapes", 300);
        int rounds = Integer.getInteger("fleet.rounds", 30);
        scrapeBenchmark(vms, scrapes);
        watchBenchmark(rounds);
    }

    private static void scrapeBenchmark(int count, int scrapes) throws Exception {
        List<Started> vms = new ArrayList<>();
        try {
            for (int i = 0; i < count; i++) {
                Started vm = vmsim("--type", "process");
                vm.await("READY ");
                vms.add(vm);
            }
            Host host = new Host();
            try (Started serve = noxinspect("serve", "--port", "0")) {
                String line = serve.await("http://").text();
                URI uri = URI.create(line.substring(line.indexOf("http://")).trim());
                HttpClient http = HttpClient.newHttpClient();
                HttpRequest request = HttpRequest.newBuilder(uri).build();
                List<Double> overHttp = new ArrayList<>();
                List<Double> inProcess = new ArrayList<>();
                List<Double> passOnly = new ArrayList<>();
                int bytes = 0;
                int found = 0;
                for (int i = 0; i < scrapes + 50; i++) {
                    long began = System.nanoTime();
                    HttpResponse<String> response = http.send(request, HttpResponse.BodyHandlers.ofString());
                    long took = System.nanoTime() - began;
                    if (response.statusCode() != 200) {
                        throw new IllegalStateException("scrape answered " + response.statusCode());
                    }
                    began = System.nanoTime();
                    HostSnapshot snapshot = host.snapshot();
                    String text = Metrics.render(snapshot, Exposition.PROMETHEUS);
                    long local = System.nanoTime() - began;
                    if (i >= 50) {  // the first ones warm both JVMs up
                        overHttp.add((double) took);
                        inProcess.add((double) local);
                        passOnly.add((double) snapshot.controlAreaNanos());
                        bytes = response.body().length();
                        found = snapshot.vms().size();
                    }
                    if (text.isEmpty()) {
                        throw new IllegalStateException("empty exposition");
                    }
                }
                System.out.printf(Locale.ROOT, "scrape of %d simulated VMs (%d found, %d bytes), %d scrapes:%n",
                        count, found, bytes, scrapes);
                System.out.println("  over HTTP (noxinspect serve)     median " + ms(median(overHttp)) + ", p90 "
                        + ms(percentile(overHttp, 0.9)));
                System.out.println("  same snapshot + rendering, no HTTP  median " + ms(median(inProcess)));
                System.out.println("  native control-area pass alone   median " + ms(median(passOnly)));
                System.out.printf(Locale.ROOT, "  HTTP scrape / in-process work   %.2fx%n",
                        median(overHttp) / median(inProcess));
            }
        } finally {
            for (Started vm : vms) {
                vm.process.destroy();
            }
            for (Started vm : vms) {
                vm.process.waitFor();
            }
        }
    }

    private static void watchBenchmark(int rounds) throws Exception {
        try (Started watch = noxinspect("--json", "watch")) {
            // Watch is running once it reports a VM started now.
            try (Started marker = vmsim("--type", "process")) {
                marker.await("READY ");
                watch.await("\"pid\":" + marker.process.pid() + ",");
            }
            List<Double> appear = new ArrayList<>();
            List<Double> vanish = new ArrayList<>();
            List<Double> appearInstance = new ArrayList<>();
            List<Double> vanishInstance = new ArrayList<>();
            for (int i = 0; i < rounds; i++) {
                try (Started vm = vmsim("--type", "process")) {
                    long ready = vm.await("READY ").nanos();
                    String pid = "\"pid\":" + vm.process.pid() + ",";
                    appear.add((double) (watch.await("\"appeared\"", pid).nanos() - ready));
                    long ended = vm.end();
                    vanish.add((double) (watch.await("\"vanished\"", pid).nanos() - ended));
                }
                try (Started vm = vmsim("--type", "instance", "--id", "58", "--slots", "1")) {
                    Line ready = vm.await("READY ");
                    String slotPid = ready.text().replaceAll(".* pids=([0-9]+).*", "$1");
                    String pid = "\"pid\":" + slotPid + ",";
                    appearInstance.add((double) (watch.await("\"appeared\"", pid).nanos() - ready.nanos()));
                    long ended = vm.end();
                    vanishInstance.add((double) (watch.await("\"vanished\"", pid).nanos() - ended));
                }
            }
            System.out.printf(Locale.ROOT, "watch, %d rounds (negative: reported before the READY line or the exit,%n"
                    + "  since vmsim publishes before READY and removes its file and segment before it exits):%n", rounds);
            System.out.println("  process VM appeared after READY   median " + ms(median(appear)) + ", max "
                    + ms(percentile(appear, 1.0)));
            System.out.println("  process VM vanished after exit    median " + ms(median(vanish)) + ", max "
                    + ms(percentile(vanish, 1.0)));
            System.out.println("  instance VM appeared after READY  median " + ms(median(appearInstance)) + ", max "
                    + ms(percentile(appearInstance, 1.0)));
            System.out.println("  instance VM vanished after exit   median " + ms(median(vanishInstance)) + ", max "
                    + ms(percentile(vanishInstance, 1.0)));
        }
    }
}
