package com.nox.jvm.inspector.cluster;

/** How a cluster publishes its control area. */
public enum ClusterType {
    /** Not known. */
    UNKNOWN(0),
    /** One VM whose control area is its own file under /tmp; the cluster id is its pid. */
    PROCESS(1),
    /** Several VMs sharing one System V segment; the cluster id selects the segment. */
    INSTANCE(2);

    private final int code;

    ClusterType(int code) {
        this.code = code;
    }

    public int code() {
        return code;
    }

    public static ClusterType of(int code) {
        for (ClusterType type : values()) {
            if (type.code == code) {
                return type;
            }
        }
        return UNKNOWN;
    }
}
