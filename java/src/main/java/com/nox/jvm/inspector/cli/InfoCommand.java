package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.cluster.VmTimeInfo;
import com.nox.jvm.inspector.host.ControlAreaView;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.host.Names;
import com.nox.jvm.inspector.host.VmFlags;
import com.nox.jvm.inspector.hotspot.GcCollector;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Optional;

/**
 * {@code noxinspect info VM}: one VM as one snapshot found it: the facts of its sources merged,
 * then what its control area publishes (start, time, memory and debugging records) and what its
 * performance data publishes. JSON: {@code vm} in the shape of {@link VmDocs#vm}, then the
 * records as they are ({@code start}, {@code time}, {@code memory}, {@code debugging},
 * {@code hotspot}; null where the VM has none).
 */
final class InfoCommand {
    private static final String GONE = "(not available: the VM has gone)";

    private InfoCommand() {
    }

    /** Shows the VM; a HotSpot VM's flags are asked of the VM itself (see {@link VmFlags}). */
    static void run(HostVm vm, Output out) {
        out.sections(title(vm), render(vm, System.currentTimeMillis() / 1000,
                vm.hotspot().map(VmFlags::of).orElse(null)));
    }

    static String title(HostVm vm) {
        if (vm.controlArea().isEmpty()) {
            return "VM pid " + vm.pid() + " (hotspot, performance data of user " + vm.user() + ")";
        }
        ControlAreaView c = vm.controlArea().get();
        return "VM pid " + vm.pid() + ", VM id " + c.vmId() + ", " + c.ref() + " (" + vm.clusterName() + ":"
                + c.ref().slot() + ")";
    }

    static Doc render(HostVm vm, long now) {
        return render(vm, now, null);
    }

    /** The VM, with its flags when they were read ({@code flags} null: not read, JSON flags null). */
    static Doc render(HostVm vm, long now, VmFlags flags) {
        Doc doc = summary(vm, now).put("vm", VmDocs.vm(vm, now));
        Optional<ControlAreaView> area = vm.controlArea();
        doc.put("start", VmDocs.record(area.flatMap(c -> c.figures().start()).orElse(null)))
                .put("time", VmDocs.record(area.flatMap(c -> c.figures().time()).orElse(null)))
                .put("memory", VmDocs.record(area.flatMap(c -> c.figures().memory()).orElse(null)))
                .put("debugging", VmDocs.record(area.flatMap(c -> c.figures().debug()).orElse(null)))
                .put("hotspot", VmDocs.record(vm.hotspot().orElse(null)));
        area.ifPresent(c -> controlAreaSections(doc, c));
        vm.hotspot().ifPresent(f -> hotspotSections(doc, f));
        doc.put("flags", flags == null ? null : flags(flags));
        if (flags != null) {
            doc.text("VM flags (not default; " + (flags.source().equals(VmFlags.ATTACH) ? "as the VM tells them"
                    : "the command line's: the VM could not be asked") + ")", flagLines(flags));
        }
        return doc;
    }

    private static Doc flags(VmFlags flags) {
        List<Doc> list = new ArrayList<>();
        for (VmFlags.Flag f : flags.flags()) {
            list.add(new Doc().put("name", f.name()).put("value", f.value()).put("origin", f.origin()));
        }
        return new Doc().put("source", flags.source()).put("flags", list);
    }

    private static Doc flagLines(VmFlags flags) {
        Doc lines = new Doc();
        for (VmFlags.Flag f : flags.flags()) {
            lines.text(f.name(), f.value() + " (" + f.origin() + ")");
        }
        return flags.flags().isEmpty() ? lines.note("(none)") : lines;
    }

    /** The merged facts, as the first lines of the text. */
    private static Doc summary(HostVm vm, long now) {
        long started = vm.startTime();
        String ownership = vm.controlArea().isPresent() && !vm.controlAreaIsOwn()
                ? " (its control area belongs to uid " + vm.controlArea().get().ownerUid() + ")" : "";
        return new Doc()
                .text("process started", started > 0
                        ? Human.duration(now - started) + " ago (" + Instant.ofEpochSecond(started) + ")" : "unknown")
                .text("user", (vm.uid() < 0 ? "-" : vm.user() + " (uid " + vm.uid() + ")") + ownership)
                .text("sources", String.join(", ", vm.sources()))
                .text("version", vm.version()).text("main class", vm.mainClass())
                .text("heap used", vm.heap().used(), Doc.Show.BYTES)
                .text("heap committed", vm.heap().committed(), Doc.Show.BYTES)
                .text("heap max", vm.heap().max(), Doc.Show.BYTES);
    }

    private static void controlAreaSections(Doc doc, ControlAreaView c) {
        doc.text("Start", c.figures().start().map(InfoCommand::start).orElse(gone()));
        doc.text("Time (CPU time, in the VM's own unit)", c.figures().time().map(InfoCommand::time).orElse(gone()));
        doc.text("Memory", c.figures().memory().map(InfoCommand::memory).orElse(gone()));
        doc.text("Debugging", c.figures().debug().map(InfoCommand::debugging).orElse(gone()));
    }

    private static Doc gone() {
        return new Doc().note(GONE);
    }

