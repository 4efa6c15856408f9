package com.nox.jvm.inspector.testing;

import com.nox.jvm.inspector.hotspot.HotSpotInspector;
import com.nox.jvm.inspector.natives.NativeLibrary;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * A real JDK 17 VM started for one test, running {@link SleepingVm} with the given VM options and
 * program arguments, ended when closed (also when the test fails). Its performance-data file is
 * /tmp/hsperfdata_USER/PID, published by the VM itself. Closing removes what a killed VM leaves
 * behind: its attach socket and, when it ran nox-agent.jar, its control area and server socket.
 */
public final class JdkVm implements AutoCloseable {
    public static final String MAIN_CLASS = SleepingVm.class.getName();
    /** How long a VM may take to start or answer on a loaded host. */
    private static final double WAIT_SECONDS = 20;

    private final Spawned process;
    private final int pid;

    /** {@code prefix} goes before the java command (e.g. setpriv to run it as another user). */
    public JdkVm(List<String> prefix, List<String> vmOptions, String... args) throws IOException {
        List<String> command = new ArrayList<>(prefix);
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        command.addAll(vmOptions);
        command.addAll(List.of("-cp", testClasses(), MAIN_CLASS));
        command.addAll(List.of(args));
        process = new Spawned(command);
        try {
            pid = Integer.parseInt(answer("READY ").trim());
        } catch (IOException | RuntimeException e) {
            end();
            throw e;
        }
    }

    public JdkVm(String... vmOptions) throws IOException {
        this(List.of(), List.of(vmOptions));
    }

    /** A VM of a fixed 64 MiB heap and the serial collector that runs nox-agent.jar with {@code options} from its start. */
    public static JdkVm withAgent(String options, String... args) throws IOException {
        return new JdkVm(List.of(), List.of("-Xms64m", "-Xmx64m", "-XX:+UseSerialGC",
                "-javaagent:" + agentJar() + (options.isEmpty() ? "" : "=" + options)), args);
    }

    /** Where the compiled tests are: the test VM's class path. */
    public static String testClasses() {
        return Path.of(System.getProperty("nox.build.dir", "build/release"), "java", "test-classes").toAbsolutePath()
                .toString();
    }

    public static Path agentJar() {
        return Path.of(System.getProperty("nox.agent.jar", "nox.agent.jar is not set"));
    }

    public int pid() {
        return pid;
    }

    public Spawned process() {
        return process;
    }

    /** Sends a command to SleepingVm and returns the rest of its answer, the line that starts with {@code prefix}. */
    private String answer(String prefix) throws IOException {
        try {
            String line = process.find(l -> l.startsWith(prefix), WAIT_SECONDS);
            if (line == null) {
                throw new IOException("the JDK VM printed no " + prefix.trim() + " line: " + process.seen()
                        + process.stderr());
            }
            return line.substring(prefix.length());
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IOException(e);
        }
    }

    /** The VM's own MXBean readings, taken now: committed, used, max, start, gcs, cpu (see SleepingVm). */
    public Map<String, Long> readings() throws IOException {
        process.send("readings");
        Map<String, Long> values = new HashMap<>();
        for (String pair : answer("READINGS ").split(" ")) {
            int eq = pair.indexOf('=');
            values.put(pair.substring(0, eq), Long.parseLong(pair.substring(eq + 1)));
        }
        return values;
    }

    /** The VM's own MemoryMXBean heap reading: used, committed, max. */
    public long[] heap() throws IOException {
        Map<String, Long> r = readings();
        return new long[] {r.get("used"), r.get("committed"), r.get("max")};
    }

    /** Makes the VM allocate until young collections have run and left survivors (see SleepingVm). */
    public void churn() throws IOException {
        process.send("churn");
        answer("CHURNED");
    }

    /** Runs a full collection in the VM (its collector then publishes its heap figures afresh). */
    public void gc() throws IOException {
        process.send("gc");
        answer("GC");
    }

    /** The VM's file, published once the VM has initialised. */
    public Path perfDataFile(String user) {
        return Path.of("/tmp", "hsperfdata_" + user, Integer.toString(pid));
    }

    /** Waits up to 10 s for the VM's file to exist; false when it did not appear. */
    public boolean awaitPerfDataFile(String user) throws InterruptedException {
        for (long deadline = System.nanoTime() + 10_000_000_000L; System.nanoTime() < deadline; Thread.sleep(20)) {
            if (Files.exists(perfDataFile(user))) {
                return true;
            }
        }
        return false;
    }

    /** Waits up to 10 s until the natives list the VM by its performance data. */
    public void awaitListed() throws Exception {
        NativeLibrary.load();
        HotSpotInspector inspector = new HotSpotInspector();
        Spawned.until(10, "VM " + pid + " publishing its performance data",
                () -> inspector.vms().stream().anyMatch(v -> v.pid() == pid));
    }

    /** The control area nox-agent.jar publishes for this VM. */
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

    /** Ends the VM from the constructor, where a checked InterruptedException cannot go. */
    private void end() {
        try {
            process.close();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }

    /** The end of its standard input ends the VM; one that does not end is killed. */
    @Override
    public void close() throws InterruptedException {
        process.closeInput();
        if (process.awaitExit(5) < 0) {
            process.close();
        }
        for (Path left : List.of(Path.of("/tmp/.java_pid" + pid), controlAreaFile(), serverSocket())) {
            try {
                Files.deleteIfExists(left);
            } catch (IOException e) {
                // not ours to remove
            }
        }
    }
}
