package com.nox.jvm.inspector.cluster;

import com.nox.jvm.inspector.cluster.VmInspector.Vm;

import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Optional;

/**
 * Everything one pass over the host found: every running cluster and, per live VM, the same
 * start, time, memory and debugging records that the single-VM natives return. Clusters are in
 * a stable order (instance clusters by id, then process clusters by pid), VMs by slot.
 *
 * @param clusters the running clusters
 * @param durationNanos how long the native pass took, decoding not included
 */
public record HostPass(List<Cluster> clusters, long durationNanos) {

    /** The format version this decoder reads. */
    public static final int FORMAT = 1;

    /** One running cluster: its list entry, its block's version word, its slot count and live VMs. */
    public record Cluster(ClusterEntry entry, int version, int slots, List<VmFigures> vms) {
    }

    /**
     * One live VM and its records; a record the pass could not make is empty.
     *
     * @param processStart start of the VM's process in seconds since the epoch, 0 when unknown
     */
    public record VmFigures(Vm vm, long processStart, Optional<VmStartInfo> start, Optional<VmTimeInfo> time,
                            Optional<VmMemoryInfo> memory, Optional<VmDebugInfo> debug) {
    }

    /** Every live VM of the pass, in cluster order and then slot order. */
    public List<VmFigures> vms() {
        List<VmFigures> all = new ArrayList<>();
        for (Cluster cluster : clusters) {
            all.addAll(cluster.vms());
        }
        return all;
    }

    /** Decodes the stream of one pass (see the native side's hostPass.h for its layout). */
    public static HostPass decode(byte[] stream, long durationNanos) {
        RecordReader in = new RecordReader(stream);
        int format = in.readInt();
        if (format != FORMAT) {
            throw new MalformedRecordException("host pass of format " + format + ", this reader knows " + FORMAT);
        }
        List<Cluster> clusters = new ArrayList<>();
        for (int typeCode = in.readInt(); typeCode != 0; typeCode = in.readInt()) {
            ClusterType type = ClusterType.of(typeCode);
            int id = in.readInt();
            boolean attachable = in.readBoolean();
            int version = in.readInt();
            int slots = in.readInt();
            List<VmFigures> vms = new ArrayList<>();
            for (int slot = in.readInt(); slot != -1; slot = in.readInt()) {
                if (slot < 0) {
                    throw new MalformedRecordException("negative slot " + slot + " in the host pass");
                }
                int pid = in.readInt();
                int vmId = in.readInt();
                long processStart = in.readLong();
                Optional<VmStartInfo> start = framed(in).map(VmStartInfo::decode);
                Optional<VmTimeInfo> time = framed(in).map(VmTimeInfo::decode);
                Optional<VmMemoryInfo> memory = framed(in).map(VmMemoryInfo::decode);
                Optional<VmDebugInfo> debug = framed(in).map(VmDebugInfo::decode);
                vms.add(new VmFigures(new Vm(new VmRef(type, id, slot), pid, vmId), processStart, start, time, memory,
                        debug));
            }
            clusters.add(new Cluster(new ClusterEntry(attachable, type, typeCode, id), version, slots, List.copyOf(vms)));
        }
        in.expectEnd();
        // The native side writes this order already; sorting again keeps it whatever the source.
        clusters.sort(Comparator.comparingInt((Cluster c) -> c.entry().typeCode() == 2 ? 0 : 1)
                .thenComparingInt(c -> c.entry().typeCode()).thenComparingInt(c -> c.entry().id()));
        return new HostPass(List.copyOf(clusters), durationNanos);
    }

    private static Optional<byte[]> framed(RecordReader in) {
        int length = in.readInt();
        if (length == -1) {
            return Optional.empty();
        }
        return Optional.of(in.readBytes(length));
    }
}
