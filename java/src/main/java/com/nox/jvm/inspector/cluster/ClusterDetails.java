package com.nox.jvm.inspector.cluster;

import java.util.ArrayList;
import java.util.List;

/** The slots of an instance cluster and its live VMs, from the detailed cluster record. */
public record ClusterDetails(int maxVms, List<LiveVm> liveVms) {

    /** One live slot: its index, the VM's pid and its VM id. */
    public record LiveVm(int slot, int pid, int vmId) {
    }

    /** Decodes: int slot count, then (slot, pid, vm id) per live slot, then the end mark -1. */
    public static ClusterDetails decode(byte[] record) {
        RecordReader in = new RecordReader(record);
        int maxVms = in.readInt();
        List<LiveVm> live = new ArrayList<>();
        for (int slot = in.readInt(); slot != -1; slot = in.readInt()) {
            live.add(new LiveVm(slot, in.readInt(), in.readInt()));
        }
        in.expectEnd();
        return new ClusterDetails(maxVms, List.copyOf(live));
    }
}
