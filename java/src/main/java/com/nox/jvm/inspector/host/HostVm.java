package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import java.util.Optional;

/**
 * One Java VM of the host: its process, what its control area says (if it publishes one) and what
 * its performance data says (if it publishes that), with the facts both publish chosen once by
 * {@link MergeRule}. Made with {@link #of}.
 *
 * @param pid         the VM's process
 * @param startTime   the process's start in seconds since the epoch, 0 when unknown
 * @param uid         the process's owner, -1 when unknown
 * @param user        the owner's name, or the uid as text when it has no name ("" when unknown)
 * @param controlArea the control-area view
 * @param hotspot     the performance-data view
 * @param version     the VM's version text ("" when neither source publishes one)
 * @param mainClass   the main class, jar or module/class ("" when unknown)
 * @param heap        the Java heap
 */
public record HostVm(int pid, long startTime, int uid, String user, Optional<ControlAreaView> controlArea,
                     Optional<HotSpotFigures> hotspot, String version, String mainClass, Heap heap) {

    /** The name of the source a VM known only by its performance data is listed under. */
    public static final String HOTSPOT = "hotspot";
    public static final String CONTROL_AREA = "control-area";

    /**
     * Tells one VM from another across snapshots: its process (pid and start) and, when it has
     * one, its control area's slot. A VM that gains or loses its control area keeps pid and start.
     */
    public record Key(int pid, long startTime, VmRef controlArea) {
    }

    public HostVm {
        Objects.requireNonNull(controlArea);
        Objects.requireNonNull(hotspot);
        if (controlArea.isEmpty() && hotspot.isEmpty()) {
            throw new IllegalArgumentException("a VM of the host has at least one source");
        }
    }

    /** The record of a VM with the merged facts of its sources (at least one of them non-null). */
    public static HostVm of(int pid, long startTime, int uid, String user, ControlAreaView controlArea,
                            HotSpotFigures hotspot) {
        Optional<ControlAreaView> area = Optional.ofNullable(controlArea);
        Optional<HotSpotFigures> perf = Optional.ofNullable(hotspot);
        return new HostVm(pid, startTime, uid, user, area, perf, MergeRule.version(area, perf),
                MergeRule.mainClass(area, perf), MergeRule.heap(area, perf));
    }

    public Key key() {
        return new Key(pid, startTime, ref().orElse(null));
    }

    /** "control-area", "hotspot", or both in that order. */
    public List<String> sources() {
        List<String> sources = new ArrayList<>(2);
        controlArea.ifPresent(c -> sources.add(CONTROL_AREA));
        hotspot.ifPresent(h -> sources.add(HOTSPOT));
        return sources;
    }

    public Optional<VmRef> ref() {
        return controlArea.map(ControlAreaView::ref);
    }

    /**
     * True when the VM publishes a control area and the process's owner owns it: only then is it
     * the VM's own, and only then may a request be put into it. A control area of another user
     * that names this process is not.
     */
    public boolean controlAreaIsOwn() {
        return controlArea.isPresent() && uid >= 0 && controlArea.get().ownerUid() == uid;
    }

    /** "process", "instance", "unknown(N)" for a cluster type this inspector does not know, or "hotspot". */
    public String clusterType() {
        return controlArea.map(c -> Names.clusterType(c.cluster().type(), c.cluster().typeCode())).orElse(HOTSPOT);
    }

    /** The cluster as the commands name it: "process:1234", "instance:84", or "hotspot". */
    public String clusterName() {
        return controlArea.map(c -> Names.cluster(c.cluster())).orElse(HOTSPOT);
    }

    /** The cluster id; null for a VM without a control area. */
    public Integer clusterId() {
        return controlArea.map(c -> c.ref().clusterId()).orElse(null);
    }

    /** The slot; null for a VM without a control area. */
    public Integer slot() {
        return controlArea.map(c -> c.ref().slot()).orElse(null);
    }

    /** The VM id its control area publishes; null without one. */
    public Integer vmId() {
        return controlArea.map(ControlAreaView::vmId).orElse(null);
    }

    public boolean isProcessCluster() {
        return controlArea.map(c -> c.ref().type() == ClusterType.PROCESS).orElse(false);
    }

    /** Seconds since the process started, as of {@code nowSeconds}; -1 when the start is unknown. */
    public long uptimeSeconds(long nowSeconds) {
        return startTime > 0 ? Math.max(0, nowSeconds - startTime) : -1;
    }
}
