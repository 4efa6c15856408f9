package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.function.Function;
import java.util.function.ToDoubleFunction;

/**
 * The table of {@code top}: one row per VM of a snapshot, filtered, sorted, and laid out for a
 * terminal of a given width. Columns that do not fit are left out, the least wanted first, and
 * the main class takes the room that is left; no line is ever longer than the width. Every cell
 * is plain ASCII (anything else a VM publishes shows as '?'), so that a character's width on the
 * screen is always one column.
 */
final class TopTable {
    /** One VM's row. Numbers that are not known are negative. */
    record Row(int pid, int uid, String user, String mainClass, long heapUsed, long heapMax, double cpuPercent,
               double gcPercent, long threads, long classes, long uptime) {
        double heapPercent() {
            return heapUsed >= 0 && heapMax > 0 ? heapUsed * 100.0 / heapMax : -1;
        }
    }

    /** What the rows can be sorted by: its name, the key letter in the live table, the order. */
    enum Sort {
        CPU("cpu", 'c', r -> r.cpuPercent()),
        HEAP("heap", 'm', r -> r.heapPercent()),
        GC("gc", 'g', r -> r.gcPercent()),
        THREADS("threads", 't', r -> r.threads()),
        CLASSES("classes", 'l', r -> r.classes()),
        UPTIME("uptime", 'u', r -> r.uptime()),
        PID("pid", 'p', null),
        USER("user", 'U', null),
        MAIN("main", 'n', null);

        final String name;
        final char key;
        /** A number to sort by, largest first; null for a column sorted by text or pid, smallest first. */
        final ToDoubleFunction<Row> number;

        Sort(String name, char key, ToDoubleFunction<Row> number) {
            this.name = name;
            this.key = key;
            this.number = number;
        }

        static Sort named(String name) {
            for (Sort s : values()) {
                if (s.name.equals(name)) {
                    return s;
                }
            }
            return null;
        }

        static Sort forKey(char key) {
            for (Sort s : values()) {
                if (s.key == key) {
                    return s;
                }
            }
            return null;
        }

        Comparator<Row> order() {
            Comparator<Row> byPid = Comparator.comparingInt(Row::pid);
            return switch (this) {
                case PID -> byPid;
                case USER -> Comparator.comparing(Row::user).thenComparing(byPid);
                case MAIN -> Comparator.comparing(Row::mainClass).thenComparing(byPid);
                default -> Comparator.comparingDouble(number).reversed().thenComparing(byPid);
            };
        }
    }

    /**
     * A column: header, width, right-aligned or not, and its cell. Columns are listed in the order
     * they appear; {@link #DROP_ORDER} says which go first when the terminal is narrow.
     */
    private record Column(String header, int width, boolean right, Function<Row, String> cell) {
    }

    private static final Column PID = new Column("PID", 7, true, r -> Integer.toString(r.pid()));
    private static final Column USER = new Column("USER", 8, false, Row::user);
    private static final Column HEAP = new Column("HEAP", 11, true,
            r -> size(r.heapUsed()) + "/" + size(r.heapMax()));
    private static final Column HEAP_PERCENT = new Column("HEAP%", 5, true, r -> percent(r.heapPercent()));
    private static final Column CPU = new Column("CPU%", 6, true, r -> percent(r.cpuPercent()));
    private static final Column GC = new Column("GC%", 5, true, r -> percent(r.gcPercent()));
    private static final Column THREADS = new Column("THR", 4, true, r -> count(r.threads()));
    private static final Column CLASSES = new Column("CLASSES", 7, true, r -> count(r.classes()));
    private static final Column UPTIME = new Column("UPTIME", 7, true, r -> Human.duration(r.uptime()));
    private static final Column MAIN = new Column("MAIN-CLASS", 10, false,
            r -> r.mainClass().isEmpty() ? "-" : r.mainClass());

    private static final List<Column> COLUMNS = List.of(PID, USER, CPU, HEAP_PERCENT, HEAP, GC, THREADS, CLASSES,
            UPTIME, MAIN);
    private static final List<Column> DROP_ORDER = List.of(CLASSES, UPTIME, THREADS, HEAP, GC, USER, HEAP_PERCENT,
            CPU);

    private TopTable() {
    }

