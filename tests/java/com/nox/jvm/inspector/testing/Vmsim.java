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
import java.util.concurrent.TimeUnit;

/**
 * A simulated VM (tools/vmsim) started for one test: waits for its READY line and ends it (vmsim
 * then removes its files, segment and semaphores) when closed, also when the test fails.
 * Instance-cluster ids are global to the host and test classes run in parallel, so each class
 * has its own: the cluster-natives tests 80 to 83, the command-line tests 84 to 89.
 */
public final class Vmsim implements AutoCloseable {
    private final Process process;
    private final BufferedReader out;
    private final Map<String, String> fields = new HashMap<>();

    public Vmsim(String... args) throws IOException {
        List<String> command = new ArrayList<>();
        command.add(System.getProperty("nox.vmsim", "vmsim"));
        command.addAll(Arrays.asList(args));
        process = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT).start();
        out = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
        String line = out.readLine();
        if (line == null || !line.startsWith("READY ")) {
            process.destroyForcibly();
            throw new IOException("vmsim did not start: " + line + " (" + command + ")");
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

    /** Sends one byte to vmsim's standard input (a vmsim started with --flap starts cutting its file). */
    public void poke() throws IOException {
        process.getOutputStream().write('g');
        process.getOutputStream().flush();
    }

    /** The next line vmsim prints, or null at the end of its output. */
    public String nextLine() throws IOException {
        return out.readLine();
    }

    /** Reads lines until one starts with the prefix; null when the output ends first. */
    public String waitFor(String prefix) throws IOException {
        for (String line = out.readLine(); line != null; line = out.readLine()) {
            if (line.startsWith(prefix)) {
                return line;
            }
        }
        return null;
    }

    /** Waits for vmsim to end on its own and returns its exit code. */
    public int waitExit() throws InterruptedException {
        if (!process.waitFor(60, TimeUnit.SECONDS)) {
            throw new IllegalStateException("vmsim did not end");
        }
        return process.exitValue();
    }

    public long pid() {
        return process.pid();
    }

    @Override
    public void close() throws InterruptedException {
        if (process.isAlive()) {
            process.destroy();  // SIGTERM: vmsim cleans up
            if (!process.waitFor(30, TimeUnit.SECONDS)) {
                process.destroyForcibly();
            }
        }
    }
}
