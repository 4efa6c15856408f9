package com.nox.jvm.inspector.testing;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.OutputStreamWriter;
import java.io.Writer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

/**
 * A real JDK 17 VM started for one test, running {@link SleepingVm} with the given VM options and
 * program arguments, ended when closed (also when the test fails). Its performance-data file is
 * /tmp/hsperfdata_USER/PID, published by the VM itself.
 */
public final class JdkVm implements AutoCloseable {
    public static final String MAIN_CLASS = SleepingVm.class.getName();

    private final Process process;
    private final BufferedReader out;
    private final Writer in;
    private final int pid;

    /** {@code prefix} goes before the java command (e.g. setpriv to run it as another user). */
    public JdkVm(List<String> prefix, List<String> vmOptions, String... args) throws IOException {
        List<String> command = new ArrayList<>(prefix);
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        command.addAll(vmOptions);
        command.add("-cp");
        command.add(testClasses());
        command.add(MAIN_CLASS);
        command.addAll(List.of(args));
        process = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT).start();
        out = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
        in = new OutputStreamWriter(process.getOutputStream(), StandardCharsets.UTF_8);
        String line = out.readLine();
        if (line == null || !line.startsWith("READY ")) {
            process.destroyForcibly();
            throw new IOException("the JDK VM did not start: " + line + " (" + command + ")");
        }
        pid = Integer.parseInt(line.substring(6).trim());
    }

    public JdkVm(String... vmOptions) throws IOException {
        this(List.of(), List.of(vmOptions));
    }

    /** Where the compiled tests are: the test VM's class path. */
    public static String testClasses() {
        return Path.of(System.getProperty("nox.build.dir", "build/release"), "java", "test-classes").toAbsolutePath()
                .toString();
    }

    public int pid() {
        return pid;
    }

    /** The VM's own MemoryMXBean heap reading: used, committed, max. */
    public long[] heap() throws IOException {
        in.write("heap\n");
        in.flush();
        String line = out.readLine();
        if (line == null || !line.startsWith("HEAP ")) {
            throw new IOException("the JDK VM gave no heap reading: " + line);
        }
        String[] parts = line.substring(5).trim().split(" ");
        return new long[] {Long.parseLong(parts[0]), Long.parseLong(parts[1]), Long.parseLong(parts[2])};
    }

    /** Makes the VM allocate until young collections have run and left survivors (see SleepingVm). */
    public void churn() throws IOException {
        in.write("churn\n");
        in.flush();
        String line = out.readLine();
        if (line == null || !line.startsWith("CHURNED")) {
            throw new IOException("the JDK VM did not allocate: " + line);
        }
    }

    /** Runs a full collection in the VM (its collector then publishes its heap figures afresh). */
    public void gc() throws IOException {
        in.write("gc\n");
        in.flush();
        String line = out.readLine();
        if (!"GC".equals(line)) {
            throw new IOException("the JDK VM did not collect: " + line);
        }
    }

    /** The VM's file, published once the VM has initialised. */
    public Path perfDataFile(String user) {
        return Path.of("/tmp", "hsperfdata_" + user, Integer.toString(pid));
    }

    /** Waits up to 10 s for the VM's file to exist; false when it did not appear. */
    public boolean awaitPerfDataFile(String user) throws InterruptedException {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (System.nanoTime() < deadline) {
            if (Files.exists(perfDataFile(user))) {
                return true;
            }
            Thread.sleep(20);
        }
        return false;
    }

    @Override
    public void close() throws InterruptedException {
        try {
            in.close();
        } catch (IOException e) {
            // the VM has gone already
        }
        if (!process.waitFor(5, TimeUnit.SECONDS)) {
            process.destroyForcibly();
            process.waitFor(5, TimeUnit.SECONDS);
        }
        // A VM that was killed leaves its attach socket behind, where a later VM of the same pid
        // would meet it.
        try {
            Files.deleteIfExists(Path.of("/tmp/.java_pid" + process.pid()));
        } catch (IOException e) {
            // not ours to remove
        }
    }
}
