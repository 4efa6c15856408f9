package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmTimeInfo;
import com.nox.jvm.inspector.host.ControlAreaUnits;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.host.Names;
import com.nox.jvm.inspector.host.ProcessCpu;
import com.nox.jvm.inspector.hotspot.GcCollector;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.MxBeanNames;

import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Optional;
import java.util.OptionalDouble;
import java.util.Set;
import java.util.function.BiFunction;
import java.util.function.Function;
import java.util.function.ToLongFunction;

/**
 * The metrics of {@code serve}: a table of families, each with its name, type, unit, help and
 * how it reads its samples from a {@link HostSnapshot}, written in either {@link Exposition}.
 * Every VM series carries the labels cluster_type, cluster_id, slot, pid and user (a VM known
 * only by its performance data has cluster_type "hotspot" and empty cluster_id and slot). A
 * figure a VM does not publish has no sample, nor has one it has not published yet (see
 * {@link MemoryFigures}); figures whose unit the VM does not publish say vm_units in their name
 * and are passed through as published.
 */
final class Metrics {
    enum Type { GAUGE, COUNTER, INFO, SUMMARY }

    /**
     * One sample: what follows the family's sample name (a summary's _count and _sum; else
     * empty), its labels as name, value pairs, and its value.
     */
    record Sample(String suffix, List<String> labels, String value) {
        Sample(List<String> labels, String value) {
            this("", labels, value);
        }
    }

    /**
     * One family: its base name (counters without _total, info without _info) and how to read it,
     * either per VM (each sample under the VM's labels) or once for the host.
     */
    record Family(String name, Type type, String unit, String help, BiFunction<HostVm, Cpu, List<Sample>> perVm,
                  Function<HostSnapshot, List<Sample>> perHost) {
    }

    /**
     * The CPU seconds of a VM's process as the kernel counts them (negative: unknown) and the unit
     * of its control-area times that they tell: read once per VM and scrape, used by several families.
     */
    record Cpu(double kernelSeconds, OptionalDouble secondsPerUnit) {
        static Cpu of(HostVm vm) {
            double kernel = ProcessCpu.seconds(vm.pid(), vm.startTime());
            return new Cpu(kernel, ControlAreaUnits.secondsPerUnit(vm, kernel));
        }
    }

    private static final String BYTES = "bytes";
    private static final String SECONDS = "seconds";

