package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.cluster.VmTimeInfo;

import com.nox.jvm.inspector.hotspot.GcCollector;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.util.ArrayList;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Set;
import java.util.function.Function;
import java.util.function.ToLongFunction;

/**
 * One pass over the host as metrics, in the Prometheus text format (0.0.4) or in OpenMetrics
 * (1.0.0), with the HotSpot VMs read from their performance data. Every VM series carries the
 * labels cluster_type, cluster_id, slot and pid (a HotSpot VM without a control area has
 * cluster_type "hotspot" and empty cluster_id and slot); the main
 * class and VM version are on the one {@code nox_vm_info} series per VM. A figure a VM does not
 * publish has no sample. Figures whose unit the VM does not publish carry {@code vm_units} in
 * their name and are passed through unconverted.
 */
final class Metrics {
    static final String PROMETHEUS_CONTENT_TYPE = "text/plain; version=0.0.4; charset=utf-8";
    static final String OPENMETRICS_CONTENT_TYPE = "application/openmetrics-text; version=1.0.0; charset=utf-8";

    /** The exposition formats. */
    enum Format {
        PROMETHEUS, OPENMETRICS;

        /** OpenMetrics when the scraper's Accept header asks for it, else the Prometheus text format. */
        static Format forAccept(String accept) {
            return accept != null && accept.toLowerCase(Locale.ROOT).contains("application/openmetrics-text")
                    ? OPENMETRICS : PROMETHEUS;
        }

        String contentType() {
            return this == OPENMETRICS ? OPENMETRICS_CONTENT_TYPE : PROMETHEUS_CONTENT_TYPE;
        }
    }

    private enum Kind { GAUGE, COUNTER, INFO }

    /** One sample of a family: the VM it belongs to (null for a host figure), extra labels, value. */
    private record Sample(VmRow vm, String[] labels, String value) {
    }

    private Metrics() {
    }

    /** The whole exposition of one pass, without HotSpot VMs. */
    static String render(HostPass pass, Format format) {
        return render(pass, List.of(), format);
    }

