package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.hotspot.PerfCounter;

import java.util.ArrayList;
import java.util.List;
import java.util.Optional;

/**
 * {@code noxinspect counters PID [NAME ...]}: a HotSpot VM's performance counters, every one or
 * those named, every one whose name begins with PREFIX for a NAME given as PREFIX*, as the JDK's
 * {@code jcmd PID PerfCounter.print} prints them (name=value, strings in
 * quotes). Names and values come from the VM's file and are made printable like any other text.
 */
final class CountersCommand {
    private CountersCommand() {
    }

    static void run(Host host, int pid, List<String> names, Output out) {
        List<PerfCounter> shown = names.isEmpty() ? host.counters(pid).orElseThrow(() -> noVm(pid))
                : named(host, pid, names);
        print(pid, shown, out);
    }

    /** The counters as name=value lines (names and values made printable), or as JSON. */
    static void print(int pid, List<PerfCounter> shown, Output out) {
        List<Doc> docs = new ArrayList<>();
        List<String> lines = new ArrayList<>();
        for (PerfCounter c : shown) {
            docs.add(new Doc().put("name", c.name()).put("units", c.unitsName()).put("variability", c.variabilityName())
                    .put("value", c.isLong() ? (Object) c.longValue() : c.stringValue()));
            lines.add(Text.printable(c.name()) + "=" + Text.printable(c.valueText()));
        }
        out.textOr(new Doc().put("pid", pid).put("counters", docs), lines);
    }

    /** The counters named, in the order named; a name ending in '*' stands for every counter that begins with the rest. */
    private static List<PerfCounter> named(Host host, int pid, List<String> names) {
        List<PerfCounter> all = names.stream().anyMatch(n -> n.endsWith("*"))
                ? host.counters(pid).orElseThrow(() -> noVm(pid)) : List.of();
        List<PerfCounter> shown = new ArrayList<>();
        for (String name : names) {
            if (name.endsWith("*")) {
                String prefix = name.substring(0, name.length() - 1);
                List<PerfCounter> matching = all.stream().filter(c -> c.name().startsWith(prefix)).toList();
                if (matching.isEmpty()) {
                    throw CliError.refused("VM pid " + pid + " has no counter that begins with " + prefix);
                }
                shown.addAll(matching);
                continue;
            }
            Optional<PerfCounter> counter = host.counter(pid, name);
            if (counter.isEmpty()) {
                throw host.publishesPerfData(pid) ? CliError.refused("VM pid " + pid + " has no counter " + name)
                        : noVm(pid);
            }
            shown.add(counter.get());
        }
        return shown;
    }

    private static CliError noVm(int pid) {
        return Target.noPerformanceData(pid);
    }
}
