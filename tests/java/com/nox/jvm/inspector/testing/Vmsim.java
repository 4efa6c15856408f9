package com.nox.jvm.inspector.testing;

import java.io.IOException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/**
 * A simulated VM (tools/vmsim) started for one test: waits for its READY line and ends it (vmsim
 * then removes its files, segment and semaphores) when closed, also when the test fails.
 * Instance-cluster ids are global to the host and test classes run in parallel, so each class
 * has its own: the cluster-natives tests 80 to 83, the command-line tests 84 to 89, the fleet view
 * 54 and 71 (ServeTest), 55 (PrometheusScrapeTest), 56 and 57 (WatchTest), 59
 * (ProfilingClusterNativesTest); the fleet benchmark uses 58.
 * Every wait is bounded by {@link #WAIT_SECONDS}, so that a VM that does not react fails its test
 * with a message instead of hanging until CTest kills it (and the test still ends the VM).
 */
public final class Vmsim implements AutoCloseable {
    public static final int WAIT_SECONDS = 10;

    private final Spawned process;
    private final Map<String, String> fields = new HashMap<>();

    public Vmsim(String... args) throws IOException {
        this(List.of(), args);
    }

    /** {@code prefix} goes before the vmsim command (setpriv, to run it as another user). */
    public Vmsim(List<String> prefix, String... args) throws IOException {
        List<String> command = new ArrayList<>(prefix);
        command.add(System.getProperty("nox.vmsim", "vmsim"));
        command.addAll(Arrays.asList(args));
        process = new Spawned(command);
        String line = waitFor("READY ");
        if (!line.startsWith("READY ")) {
            end();
            throw new IOException(line + " (" + command + "): " + process.stderr());
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
            return process.poll(millis / 1000.0);
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
        try {
            String line = process.find(l -> l.startsWith(prefix), WAIT_SECONDS);
            return line != null ? line : "(vmsim pid " + process.pid() + " printed no line starting with \""
                    + prefix + "\" within " + WAIT_SECONDS + " s; it printed " + process.seen() + ")";
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IOException("interrupted while waiting for vmsim's output", e);
        }
    }

    /** Waits for vmsim to end on its own and returns its exit code; fails after {@link #WAIT_SECONDS}. */
    public int waitExit() throws InterruptedException {
        if (process.awaitExit(WAIT_SECONDS) < 0) {
            close();
            throw new AssertionError("vmsim pid " + process.pid() + " did not end within " + WAIT_SECONDS + " s");
        }
        return process.process().exitValue();
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
        }
    }

    /** SIGTERM: vmsim cleans up. */
    @Override
    public void close() throws InterruptedException {
        process.close();
    }
}
