package com.nox.jvm.agent;

import com.sun.management.HotSpotDiagnosticMXBean;
import com.sun.management.VMOption;

import java.lang.management.ManagementFactory;
import java.util.List;
import java.util.StringJoiner;

/**
 * The VM's flags that differ from their defaults (set on the command line or chosen by the VM's
 * ergonomics), written as the VM prints them: "-XX:+UseSerialGC -XX:MaxHeapSize=67108864".
 * Asked one by one of the HotSpot diagnostic MXBean for the flags a user looks for first (the
 * collector, heap and code sizes, compiler and thread counts): the diagnostic command that would
 * list them all needs the platform MBean server, which costs a VM some 60 ms of CPU to start.
 */
final class VmFlags {
    static final List<String> NAMES = List.of(
            "UseSerialGC", "UseParallelGC", "UseG1GC", "UseZGC", "UseShenandoahGC", "UseEpsilonGC",
            "InitialHeapSize", "MinHeapSize", "MaxHeapSize", "SoftMaxHeapSize", "MaxNewSize", "NewSize",
            "MaxRAMPercentage", "InitialRAMPercentage", "MaxMetaspaceSize", "MetaspaceSize",
            "CompressedClassSpaceSize", "ReservedCodeCacheSize", "ThreadStackSize", "MaxDirectMemorySize",
            "UseCompressedOops", "UseCompressedClassPointers", "MaxGCPauseMillis", "G1HeapRegionSize",
            "ParallelGCThreads", "ConcGCThreads", "CICompilerCount", "TieredCompilation", "TieredStopAtLevel",
            "UseContainerSupport", "ActiveProcessorCount", "UseNUMA", "UseLargePages", "AlwaysPreTouch",
            "HeapDumpOnOutOfMemoryError", "ExitOnOutOfMemoryError", "DisableAttachMechanism", "UsePerfData",
            "UseStringDeduplication", "ExplicitGCInvokesConcurrent", "DisableExplicitGC");

    private VmFlags() {
    }

    static String nonDefault() {
        HotSpotDiagnosticMXBean hotspot;
        try {
            hotspot = ManagementFactory.getPlatformMXBean(HotSpotDiagnosticMXBean.class);
        } catch (RuntimeException | LinkageError e) {
            return "";  // not a HotSpot VM: the field stays empty
        }
        if (hotspot == null) {
            return "";
        }
        StringJoiner flags = new StringJoiner(" ");
        for (String name : NAMES) {
            VMOption option;
            try {
                option = hotspot.getVMOption(name);
            } catch (IllegalArgumentException e) {
                continue;  // a flag this VM does not have
            }
            if (option.getOrigin() != VMOption.Origin.DEFAULT) {
                flags.add(format(option.getName(), option.getValue()));
            }
        }
        return flags.toString();
    }

    static String format(String name, String value) {
        return switch (value) {
            case "true" -> "-XX:+" + name;
            case "false" -> "-XX:-" + name;
            default -> "-XX:" + name + "=" + value;
        };
    }
}
