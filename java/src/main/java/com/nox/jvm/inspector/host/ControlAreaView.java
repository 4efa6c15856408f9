package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.cluster.ClusterEntry;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmRef;

/**
 * What a VM's control area says of it: its cluster, its slot's records as one host pass read
 * them, and who owns the control area (the process-cluster file's or the segment's owner).
 *
 * @param cluster  the cluster entry the slot belongs to
 * @param figures  the slot's VM and records
 * @param ownerUid owner of the control area, -1 when it could not be told
 */
public record ControlAreaView(ClusterEntry cluster, HostPass.VmFigures figures, int ownerUid) {

    public VmRef ref() {
        return figures.vm().ref();
    }

    public int pid() {
        return figures.vm().pid();
    }

    public int vmId() {
        return figures.vm().vmId();
    }
}
