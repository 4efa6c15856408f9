package com.nox.jvm.inspector.cluster.natives;

/** The cluster natives as the tool declares them: these and nothing else. */
public final class ProfilingClusterNatives {
    public static native byte[] getClusterInfo0();

    public static native int getUniqueId0(int clusterType, int clusterId, int vmIndex);

    public static native int getMaxVms0(int clusterId);

    public static native boolean isValidVm0(int clusterType, int clusterId, int vmIndex);

    public static native byte[] getVmDebugInfo0(int clusterType, int clusterId, int vmIndex);

    public static native boolean startDebug0(int clusterType, int clusterId, int vmIndex, int suspend);

    public static native boolean stopDebug0(int clusterType, int clusterId, int vmIndex);

    public static native boolean exit0(int clusterType, int clusterId, int vmIndex, int exitCode);

    public static native byte[] getVmStateInfo0(int clusterType, int clusterId, int vmIndex);

    public static native byte[] getClusterDetailedInfo0(int clusterId);

    public static native byte[] getVmStartInfo0(int clusterType, int clusterId, int vmIndex);

    public static native byte[] getVmTimeInfo0(int clusterType, int clusterId, int vmIndex);

    public static native byte[] getVmMemoryInfo0(int clusterType, int clusterId, int vmIndex);
}