    /** The rows of a snapshot, with the loads measured for it. */
    static List<Row> rows(HostSnapshot snapshot, Map<HostVm.Key, LoadTracker.Load> loads, long nowSeconds) {
        List<Row> rows = new ArrayList<>();
        for (HostVm vm : snapshot.vms()) {
            LoadTracker.Load load = loads.getOrDefault(vm.key(), LoadTracker.Load.UNKNOWN);
            HotSpotFigures perf = vm.hotspot().orElse(null);
            long classes = perf == null || perf.classesLoaded() < 0 ? -1
                    : perf.classesLoaded() - Math.max(0, perf.classesUnloaded());
            rows.add(new Row(vm.pid(), vm.uid(), vm.user(), vm.mainClass(), vm.heap().used(), vm.heap().max(),
                    load.cpuPercent(), load.gcPercent(), perf == null ? -1 : perf.threadsLive(), classes,
                    vm.uptimeSeconds(nowSeconds)));
        }
        return rows;
    }

    /** The rows whose user is {@code user} (name or uid; null: any) and whose main class contains {@code main}. */
    static List<Row> filter(List<Row> rows, String user, String main) {
        return rows.stream()
                .filter(r -> user == null || r.user().equals(user) || user.equals(Integer.toString(r.uid())))
                .filter(r -> main == null || r.mainClass().contains(main)).toList();
    }

    static List<Row> sort(List<Row> rows, Sort sort, boolean reversed) {
        Comparator<Row> order = sort.order();
        return rows.stream().sorted(reversed ? order.reversed() : order).toList();
    }

    /** The header and one line per row, none longer than {@code width}. */
    static List<String> lines(List<Row> rows, int width) {
        List<Column> shown = fit(width);
        int fixed = shown.stream().filter(c -> c != MAIN).mapToInt(c -> c.width() + 1).sum();
        int mainWidth = Math.max(MAIN.width(), width - fixed);
        List<String> lines = new ArrayList<>();
        lines.add(line(shown, mainWidth, width, Column::header, null));
        for (Row row : rows) {
            lines.add(line(shown, mainWidth, width, c -> c.cell().apply(row), row));
        }
        return lines;
    }

    /** The columns that fit in {@code width}, the main class at its least width. */
    private static List<Column> fit(int width) {
        List<Column> shown = new ArrayList<>(COLUMNS);
        for (Column drop : DROP_ORDER) {
            int needed = shown.stream().mapToInt(c -> c.width() + 1).sum() - 1;
            if (needed <= width) {
                break;
            }
            shown.remove(drop);
        }
        return shown;
    }

    private static String line(List<Column> shown, int mainWidth, int width, Function<Column, String> text, Row row) {
        StringBuilder line = new StringBuilder(width);
        for (Column c : shown) {
            if (!line.isEmpty()) {
                line.append(' ');
            }
            int w = c == MAIN ? mainWidth : c.width();
            String cell = cut(ascii(row == null ? c.header() : text.apply(c)), w);
            String pad = " ".repeat(w - cell.length());
            line.append(c.right() ? pad + cell : c == MAIN ? cell : cell + pad);
        }
        return cut(line.toString(), width).stripTrailing();
    }

    /** The text cut to {@code width} columns; a cut text ends in '+'. */
    static String cut(String text, int width) {
        if (text.length() <= width) {
            return text;
        }
        return width <= 0 ? "" : text.substring(0, width - 1) + "+";
    }

    /** Printable ASCII as it is, every other character as '?'. */
    static String ascii(String text) {
        StringBuilder sb = new StringBuilder(text.length());
        for (int i = 0; i < text.length(); i++) {
            char c = text.charAt(i);
            sb.append(c >= 0x20 && c < 0x7f ? c : '?');
        }
        return sb.toString();
    }

    private static String percent(double value) {
        return value < 0 ? "-" : String.format(Locale.ROOT, value >= 99.95 ? "%.0f" : "%.1f", value);
    }

    private static String count(long value) {
        return value < 0 ? "-" : Long.toString(value);
    }

    /** A size in at most five characters: 512K, 31M, 1.5G. */
    static String size(long bytes) {
        if (bytes < 0) {
            return "-";
        }
        String[] units = {"B", "K", "M", "G", "T", "P"};
        double value = bytes;
        int unit = 0;
        while (value >= 1000 && unit < units.length - 1) {
            value /= 1024;
            unit++;
        }
        return (value < 10 && unit > 0 ? String.format(Locale.ROOT, "%.1f", value) : Long.toString(Math.round(value)))
                + units[unit];
    }
}
