package com.nox.jvm.agent;

/**
 * Byte offsets of the control-area block as a 64-bit VM publishes it: the basic header and the
 * instance area (288 bytes) followed by one per-VM area (46072 bytes). Numbers are stored in the
 * processor's own byte order. The file that carries a process cluster's block begins with an
 * 8-byte lead-in before the block.
 */
final class ControlAreaLayout {
    static final int LEAD_IN = 8;

    static final int INSTANCE_EYECATCHER = 0xFADEBABE;
    static final int VM_EYECATCHER = 0xDEADBEEF;
    /** Major 3, minor 17, bit 0 set: the 64-bit layout. */
    static final int VERSION_64 = 0x00060023;

    static final int INSTANCE_AREA_SIZE = 288;
    static final int VM_AREA_SIZE = 46072;
    static final int BLOCK_SIZE = INSTANCE_AREA_SIZE + VM_AREA_SIZE;
    static final int FILE_SIZE = LEAD_IN + BLOCK_SIZE;

    // Basic header and instance area, from the start of the block.
    static final int H_EYECATCHER = 0;
    static final int H_VERSION = 4;
    static final int H_MAX_VM_NR = 8;
    static final int H_INSTANCE_AREA_SIZE = 16;
    static final int H_VM_AREA_SIZE = 24;
    static final int I_UNIQUE_ID = 40;
    static final int I_ATTACH_COUNT = 44;
    static final int I_SHARED_POOL_SIZE = 64;
    /** Five 8-byte entries each; entry 0 is what readers report as the cluster's memory. */
    static final int I_HEAP_SIZE = 72;
    static final int I_HEAP_SIZE_ALLOCATED = 112;
    static final int I_HEAP_SIZE_PEAK = 152;
    static final int I_HEAP_SIZE_ALLOCATED_PEAK = 192;

    // Per-VM area, from its own start.
    static final int V_EYECATCHER = 0;
    static final int V_PID = 112;
    static final int V_VM_INDEX = 116;
    static final int V_VM_ID = 120;
    static final int V_CURRENT_DEBUG_PORT = 124;
    static final int V_DEBUGGING_CLIENT = 128;
    static final int V_DEBUGGING_STATE = 384;
    static final int V_SUSPEND_POLICY = 388;
    static final int V_FROM_PORT = 392;
    static final int V_TO_PORT = 396;
    static final int V_CAN_DEBUG_ON_DEMAND = 400;
    static final int V_REQUESTED_EXIT_CODE = 404;
    static final int V_COMMITTED_JAVA_HEAP = 920;
    static final int V_COMMITTED_CLASS_POOL = 928;
    static final int V_COMMITTED_CODE_CACHE = 936;
    static final int V_SYSTEM_TIME = 944;
    static final int V_USER_TIME = 952;
    static final int V_PROCESSING_TIME = 960;
    static final int V_VM_ARGS = 968;
    static final int V_VM_FLAGS = 5064;
    static final int V_VM_JAVA_ARGS = 9160;
    static final int V_VM_WORK_DIR = 13256;
    static final int V_VM_VERSION = 14280;
    static final int V_NUMBER_OF_GCS = 25072;
    static final int V_NUMBER_OF_FULL_GCS = 25080;
    static final int V_DURATION_OF_GCS = 29216;
    static final int V_DURATION_OF_FULL_GCS = 35664;
    static final int V_DURATION_OF_CONCURRENT_GCS = 35672;
    static final int V_VM_TAG = 35720;
    static final int V_JAR_MAIN_CLASS = 39880;
    static final int V_OLD_GEN_USAGE_AFTER_GC = 46024;
    static final int V_PERM_GEN_USAGE_AFTER_GC = 46032;
    static final int V_MAX_OLD_GEN_SIZE = 46040;
    static final int V_MAX_PERM_GEN_SIZE = 46048;
    static final int V_RUN_WITH_MONITORING_BOARD = 46056;
    static final int V_HAS_METASPACE = 46064;

    // Capacities of the text fields, in bytes.
    static final int ARGUMENT = 4096;
    static final int PATH = 1024;
    static final int VERSION = 256;
    static final int VM_TAG = 64;

    // Debugging states.
    static final int DEBUGGING_NOT_ACTIVE = 1;

    // Request flags: each an int32 of the per-VM area that a requester sets to 1.
    static final int F_START_DEBUGGING = 4;
    static final int F_STOP_DEBUGGING = 8;
    static final int F_DUMP_STACKS = 12;
    static final int F_EXIT = 76;
    static final int F_GC = 80;
    static final int F_MAXIMUM_COMPACTION_GC = 84;

    /** Offsets of every request flag: 4 to 96 in steps of 4, and four that lie further on. */
    static final int[] FLAGS = flagOffsets();

    private static int[] flagOffsets() {
        int[] offsets = new int[28];
        for (int i = 0; i < 24; i++) {
            offsets[i] = 4 + 4 * i;
        }
        offsets[24] = 25092;  // dump code blobs
        offsets[25] = 29204;  // start attach server
        offsets[26] = 29208;  // attach server started
        offsets[27] = 35368;  // enqueue operation
        return offsets;
    }

    private ControlAreaLayout() {
    }
}
