package com.nox.jvm.inspector.cluster;

/**
 * A VM's memory and garbage-collection figures with its cluster's shared memory figures, from
 * the 308-byte memory record. Sizes are in bytes, counts and durations as the VM publishes
 * them. The record's reserved slots (always zero) are skipped.
 */
public record VmMemoryInfo(long committedTotal, long committedJavaHeap, long committedClassPool,
                           long committedCodeCache, long sharedPoolSize, long globalMemory, long globalMemoryAgain,
                           long globalAllocatedMemory, long globalAllocatedMemoryAgain, long globalMemoryPeak,
                           long numberOfGcs, long numberOfFullGcs, long durationOfGcs, long durationOfFullGcs,
                           long durationOfConcurrentGcs, long workTimeOfGcs, long workTimeOfFullGcs,
                           int javaHeapMemoryShortages, int permGenMemoryShortages, int gcSpinningDueToJavaHeap,
                           int gcSpinningDueToPermGen, int outOfMemoryErrorCount, long oldGenUsageAfterGc,
                           long permGenUsageAfterGc, long maxOldGenSize, long maxPermGenSize) {

    public static final int RECORD_LENGTH = 308;

    public static VmMemoryInfo decode(byte[] record) {
        if (record == null || record.length != RECORD_LENGTH) {
            throw new MalformedRecordException("memory record of " + (record == null ? "no" : record.length)
                    + " bytes, expected " + RECORD_LENGTH);
        }
        RecordReader in = new RecordReader(record);
        skip(in, 5);
        long total = in.readLong();
        long heap = in.readLong();
        long classPool = in.readLong();
        long codeCache = in.readLong();
        skip(in, 1);
        long sharedPool = in.readLong();
        long global = in.readLong();
        skip(in, 2);
        long globalAgain = in.readLong();
        skip(in, 1);
        long allocated = in.readLong();
        skip(in, 2);
        long allocatedAgain = in.readLong();
        skip(in, 3);
        long peak = in.readLong();
        skip(in, 1);
        VmMemoryInfo info = new VmMemoryInfo(total, heap, classPool, codeCache, sharedPool, global, globalAgain,
                allocated, allocatedAgain, peak, in.readLong(), in.readLong(), in.readLong(), in.readLong(),
                in.readLong(), in.readLong(), in.readLong(), in.readInt(), in.readInt(), in.readInt(), in.readInt(),
                in.readInt(), in.readLong(), in.readLong(), in.readLong(), in.readLong());
        in.expectEnd();
        return info;
    }

    private static void skip(RecordReader in, int reservedLongs) {
        for (int i = 0; i < reservedLongs; i++) {
            in.readLong();
        }
    }
}
