package com.nox.jvm.inspector.hotspot;

import java.util.Map;

/**
 * The names that a HotSpot VM's own GarbageCollectorMXBeans and MemoryPoolMXBeans give to what
 * its performance counters name otherwise, so that a figure read from the counters carries the
 * name a JMX client or a Java metrics library would show for the same thing.
 */
public final class MxBeanNames {
    /**
     * Collectors by their counters' names. G1's young pauses (mixed ones included) are what its
     * "G1 Young Generation" bean counts, its full pauses its "G1 Old Generation", and the pauses of
     * its concurrent cycle (remark and cleanup) what later JDKs count as "G1 Concurrent GC".
     * Shenandoah's and Z's beans count cycles and pauses, which their counters do not split the
     * same way: those keep the counters' names.
     */
    private static final Map<String, String> COLLECTORS = Map.of(
            "G1 young collection pauses", "G1 Young Generation",
            "G1 full collection pauses", "G1 Old Generation",
            "G1 concurrent cycle pauses", "G1 Concurrent GC",
            "Serial young collection pauses", "Copy",
            "Serial full collection pauses", "MarkSweepCompact",
            "Parallel young collection pauses", "PS Scavenge",
            "Parallel full collection pauses", "PS MarkSweep");

    private MxBeanNames() {
    }

    /** The bean's name of the collector with this counters' name; the counters' name when it has none. */
    public static String collector(String countersName) {
        return COLLECTORS.getOrDefault(countersName, countersName);
    }

    /**
     * The bean's name of a pool of this VM; null when the VM's collector does not have the pool
     * or is not known (a pool without a name is not shown under a guessed one).
     */
    public static String pool(HotSpotFigures vm, HotSpotPool.Kind kind) {
        switch (kind) {
            case METASPACE:
                return "Metaspace";
            case CLASS_SPACE:
                return "Compressed Class Space";
            default:
                break;
        }
        String collector = vm.collectors().isEmpty() ? "" : vm.collectors().get(vm.collectors().size() - 1).name();
        String prefix = switch (vm.gcPolicy()) {
            case "GarbageFirst" -> "G1 ";
            case "Copy:MSC" -> "";
            case "ParScav:MSC" -> "PS ";
            default -> null;
        };
        if (prefix != null) {
            return prefix + switch (kind) {
                case EDEN -> "Eden Space";
                case SURVIVOR -> "Survivor Space";
                default -> prefix.equals("") ? "Tenured Gen" : "Old Gen";
            };
        }
        // Collectors of one generation publish no policy name; their heap is one pool.
        if (kind == HotSpotPool.Kind.OLD && collector.startsWith("Shenandoah")) {
            return "Shenandoah";
        }
        return kind == HotSpotPool.Kind.OLD && collector.startsWith("Z ") ? "ZHeap" : null;
    }
}
