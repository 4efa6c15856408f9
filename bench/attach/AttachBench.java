import com.nox.jvm.inspector.attach.AttachClient;
import com.nox.jvm.inspector.attach.CommandReply;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;

/**
 * The attach client measured in one run, against the JDK's jcmd where there is one:
 * <ol>
 * <li>whole processes: {@code noxinspect jcmd PID VM.version} against {@code jcmd PID VM.version},
 * alternating, wall time of each run (median of 11 after a warm-up, and the median of the
 * pairwise ratios);</li>
 * <li>inside this JVM through the Java API: the first attach (trigger, signal, listener start),
 * then 2000 round trips of VM.version on the running listener (median and p99);</li>
 * <li>a thread dump of a VM with 10,000 threads through {@code noxinspect threads}, its output
 * discarded: the peak RSS of the noxinspect process (GNU time's %M), against the same process
 * running VM.version, and jcmd's Thread.print for comparison.</li>
 * </ol>
 */
public final class AttachBench {
    private static final int RUNS = 11;
    private static final int ROUND_TRIPS = 2000;
    private static final int THREADS = 10_000;

    private final String launcher = System.getProperty("nox.launcher");
    private final String jcmd = Path.of(System.getProperty("java.home"), "bin", "jcmd").toString();

    private AttachBench() {
    }

    public static void main(String[] args) throws Exception {
        new AttachBench().run();
    }

    private void run() throws Exception {
        try (Target target = new Target(0)) {
            roundTrips(target.pid);
            wholeProcesses(target.pid);
        }
        try (Target target = new Target(THREADS)) {
            threadDump(target.pid);
        }
    }

    private void roundTrips(int pid) throws IOException {
        long start = System.nanoTime();
        try (CommandReply reply = AttachClient.jcmd(pid, "VM.version", Duration.ofSeconds(10))) {
            reply.text();
        }
        System.out.printf(Locale.ROOT, "first attach and VM.version through the Java API: %.2f ms%n",
                (System.nanoTime() - start) / 1e6);
        long[] micros = new long[ROUND_TRIPS];
        for (int i = -200; i < ROUND_TRIPS; i++) {
            long t = System.nanoTime();
            try (CommandReply reply = AttachClient.jcmd(pid, "VM.version", Duration.ofSeconds(10))) {
                reply.text();
            }
            if (i >= 0) {
                micros[i] = (System.nanoTime() - t) / 1000;
            }
        }
        Arrays.sort(micros);
        System.out.printf(Locale.ROOT, "round trip of VM.version after the first attach (%d, after 200 to warm up): "
                + "median %d us, p99 %d us%n", ROUND_TRIPS, micros[ROUND_TRIPS / 2], micros[ROUND_TRIPS * 99 / 100]);
    }

    private void wholeProcesses(int pid) throws Exception {
        List<String> ours = List.of(launcher, "jcmd", Integer.toString(pid), "VM.version");
        List<String> theirs = List.of(jcmd, Integer.toString(pid), "VM.version");
        wallSeconds(ours);
        wallSeconds(theirs);
        double[] a = new double[RUNS];
        double[] b = new double[RUNS];
        double[] ratio = new double[RUNS];
        for (int i = 0; i < RUNS; i++) {
            a[i] = wallSeconds(ours);
            b[i] = wallSeconds(theirs);
            ratio[i] = a[i] / b[i];
        }
        System.out.printf(Locale.ROOT, "whole process, wall (median of %d, alternating): noxinspect jcmd %.3f s, "
                + "jcmd %.3f s, ratio %.2f (pairs %.2f to %.2f)%n", RUNS, median(a), median(b), median(ratio),
                min(ratio), max(ratio));
    }

    private void threadDump(int pid) throws Exception {
        List<String> threads = List.of(launcher, "threads", Integer.toString(pid));
        List<String> version = List.of(launcher, "jcmd", Integer.toString(pid), "VM.version");
        List<String> theirs = List.of(jcmd, Integer.toString(pid), "Thread.print");
        peakKib(version);  // the first attach
        long bytes;
        Process p = new ProcessBuilder(threads).redirectError(ProcessBuilder.Redirect.INHERIT).start();
        try (var in = p.getInputStream()) {
            bytes = in.transferTo(OutputStream.nullOutputStream());
        }
        p.waitFor();
        System.out.printf(Locale.ROOT, "thread dump of a VM with %d threads: %d bytes%n", THREADS, bytes);
        long[] dump = new long[5];
        long[] small = new long[5];
        long[] jdk = new long[5];
        for (int i = 0; i < dump.length; i++) {
            dump[i] = peakKib(threads);
            small[i] = peakKib(version);
            jdk[i] = peakKib(theirs);
        }
        Arrays.sort(dump);
        Arrays.sort(small);
        Arrays.sort(jdk);
        System.out.printf(Locale.ROOT, "peak RSS (median of 5): noxinspect threads %d KiB, noxinspect jcmd VM.version "
                + "%d KiB, jcmd Thread.print %d KiB%n", dump[2], small[2], jdk[2]);
    }

    private static double wallSeconds(List<String> command) throws Exception {
        long start = System.nanoTime();
        Process p = new ProcessBuilder(command).redirectOutput(ProcessBuilder.Redirect.DISCARD)
                .redirectError(ProcessBuilder.Redirect.INHERIT).start();
        if (p.waitFor() != 0) {
            throw new IllegalStateException("failed: " + command);
        }
        return (System.nanoTime() - start) / 1e9;
    }

    /** The peak resident set of the command's process, by GNU time, its output discarded. */
    private static long peakKib(List<String> command) throws Exception {
        Path report = Files.createTempFile("attach-bench", ".time");
        try {
            List<String> timed = new ArrayList<>(List.of("/usr/bin/time", "-f", "%M", "-o", report.toString()));
            timed.addAll(command);
            Process p = new ProcessBuilder(timed).redirectOutput(ProcessBuilder.Redirect.DISCARD)
                    .redirectError(ProcessBuilder.Redirect.INHERIT).start();
            if (p.waitFor() != 0) {
                throw new IllegalStateException("failed: " + command);
            }
            return Long.parseLong(Files.readString(report).trim());
        } finally {
            Files.deleteIfExists(report);
        }
    }

    private static double median(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        return sorted[sorted.length / 2];
    }

    private static double min(double[] values) {
        return Arrays.stream(values).min().orElse(0);
    }

    private static double max(double[] values) {
        return Arrays.stream(values).max().orElse(0);
    }

    /** A VM running ManyThreads, ended when closed. */
    private static final class Target implements AutoCloseable {
        final Process process;
        final int pid;

        Target(int threads) throws IOException {
            process = new ProcessBuilder(Path.of(System.getProperty("java.home"), "bin", "java").toString(),
                    "-Xss256k", "-XX:+UseSerialGC", "-cp", System.getProperty("java.class.path"), "ManyThreads",
                    Integer.toString(threads)).redirectError(ProcessBuilder.Redirect.INHERIT).start();
            String line = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8))
                    .readLine();
            if (line == null || !line.startsWith("READY ")) {
                throw new IllegalStateException("the target VM did not start: " + line);
            }
            pid = Integer.parseInt(line.substring(6));
        }

        @Override
        public void close() throws Exception {
            process.getOutputStream().close();
            if (!process.waitFor(10, java.util.concurrent.TimeUnit.SECONDS)) {
                process.destroyForcibly().waitFor();
            }
        }
    }
}
