package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;

import java.io.PrintStream;
import java.time.LocalTime;
import java.time.format.DateTimeFormatter;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;

/**
 * {@code noxinspect top}: every VM of the host in a table refreshed in place, with the CPU and GC
 * share of each over the last interval. Keys: q quits; c, m, g, t, l, u, p, U, n sort by CPU, heap,
 * GC, threads, classes, uptime, pid, user, main class; r reverses; space refreshes now. When
 * standard input and output are not both a terminal (or with -b), it prints the table once per
 * interval instead (with --json one JSON object per refresh and line).
 */
final class TopCommand {
    /** The width of the plain table: every column, the main class cut only when very long. */
    private static final int PLAIN_WIDTH = 1000;
    private static final DateTimeFormatter CLOCK = DateTimeFormatter.ofPattern("HH:mm:ss");

    /** The options: refresh interval, refreshes (0 for no end), sort, filters, plain output. */
    record Options(long intervalMillis, long count, TopTable.Sort sort, String user, String main, boolean batch) {
    }

    private final Host host;
    private final Output output;
    private final PrintStream out;
    private final Options options;
    private final LoadTracker loads = new LoadTracker();
    private TopTable.Sort sort;
    private boolean reversed;

    private TopCommand(Host host, Output output, PrintStream out, Options options) {
        this.host = host;
        this.output = output;
        this.out = out;
        this.options = options;
        this.sort = options.sort();
    }

    /** Checks the arguments: [-d SECONDS] [-n COUNT] [-s KEY] [-u USER] [-c TEXT] [-b]. */
    static Runnable parse(List<String> rest, Host host, Output output, PrintStream out) {
        long interval = 2000;
        long count = 0;
        TopTable.Sort sort = TopTable.Sort.CPU;
        String user = null;
        String main = null;
        boolean batch = false;
        for (int i = 0; i < rest.size(); i++) {
            String word = rest.get(i);
            if (word.equals("-b")) {
                batch = true;
                continue;
            }
            if (!List.of("-d", "-n", "-s", "-u", "-c").contains(word)) {
                throw CliError.usage("top takes -d SECONDS, -n COUNT, -s KEY, -u USER, -c TEXT and -b, not " + word);
            }
            if (i + 1 >= rest.size()) {
                throw CliError.usage(word + " needs a value");
            }
            String value = rest.get(++i);
            switch (word) {
                case "-d" -> interval = seconds(value);
                case "-n" -> count = Math.max(1, Target.number(value, "count"));
                case "-s" -> sort = sortKey(value);
                case "-u" -> user = value;
                default -> main = value;
            }
        }
        TopCommand top = new TopCommand(host, output, out, new Options(interval, count, sort, user, main, batch));
        return top::run;
    }

    private static long seconds(String text) {
        if (!text.matches("[0-9]{1,6}(\\.[0-9]{1,3})?")) {
            throw CliError.usage("-d takes seconds, e.g. 2 or 0.5, not " + text);
        }
        long millis = Math.round(Double.parseDouble(text) * 1000);
        if (millis < 100) {
            throw CliError.usage("-d must be 0.1 seconds or more, not " + text);
        }
        return millis;
    }

    private static TopTable.Sort sortKey(String name) {
        TopTable.Sort sort = TopTable.Sort.named(name);
        if (sort == null) {
            List<String> names = new ArrayList<>();
            for (TopTable.Sort s : TopTable.Sort.values()) {
                names.add(s.name);
            }
            throw CliError.usage("-s takes one of " + String.join(", ", names) + ", not " + name);
        }
        return sort;
    }

