package com.nox.jvm.inspector.hotspot;

import java.util.ArrayList;
import java.util.List;

/**
 * What a HotSpot VM publishes about itself, from one copy of its performance counters. Numbers
 * the VM does not publish are -1; texts it does not publish are empty.
 *
 * @param pid                 the VM's process, as this host numbers it
 * @param uid                 its owner
 * @param user                the owner's name
 * @param javaCommand         main class or jar, then the program's arguments (sun.rt.javaCommand)
 * @param vmName              java.vm.name
 * @param vmVersion           java.vm.version
 * @param vmVendor            java.vm.vendor
 * @param vmArguments         the VM's arguments (java.rt.vmArgs)
 * @param vmFlags             the flags read from a flags file (java.rt.vmFlags)
 * @param gcPolicy            the collector policy (sun.gc.policy.name)
 * @param beginMillis         when the VM began, milliseconds since the epoch
 * @param initDoneMillis      when it had finished starting
 * @param tickFrequency       ticks per second of the VM's clock
 * @param uptimeTicks         ticks since the VM began
 * @param heapUsed            bytes in use in all generations' spaces
 * @param heapCommitted       bytes committed to all generations
 * @param heapMax             the most the generations may grow to
 * @param metaspaceUsed       metaspace in use
 * @param metaspaceCommitted  metaspace committed
 * @param metaspaceMax        metaspace limit
 * @param classesLoaded       classes loaded so far
 * @param classesUnloaded     classes unloaded so far
 * @param threadsLive         live Java threads
 * @param threadsPeak         most live threads at once
 * @param threadsDaemon       live daemon threads
 * @param threadsStarted      threads started so far
 * @param collectors          the garbage collectors, in the VM's order
 * @param namespacePid        the pid the VM knows itself by (in a container, the container's pid;
 *                            {@code pid} elsewhere)
 * @param processStartSeconds when the VM's process started, seconds since the epoch; 0 when unknown
 * @param pools               the memory pools, one per {@link HotSpotPool.Kind} in its order (empty
 *                            for figures made by hand)
 */
public record HotSpotFigures(int pid, int uid, String user, String javaCommand, String vmName, String vmVersion,
                             String vmVendor, String vmArguments, String vmFlags, String gcPolicy, long beginMillis,
                             long initDoneMillis, long tickFrequency, long uptimeTicks, long heapUsed,
                             long heapCommitted, long heapMax, long metaspaceUsed, long metaspaceCommitted,
                             long metaspaceMax, long classesLoaded, long classesUnloaded, long threadsLive,
                             long threadsPeak, long threadsDaemon, long threadsStarted,
                             List<GcCollector> collectors, int namespacePid, long processStartSeconds,
                             List<HotSpotPool> pools) {

    public HotSpotFigures {
        collectors = List.copyOf(collectors);
        pools = List.copyOf(pools);
    }

    /** Figures made by hand (tests, tools) of a VM outside any container, its process start unknown. */
    public HotSpotFigures(int pid, int uid, String user, String javaCommand, String vmName, String vmVersion,
                          String vmVendor, String vmArguments, String vmFlags, String gcPolicy, long beginMillis,
                          long initDoneMillis, long tickFrequency, long uptimeTicks, long heapUsed,
                          long heapCommitted, long heapMax, long metaspaceUsed, long metaspaceCommitted,
                          long metaspaceMax, long classesLoaded, long classesUnloaded, long threadsLive,
                          long threadsPeak, long threadsDaemon, long threadsStarted, List<GcCollector> collectors) {
        this(pid, uid, user, javaCommand, vmName, vmVersion, vmVendor, vmArguments, vmFlags, gcPolicy, beginMillis,
                initDoneMillis, tickFrequency, uptimeTicks, heapUsed, heapCommitted, heapMax, metaspaceUsed,
                metaspaceCommitted, metaspaceMax, classesLoaded, classesUnloaded, threadsLive, threadsPeak,
                threadsDaemon, threadsStarted, collectors, pid, 0, List.of());
    }

    /** A pool's figures; all -1 when the VM publishes none. */
    public HotSpotPool pool(HotSpotPool.Kind kind) {
        return pools.stream().filter(p -> p.kind() == kind).findFirst().orElse(new HotSpotPool(kind, -1, -1, -1));
    }

    /** The main class or the jar: the first word of the command. */
    public String mainClass() {
        return firstWord(javaCommand);
    }

    /** Seconds since the VM began, from its own clock; -1 when not published. */
    public double uptimeSeconds() {
        return tickFrequency > 0 && uptimeTicks >= 0 ? (double) uptimeTicks / tickFrequency : -1;
    }

    /** All collections so far, of every collector. */
    public long gcCount() {
        return collectors.stream().mapToLong(c -> Math.max(0, c.invocations())).sum();
    }

    /** Their total time in seconds; -1 when the frequency is not published. */
    public double gcSeconds() {
        return tickFrequency > 0 ? collectors.stream().mapToDouble(c -> Math.max(0, c.timeSeconds())).sum() : -1;
    }

    static String firstWord(String command) {
        String trimmed = command.strip();
        int blank = trimmed.indexOf(' ');
        return blank < 0 ? trimmed : trimmed.substring(0, blank);
    }

    /** True when the VM runs in a pid namespace of its own (a container). */
    public boolean inContainer() {
        return namespacePid != pid;
    }

    /** Decodes the figures record of one VM. */
    static HotSpotFigures decode(byte[] record) {
        RecordReader in = new RecordReader(record);
        HotSpotFigures figures = read(in);
        in.expectEnd();
        return figures;
    }

    /**
     * Reads one figures record: pid, namespace pid, uid, then the texts and numbers in the order of
     * the components above, the process start, the collectors (count, then each) and the pools
     * (used, committed and max of each kind in its order).
     */
    static HotSpotFigures read(RecordReader in) {
        int pid = in.readInt();
        int namespacePid = in.readInt();
        int uid = in.readInt();
        String user = in.readString();
        String javaCommand = in.readString();
        String vmName = in.readString();
        String vmVersion = in.readString();
        String vmVendor = in.readString();
        String vmArguments = in.readString();
        String vmFlags = in.readString();
        String gcPolicy = in.readString();
        long[] n = new long[16];
        for (int i = 0; i < n.length; i++) {
            n[i] = in.readLong();
        }
        long processStart = in.readLong();
        long frequency = n[2];
        int count = in.readInt();
        if (count < 0 || count > 64) {
            throw new com.nox.jvm.inspector.cluster.MalformedRecordException("collector count " + count);
        }
        List<GcCollector> collectors = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            String name = in.readString();
            long invocations = in.readLong();
            long time = in.readLong();
            long lastEntry = in.readLong();
            long lastExit = in.readLong();
            double seconds = frequency > 0 && time >= 0 ? (double) time / frequency : -1;
            collectors.add(new GcCollector(name, invocations, time, seconds, lastEntry, lastExit));
        }
        List<HotSpotPool> pools = new ArrayList<>();
        for (HotSpotPool.Kind kind : HotSpotPool.Kind.values()) {
            pools.add(new HotSpotPool(kind, in.readLong(), in.readLong(), in.readLong()));
        }
        return new HotSpotFigures(pid, uid, user, javaCommand, vmName, vmVersion, vmVendor, vmArguments, vmFlags,
                gcPolicy, n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7], n[8], n[9], n[10], n[11], n[12], n[13],
                n[14], n[15], collectors, namespacePid, processStart, pools);
    }
}
