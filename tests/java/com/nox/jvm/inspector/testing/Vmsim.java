package com.nox.jvm.inspector.testing;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;

/**
 * A simulated VM (tools/vmsim) started for one test: waits for its READY line and ends it (vmsim
 * then removes its files, segment and semaphores) when closed, also when the test fails.
 * Instance-cluster ids are global to the host and test classes run in parallel, so each class
 * has its own: the cluster-natives tests 80 to 83, the command-line tests 84 to 89, the fleet view
 * 54 (ServeTest), 55 (PrometheusScrapeTest), 56 and 57 (WatchTest), 59 (ProfilingClusterNativesTest); the fleet
 * benchmark uses 58.
 * Every wait is bounded by {@link #WAIT_SECONDS}, so that a VM that does not react fails its test
 * with a message instead of hanging until CTest kills it (and the test still ends the VM).
 */
public final class Vmsim implements AutoCloseable {
    public static final int WAIT_SECONDS = 10;

    /** What the line queue holds after vmsim's last line. */
    private static final String END = new String("<end of output>");

    private final Process process;
    private final LinkedBlockingQueue<String> lines = new LinkedBlockingQueue<>();
    private final Map<String, String> fields = new HashMap<>();

    public Vmsim(String... args) throws IOException {
        this(List.of(), args);
    }

    /** {@code prefix} goes before the vmsim command (setpriv, to run it as another user). */
    public Vmsim(List<String> prefix, String... args) throws IOException {
        List<String> command = new ArrayList<>(prefix);
        command.add(System.getProperty("nox.vmsim", "vmsim"));
        command.addAll(Arrays.asList(args));
        process = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT).start();
        BufferedReader out = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
        Thread reader = new Thread(() -> {
            try {
                for (String line = out.readLine(); line != null; line = out.readLine()) {
                    lines.add(line);
                }
            } catch (IOException e) {
                // the stream was closed with the process: its output has ended
            }
            lines.add(END);
        }, "vmsim-output-" + process.pid());
        reader.setDaemon(true);
        reader.start();
        String line = waitFor("READY ");
        if (!line.startsWith("READY ")) {
            end();
            throw new IOException(line + " (" + command + ")");
        }
        for (String pair : line.substring(6).trim().split(" ")) {
            int eq = pair.indexOf('=');
            fields.put(pair.substring(0, eq), pair.substring(eq + 1));
        }
    }

    public String field(String key) {
        return fields.getOrDefault(key, "");
    }

    public int id() {
        return Integer.parseInt(field("id"));
    }

    /** The pid published in each slot (0 for a slot not in use). */
    public int[] slotPids() {
        return Arrays.stream(field("pids").split(",")).mapToInt(Integer::parseInt).toArray();
    }

    /**
     * Removes the semaphore sets named in the READY line (event_keys). For a test that kills
     * vmsim outright: vmsim removes them itself only when it can end normally. Sets already gone
     * are skipped.
     */
    public void removeEventSets() throws IOException, InterruptedException {
        for (String key : field("event_keys").split(",")) {
            if (key.isEmpty() || key.equals("-")) {
                continue;
            }
            Process ipcrm = new ProcessBuilder("ipcrm", "-S", key).redirectErrorStream(true)
                    .redirectOutput(ProcessBuilder.Redirect.DISCARD).start();
            if (!ipcrm.waitFor(WAIT_SECONDS, TimeUnit.SECONDS)) {
                ipcrm.destroyForcibly();
            }
        }
    }

    /** The next line vmsim prints; null at the end of its output or after {@code millis}. */
    public String nextLine(long millis) throws IOException {
        try {
            String line = lines.poll(millis, TimeUnit.MILLISECONDS);
            if (line == END) {
                lines.add(END);  // every later call sees the end too
                return null;
            }
            return line;
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IOException("interrupted while waiting for vmsim's output", e);
        }
    }

    /**
     * Reads lines until one starts with the prefix and returns it. When none comes within
     * {@link #WAIT_SECONDS}, or the output ends first, returns a text that says so, which then
     * shows in the failure of the test's comparison.
     */
    public String waitFor(String prefix) throws IOException {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(WAIT_SECONDS);
        while (System.nanoTime() < deadline) {
            String line = nextLine(TimeUnit.NANOSECONDS.toMillis(Math.max(0, deadline - System.nanoTime())));
            if (line == null && System.nanoTime() >= deadline) {
                break;
            }
            if (line == null) {
                return "(vmsim pid " + process.pid() + " ended its output before a line starting with \"" + prefix + "\")";
            }
            if (line.startsWith(prefix)) {
                return line;
            }
        }
        return "(vmsim pid " + process.pid() + " printed no line starting with \"" + prefix + "\" within "
                + WAIT_SECONDS + " s)";
    }

    /** Waits for vmsim to end on its own and returns its exit code; fails after {@link #WAIT_SECONDS}. */
    public int waitExit() throws InterruptedException {
        if (!process.waitFor(WAIT_SECONDS, TimeUnit.SECONDS)) {
            close();
            throw new AssertionError("vmsim pid " + process.pid() + " did not end within " + WAIT_SECONDS + " s");
        }
        return process.exitValue();
    }

    public long pid() {
        return process.pid();
    }

    /** Ends vmsim from the constructor, where a checked InterruptedException cannot go. */
    private void end() {
        try {
            close();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            process.destroyForcibly();
        }
    }

    @Override
    public void close() throws InterruptedException {
        if (process.isAlive()) {
            process.destroy();  // SIGTERM: vmsim cleans up
            if (!process.waitFor(WAIT_SECONDS, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                process.waitFor(WAIT_SECONDS, TimeUnit.SECONDS);
            }
        }
    }
}
