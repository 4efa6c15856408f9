package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.hotspot.PerfCounter;

import java.text.DecimalFormat;
import java.text.DecimalFormatSymbols;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Optional;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;

/**
 * {@code noxinspect stat [-t] PID [INTERVAL [COUNT]]}: a HotSpot VM's collector figures, one line
 * per sample, as {@code jstat -gcutil} and {@code -gccause} print them (see {@link GcUtil}); with
 * --json one JSON object per line. Each sample is one copy of the VM's performance data, read
 * natively: nothing is asked of the VM. Without an interval it takes one sample; with one and no
 * count it samples until the VM ends or it is interrupted. Samples keep to a fixed schedule, and a
 * sample that falls too late (a stalled machine) is skipped rather than taken in a burst.
 */
final class StatCommand {
    static final long MIN_INTERVAL_MILLIS = 10;

    private final Host host;
    private final Output out;
    private final int pid;
    private final long intervalNanos;
    private final long count;
    private final List<GcUtil.Column> columns;

    private StatCommand(Host host, Output out, int pid, long intervalMillis, long count, boolean timestamp) {
        this.host = host;
        this.out = out;
        this.pid = pid;
        this.intervalNanos = TimeUnit.MILLISECONDS.toNanos(intervalMillis);
        this.count = count;
        List<GcUtil.Column> shown = new ArrayList<>();
        if (timestamp) {
            shown.add(GcUtil.TIMESTAMP);
        }
        shown.addAll(GcUtil.COLUMNS);
        this.columns = List.copyOf(shown);
    }

    /** Checks the arguments: [-t] PID [INTERVAL[ms|s] [COUNT]]. */
    static Runnable parse(List<String> rest, Host host, Output out) {
        boolean timestamp = false;
        List<String> positional = new ArrayList<>();
        for (String word : rest) {
            if (word.equals("-t")) {
                timestamp = true;
            } else if (word.startsWith("-")) {
                throw CliError.usage("stat takes -t, a pid, an interval and a count, not " + word);
            } else {
                positional.add(word);
            }
        }
        if (positional.isEmpty() || positional.size() > 3) {
            throw CliError.usage("stat takes a pid, then an optional interval (ms, or 1s) and count");
        }
        int pid = Target.number(positional.get(0), "pid");
        if (pid <= 0) {
            throw CliError.usage("a pid is a positive number, not " + positional.get(0));
        }
        long interval = positional.size() > 1 ? intervalMillis(positional.get(1)) : 0;
        long count = positional.size() > 2 ? Target.number(positional.get(2), "count") : interval > 0 ? 0 : 1;
        if (count < 0 || (positional.size() > 2 && count == 0)) {
            throw CliError.usage("count must be 1 or more, not " + positional.get(2));
        }
        StatCommand stat = new StatCommand(host, out, pid, interval, count, timestamp);
        return stat::run;
    }

    /** "250", "250ms" or "2s" in milliseconds, at least {@value #MIN_INTERVAL_MILLIS}. */
    static long intervalMillis(String text) {
        boolean seconds = text.endsWith("s") && !text.endsWith("ms");
        String digits = text.endsWith("ms") ? text.substring(0, text.length() - 2)
                : seconds ? text.substring(0, text.length() - 1) : text;
        long millis = (long) Target.number(digits, "interval") * (seconds ? 1000 : 1);
        if (millis < MIN_INTERVAL_MILLIS) {
            throw CliError.usage("interval must be " + MIN_INTERVAL_MILLIS + " ms or more, not " + text);
        }
        return millis;
    }

    void run() {
        long next = System.nanoTime();
        for (long n = 0; count == 0 || n < count; n++) {
            if (n > 0) {
                next = sleepUntil(next + intervalNanos);
            }
            Optional<List<PerfCounter>> counters = host.counters(pid);
            if (counters.isEmpty()) {
                if (n == 0) {
                    throw noVm();
                }
                throw CliError.ended("VM pid " + pid + " has ended");
            }
            if (n == 0) {
                out.streamLine(null, header());
            }
            GcUtil sample = GcUtil.of(counters.get());
            out.streamLine(json(sample), line(sample));
        }
    }

    /** Sleeps until {@code deadline}; a deadline already past by a whole interval moves to now. */
    private long sleepUntil(long deadline) {
        long now = System.nanoTime();
        if (now - deadline > intervalNanos) {
            return now;
        }
        while (deadline - now > 0) {
            LockSupport.parkNanos(deadline - now);
            if (Thread.interrupted()) {
                throw CliError.ended("interrupted");
            }
            now = System.nanoTime();
        }
        return deadline;
    }

    private CliError noVm() {
        return Target.noPerformanceData(pid);
    }

    private String header() {
        StringBuilder line = new StringBuilder();
        for (int i = 0; i < columns.size(); i++) {
            GcUtil.Column c = columns.get(i);
            cell(line, c.header(), c, i == columns.size() - 1);
        }
        return line.toString();
    }

    private String line(GcUtil sample) {
        StringBuilder line = new StringBuilder();
        for (int i = 0; i < columns.size(); i++) {
            GcUtil.Column c = columns.get(i);
            cell(line, text(c.value().apply(sample), c.format()), c, i == columns.size() - 1);
        }
        return line.toString();
    }

    private static void cell(StringBuilder line, String text, GcUtil.Column c, boolean last) {
        if (!line.isEmpty()) {
            line.append(' ');
        }
        int pad = Math.max(0, c.width() - text.length());
        if (c.format() != GcUtil.Format.TEXT) {
            line.append(" ".repeat(pad)).append(text);
        } else {
            line.append(text).append(last ? "" : " ".repeat(pad));
        }
    }

    /** A value as jstat writes it: "-" for what is not published. */
    static String text(Object value, GcUtil.Format format) {
        if (value == null) {
            return "-";
        }
        return switch (format) {
            case PERCENT -> decimal("0.00").format(value);
            case SECONDS -> decimal("0.000").format(value);
            case UPTIME -> decimal("0.0").format(value);
            case COUNT -> value.toString();
            case TEXT -> Text.printable(value.toString());
        };
    }

    private static DecimalFormat decimal(String pattern) {
        return new DecimalFormat(pattern, DecimalFormatSymbols.getInstance(Locale.ROOT));
    }

    private Doc json(GcUtil sample) {
        Doc doc = new Doc().put("time", System.currentTimeMillis()).put("pid", pid);
        if (!columns.contains(GcUtil.TIMESTAMP)) {
            doc.put(GcUtil.TIMESTAMP.key(), GcUtil.TIMESTAMP.value().apply(sample));
        }
        for (GcUtil.Column c : columns) {
            doc.put(c.key(), c.value().apply(sample));
        }
        return doc;
    }
}