    /** Every family, in the order of the exposition. */
    static final List<Family> FAMILIES = List.of(
            vm("nox_vm_up", Type.GAUGE, null, "1 for every VM that the pass found alive; a VM that has gone has no series",
                    vm -> one("1")),
            vm("nox_vm", Type.INFO, null, "The VM's identity: VM id, VM version and main class", Metrics::info),
            vm("process_start_time_seconds", Type.GAUGE, SECONDS,
                    "Start time of the VM's process since the Unix epoch in seconds (whole seconds)",
                    vm -> vm.startTime() > 0 ? one(Long.toString(vm.startTime())) : List.of()),
            withCpu("process_cpu_seconds", Type.COUNTER, SECONDS,
                    "CPU time of the VM's process, user plus system, in seconds, as the kernel counts it (/proc)",
                    (vm, cpu) -> cpu.kernelSeconds() < 0 ? List.of() : one(Double.toString(cpu.kernelSeconds()))),
            vm("jvm_memory_used_bytes", Type.GAUGE, BYTES,
                    "Used bytes of the VM's Java heap (area heap) and metaspace (area nonheap), from its performance data",
                    vm -> MemoryFigures.areas(vm, MemoryFigures.Figure::used)),
            vm("jvm_memory_committed_bytes", Type.GAUGE, BYTES,
                    "Committed bytes of the VM's Java heap (area heap) and metaspace (area nonheap)",
                    vm -> MemoryFigures.areas(vm, MemoryFigures.Figure::committed)),
            vm("jvm_memory_max_bytes", Type.GAUGE, BYTES,
                    "The most bytes the VM's Java heap (area heap) and metaspace (area nonheap) may grow to",
                    vm -> MemoryFigures.areas(vm, MemoryFigures.Figure::max)),
            vm("jvm_memory_pool_used_bytes", Type.GAUGE, BYTES,
                    "Used bytes of one memory pool of the VM (pool: as its MemoryPoolMXBean names it)",
                    vm -> MemoryFigures.pools(vm, MemoryFigures.Figure::used)),
            vm("jvm_memory_pool_committed_bytes", Type.GAUGE, BYTES,
                    "Committed bytes of one memory pool of the VM (pool: as its MemoryPoolMXBean names it)",
                    vm -> MemoryFigures.pools(vm, MemoryFigures.Figure::committed)),
            vm("jvm_memory_pool_max_bytes", Type.GAUGE, BYTES,
                    "The most bytes one memory pool of the VM may grow to (pool: as its MemoryPoolMXBean names it)",
                    vm -> MemoryFigures.pools(vm, MemoryFigures.Figure::max)),
            vm("nox_vm_memory_unpublished", Type.GAUGE, null,
                    "1 for a memory area or pool whose use the VM has not published yet (it reads 0, as before a G1 VM's"
                            + " first collection); its jvm_memory samples that read 0 are left out",
                    MemoryFigures::unpublished),
            vm("nox_vm_class_pool_committed_bytes", Type.GAUGE, BYTES, "Committed bytes of the VM's class pool",
                    vm -> memory(vm, VmMemoryInfo::committedClassPool)),
            vm("nox_vm_code_cache_committed_bytes", Type.GAUGE, BYTES, "Committed bytes of the VM's code cache",
                    vm -> memory(vm, VmMemoryInfo::committedCodeCache)),
            vm("nox_vm_old_gen_used_after_gc_bytes", Type.GAUGE, BYTES,
                    "Bytes of the old generation in use after the last garbage collection",
                    vm -> memory(vm, VmMemoryInfo::oldGenUsageAfterGc)),
            vm("nox_vm_old_gen_max_bytes", Type.GAUGE, BYTES, "Maximum size of the old generation in bytes",
                    vm -> memory(vm, VmMemoryInfo::maxOldGenSize)),
            vm("nox_vm_gc_collections", Type.COUNTER, null, "Garbage collections of the VM, full ones included",
                    vm -> memory(vm, VmMemoryInfo::numberOfGcs)),
            vm("nox_vm_gc_full_collections", Type.COUNTER, null, "Full garbage collections of the VM",
                    vm -> memory(vm, VmMemoryInfo::numberOfFullGcs)),
            withCpu("nox_vm_gc_duration_vm_units", Type.COUNTER, null,
                    "Time spent in garbage collections, in the unit the VM publishes (not known, not converted)",
                    (vm, cpu) -> vmUnits(vm, cpu, VmMemoryInfo::durationOfGcs)),
            withCpu("nox_vm_gc_full_duration_vm_units", Type.COUNTER, null,
                    "Time spent in full garbage collections, in the unit the VM publishes (not known, not converted)",
                    (vm, cpu) -> vmUnits(vm, cpu, VmMemoryInfo::durationOfFullGcs)),
            withCpu("nox_vm_gc_concurrent_duration_vm_units", Type.COUNTER, null,
                    "Time spent in concurrent garbage collections, in the unit the VM publishes (not known, not converted)",
                    (vm, cpu) -> vmUnits(vm, cpu, VmMemoryInfo::durationOfConcurrentGcs)),
            withCpu("nox_vm_gc_duration_seconds", Type.COUNTER, SECONDS,
                    "Time spent in garbage collections in seconds, from a control area whose unit is known",
                    (vm, cpu) -> seconds(vm, cpu, VmMemoryInfo::durationOfGcs)),
            withCpu("nox_vm_gc_full_duration_seconds", Type.COUNTER, SECONDS,
                    "Time spent in full garbage collections in seconds, from a control area whose unit is known",
                    (vm, cpu) -> seconds(vm, cpu, VmMemoryInfo::durationOfFullGcs)),
            withCpu("nox_vm_gc_concurrent_duration_seconds", Type.COUNTER, SECONDS,
                    "Time spent in concurrent garbage collections in seconds, from a control area whose unit is known",
                    (vm, cpu) -> seconds(vm, cpu, VmMemoryInfo::durationOfConcurrentGcs)),
            vm("jvm_gc_collection_seconds", Type.SUMMARY, SECONDS,
                    "Collections of one garbage collector of the VM (count) and their time in seconds (sum), from its"
                            + " performance data (gc: the collector as its GarbageCollectorMXBean names it)",
                    Metrics::collectors),
            vm("jvm_classes_loaded", Type.COUNTER, null,
                    "Classes the VM has loaded since it began, from its performance data",
                    vm -> hotspot(vm, HotSpotFigures::classesLoaded)),
            vm("jvm_classes_unloaded", Type.COUNTER, null,
                    "Classes the VM has unloaded since it began, from its performance data",
                    vm -> hotspot(vm, HotSpotFigures::classesUnloaded)),
            vm("jvm_threads_current", Type.GAUGE, null, "Live Java threads of the VM, from its performance data",
                    vm -> hotspot(vm, HotSpotFigures::threadsLive)),
            vm("jvm_threads_daemon", Type.GAUGE, null, "Live daemon threads of the VM, from its performance data",
                    vm -> hotspot(vm, HotSpotFigures::threadsDaemon)),
            vm("jvm_threads_peak", Type.GAUGE, null,
                    "Most live Java threads of the VM at once, from its performance data",
                    vm -> hotspot(vm, HotSpotFigures::threadsPeak)),
            vm("jvm_threads_started", Type.COUNTER, null,
                    "Java threads the VM has started since it began, from its performance data",
                    vm -> hotspot(vm, HotSpotFigures::threadsStarted)),
            vm("nox_vm_out_of_memory_errors", Type.COUNTER, null, "OutOfMemoryErrors the VM has thrown",
                    vm -> memory(vm, m -> (long) m.outOfMemoryErrorCount())),
            withCpu("nox_vm_process_cpu_time_vm_units", Type.COUNTER, null,
                    "CPU time of the VM's process, system plus user, in the unit the VM publishes (not known, not converted)",
                    Metrics::cpuTime),
            vm("nox_vm_debugging_state", Type.GAUGE, null, "1 for the VM's current debugging state, 0 for the others",
                    Metrics::debuggingStates),
            vm("nox_vm_debug_port", Type.GAUGE, null, "The port the VM's debugging agent listens on, while it debugs",
                    vm -> debug(vm).filter(d -> d.currentDebugPort() > 0)
                            .map(d -> one(Integer.toString(d.currentDebugPort()))).orElse(List.of())),
            host("nox_host_vms", Type.GAUGE, null,
                    "Live VMs that the pass found on this host, each once (control area, performance data or both)",
                    host -> one(Integer.toString(host.vms().size()))),
            host("nox_host_clusters", Type.GAUGE, null, "Running clusters that the pass found on this host, by type",
                    Metrics::clusters),
            host("nox_host_hotspot_only_vms", Type.GAUGE, null,
                    "Live HotSpot VMs of this host known only from their performance data (no control area)",
                    host -> one(Long.toString(host.vms().stream().filter(vm -> vm.controlArea().isEmpty()).count()))),
            host("nox_host_pass_duration_seconds", Type.GAUGE, SECONDS,
                    "How long the native pass over the host took for this scrape",
                    host -> one(Double.toString(host.controlAreaNanos() / 1e9))));

