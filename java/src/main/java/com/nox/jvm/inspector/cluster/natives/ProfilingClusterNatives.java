package com.nox.jvm.inspector.cluster.natives;

import com.nox.jvm.inspector.natives.NativeLibrary;

/**
 * The native methods that list the clusters of VMs on this host, read what each VM publishes
 * in its control area and raise requests in it. Records come back as big-endian byte arrays;
 * the record classes of {@code com.nox.jvm.inspector.cluster} decode them. A cluster is named
 * by its type (1 process, 2 instance) and id, a VM by its slot index in the cluster.
 * Failures are results, never exceptions: -1, false or null.
 */
public final class ProfilingClusterNatives {
    static {
        NativeLibrary.load();
    }

    private ProfilingClusterNatives() {
    }

    /** Cluster list record: int count, then per cluster boolean attachable, int type, int id. */
    public static native byte[] getClusterInfo0();

    /** The VM id of the VM in the slot, or -1. */
    public static native int getUniqueId0(int clusterType, int clusterId, int vmIndex);

    /** The number of slots of instance cluster {@code clusterId}, or -1. */
    public static native int getMaxVms0(int clusterId);

    /** True when the slot holds a VM whose process is alive. */
    public static native boolean isValidVm0(int clusterType, int clusterId, int vmIndex);

    /** Debugging record, or null. */
    public static native byte[] getVmDebugInfo0(int clusterType, int clusterId, int vmIndex);

    /** Raises the start-debugging request; true when raised (the VM acts on it later). */
    public static native boolean startDebug0(int clusterType, int clusterId, int vmIndex, int suspend);

    /** Raises the stop-debugging request; true when raised. */
    public static native boolean stopDebug0(int clusterType, int clusterId, int vmIndex);

    /** Raises the exit request with the given exit code; true when raised. */
    public static native boolean exit0(int clusterType, int clusterId, int vmIndex, int exitCode);

    /** State record (16 bytes), or null. */
    public static native byte[] getVmStateInfo0(int clusterType, int clusterId, int vmIndex);

    /** Detailed record of instance cluster {@code clusterId}, or null. */
    public static native byte[] getClusterDetailedInfo0(int clusterId);

    /** Start record (version, directory, flags, arguments, tag, main class, two booleans), or null. */
    public static native byte[] getVmStartInfo0(int clusterType, int clusterId, int vmIndex);

    /** Time record (32 bytes: total, system, user, processing), or null. */
    public static native byte[] getVmTimeInfo0(int clusterType, int clusterId, int vmIndex);

    /** Memory record (308 bytes), or null. */
    public static native byte[] getVmMemoryInfo0(int clusterType, int clusterId, int vmIndex);

    /**
     * The whole host in one call: every running cluster and every live VM's start, time, memory
     * and debugging records, each process-cluster file read once and each segment attached once.
     * Decoded by {@code com.nox.jvm.inspector.cluster.HostPass}. Null only when the array
     * cannot be allocated.
     */
    public static native byte[] getHostPass0();
}
