package com.nox.jvm.inspector.cluster;

/** One VM slot: the cluster's type and id, and the slot index in the cluster. */
public record VmRef(ClusterType type, int clusterId, int slot) {
    @Override
    public String toString() {
        return "slot " + slot + " of " + type.name().toLowerCase() + " cluster " + clusterId;
    }
}