    private Metrics() {
    }

    /** The whole exposition of a snapshot. */
    static String render(HostSnapshot snapshot, Exposition format) {
        List<HostVm> vms = snapshot.vms();
        StringBuilder out = new StringBuilder(4096 + vms.size() * 3000);
        // Each VM's labels are the same in every family: written once, copied into each sample.
        String[] vmLabels = new String[vms.size()];
        Cpu[] cpu = new Cpu[vms.size()];
        for (int i = 0; i < vmLabels.length; i++) {
            StringBuilder labels = new StringBuilder(128);
            labelPairs(labels, vmLabels(vms.get(i)));
            vmLabels[i] = labels.toString();
            cpu[i] = Cpu.of(vms.get(i));
        }
        for (Family family : FAMILIES) {
            format.header(out, family);
            String name = Exposition.sampleName(family);
            if (family.perHost() != null) {
                for (Sample sample : family.perHost().apply(snapshot)) {
                    sample(out, name, "", sample);
                }
                continue;
            }
            for (int i = 0; i < vmLabels.length; i++) {
                for (Sample sample : family.perVm().apply(vms.get(i), cpu[i])) {
                    sample(out, name, vmLabels[i], sample);
                }
            }
        }
        format.end(out);
        return out.toString();
    }

    /** A family with samples per VM, each under the VM's labels. */
    private static Family vm(String name, Type type, String unit, String help, Function<HostVm, List<Sample>> read) {
        return new Family(name, type, unit, help, (vm, cpu) -> read.apply(vm), null);
    }

