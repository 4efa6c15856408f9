package com.nox.jvm.inspector.cli;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import java.util.function.Consumer;

/**
 * A command of tools/noxinspect that runs until it is ended ({@code serve}, {@code watch}),
 * started as a user would start it. Its stdout lines are queued, each with the System.nanoTime
 * at which it arrived; close() ends it with SIGTERM (forcibly after a few seconds) and waits.
 */
final class LongRunning implements AutoCloseable {
    /** One line of stdout and when it was read. */
    record Line(String text, long nanos) {
    }

    private final Process process;
    private final BlockingQueue<Line> lines = new LinkedBlockingQueue<>();
    private final List<Line> seen = new ArrayList<>();
    private final StringBuilder err = new StringBuilder();

    LongRunning(String... args) throws IOException {
        List<String> command = new ArrayList<>();
        command.add(System.getProperty("nox.launcher", "tools/noxinspect"));
        command.addAll(Arrays.asList(args));
        ProcessBuilder builder = new ProcessBuilder(command);
        builder.environment().put("NOX_BUILD_DIR", Launcher.buildDir());
        process = builder.start();
        follow(process.getInputStream(), line -> lines.add(new Line(line, System.nanoTime())), "noxinspect-stdout");
        follow(process.getErrorStream(), line -> {
            synchronized (err) {
                err.append(line).append('\n');
            }
        }, "noxinspect-stderr");
    }

    /** Hands each line of the stream to {@code sink} on a daemon thread of its own, until the stream ends. */
    private static void follow(InputStream stream, Consumer<String> sink, String name) {
        Thread thread = new Thread(() -> {
            try (BufferedReader in = new BufferedReader(new InputStreamReader(stream, StandardCharsets.UTF_8))) {
                for (String line = in.readLine(); line != null; line = in.readLine()) {
                    sink.accept(line);
                }
            } catch (IOException e) {
                // the process ended
            }
        }, name);
        thread.setDaemon(true);
        thread.start();
    }

    /** The next line of stdout, waiting at most {@code seconds}; null when none came. */
    Line poll(double seconds) throws InterruptedException {
        Line line = lines.poll((long) (seconds * 1000), TimeUnit.MILLISECONDS);
        if (line != null) {
            seen.add(line);
        }
        return line;
    }

    /** The next line of stdout, waiting at most {@code seconds}; fails naming {@code what} did not come. */
    Line next(double seconds, String what) throws InterruptedException {
        Line line = poll(seconds);
        if (line == null) {
            throw new AssertionError("noxinspect printed no line within " + seconds + " s: " + what
                    + (process.isAlive() ? "" : " (it ended with " + process.exitValue() + ")") + "; stderr: " + stderr());
        }
        return line;
    }

    /** The next line containing {@code part}; lines before it are dropped. */
    Line nextContaining(String part, double seconds) throws InterruptedException {
        long deadline = System.nanoTime() + (long) (seconds * 1e9);
        while (true) {
            double left = (deadline - System.nanoTime()) / 1e9;
            if (left <= 0) {
                throw new AssertionError("noxinspect printed no line with '" + part + "' within " + seconds + " s");
            }
            Line line = next(left, "a line with '" + part + "'");
            if (line.text().contains(part)) {
                return line;
            }
        }
    }

    /** Every line that next() has returned so far, in order. */
    List<Line> seen() {
        return List.copyOf(seen);
    }

    String stderr() {
        synchronized (err) {
            return err.toString();
        }
    }

    long pid() {
        return process.pid();
    }

    @Override
    public void close() throws InterruptedException {
        process.destroy();
        if (!process.waitFor(5, TimeUnit.SECONDS)) {
            process.destroyForcibly();
            process.waitFor(5, TimeUnit.SECONDS);
        }
    }
}
