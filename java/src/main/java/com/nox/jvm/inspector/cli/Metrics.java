package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.cluster.VmTimeInfo;

import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.function.Function;

/**
 * One pass over the host as metrics, in the Prometheus text format (0.0.4) or in OpenMetrics
 * (1.0.0). Every VM series carries the labels cluster_type, cluster_id, slot and pid; the main
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
    private record Sample(HostPass.VmFigures vm, String[] labels, String value) {
    }

    private Metrics() {
    }

    /** The whole exposition of one pass. */
    static String render(HostPass pass, Format format) {
        StringBuilder text = new StringBuilder(4096 + pass.vms().size() * 3000);
        Writer w = new Writer(text, format);
        List<HostPass.VmFigures> vms = pass.vms();

        w.family("nox_vm_up", Kind.GAUGE, null,
                "1 for every VM that the pass found alive; a VM that has gone has no series",
                vms, vm -> List.of(sample(vm, "1")));
        w.family("nox_vm", Kind.INFO, null, "The VM's identity: VM id, VM version and main class",
                vms, vm -> List.of(new Sample(vm, new String[] {"vm_id", Integer.toString(vm.vm().vmId()),
                        "vm_version", vm.start().map(VmStartInfo::vmVersion).orElse(""),
                        "main_class", vm.start().map(VmStartInfo::mainClass).orElse("")}, "1")));
        w.family("process_start_time_seconds", Kind.GAUGE, "seconds",
                "Start time of the VM's process since the Unix epoch in seconds (whole seconds)",
                vms, vm -> vm.processStart() > 0 ? List.of(sample(vm, Long.toString(vm.processStart()))) : List.of());
        w.family("jvm_memory_committed_bytes", Kind.GAUGE, "bytes",
                "Committed bytes of the VM's Java heap (area heap)",
                vms, vm -> memory(vm, m -> m.committedJavaHeap(), "area", "heap"));
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
                vms, vm -> vm.debug().filter(d -> d.currentDebugPort() > 0)
                        .map(d -> List.of(sample(vm, Integer.toString(d.currentDebugPort())))).orElse(List.of()));

        List<HostPass.VmFigures> host = new ArrayList<>();
        host.add(null);
        long instance = pass.clusters().stream().filter(c -> c.entry().typeCode() == 2).count();
        w.family("nox_host_vms", Kind.GAUGE, null, "Live VMs that the pass found on this host",
                host, none -> List.of(new Sample(null, new String[0], Integer.toString(vms.size()))));
        w.family("nox_host_clusters", Kind.GAUGE, null, "Running clusters that the pass found on this host, by type",
                host, none -> List.of(
                        new Sample(null, new String[] {"cluster_type", "instance"}, Long.toString(instance)),
                        new Sample(null, new String[] {"cluster_type", "process"},
                                Long.toString(pass.clusters().size() - instance))));
        w.family("nox_host_pass_duration_seconds", Kind.GAUGE, "seconds",
                "How long the native pass over the host took for this scrape",
                host, none -> List.of(new Sample(null, new String[0],
                        Double.toString(pass.durationNanos() / 1e9))));
        if (format == Format.OPENMETRICS) {
            text.append("# EOF\n");
        }
        return text.toString();
    }

    private static Sample sample(HostPass.VmFigures vm, String value) {
        return new Sample(vm, new String[0], value);
    }

    /** A memory-record figure; no sample when the record is missing or the figure is not published (negative). */
    private static List<Sample> memory(HostPass.VmFigures vm, Function<VmMemoryInfo, Long> figure, String... labels) {
        if (vm.memory().isEmpty()) {
            return List.of();
        }
        long value = figure.apply(vm.memory().get());
        return value < 0 ? List.of() : List.of(new Sample(vm, labels, Long.toString(value)));
    }

    private static List<Sample> cpuTime(HostPass.VmFigures vm) {
        if (vm.time().isEmpty() || !vm.time().get().available()) {
            return List.of();
        }
        VmTimeInfo t = vm.time().get();
        return t.totalTime() < 0 ? List.of() : List.of(sample(vm, Long.toString(t.totalTime())));
    }

    private static List<Sample> debuggingStates(HostPass.VmFigures vm) {
        if (vm.debug().isEmpty()) {
            return List.of();
        }
        VmDebugInfo d = vm.debug().get();
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

        void family(String name, Kind kind, String unit, String help, List<HostPass.VmFigures> vms,
                    Function<HostPass.VmFigures, List<Sample>> samples) {
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
            for (HostPass.VmFigures vm : vms) {
                for (Sample sample : samples.apply(vm)) {
                    text.append(sampleName);
                    labels(sample);
                    text.append(' ').append(sample.value()).append('\n');
                }
            }
        }

        private void labels(Sample sample) {
            List<String> pairs = new ArrayList<>();
            if (sample.vm() != null) {
                VmRef ref = sample.vm().vm().ref();
                pairs.add("cluster_type");
                pairs.add(Commands.typeName(ref.type(), ref.type().code()));
                pairs.add("cluster_id");
                pairs.add(Integer.toString(ref.clusterId()));
                pairs.add("slot");
                pairs.add(Integer.toString(ref.slot()));
                pairs.add("pid");
                pairs.add(Integer.toString(sample.vm().vm().pid()));
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
