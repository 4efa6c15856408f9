package com.nox.jvm.inspector.hotspot;

import java.util.Comparator;
import java.util.List;
import java.util.Optional;

/**
 * The host's HotSpot VMs, read natively from their performance-data files: no agent, no attach,
 * nothing asked of the VM. Every call reads the files afresh. VMs in containers (their own pid
 * and mount namespaces) are included, under the host's pid. A VM that is not there (no such
 * process, a file the caller may not read, a VM started with -XX:-UsePerfData, a VM that has
 * ended) gives an empty result; {@link #snapshot()} also lists the VMs without performance data.
 */
public final class HotSpotInspector {

    /**
     * Every VM of the host in one pass: the figures that {@link #vms()} and {@link #figures(int)}
     * give, with each file read once, and the VMs that publish no performance data. What a
     * scrape or a model of the host should call.
     */
    public HotSpotSnapshot snapshot() {
        byte[] record = HotSpotNatives.getHostPass0();
        if (record == null) {
            throw new OutOfMemoryError("no room for the HotSpot host pass");
        }
        return HotSpotSnapshot.decode(record);
    }

    /** The live VMs whose files the caller may read, by pid. */
    public List<HotSpotVm> vms() {
        byte[] record = HotSpotNatives.listVms0();
        if (record == null) {
            throw new OutOfMemoryError("no room for the list of HotSpot VMs");
        }
        List<HotSpotVm> vms = new java.util.ArrayList<>(HotSpotVm.decodeList(record));
        vms.sort(Comparator.comparingInt(HotSpotVm::pid));
        return vms;
    }

    public Optional<HotSpotFigures> figures(int pid) {
        byte[] record = HotSpotNatives.getVm0(pid);
        return record == null ? Optional.empty() : Optional.of(HotSpotFigures.decode(record));
    }

    /** Every counter of the VM, in the VM's order. */
    public Optional<List<PerfCounter>> counters(int pid) {
        byte[] record = HotSpotNatives.getCounters0(pid);
        return record == null ? Optional.empty() : Optional.of(PerfCounter.decodeList(record));
    }

    /** One counter by its name. */
    public Optional<PerfCounter> counter(int pid, String name) {
        byte[] record = HotSpotNatives.getCounter0(pid, name);
        return record == null ? Optional.empty() : Optional.of(PerfCounter.decode(record));
    }
}
