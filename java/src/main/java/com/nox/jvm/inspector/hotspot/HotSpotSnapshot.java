package com.nox.jvm.inspector.hotspot;

import com.nox.jvm.inspector.cluster.MalformedRecordException;

import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Optional;

/**
 * Every HotSpot VM of the host as one pass read them: each performance-data file copied once
 * (also those of VMs in containers, found through their own /tmp), and the processes that map
 * libjvm.so without publishing one. Both lists are ordered by pid; a pid is in at most one.
 *
 * @param vms             the figures of every live VM whose file the caller may read
 * @param withoutPerfData the VMs that publish no performance data the caller may read
 */
public record HotSpotSnapshot(List<HotSpotFigures> vms, List<VmWithoutPerfData> withoutPerfData) {

    public HotSpotSnapshot {
        vms = List.copyOf(vms);
        withoutPerfData = List.copyOf(withoutPerfData);
    }

    /** The figures of the VM with this (host) pid. */
    public Optional<HotSpotFigures> figures(int pid) {
        return vms.stream().filter(f -> f.pid() == pid).findFirst();
    }

    /** The VM with this (host) pid among those without performance data. */
    public Optional<VmWithoutPerfData> withoutPerfData(int pid) {
        return withoutPerfData.stream().filter(v -> v.pid() == pid).findFirst();
    }

    /** Layout: per VM int 1 and its figures, per VM without performance data int 2 and its record, int 0. */
    static HotSpotSnapshot decode(byte[] record) {
        RecordReader in = new RecordReader(record);
        List<HotSpotFigures> vms = new ArrayList<>();
        List<VmWithoutPerfData> without = new ArrayList<>();
        for (int tag = in.readInt(); tag != 0; tag = in.readInt()) {
            switch (tag) {
                case 1 -> vms.add(HotSpotFigures.read(in));
                case 2 -> without.add(VmWithoutPerfData.read(in));
                default -> throw new MalformedRecordException("host pass record of kind " + tag);
            }
        }
        in.expectEnd();
        vms.sort(Comparator.comparingInt(HotSpotFigures::pid));
        without.sort(Comparator.comparingInt(VmWithoutPerfData::pid));
        return new HotSpotSnapshot(vms, without);
    }
}