    /** A family with samples per VM that also reads the VM's process CPU. */
    private static Family withCpu(String name, Type type, String unit, String help,
                                  BiFunction<HostVm, Cpu, List<Sample>> read) {
        return new Family(name, type, unit, help, read, null);
    }

    /** A family of the host as a whole: its samples carry only their own labels. */
    private static Family host(String name, Type type, String unit, String help,
                               Function<HostSnapshot, List<Sample>> read) {
        return new Family(name, type, unit, help, null, read);
    }

    /** One sample line: the VM's labels written already (or none), then the sample's own. */
    private static void sample(StringBuilder out, String name, String vmLabels, Sample sample) {
        out.append(name).append(sample.suffix());
        if (!vmLabels.isEmpty() || !sample.labels().isEmpty()) {
            out.append('{').append(vmLabels);
            if (!vmLabels.isEmpty() && !sample.labels().isEmpty()) {
                out.append(',');
            }
            labelPairs(out, sample.labels());
            out.append('}');
        }
        out.append(' ').append(sample.value()).append('\n');
    }

    /**
     * A VM without a control area has no cluster id and slot: the labels are there, empty (which
     * Prometheus treats as absent), so every series of a family has the same label names.
     */
    private static List<String> vmLabels(HostVm vm) {
        return List.of("cluster_type", vm.clusterType(),
                "cluster_id", vm.clusterId() == null ? "" : Integer.toString(vm.clusterId()),
                "slot", vm.slot() == null ? "" : Integer.toString(vm.slot()), "pid", Integer.toString(vm.pid()),
                "user", vm.user());
    }

    static List<Sample> one(String value, String... labels) {
        return List.of(new Sample(List.of(labels), value));
    }

    private static List<Sample> info(HostVm vm) {
        return one("1", "vm_id", vm.vmId() == null ? "" : Integer.toString(vm.vmId()), "vm_version", vm.version(),
                "main_class", vm.mainClass());
    }

    static List<Sample> bytes(long value, String... labels) {
        return value < 0 ? List.of() : one(Long.toString(value), labels);
    }

    /** A memory-record figure; none when the record is missing or the figure not published (negative). */
    private static List<Sample> memory(HostVm vm, ToLongFunction<VmMemoryInfo> figure) {
        Optional<VmMemoryInfo> memory = vm.controlArea().flatMap(c -> c.figures().memory());
        return memory.map(m -> bytes(figure.applyAsLong(m))).orElse(List.of());
    }

    /** A performance-data figure; none when the VM publishes none or not this one (negative). */
    private static List<Sample> hotspot(HostVm vm, ToLongFunction<HotSpotFigures> figure) {
        return vm.hotspot().map(f -> bytes(figure.applyAsLong(f))).orElse(List.of());
    }