    /**
     * The whole exposition of one pass and the HotSpot VMs read beside it. A HotSpot VM whose pid
     * also has a control area is that VM: its figures join the control-area VM's series under
     * the same labels, and a figure both publish comes from the control area.
     */
    static String render(HostPass pass, List<HotSpotFigures> hotspot, Format format) {
        List<VmRow> vms = rows(pass, hotspot);
        StringBuilder text = new StringBuilder(4096 + vms.size() * 3000);
        Writer w = new Writer(text, format);

        w.family("nox_vm_up", Kind.GAUGE, null,
                "1 for every VM that the pass found alive; a VM that has gone has no series",
                vms, vm -> List.of(sample(vm, "1")));
        w.family("nox_vm", Kind.INFO, null, "The VM's identity: VM id, VM version and main class",
                vms, Metrics::info);
        w.family("process_start_time_seconds", Kind.GAUGE, "seconds",
                "Start time of the VM's process since the Unix epoch in seconds (whole seconds)",
                vms, vm -> {
                    long start = vm.processStart();
                    return start > 0 ? List.of(sample(vm, Long.toString(start))) : List.of();
                });
        w.family("jvm_memory_used_bytes", Kind.GAUGE, "bytes",
                "Used bytes of the VM's Java heap (area heap), from its performance data",
                vms, vm -> hotspot(vm, HotSpotFigures::heapUsed, "area", "heap"));
        w.family("jvm_memory_committed_bytes", Kind.GAUGE, "bytes",
                "Committed bytes of the VM's Java heap (area heap)",
                vms, vm -> vm.figures() != null ? memory(vm, m -> m.committedJavaHeap(), "area", "heap")
                        : hotspot(vm, HotSpotFigures::heapCommitted, "area", "heap"));
        w.family("jvm_memory_max_bytes", Kind.GAUGE, "bytes",
                "The most bytes the VM's Java heap may grow to (area heap), from its performance data",
                vms, vm -> hotspot(vm, HotSpotFigures::heapMax, "area", "heap"));
        w.family("nox_vm_class_pool_committed_bytes", Kind.GAUGE, "bytes", "Committed bytes of the VM's class pool",
                vms, vm -> memory(vm, VmMemoryInfo::committedClassPool));
        w.family("nox_vm_code_cache_committed_bytes", Kind.GAUGE, "bytes", "Committed bytes of the VM's code cache",
                vms, vm -> memory(vm, VmMemoryInfo::committedCodeCache));
        w.family("nox_vm_old_gen_used_after_gc_bytes", Kind.GAUGE, "bytes",
                "Bytes of the old generation in use after the last garbage collection",
                vms, vm -> memory(vm, VmMemoryInfo::oldGenUsageAfterGc));
        w.family("nox_vm_old_gen_max_bytes", Kind.GAUGE, "bytes", "Maximum size of the old generation in bytes",
                vms, vm -> memory(vm, VmMemoryInfo::maxOldGenSize));
        w.family("nox_vm_gc_collections", Kind.COUNTER, null, "Garbage collections of the VM, full ones included",
                vms, vm -> memory(vm, VmMemoryInfo::numberOfGcs));
        w.family("nox_vm_gc_full_collections", Kind.COUNTER, null, "Full garbage collections of the VM",
                vms, vm -> memory(vm, VmMemoryInfo::numberOfFullGcs));
        w.family("nox_vm_gc_duration_vm_units", Kind.COUNTER, null,
                "Time spent in garbage collections, in the unit the VM publishes (not known, not converted)",
                vms, vm -> memory(vm, VmMemoryInfo::durationOfGcs));
        w.family("nox_vm_gc_full_duration_vm_units", Kind.COUNTER, null,
                "Time spent in full garbage collections, in the unit the VM publishes (not known, not converted)",
                vms, vm -> memory(vm, VmMemoryInfo::durationOfFullGcs));
        w.family("nox_vm_gc_concurrent_duration_vm_units", Kind.COUNTER, null,
                "Time spent in concurrent garbage collections, in the unit the VM publishes (not known, not converted)",
                vms, vm -> memory(vm, VmMemoryInfo::durationOfConcurrentGcs));
        w.family("nox_vm_gc_collector_collections", Kind.COUNTER, null,
                "Collections of one garbage collector of the VM (gc: the collector as its performance data names it)",
                vms, vm -> collectors(vm, c -> c.invocations() < 0 ? null : Long.toString(c.invocations())));
        w.family("nox_vm_gc_collector_seconds", Kind.COUNTER, "seconds",
                "Time spent in the collections of one garbage collector of the VM in seconds, from its performance data",
                vms, vm -> collectors(vm, c -> c.timeSeconds() < 0 ? null : Double.toString(c.timeSeconds())));
        w.family("jvm_classes_loaded", Kind.COUNTER, null,
                "Classes the VM has loaded since it began, from its performance data",
                vms, vm -> hotspot(vm, HotSpotFigures::classesLoaded));
        w.family("jvm_classes_unloaded", Kind.COUNTER, null,
                "Classes the VM has unloaded since it began, from its performance data",
                vms, vm -> hotspot(vm, HotSpotFigures::classesUnloaded));
        w.family("jvm_threads_current", Kind.GAUGE, null, "Live Java threads of the VM, from its performance data",
                vms, vm -> hotspot(vm, HotSpotFigures::threadsLive));
        w.family("jvm_threads_daemon", Kind.GAUGE, null, "Live daemon threads of the VM, from its performance data",
                vms, vm -> hotspot(vm, HotSpotFigures::threadsDaemon));
        w.family("jvm_threads_peak", Kind.GAUGE, null, "Most live Java threads of the VM at once, from its performance data",
                vms, vm -> hotspot(vm, HotSpotFigures::threadsPeak));
        w.family("jvm_threads_started", Kind.COUNTER, null,
                "Java threads the VM has started since it began, from its performance data",
                vms, vm -> hotspot(vm, HotSpotFigures::threadsStarted));
        w.family("nox_vm_out_of_memory_errors", Kind.COUNTER, null, "OutOfMemoryErrors the VM has thrown",
                vms, vm -> memory(vm, m -> (long) m.outOfMemoryErrorCount()));
        w.family("nox_vm_process_cpu_time_vm_units", Kind.COUNTER, null,
                "CPU time of the VM's process, system plus user, in the unit the VM publishes (not known, not converted)",
                vms, Metrics::cpuTime);
        w.family("nox_vm_debugging_state", Kind.GAUGE, null,
                "1 for the VM's current debugging state, 0 for the others",
                vms, Metrics::debuggingStates);
        w.family("nox_vm_debug_port", Kind.GAUGE, null,
                "The port the VM's debugging agent listens on, while it debugs",
                vms, vm -> vm.figures() == null ? List.of() : vm.figures().debug().filter(d -> d.currentDebugPort() > 0)
                        .map(d -> List.of(sample(vm, Integer.toString(d.currentDebugPort())))).orElse(List.of()));

        List<VmRow> host = new ArrayList<>();
        host.add(null);
        long instance = pass.clusters().stream().filter(c -> c.entry().typeCode() == 2).count();
        long hotspotOnly = vms.stream().filter(vm -> vm.figures() == null).count();
        w.family("nox_host_vms", Kind.GAUGE, null,
                "Live VMs that the pass found on this host, each once (control area, performance data or both)",
                host, none -> List.of(new Sample(null, new String[0], Integer.toString(vms.size()))));
        w.family("nox_host_clusters", Kind.GAUGE, null, "Running clusters that the pass found on this host, by type",
                host, none -> List.of(
                        new Sample(null, new String[] {"cluster_type", "instance"}, Long.toString(instance)),
                        new Sample(null, new String[] {"cluster_type", "process"},
                                Long.toString(pass.clusters().size() - instance))));
        w.family("nox_host_hotspot_only_vms", Kind.GAUGE, null,
                "Live HotSpot VMs of this host known only from their performance data (no control area)",
                host, none -> List.of(new Sample(null, new String[0], Long.toString(hotspotOnly))));
        w.family("nox_host_pass_duration_seconds", Kind.GAUGE, "seconds",
                "How long the native pass over the host took for this scrape",
                host, none -> List.of(new Sample(null, new String[0],
                        Double.toString(pass.durationNanos() / 1e9))));
        if (format == Format.OPENMETRICS) {
            text.append("# EOF\n");
        }
        return text.toString();
    }