    void run() {
        Terminal terminal = options.batch() || output.json() || System.console() == null ? null : Terminal.open(out);
        try {
            if (terminal == null) {
                plain();
            } else {
                try (terminal) {
                    live(terminal);
                }
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }

    /** One table (or JSON object) per interval, for a pipe or a file. */
    private void plain() throws InterruptedException {
        for (long n = 0; options.count() == 0 || n < options.count(); n++) {
            if (n > 0) {
                Thread.sleep(options.intervalMillis());
            }
            HostSnapshot snapshot = host.snapshot();
            List<TopTable.Row> rows = rows(snapshot);
            if (output.json()) {
                output.streamLine(json(snapshot, rows), null);
            } else {
                List<String> lines = new ArrayList<>();
                lines.add(n > 0 ? "\n" + title(rows.size()) : title(rows.size()));
                lines.addAll(TopTable.lines(rows, PLAIN_WIDTH));
                output.streamLine(null, String.join("\n", lines));
            }
        }
    }

    /** The table drawn in place; keys change the order at once, q ends. */
    private void live(Terminal terminal) throws InterruptedException {
        long refreshes = 0;
        while (options.count() == 0 || refreshes < options.count()) {
            List<TopTable.Row> rows = rows(host.snapshot());
            refreshes++;
            long next = System.nanoTime() + options.intervalMillis() * 1_000_000;
            while (true) {
                terminal.measure(100);
                List<String> lines = new ArrayList<>();
                lines.add(TopTable.cut(title(rows.size()), terminal.columns()));
                lines.add(TopTable.cut("keys: q quit, c m g t l u p U n sort, r reverse", terminal.columns()));
                lines.addAll(TopTable.lines(TopTable.sort(rows, sort, reversed), terminal.columns()));
                terminal.draw(lines);
                int key = terminal.key((next - System.nanoTime()) / 1_000_000);
                if (key == 'q' || key == 'Q') {
                    return;
                }
                if (key < 0 || key == ' ') {
                    break;
                }
                TopTable.Sort chosen = TopTable.Sort.forKey((char) key);
                if (chosen != null) {
                    reversed = chosen == sort && !reversed;
                    sort = chosen;
                } else if (key == 'r') {
                    reversed = !reversed;
                }
            }
        }
    }

    private List<TopTable.Row> rows(HostSnapshot snapshot) {
        Map<HostVm.Key, LoadTracker.Load> measured = loads.update(snapshot);
        List<TopTable.Row> rows = TopTable.rows(snapshot, measured, System.currentTimeMillis() / 1000);
        return TopTable.sort(TopTable.filter(rows, options.user(), options.main()), sort, reversed);
    }

    /** The first line: time, VMs, order and filters first, so that a narrow terminal keeps them. */
    private String title(int vms) {
        return "noxinspect top " + LocalTime.now().format(CLOCK) + "  " + vms + (vms == 1 ? " VM" : " VMs")
                + "  sort " + sort.name + (reversed ? ", reversed" : "")
                + (options.user() != null ? "  user " + options.user() : "")
                + (options.main() != null ? "  main " + options.main() : "")
                + "  every " + options.intervalMillis() / 1000.0 + " s";
    }

    private static Doc json(HostSnapshot snapshot, List<TopTable.Row> rows) {
        List<Doc> vms = new ArrayList<>();
        for (TopTable.Row r : rows) {
            vms.add(new Doc().put("pid", r.pid()).put("user", r.user()).put("mainClass", r.mainClass())
                    .put("heapUsed", nonNegative(r.heapUsed())).put("heapMax", nonNegative(r.heapMax()))
                    .put("cpuPercent", nonNegative(r.cpuPercent())).put("gcPercent", nonNegative(r.gcPercent()))
                    .put("threads", nonNegative(r.threads())).put("classes", nonNegative(r.classes()))
                    .put("uptime", nonNegative(r.uptime())));
        }
        return new Doc().put("time", snapshot.takenMillis()).put("vms", vms);
    }

    private static Object nonNegative(double value) {
        return value < 0 ? null : Math.round(value * 100) / 100.0;
    }

    private static Object nonNegative(long value) {
        return value < 0 ? null : value;
    }
}