    /**
     * Per garbage collector its count and sum, labelled gc with its bean's name; a collector
     * whose collections or time (the tick frequency) are not published has none.
     */
    private static List<Sample> collectors(HostVm vm) {
        List<Sample> samples = new ArrayList<>();
        Set<String> names = new HashSet<>();
        for (GcCollector c : vm.hotspot().map(HotSpotFigures::collectors).orElse(List.of())) {
            String name = MxBeanNames.collector(c.name());
            // Two collectors of one name would make two series with one label set.
            if (c.invocations() >= 0 && c.timeSeconds() >= 0 && names.add(name)) {
                samples.add(new Sample("_count", List.of("gc", name), Long.toString(c.invocations())));
                samples.add(new Sample("_sum", List.of("gc", name), Double.toString(c.timeSeconds())));
            }
        }
        return samples;
    }

    /** A control-area time in the VM's unit, for a VM whose unit is not known. */
    private static List<Sample> vmUnits(HostVm vm, Cpu cpu, ToLongFunction<VmMemoryInfo> figure) {
        return cpu.secondsPerUnit().isPresent() ? List.of() : memory(vm, figure);
    }

    /** A control-area time in seconds, for a VM whose unit is known. */
    private static List<Sample> seconds(HostVm vm, Cpu cpu, ToLongFunction<VmMemoryInfo> figure) {
        OptionalDouble unit = cpu.secondsPerUnit();
        Optional<VmMemoryInfo> memory = vm.controlArea().flatMap(c -> c.figures().memory());
        if (unit.isEmpty() || memory.isEmpty() || figure.applyAsLong(memory.get()) < 0) {
            return List.of();
        }
        return one(Double.toString(figure.applyAsLong(memory.get()) * unit.getAsDouble()));
    }

    /** The control area's CPU time, for a VM whose unit is not known (else process_cpu_seconds_total says it). */
    private static List<Sample> cpuTime(HostVm vm, Cpu cpu) {
        if (cpu.secondsPerUnit().isPresent()) {
            return List.of();
        }
        Optional<VmTimeInfo> time = vm.controlArea().flatMap(c -> c.figures().time()).filter(VmTimeInfo::available);
        return time.map(t -> bytes(t.totalTime())).orElse(List.of());
    }

    private static Optional<VmDebugInfo> debug(HostVm vm) {
        return vm.controlArea().flatMap(c -> c.figures().debug());
    }

    private static List<Sample> debuggingStates(HostVm vm) {
        List<Sample> samples = new ArrayList<>();
        debug(vm).ifPresent(d -> {
            for (DebuggingState state : DebuggingState.values()) {
                samples.add(new Sample(List.of("state", Names.debuggingState(state, state.ordinal())),
                        state == d.state() ? "1" : "0"));
            }
        });
        return samples;
    }

    private static List<Sample> clusters(HostSnapshot host) {
        long instance = 0;
        for (HostPass.Cluster c : host.clusters()) {
            instance += c.entry().type() == ClusterType.INSTANCE ? 1 : 0;
        }
        return List.of(new Sample(List.of("cluster_type", "instance"), Long.toString(instance)),
                new Sample(List.of("cluster_type", "process"), Long.toString(host.clusters().size() - instance)));
    }

    /** Label values pass through the one printable rule, then escape backslash, quote and line feed. */
    private static void labelPairs(StringBuilder out, List<String> pairs) {
        for (int i = 0; i < pairs.size(); i += 2) {
            out.append(i > 0 ? "," : "").append(pairs.get(i)).append("=\"");
            String value = Text.printable(pairs.get(i + 1));
            for (int k = 0; k < value.length(); k++) {
                char c = value.charAt(k);
                switch (c) {
                    case '\\' -> out.append("\\\\");
                    case '"' -> out.append("\\\"");
                    case '\n' -> out.append("\\n");
                    default -> out.append(c);
                }
            }
            out.append('"');
        }
    }
}
