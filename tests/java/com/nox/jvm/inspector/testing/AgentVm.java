package com.nox.jvm.inspector.testing;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.Writer;
import java.io.OutputStreamWriter;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.TimeUnit;

/**
 * A real JDK VM started for one test, running {@link AgentTarget}, with nox-agent.jar loaded at
 * start or not at all (then a test may attach it). Closing ends the VM (SIGTERM, then SIGKILL
 * after 5 s) and removes the files that a killed VM leaves behind, also when the test fails.
 */
public final class AgentVm implements AutoCloseable {
    /** The heap of every test VM: fixed, so committed and maximum stay put while a test compares them. */
    private static final String HEAP = "64m";

    private final Process process;
    private final long pid;
    private final Writer in;
    private final BlockingQueue<String> lines = new ArrayBlockingQueue<>(1000);
    private final List<String> command;

    private AgentVm(List<String> command, ProcessBuilder.Redirect errors) throws IOException {
        this.command = command;
        process = new ProcessBuilder(command).redirectError(errors).start();
        in = new OutputStreamWriter(process.getOutputStream(), StandardCharsets.UTF_8);
        BufferedReader out = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
        Thread reader = new Thread(() -> {
            try {
                for (String line = out.readLine(); line != null; line = out.readLine()) {
                    lines.offer(line);
                }
            } catch (IOException e) {
                // The VM has gone.
            }
        }, "agent-vm-output");
        reader.setDaemon(true);
        reader.start();
        String up = nextLine("UP ", 10);
        pid = Long.parseLong(up.substring("UP pid=".length()));
        if (pid != process.pid()) {
            throw new IOException("the VM says pid " + pid + " but was started as " + process.pid());
        }
    }

    /** A VM with the agent loaded at start; {@code agentOptions} may be empty. */
    public static AgentVm withAgent(String agentOptions, String... programArgs) throws IOException {
        String agent = "-javaagent:" + agentJar() + (agentOptions.isEmpty() ? "" : "=" + agentOptions);
        return start(List.of(agent), ProcessBuilder.Redirect.INHERIT, programArgs);
    }

    /** A VM with the agent loaded at start whose standard error goes to the file {@code errors}. */
    public static AgentVm withAgentErrorsTo(Path errors, String agentOptions, String... programArgs) throws IOException {
        String agent = "-javaagent:" + agentJar() + (agentOptions.isEmpty() ? "" : "=" + agentOptions);
        return start(List.of(agent), ProcessBuilder.Redirect.to(errors.toFile()), programArgs);
    }

    /** A VM without the agent. */
    public static AgentVm plain(String... programArgs) throws IOException {
        return start(List.of(), ProcessBuilder.Redirect.INHERIT, programArgs);
    }

    /** A VM without the agent, started with these VM options as well. */
    public static AgentVm plainWith(List<String> vmOptions, String... programArgs) throws IOException {
        return start(vmOptions, ProcessBuilder.Redirect.INHERIT, programArgs);
    }

    private static AgentVm start(List<String> vmOptions, ProcessBuilder.Redirect errors, String... programArgs)
            throws IOException {
        List<String> command = new ArrayList<>();
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        command.add("-Xms" + HEAP);
        command.add("-Xmx" + HEAP);
        command.add("-XX:+UseSerialGC");
        command.add("-Dnox.test.marker=agent-vm");
        command.addAll(vmOptions);
        command.add("-cp");
        command.add(System.getProperty("nox.test.classes", System.getProperty("java.class.path")));
        command.add(AgentTarget.class.getName());
        command.addAll(List.of(programArgs));
        return new AgentVm(command, errors);
    }

    public static Path agentJar() {
        String jar = System.getProperty("nox.agent.jar");
        if (jar == null || jar.isEmpty()) {
            throw new IllegalStateException("system property nox.agent.jar is not set");
        }
        return Path.of(jar);
    }

    public long pid() {
        return pid;
    }

    public int intPid() {
        return (int) pid;
    }

    public Process process() {
        return process;
    }

    public Path controlAreaFile() {
        return Path.of("/tmp/nox_jvm_" + euid() + "_" + pid);
    }

    public Path serverSocket() {
        return Path.of("/tmp/nox_jvm_profiling_server_" + euid() + "_" + pid);
    }

    private static int euid() {
        try {
            return (Integer) Files.getAttribute(Path.of("/proc/self/"), "unix:uid");
        } catch (IOException e) {
            throw new IllegalStateException(e);
        }
    }

    /** Sends one command line to the VM. */
    private void send(String line) throws IOException {
        in.write(line + "\n");
        in.flush();
    }

    /** The VM's own MXBean readings, taken now. */
    public Map<String, Long> readings() throws IOException {
        send("readings");
        String line = nextLine("READINGS ", 5);
        Map<String, Long> values = new HashMap<>();
        for (String pair : line.substring("READINGS ".length()).split(" ")) {
            int eq = pair.indexOf('=');
            values.put(pair.substring(0, eq), Long.parseLong(pair.substring(eq + 1)));
        }
        return values;
    }

    /** Runs a garbage collection in the VM and waits for its end. */
    public void gc() throws IOException {
        send("gc");
        nextLine("GC", 10);
    }

    private String nextLine(String prefix, int seconds) throws IOException {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
        try {
            while (true) {
                String line = lines.poll(Math.max(1, deadline - System.nanoTime()), TimeUnit.NANOSECONDS);
                if (line == null) {
                    throw new IOException("the VM printed no '" + prefix.trim() + "' line within " + seconds + " s: "
                            + command);
                }
                if (line.startsWith(prefix)) {
                    return line;
                }
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IOException("interrupted", e);
        }
    }

    /** Waits up to {@code seconds} for the VM to end; its exit status, or -1 if it still runs. */
    public int awaitExit(int seconds) throws InterruptedException {
        return process.waitFor(seconds, TimeUnit.SECONDS) ? process.exitValue() : -1;
    }

    @Override
    public void close() throws InterruptedException, IOException {
        if (process.isAlive()) {
            process.destroy();
            if (!process.waitFor(5, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                process.waitFor(5, TimeUnit.SECONDS);
            }
        }
        // A VM killed outright leaves its files; they are ours to remove.
        Files.deleteIfExists(controlAreaFile());
        Files.deleteIfExists(serverSocket());
    }
}
