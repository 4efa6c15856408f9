package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.hotspot.GcCollector;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.HotSpotInspector;
import com.nox.jvm.inspector.hotspot.HotSpotVm;
import com.nox.jvm.inspector.hotspot.PerfCounter;

import java.io.PrintStream;
import java.time.Instant;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Optional;

/**
 * How the inspector shows HotSpot VMs read from their performance-data files: their rows in
 * {@code list}, their figures in {@code info}, and the {@code counters} command.
 */
final class HotSpotView {
    /** The CLUSTER column of a VM known only from its performance data. */
    static final String CLUSTER = "hotspot";

    private final PrintStream out;
    private final boolean json;
    private final HotSpotInspector inspector = new HotSpotInspector();

    HotSpotView(PrintStream out, boolean json) {
        this.out = out;
        this.json = json;
    }

    /** The live HotSpot VMs by pid, in pid order. */
    Map<Integer, HotSpotVm> vmsByPid() {
        Map<Integer, HotSpotVm> vms = new LinkedHashMap<>();
        for (HotSpotVm vm : inspector.vms()) {
            vms.put(vm.pid(), vm);
        }
        return vms;
    }

    Optional<HotSpotFigures> figures(int pid) {
        return inspector.figures(pid);
    }

    /** Seconds since the epoch when the VM began, 0 when it does not say. */
    static long startedAt(HotSpotVm vm) {
        return vm.beginMillis() > 0 ? vm.beginMillis() / 1000 : 0;
    }

    /** The row of a VM known only from its performance data, in the columns of {@code list}. */
    static Object[] row(HotSpotVm vm, long now) {
        long started = startedAt(vm);
        return new Object[] {CLUSTER, "-", vm.pid(), "-", dash(vm.vmVersion()), dash(vm.mainClass()), "-",
            started > 0 ? Human.duration(now - started) : "-"};
    }

    /** The JSON object of such a VM in {@code list}, with the members every VM entry has. */
    static void listEntry(Json j, HotSpotVm vm, long now) {
        j.beginObject();
        vmMembers(j, vm.pid(), startedAt(vm), now);
        j.name("version").value(vm.vmVersion()).name("mainClass").value(vm.mainClass())
                .name("debuggingState").nullValue().name("sources").beginArray().value(CLUSTER).endArray();
        j.name("hotspot");
        vmJson(j, vm);
        j.endObject();
    }

    /** What the performance data says of a VM in {@code list}: user, command, version. */
    static void vmJson(Json j, HotSpotVm vm) {
        j.beginObject().name("user").value(vm.user()).name("uid").value(vm.uid()).name("javaCommand")
                .value(vm.javaCommand()).name("mainClass").value(vm.mainClass()).name("vmVersion").value(vm.vmVersion())
                .name("beginMillis").value(vm.beginMillis()).endObject();
    }

    /** The members of a {@code vm} object for a VM without a control area. */
    static void vmMembers(Json j, int pid, long startedAt, long now) {
        j.name("cluster").value(CLUSTER).name("clusterType").value(CLUSTER).name("clusterId").nullValue()
                .name("slot").nullValue().name("pid").value(pid).name("vmId").nullValue();
        if (startedAt > 0) {
            j.name("startTime").value(startedAt).name("uptimeSeconds").value(Math.max(0, now - startedAt));
        } else {
            j.name("startTime").nullValue().name("uptimeSeconds").nullValue();
        }
    }

    // ---------------------------------------------------------------- info

    /** {@code info} of a VM known only from its performance data. */
    void info(HotSpotFigures f) {
        long now = System.currentTimeMillis() / 1000;
        long started = f.beginMillis() > 0 ? f.beginMillis() / 1000 : 0;
        if (json) {
            Json j = new Json().beginObject().name("vm").beginObject();
            vmMembers(j, f.pid(), started, now);
            j.endObject().name("start").nullValue().name("time").nullValue().name("memory").nullValue()
                    .name("debugging").nullValue().name("hotspot");
            figuresJson(j, f);
            out.print(j.endObject());
            return;
        }
        out.println("VM pid " + f.pid() + " (" + CLUSTER + ", performance data of user " + f.user() + ")");
        Section lines = new Section(out);
        lines.line("VM began", started > 0
                ? Human.duration(now - started) + " ago (" + Instant.ofEpochMilli(f.beginMillis()) + ")" : "unknown");
        lines.print("");
        sections(f);
    }