    /**
     * One VM of the exposition: its control-area figures, its performance-data figures, or both
     * when one process publishes both.
     */
    private record VmRow(HostPass.VmFigures figures, HotSpotFigures hotspot) {
        int pid() {
            return figures != null ? figures.vm().pid() : hotspot.pid();
        }

        /** Seconds since the epoch; the control area's figure first, then the VM's begin time. */
        long processStart() {
            if (figures != null && figures.processStart() > 0) {
                return figures.processStart();
            }
            return hotspot != null && hotspot.beginMillis() > 0 ? hotspot.beginMillis() / 1000 : 0;
        }
    }

    /** The control-area VMs in pass order, then the HotSpot VMs without a control area in pid order. */
    private static List<VmRow> rows(HostPass pass, List<HotSpotFigures> hotspot) {
        Map<Integer, HotSpotFigures> byPid = new LinkedHashMap<>();
        for (HotSpotFigures f : hotspot) {
            byPid.put(f.pid(), f);
        }
        List<VmRow> rows = new ArrayList<>();
        for (HostPass.VmFigures vm : pass.vms()) {
            rows.add(new VmRow(vm, byPid.remove(vm.vm().pid())));
        }
        for (HotSpotFigures f : byPid.values()) {
            rows.add(new VmRow(null, f));
        }
        return rows;
    }

    private static List<Sample> info(VmRow vm) {
        if (vm.figures() != null) {
            HostPass.VmFigures f = vm.figures();
            return List.of(new Sample(vm, new String[] {"vm_id", Integer.toString(f.vm().vmId()),
                "vm_version", f.start().map(VmStartInfo::vmVersion).orElse(""),
                "main_class", f.start().map(VmStartInfo::mainClass).orElse("")}, "1"));
        }
        return List.of(new Sample(vm, new String[] {"vm_id", "", "vm_version", vm.hotspot().vmVersion(),
            "main_class", vm.hotspot().mainClass()}, "1"));
    }

    private static Sample sample(VmRow vm, String value) {
        return new Sample(vm, new String[0], value);
    }

    /** A memory-record figure; no sample when the record is missing or the figure is not published (negative). */
    private static List<Sample> memory(VmRow vm, Function<VmMemoryInfo, Long> figure, String... labels) {
        if (vm.figures() == null || vm.figures().memory().isEmpty()) {
            return List.of();
        }
        long value = figure.apply(vm.figures().memory().get());
        return value < 0 ? List.of() : List.of(new Sample(vm, labels, Long.toString(value)));
    }

    /** A performance-data figure; no sample when the VM publishes none or not this one (negative). */
    private static List<Sample> hotspot(VmRow vm, ToLongFunction<HotSpotFigures> figure, String... labels) {
        if (vm.hotspot() == null) {
            return List.of();
        }
        long value = figure.applyAsLong(vm.hotspot());
        return value < 0 ? List.of() : List.of(new Sample(vm, labels, Long.toString(value)));
    }

