package com.nox.jvm.agent;

import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;
import java.lang.management.MemoryPoolMXBean;
import java.lang.management.MemoryType;
import java.lang.management.MemoryUsage;
import java.util.ArrayList;
import java.util.List;

/**
 * The changing figures of this VM as its platform MXBeans report them, read once per refresh.
 * Collectors are sorted by their names into young, full (old-generation) and concurrent ones,
 * since the control area has one counter of each kind rather than one per collector.
 */
final class MxReadings {
    /** One refresh's figures; sizes in bytes, times in milliseconds, -1 where nothing is known. */
    static final class Figures {
        long heapCommitted;
        long heapUsed;
        long heapMax;
        long metaspaceCommitted;
        long metaspaceMax;
        long codeCacheCommitted;
        long oldGenUsedAfterGc;
        long gcCount;
        long fullGcCount;
        long gcMillis;
        long fullGcMillis;
        long concurrentGcMillis;
        long processCpuMillis;
        long userMillis;
        long systemMillis;
    }

    /** How a collector's counts are added up. */
    enum Kind { YOUNG, FULL, CONCURRENT }

    private final java.lang.management.MemoryMXBean memory = ManagementFactory.getMemoryMXBean();
    private final List<GarbageCollectorMXBean> collectors = ManagementFactory.getGarbageCollectorMXBeans();
    private final List<Kind> kinds = new ArrayList<>();
    private final List<MemoryPoolMXBean> codePools = new ArrayList<>();
    private final MemoryPoolMXBean metaspace;
    private final MemoryPoolMXBean oldGen;
    private final java.lang.management.OperatingSystemMXBean os = ManagementFactory.getOperatingSystemMXBean();
    private final ProcSelf proc;

    MxReadings(ProcSelf proc) {
        this.proc = proc;
        for (GarbageCollectorMXBean collector : collectors) {
            kinds.add(kindOf(collector.getName()));
        }
        MemoryPoolMXBean meta = null;
        MemoryPoolMXBean old = null;
        for (MemoryPoolMXBean pool : ManagementFactory.getMemoryPoolMXBeans()) {
            String name = pool.getName();
            if (pool.getType() == MemoryType.NON_HEAP && (name.startsWith("CodeHeap") || name.equals("Code Cache"))) {
                codePools.add(pool);
            } else if (name.equals("Metaspace")) {
                meta = pool;
            } else if (pool.getType() == MemoryType.HEAP && isOldGeneration(name) && pool.isCollectionUsageThresholdSupported()) {
                old = pool;
            }
        }
        metaspace = meta;
        oldGen = old;
    }

    /**
     * Serial "MarkSweepCompact", Parallel "PS MarkSweep", G1 "G1 Old Generation" collect the old
     * generation (full); "... Cycles" of ZGC and Shenandoah and "G1 Concurrent GC" run beside the
     * application (concurrent); every other collector ("Copy", "PS Scavenge", "G1 Young
     * Generation", "... Pauses") is a young or pause collector.
     */
    static Kind kindOf(String name) {
        if (name.equals("MarkSweepCompact") || name.equals("PS MarkSweep") || name.equals("G1 Old Generation")
                || name.equals("ConcurrentMarkSweep")) {
            return Kind.FULL;
        }
        if (name.endsWith("Cycles") || name.contains("Concurrent")) {
            return Kind.CONCURRENT;
        }
        return Kind.YOUNG;
    }

    static boolean isOldGeneration(String name) {
        return name.contains("Old Gen") || name.equals("Tenured Gen");
    }

    void read(Figures f) {
        MemoryUsage heap = memory.getHeapMemoryUsage();
        f.heapCommitted = heap.getCommitted();
        f.heapUsed = heap.getUsed();
        f.heapMax = heap.getMax();
        if (metaspace != null) {
            MemoryUsage m = metaspace.getUsage();
            f.metaspaceCommitted = m.getCommitted();
            f.metaspaceMax = m.getMax();
        } else {
            f.metaspaceCommitted = -1;
            f.metaspaceMax = -1;
        }
        long code = 0;
        for (MemoryPoolMXBean pool : codePools) {
            code += pool.getUsage().getCommitted();
        }
        f.codeCacheCommitted = codePools.isEmpty() ? -1 : code;
        MemoryUsage afterGc = oldGen == null ? null : oldGen.getCollectionUsage();
        f.oldGenUsedAfterGc = afterGc == null ? 0 : afterGc.getUsed();
        long count = 0;
        long full = 0;
        long millis = 0;
        long fullMillis = 0;
        long concurrentMillis = 0;
        for (int i = 0; i < collectors.size(); i++) {
            GarbageCollectorMXBean collector = collectors.get(i);
            long c = Math.max(0, collector.getCollectionCount());
            long t = Math.max(0, collector.getCollectionTime());
            count += c;
            millis += t;
            switch (kinds.get(i)) {
                case FULL -> {
                    full += c;
                    fullMillis += t;
                }
                case CONCURRENT -> concurrentMillis += t;
                case YOUNG -> {
                }
            }
        }
        f.gcCount = count;
        f.fullGcCount = full;
        f.gcMillis = millis;
        f.fullGcMillis = fullMillis;
        f.concurrentGcMillis = concurrentMillis;
        f.processCpuMillis = os instanceof com.sun.management.OperatingSystemMXBean sun
                ? nanosToMillis(sun.getProcessCpuTime()) : -1;
        ProcSelf.CpuTimes times = proc.cpuTimes();
        f.userMillis = times.userMillis();
        f.systemMillis = times.systemMillis();
    }

    private static long nanosToMillis(long nanos) {
        return nanos < 0 ? -1 : nanos / 1_000_000;
    }

    /** The collectors this VM has, with the kind each is counted as. */
    List<String> collectorKinds() {
        List<String> names = new ArrayList<>();
        for (int i = 0; i < collectors.size(); i++) {
            names.add(collectors.get(i).getName() + "=" + kinds.get(i).name().toLowerCase(java.util.Locale.ROOT));
        }
        return names;
    }
}