    /** The sections that show a VM's figures, under {@code info}'s own. */
    void sections(HotSpotFigures f) {
        Section lines = new Section(out);
        lines.line("VM", dash(f.vmName()));
        lines.line("version", dash(f.vmVersion()));
        lines.line("vendor", dash(f.vmVendor()));
        lines.line("main class", dash(f.mainClass()));
        lines.line("command", dash(f.javaCommand()));
        lines.line("VM arguments", dash(f.vmArguments()));
        lines.line("VM flags", dash(f.vmFlags()));
        lines.line("user", f.user() + " (uid " + f.uid() + ")");
        lines.line("up", f.uptimeSeconds() < 0 ? "-" : seconds(f.uptimeSeconds()));
        lines.print("HotSpot (performance data)");
        lines.line("heap used", bytes(f.heapUsed()));
        lines.line("heap committed", bytes(f.heapCommitted()));
        lines.line("heap max", bytes(f.heapMax()));
        lines.line("metaspace used", bytes(f.metaspaceUsed()));
        lines.line("metaspace committed", bytes(f.metaspaceCommitted()));
        lines.line("metaspace max", bytes(f.metaspaceMax()));
        lines.print("Heap");
        lines.line("policy", dash(f.gcPolicy()));
        for (GcCollector c : f.collectors()) {
            lines.line(dash(c.name()), c.invocations() + " collections, "
                    + (c.timeSeconds() < 0 ? "time unknown" : seconds(c.timeSeconds())));
        }
        lines.print("Garbage collection");
        lines.line("classes loaded", f.classesLoaded());
        lines.line("classes unloaded", f.classesUnloaded());
        lines.line("threads live", f.threadsLive() + " (" + f.threadsDaemon() + " daemon, peak " + f.threadsPeak()
                + ")");
        lines.line("threads started", f.threadsStarted());
        lines.print("Classes and threads");
    }

    /** The figures as a JSON object; null when there are none. */
    static void figuresJson(Json j, HotSpotFigures f) {
        if (f == null) {
            j.nullValue();
            return;
        }
        j.beginObject().name("user").value(f.user()).name("uid").value(f.uid()).name("javaCommand")
                .value(f.javaCommand()).name("mainClass").value(f.mainClass()).name("vmName").value(f.vmName())
                .name("vmVersion").value(f.vmVersion()).name("vmVendor").value(f.vmVendor()).name("vmArguments")
                .value(f.vmArguments()).name("vmFlags").value(f.vmFlags()).name("gcPolicy").value(f.gcPolicy())
                .name("beginMillis").value(f.beginMillis()).name("initDoneMillis").value(f.initDoneMillis())
                .name("tickFrequency").value(f.tickFrequency()).name("uptimeTicks").value(f.uptimeTicks())
                .name("uptimeSeconds").value(f.uptimeSeconds())
                .name("heapUsed").value(f.heapUsed()).name("heapCommitted").value(f.heapCommitted())
                .name("heapMax").value(f.heapMax()).name("metaspaceUsed").value(f.metaspaceUsed())
                .name("metaspaceCommitted").value(f.metaspaceCommitted()).name("metaspaceMax")
                .value(f.metaspaceMax()).name("classesLoaded").value(f.classesLoaded()).name("classesUnloaded")
                .value(f.classesUnloaded()).name("threadsLive").value(f.threadsLive()).name("threadsPeak")
                .value(f.threadsPeak()).name("threadsDaemon").value(f.threadsDaemon()).name("threadsStarted")
                .value(f.threadsStarted()).name("collectors").beginArray();
        for (GcCollector c : f.collectors()) {
            j.beginObject().name("name").value(c.name()).name("invocations").value(c.invocations())
                    .name("timeTicks").value(c.timeTicks()).name("timeSeconds").value(c.timeSeconds())
                    .name("lastEntryTicks").value(c.lastEntryTicks()).name("lastExitTicks").value(c.lastExitTicks())
                    .endObject();
        }
        j.endArray().endObject();
    }

    // ---------------------------------------------------------------- counters

    /** Every counter of a VM, or the named ones, as name=value lines like the JDK's PerfCounter.print. */
    void counters(int pid, List<String> names) {
        List<PerfCounter> shown = new ArrayList<>();
        if (names.isEmpty()) {
            shown.addAll(inspector.counters(pid).orElseThrow(() -> noVm(pid)));
        } else {
            for (String name : names) {
                Optional<PerfCounter> counter = inspector.counter(pid, name);
                if (counter.isEmpty()) {
                    throw inspector.figures(pid).isEmpty() ? noVm(pid)
                            : CliError.refused("VM pid " + pid + " has no counter " + name);
                }
                shown.add(counter.get());
            }
        }
        if (json) {
            Json j = new Json().beginObject().name("pid").value(pid).name("counters").beginArray();
            for (PerfCounter c : shown) {
                j.beginObject().name("name").value(c.name()).name("units").value(c.unitsName())
                        .name("variability").value(c.variabilityName()).name("value");
                if (c.isLong()) {
                    j.value(c.longValue());
                } else {
                    j.value(c.stringValue());
                }
                j.endObject();
            }
            out.print(j.endArray().endObject());
            return;
        }
        for (PerfCounter c : shown) {
            out.println(c.name() + "=" + Human.printable(c.valueText()));
        }
    }

    private static CliError noVm(int pid) {
        return CliError.refused("no HotSpot VM with pid " + pid + " publishes performance data that this user may read");
    }

    // ---------------------------------------------------------------- text

    private static String bytes(long count) {
        return count < 0 ? "-" : Human.bytes(count);
    }

    private static String seconds(double value) {
        return String.format(Locale.ROOT, "%.3f s", value);
    }

    private static String dash(String text) {
        return text == null || text.isEmpty() ? "-" : text;
    }
}
