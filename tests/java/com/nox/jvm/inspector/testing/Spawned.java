package com.nox.jvm.inspector.testing;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.Writer;
import java.io.OutputStreamWriter;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import java.util.function.Consumer;
import java.util.function.Predicate;

/**
 * A process a test starts and talks to: its standard output is read line by line as it comes
 * (standard error is kept as text unless the builder merges it into the lines), every wait is
 * bounded, and close() ends it (SIGTERM, then SIGKILL after 5 s), also when the test fails.
 */
public final class Spawned implements AutoCloseable {
    /** What the line queue holds after the last line; compared by identity. */
    private static final String END = new String("<end of output>");

    /** A condition that may throw, for {@link #until}. */
    public interface Check {
        boolean holds() throws Exception;
    }

    private final Process process;
    private final List<String> command;
    private final BlockingQueue<String> lines = new LinkedBlockingQueue<>();
    private final List<String> seen = new ArrayList<>();
    private final StringBuffer err = new StringBuffer();
    private final Writer in;
    private Thread errReader;

    public Spawned(ProcessBuilder builder) throws IOException {
        command = builder.command();
        process = builder.start();
        in = new OutputStreamWriter(process.getOutputStream(), StandardCharsets.UTF_8);
        follow(process.getInputStream(), lines::add, () -> lines.add(END));
        if (!builder.redirectErrorStream() && builder.redirectError() == ProcessBuilder.Redirect.PIPE) {
            errReader = follow(process.getErrorStream(), line -> err.append(line).append('\n'), () -> { });
        }
    }

    public Spawned(List<String> command) throws IOException {
        this(new ProcessBuilder(command));
    }

    private Thread follow(InputStream stream, Consumer<String> sink, Runnable atEnd) {
        Thread thread = new Thread(() -> {
            try (BufferedReader reader = new BufferedReader(new InputStreamReader(stream, StandardCharsets.UTF_8))) {
                for (String line = reader.readLine(); line != null; line = reader.readLine()) {
                    sink.accept(line);
                }
            } catch (IOException e) {
                // the stream was closed with the process: its output has ended
            }
            atEnd.run();
        }, "spawned-" + process.pid());
        thread.setDaemon(true);
        thread.start();
        return thread;
    }

    public long pid() {
        return process.pid();
    }

    public Process process() {
        return process;
    }

    /** What the process wrote to standard error so far; all of it once the process has ended. */
    public String stderr() {
        try {
            if (errReader != null && !process.isAlive()) {
                errReader.join(5000);
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        return err.toString();
    }

    /** Every line that poll() has returned so far, in order. */
    public List<String> seen() {
        return List.copyOf(seen);
    }

    /** Writes one line to the process's standard input. */
    public void send(String line) throws IOException {
        in.write(line + "\n");
        in.flush();
    }

    public void closeInput() {
        try {
            in.close();
        } catch (IOException e) {
            // the process has gone already
        }
    }

    /** The next line, waiting at most {@code seconds}; null at the end of the output or when none came. */
    public String poll(double seconds) throws InterruptedException {
        String line = lines.poll((long) (seconds * 1000), TimeUnit.MILLISECONDS);
        if (line == END) {
            lines.add(END);  // every later call sees the end too
            return null;
        }
        if (line != null) {
            seen.add(line);
        }
        return line;
    }

    /** The next line that {@code wanted} accepts (lines before it are passed over); null when none came in time. */
    public String find(Predicate<String> wanted, double seconds) throws InterruptedException {
        long deadline = System.nanoTime() + (long) (seconds * 1e9);
        for (double left = seconds; left > 0; left = (deadline - System.nanoTime()) / 1e9) {
            String line = poll(left);
            if (line == null && lines.peek() == END) {
                return null;
            }
            if (line != null && wanted.test(line)) {
                return line;
            }
        }
        return null;
    }

    /** The next line that contains {@code part}; fails, with what the process printed, when none came in time. */
    public String await(String part, double seconds) throws InterruptedException {
        String line = find(l -> l.contains(part), seconds);
        if (line == null) {
            throw new AssertionError("no line with '" + part + "' within " + seconds + " s from " + command
                    + (process.isAlive() ? "" : " (ended with " + process.exitValue() + ")") + "; it printed "
                    + seen + "; stderr: " + stderr());
        }
        return line;
    }

    /** Polls {@code check} every 20 ms for at most {@code seconds}; fails saying {@code what} did not happen. */
    public static void until(double seconds, String what, Check check) throws Exception {
        long deadline = System.nanoTime() + (long) (seconds * 1e9);
        while (!check.holds()) {
            if (System.nanoTime() - deadline > 0) {
                throw new AssertionError(what + " did not happen within " + seconds + " s");
            }
            Thread.sleep(20);
        }
    }

    /** Waits up to {@code seconds} for the process to end; its exit status, or -1 if it still runs. */
    public int awaitExit(double seconds) throws InterruptedException {
        return process.waitFor((long) (seconds * 1000), TimeUnit.MILLISECONDS) ? process.exitValue() : -1;
    }

    @Override
    public void close() throws InterruptedException {
        if (process.isAlive()) {
            process.destroy();
            if (!process.waitFor(5, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                process.waitFor(5, TimeUnit.SECONDS);
            }
        }
    }
}
