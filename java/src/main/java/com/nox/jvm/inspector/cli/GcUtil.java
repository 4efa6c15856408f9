package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.hotspot.PerfCounter;

import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.Function;

/**
 * The figures of {@code noxinspect stat}, worked out from one read of a HotSpot VM's performance
 * counters as the JDK's {@code jstat -gcutil} and {@code -gccause} work them out: the same counters
 * and the same arithmetic, so both tools print the same numbers for one sample. A figure whose
 * counters the VM does not publish, or a share of a space with no capacity (a VM that has not yet
 * sized its metaspace counters), is null, shown as "-".
 */
final class GcUtil {
    /** How a column's value reads as text. */
    enum Format {
        /** A share in percent, two decimals. */
        PERCENT,
        /** A count. */
        COUNT,
        /** Seconds, three decimals. */
        SECONDS,
        /** Seconds, one decimal (the time stamp). */
        UPTIME,
        /** A text of the VM's. */
        TEXT
    }

    /**
     * One column: its header (as jstat's), its JSON name, its text width and how it is read.
     * The last column of a line is not padded.
     */
    record Column(String header, String key, int width, Format format, Function<GcUtil, Object> value) {
    }

    private static final String YOUNG = "sun.gc.collector.0.";
    private static final String FULL = "sun.gc.collector.1.";
    private static final String CONCURRENT = "sun.gc.collector.2.";

    /** The columns of a sample, in jstat's order; {@link #TIMESTAMP} goes first when asked for. */
    static final List<Column> COLUMNS = List.of(
            new Column("S0", "s0", 6, Format.PERCENT, g -> g.percent("sun.gc.generation.0.space.1.")),
            new Column("S1", "s1", 6, Format.PERCENT, g -> g.percent("sun.gc.generation.0.space.2.")),
            new Column("E", "eden", 6, Format.PERCENT, g -> g.percent("sun.gc.generation.0.space.0.")),
            new Column("O", "old", 6, Format.PERCENT, g -> g.percent("sun.gc.generation.1.space.0.")),
            new Column("M", "metaspace", 6, Format.PERCENT, g -> g.percent("sun.gc.metaspace.")),
            new Column("CCS", "compressedClassSpace", 6, Format.PERCENT, g -> g.percent("sun.gc.compressedclassspace.")),
            new Column("YGC", "youngCollections", 6, Format.COUNT, g -> g.number(YOUNG + "invocations")),
            new Column("YGCT", "youngSeconds", 9, Format.SECONDS, g -> g.seconds(YOUNG)),
            new Column("FGC", "fullCollections", 5, Format.COUNT, g -> g.number(FULL + "invocations")),
            new Column("FGCT", "fullSeconds", 9, Format.SECONDS, g -> g.seconds(FULL)),
            new Column("CGC", "concurrentCollections", 5, Format.COUNT, g -> g.number(CONCURRENT + "invocations")),
            new Column("CGCT", "concurrentSeconds", 9, Format.SECONDS, g -> g.seconds(CONCURRENT)),
            new Column("GCT", "gcSeconds", 9, Format.SECONDS, g -> g.seconds(YOUNG, FULL, CONCURRENT)),
            new Column("LGCC", "lastCause", 20, Format.TEXT, g -> g.text("sun.gc.lastCause")),
            new Column("GCC", "cause", 20, Format.TEXT, g -> g.text("sun.gc.cause")));

    /** Seconds since the VM began, by its own clock (jstat -t). */
    static final Column TIMESTAMP = new Column("Timestamp", "uptime", 10, Format.UPTIME,
            g -> g.ratio(g.number("sun.os.hrt.ticks")));

    private final Map<String, PerfCounter> counters;

    private GcUtil(Map<String, PerfCounter> counters) {
        this.counters = counters;
    }

    static GcUtil of(List<PerfCounter> counters) {
        Map<String, PerfCounter> byName = new HashMap<>(counters.size() * 2);
        for (PerfCounter c : counters) {
            byName.putIfAbsent(c.name(), c);
        }
        return new GcUtil(byName);
    }

    /**
     * used / capacity in percent, computed as jstat computes it, (1 - (capacity - used) / capacity) * 100,
     * so that the last decimal rounds alike; null without a capacity.
     */
    private Double percent(String space) {
        Long used = number(space + "used");
        Long capacity = number(space + "capacity");
        if (used == null || capacity == null || capacity == 0) {
            return null;
        }
        double c = capacity;
        return (1 - ((c - used) / c)) * 100;
    }

    /** The time of these collectors in seconds, summed over those the VM has; null when it has none. */
    private Double seconds(String... collectors) {
        Long ticks = null;
        for (String collector : collectors) {
            Long time = number(collector + "time");
            if (time != null) {
                ticks = (ticks == null ? 0 : ticks) + time;
            }
        }
        return ratio(ticks);
    }

    private Double ratio(Long ticks) {
        Long frequency = number("sun.os.hrt.frequency");
        return ticks == null || frequency == null || frequency <= 0 ? null : (double) ticks / frequency;
    }

    private Long number(String name) {
        PerfCounter c = counters.get(name);
        return c != null && c.isLong() ? c.longValue() : null;
    }

    private String text(String name) {
        PerfCounter c = counters.get(name);
        return c != null && !c.isLong() ? c.stringValue() : null;
    }
}