    /** One sample per garbage collector, labelled gc; a collector whose figure is null has none. */
    private static List<Sample> collectors(VmRow vm, Function<GcCollector, String> figure) {
        if (vm.hotspot() == null) {
            return List.of();
        }
        List<Sample> samples = new ArrayList<>();
        Set<String> names = new HashSet<>();
        for (GcCollector c : vm.hotspot().collectors()) {
            String value = figure.apply(c);
            // Two collectors of one name would make two series with one label set.
            if (value != null && names.add(c.name())) {
                samples.add(new Sample(vm, new String[] {"gc", c.name()}, value));
            }
        }
        return samples;
    }

    private static List<Sample> cpuTime(VmRow vm) {
        if (vm.figures() == null || vm.figures().time().isEmpty() || !vm.figures().time().get().available()) {
            return List.of();
        }
        VmTimeInfo t = vm.figures().time().get();
        return t.totalTime() < 0 ? List.of() : List.of(sample(vm, Long.toString(t.totalTime())));
    }

    private static List<Sample> debuggingStates(VmRow vm) {
        if (vm.figures() == null || vm.figures().debug().isEmpty()) {
            return List.of();
        }
        VmDebugInfo d = vm.figures().debug().get();
        List<Sample> samples = new ArrayList<>();
        for (DebuggingState state : DebuggingState.values()) {
            samples.add(new Sample(vm, new String[] {"state", Commands.stateName(state, state.ordinal())},
                    state == d.state() ? "1" : "0"));
        }
        return samples;
    }

    /** Writes families in one of the two formats. */
    private static final class Writer {
        private final StringBuilder text;
        private final Format format;

        Writer(StringBuilder text, Format format) {
            this.text = text;
            this.format = format;
        }

        void family(String name, Kind kind, String unit, String help, List<VmRow> vms,
                    Function<VmRow, List<Sample>> samples) {
            boolean open = format == Format.OPENMETRICS;
            String sampleName = switch (kind) {
                case COUNTER -> name + "_total";
                case INFO -> name + "_info";
                case GAUGE -> name;
            };
            // Prometheus text names the family as its samples are named and knows no info type.
            String familyName = open ? name : sampleName;
            String type = switch (kind) {
                case COUNTER -> "counter";
                case INFO -> open ? "info" : "gauge";
                case GAUGE -> "gauge";
            };
            text.append("# HELP ").append(familyName).append(' ').append(help).append('\n');
            text.append("# TYPE ").append(familyName).append(' ').append(type).append('\n');
            if (open && unit != null) {
                text.append("# UNIT ").append(familyName).append(' ').append(unit).append('\n');
            }
            for (VmRow vm : vms) {
                for (Sample sample : samples.apply(vm)) {
                    text.append(sampleName);
                    labels(sample);
                    text.append(' ').append(sample.value()).append('\n');
                }
            }
        }

        private void labels(Sample sample) {
            List<String> pairs = new ArrayList<>();
            if (sample.vm() != null && sample.vm().figures() != null) {
                VmRef ref = sample.vm().figures().vm().ref();
                pairs.add("cluster_type");
                pairs.add(Commands.typeName(ref.type(), ref.type().code()));
                pairs.add("cluster_id");
                pairs.add(Integer.toString(ref.clusterId()));
                pairs.add("slot");
                pairs.add(Integer.toString(ref.slot()));
                pairs.add("pid");
                pairs.add(Integer.toString(sample.vm().pid()));
            } else if (sample.vm() != null) {
                // A VM without a control area has no cluster id and slot: the labels are there,
                // empty (which Prometheus treats as absent), so every series of a family has
                // the same label names.
                pairs.addAll(List.of("cluster_type", HotSpotView.CLUSTER, "cluster_id", "", "slot", "",
                        "pid", Integer.toString(sample.vm().pid())));
            }
            pairs.addAll(List.of(sample.labels()));
            if (pairs.isEmpty()) {
                return;
            }
            text.append('{');
            for (int i = 0; i < pairs.size(); i += 2) {
                if (i > 0) {
                    text.append(',');
                }
                text.append(pairs.get(i)).append("=\"");
                escape(pairs.get(i + 1));
                text.append('"');
            }
            text.append('}');
        }

        /** Label values escape backslash, double quote and line feed, as both formats require. */
        private void escape(String value) {
            for (int i = 0; i < value.length(); i++) {
                char c = value.charAt(i);
                switch (c) {
                    case '\\' -> text.append("\\\\");
                    case '"' -> text.append("\\\"");
                    case '\n' -> text.append("\\n");
                    default -> text.append(c);
                }
            }
        }
    }
}
