package com.nox.jvm.agent;

import static com.nox.jvm.agent.ControlAreaLayout.*;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;

/**
 * Writes this VM's facts into a control-area block (64-bit layout, one slot) held in a byte
 * buffer whose order is the processor's: the image that {@link PublishedArea} copies into the
 * file. The header and the slot's eyecatcher are written last.
 */
final class ControlAreaWriter {
    /** The facts that do not change while the VM runs. */
    record Identity(int pid, int vmId, String vmVersion, String vmArgs, String vmFlags, String javaArgs,
                    String workDir, String tag, String mainClass) {
    }

    /**
     * The ranges that {@link #refresh} writes, as pairs of offset and length from the start of
     * the block: the cluster's heap entries and the slot's figures. None holds a request flag or
     * a field that requesters write.
     */
    static final int[] REFRESHED = {
        I_HEAP_SIZE, I_HEAP_SIZE_ALLOCATED_PEAK + 8 - I_HEAP_SIZE,
        INSTANCE_AREA_SIZE + V_COMMITTED_JAVA_HEAP, V_PROCESSING_TIME + 8 - V_COMMITTED_JAVA_HEAP,
        INSTANCE_AREA_SIZE + V_NUMBER_OF_GCS, V_NUMBER_OF_FULL_GCS + 8 - V_NUMBER_OF_GCS,
        INSTANCE_AREA_SIZE + V_DURATION_OF_GCS, 8,
        INSTANCE_AREA_SIZE + V_DURATION_OF_FULL_GCS, V_DURATION_OF_CONCURRENT_GCS + 8 - V_DURATION_OF_FULL_GCS,
        INSTANCE_AREA_SIZE + V_OLD_GEN_USAGE_AFTER_GC, V_MAX_PERM_GEN_SIZE + 8 - V_OLD_GEN_USAGE_AFTER_GC,
    };

    private final ByteBuffer block;
    private long heapCommittedPeak;
    private long heapUsedPeak;

    /** {@code block} starts at the block (after the file's lead-in) and holds at least BLOCK_SIZE bytes. */
    ControlAreaWriter(ByteBuffer block) {
        if (block.capacity() < BLOCK_SIZE) {
            throw new IllegalArgumentException("a block needs " + BLOCK_SIZE + " bytes, not " + block.capacity());
        }
        this.block = block;
    }

    /** Writes everything a reader needs and then makes the block and the slot visible. */
    void publish(Identity id, MxReadings.Figures figures) {
        int vm = INSTANCE_AREA_SIZE;
        block.putInt(I_UNIQUE_ID, id.vmId() + 1);
        block.putInt(I_ATTACH_COUNT, 1);
        block.putLong(I_SHARED_POOL_SIZE, 0);
        block.putInt(vm + V_PID, id.pid());
        block.putInt(vm + V_VM_INDEX, 0);
        block.putInt(vm + V_VM_ID, id.vmId());
        block.putInt(vm + V_CURRENT_DEBUG_PORT, -1);
        block.putInt(vm + V_DEBUGGING_STATE, DEBUGGING_NOT_ACTIVE);
        block.putInt(vm + V_FROM_PORT, -1);
        block.putInt(vm + V_TO_PORT, -1);
        // A stock VM cannot start a debugger after it has started.
        block.put(vm + V_CAN_DEBUG_ON_DEMAND, (byte) 0);
        block.put(vm + V_HAS_METASPACE, (byte) 1);
        block.put(vm + V_RUN_WITH_MONITORING_BOARD, (byte) 0);
        text(vm + V_VM_VERSION, VERSION, id.vmVersion());
        text(vm + V_VM_ARGS, ARGUMENT, id.vmArgs());
        text(vm + V_VM_FLAGS, ARGUMENT, id.vmFlags());
        text(vm + V_VM_JAVA_ARGS, ARGUMENT, id.javaArgs());
        text(vm + V_VM_WORK_DIR, PATH, id.workDir());
        text(vm + V_VM_TAG, VM_TAG, id.tag());
        text(vm + V_JAR_MAIN_CLASS, ARGUMENT, id.mainClass());
        refresh(figures);
        block.putInt(vm + V_EYECATCHER, VM_EYECATCHER);
        block.putInt(H_VERSION, VERSION_64);
        block.putInt(H_MAX_VM_NR, 1);
        block.putLong(H_INSTANCE_AREA_SIZE, INSTANCE_AREA_SIZE);
        block.putLong(H_VM_AREA_SIZE, VM_AREA_SIZE);
        block.putInt(H_EYECATCHER, INSTANCE_EYECATCHER);
    }

    /** Writes the figures that change. */
    void refresh(MxReadings.Figures f) {
        int vm = INSTANCE_AREA_SIZE;
        heapCommittedPeak = Math.max(heapCommittedPeak, f.heapCommitted);
        heapUsedPeak = Math.max(heapUsedPeak, f.heapUsed);
        // The heap as the one entry of the cluster's memory: committed, in use, and their peaks.
        block.putLong(I_HEAP_SIZE, f.heapCommitted);
        block.putLong(I_HEAP_SIZE_ALLOCATED, f.heapUsed);
        block.putLong(I_HEAP_SIZE_PEAK, heapCommittedPeak);
        block.putLong(I_HEAP_SIZE_ALLOCATED_PEAK, heapUsedPeak);
        block.putLong(vm + V_COMMITTED_JAVA_HEAP, f.heapCommitted);
        block.putLong(vm + V_COMMITTED_CLASS_POOL, f.metaspaceCommitted);
        block.putLong(vm + V_COMMITTED_CODE_CACHE, f.codeCacheCommitted);
        block.putLong(vm + V_MAX_OLD_GEN_SIZE, Math.max(0, f.heapMax));
        block.putLong(vm + V_MAX_PERM_GEN_SIZE, Math.max(0, f.metaspaceMax));
        block.putLong(vm + V_OLD_GEN_USAGE_AFTER_GC, f.oldGenUsedAfterGc);
        block.putLong(vm + V_NUMBER_OF_GCS, f.gcCount);
        block.putLong(vm + V_NUMBER_OF_FULL_GCS, f.fullGcCount);
        block.putLong(vm + V_DURATION_OF_GCS, f.gcMillis);
        block.putLong(vm + V_DURATION_OF_FULL_GCS, f.fullGcMillis);
        block.putLong(vm + V_DURATION_OF_CONCURRENT_GCS, f.concurrentGcMillis);
        block.putLong(vm + V_SYSTEM_TIME, f.systemMillis);
        block.putLong(vm + V_USER_TIME, f.userMillis);
        block.putLong(vm + V_PROCESSING_TIME, f.processCpuMillis);
    }

    /**
     * A text into a field of {@code capacity} bytes: UTF-8, cut at a character boundary when it
     * is longer, NUL-terminated when shorter; the rest of the field is zeroed.
     */
    void text(int offset, int capacity, String value) {
        byte[] bytes = (value == null ? "" : value).getBytes(StandardCharsets.UTF_8);
        int length = Math.min(bytes.length, capacity);
        while (length < bytes.length && length > 0 && (bytes[length] & 0xC0) == 0x80) {
            length--;  // do not end inside a multi-byte character
        }
        for (int i = 0; i < capacity; i++) {
            block.put(offset + i, i < length ? bytes[i] : 0);
        }
    }

}