    private static Doc start(VmStartInfo s) {
        return new Doc().text("version", s.vmVersion()).text("working directory", s.workingDirectory())
                .text("VM flags", s.vmFlags()).text("VM arguments", s.vmArguments())
                .text("Java arguments", s.javaArguments())
                .text("splittable Java arguments", s.splittableJavaArguments()).text("tag", s.vmTag())
                .text("main class", s.mainClass())
                .text("monitoring board", s.runsWithMonitoringBoard(), Doc.Show.YES_NO)
                .text("metaspace", s.hasMetaspace(), Doc.Show.YES_NO);
    }

    private static Doc time(VmTimeInfo t) {
        if (!t.available()) {
            return new Doc().note("(the VM publishes no process times)");
        }
        return new Doc().text("total (system + user)", t.totalTime()).text("system", t.systemTime())
                .text("user", t.userTime()).text("processing", t.processingTime());
    }

    private static Doc memory(VmMemoryInfo m) {
        return new Doc().text("committed total", m.committedTotal(), Doc.Show.BYTES)
                .text("  Java heap", m.committedJavaHeap(), Doc.Show.BYTES)
                .text("  class pool", m.committedClassPool(), Doc.Show.BYTES)
                .text("  code cache", m.committedCodeCache(), Doc.Show.BYTES)
                .text("max old generation", m.maxOldGenSize(), Doc.Show.BYTES)
                .text("max permanent generation", m.maxPermGenSize(), Doc.Show.BYTES)
                .text("old gen. after last GC", m.oldGenUsageAfterGc(), Doc.Show.BYTES)
                .text("perm. gen. after last GC", m.permGenUsageAfterGc(), Doc.Show.BYTES)
                .text("GCs (full)", m.numberOfGcs() + " (" + m.numberOfFullGcs() + ")")
                .text("GC durations", "all " + m.durationOfGcs() + ", full " + m.durationOfFullGcs()
                        + ", concurrent " + m.durationOfConcurrentGcs() + " (VM's unit)")
                .text("GC work time", "all " + m.workTimeOfGcs() + ", full " + m.workTimeOfFullGcs() + " (VM's unit)")
                .text("memory shortages", "Java heap " + m.javaHeapMemoryShortages() + ", perm. gen. "
                        + m.permGenMemoryShortages())
                .text("GC spinning", "Java heap " + m.gcSpinningDueToJavaHeap() + ", perm. gen. "
                        + m.gcSpinningDueToPermGen())
                .text("OutOfMemoryErrors", m.outOfMemoryErrorCount())
                .text("cluster shared pool", m.sharedPoolSize(), Doc.Show.BYTES)
                .text("cluster global memory", m.globalMemory(), Doc.Show.BYTES)
                .text("cluster allocated", m.globalAllocatedMemory(), Doc.Show.BYTES)
                .text("cluster peak", m.globalMemoryPeak(), Doc.Show.BYTES);
    }

    private static Doc debugging(VmDebugInfo d) {
        return new Doc().text("state", Names.debuggingState(d.state(), d.stateCode()))
                .text("on demand", d.canDebugOnDemand(), Doc.Show.YES_NO)
                .text("port range", d.fromPort() == -1 && d.toPort() == -1 ? "-" : d.fromPort() + "-" + d.toPort())
                .text("current port", d.currentDebugPort() == -1 ? null : d.currentDebugPort())
                .text("client", d.debuggingClient()).text("locally", d.debuggingLocally(), Doc.Show.YES_NO);
    }

    private static void hotspotSections(Doc doc, HotSpotFigures f) {
        doc.text("HotSpot (performance data)", new Doc().text("VM", f.vmName()).text("version", f.vmVersion())
                .text("vendor", f.vmVendor()).text("main class", f.mainClass()).text("command", f.javaCommand())
                .text("VM arguments", f.vmArguments())
                .text("user", f.user() + " (uid " + f.uid() + ")")
                .text("pid in ns", f.namespacePid())
                .text("up", f.uptimeSeconds() < 0 ? null : seconds(f.uptimeSeconds())));
        doc.text("Heap", new Doc().text("heap used", f.heapUsed(), Doc.Show.BYTES)
                .text("heap committed", f.heapCommitted(), Doc.Show.BYTES)
                .text("heap max", f.heapMax(), Doc.Show.BYTES)
                .text("metaspace used", f.metaspaceUsed(), Doc.Show.BYTES)
                .text("metaspace committed", f.metaspaceCommitted(), Doc.Show.BYTES)
                .text("metaspace max", f.metaspaceMax(), Doc.Show.BYTES));
        Doc gc = new Doc().text("policy", f.gcPolicy());
        for (GcCollector c : f.collectors()) {
            gc.text(c.name().isEmpty() ? "-" : c.name(), c.invocations() + " collections, "
                    + (c.timeSeconds() < 0 ? "time unknown" : seconds(c.timeSeconds())));
        }
        doc.text("Garbage collection", gc);
        doc.text("Classes and threads", new Doc().text("classes loaded", f.classesLoaded())
                .text("classes unloaded", f.classesUnloaded())
                .text("threads live", f.threadsLive() + " (" + f.threadsDaemon() + " daemon, peak "
                        + f.threadsPeak() + ")")
                .text("threads started", f.threadsStarted()));
    }

    private static String seconds(double value) {
        return String.format(Locale.ROOT, "%.3f s", value);
    }
}
