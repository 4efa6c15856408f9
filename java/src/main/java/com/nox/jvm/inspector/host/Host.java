package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmInspector;
import com.nox.jvm.inspector.cluster.VmNotFoundException;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.HotSpotSnapshot;
import com.nox.jvm.inspector.hotspot.HotSpotInspector;
import com.nox.jvm.inspector.hotspot.PerfCounter;
import com.nox.jvm.inspector.hotspot.VmWithoutPerfData;
import com.nox.jvm.inspector.natives.InspectorNatives;
import com.nox.jvm.inspector.natives.MonitoringBoard;

import java.util.ArrayList;
import java.util.Collection;
import java.util.Comparator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.TreeMap;

/**
 * Reads the host's Java VMs into {@link HostSnapshot}s, and carries requests to them. The only
 * place where the commands' data meets the natives: one host pass over the control areas and one
 * read of the performance data make a snapshot; a snapshot can also be brought up to date in
 * part (the control areas, some performance-data files, the processes that ended), which is
 * what {@code watch} does between its full reads. Not for concurrent use.
 */
public final class Host {
    private final VmInspector controlAreas = new VmInspector();
    private final HotSpotInspector hotspot = new HotSpotInspector();
    private final Processes processes = new Processes();

    /** A snapshot from one read of each source. */
    public HostSnapshot snapshot() {
        return HostSnapshot.of(readControlAreas(), readHotSpot());
    }

    /** The snapshot with its control areas read again (its performance data kept). */
    public HostSnapshot withControlAreas(HostSnapshot snapshot) {
        return HostSnapshot.of(readControlAreas(), snapshot.hotspotVms());
    }

    /** The snapshot with every performance-data file read again (its control areas kept). */
    public HostSnapshot withHotSpot(HostSnapshot snapshot) {
        return HostSnapshot.of(snapshot.controlAreas(), readHotSpot());
    }

    /** The snapshot with the performance data of these pids read again: a pid no longer live leaves it. */
    public HostSnapshot withHotSpot(HostSnapshot snapshot, Collection<Integer> pids) {
        Map<Integer, HotSpotFigures> vms = new TreeMap<>(snapshot.hotspotVms().vms());
        long began = System.nanoTime();
        for (int pid : pids) {
            Optional<HotSpotFigures> figures = hotspot.figures(pid);
            if (figures.isPresent()) {
                vms.put(pid, figures.get());
            } else {
                vms.remove(pid);
            }
        }
        return HostSnapshot.of(snapshot.controlAreas(), snapshot.hotspotVms().with(vms, System.nanoTime() - began));
    }

    /**
     * The snapshot without the VMs whose process has ended or is another process now (a pid
     * reused): a VM killed outright leaves its files behind, and nothing else would tell.
     */
    public HostSnapshot withoutEnded(HostSnapshot snapshot) {
        HostSnapshot.ControlAreas areas = snapshot.controlAreas();
        List<ControlAreaView> views = new ArrayList<>(areas.views());
        views.removeIf(view -> Processes.start(view.pid()) != view.figures().processStart());
        HostSnapshot.HotSpotVms perf = snapshot.hotspotVms();
        Map<Integer, HotSpotFigures> vms = new TreeMap<>(perf.vms());
        vms.values().removeIf(f -> Processes.start(f.pid()) != f.processStartSeconds());
        if (views.size() == areas.views().size() && vms.size() == perf.vms().size()) {
            return snapshot;
        }
        return HostSnapshot.of(new HostSnapshot.ControlAreas(areas.pass(), views, areas.owners()),
                perf.with(vms, perf.nanos()));
    }

    /** The host's instance-cluster segments by cluster id (one read of the kernel's list). */
    public Map<Integer, InstanceSegments.Segment> instanceSegments() {
        return InstanceSegments.read();
    }

    private HostSnapshot.ControlAreas readControlAreas() {
        HostPass pass = controlAreas.host();
        Map<Integer, InstanceSegments.Segment> segments = null;
        List<ControlAreaView> views = new ArrayList<>();
        Map<Integer, Processes.Owner> owners = new LinkedHashMap<>();
        for (HostPass.Cluster cluster : pass.clusters()) {
            int owner = -1;
            ClusterType type = cluster.entry().type();
            if (type == ClusterType.PROCESS) {
                // The pass lists a process cluster's file only when its owner owns the process.
                owner = owners.computeIfAbsent(cluster.entry().id(), processes::owner).uid();
            } else if (type == ClusterType.INSTANCE) {
                segments = segments != null ? segments : InstanceSegments.read();
                InstanceSegments.Segment segment = segments.get(cluster.entry().id());
                owner = segment != null ? segment.ownerUid() : -1;
            }
            for (HostPass.VmFigures vm : cluster.vms()) {
                views.add(new ControlAreaView(cluster.entry(), vm, owner));
                owners.computeIfAbsent(vm.vm().pid(), processes::owner);
            }
        }
        return new HostSnapshot.ControlAreas(pass, List.copyOf(views), owners);
    }

    /** The live HotSpot VMs whose performance data this user may read, from one pass (each file copied once). */
    private HostSnapshot.HotSpotVms readHotSpot() {
        long began = System.nanoTime();
        Map<Integer, HotSpotFigures> vms = new TreeMap<>();
        HotSpotSnapshot pass = hotspot.snapshot();
        for (HotSpotFigures figures : pass.vms()) {
            vms.put(figures.pid(), figures);
        }
        // This inspector runs without performance data itself: it is not one of the VMs it shows.
        long self = ProcessHandle.current().pid();
        List<VmWithoutPerfData> quiet = pass.withoutPerfData().stream().filter(p -> p.pid() != self).toList();
        return new HostSnapshot.HotSpotVms(vms, quiet, System.nanoTime() - began);
    }

    // ---------------------------------------------------------------- requests

    /**
     * Asks a VM to exit. Only a VM whose control area is its own takes requests (a control area of
     * another user that names a process is not that process's VM).
     *
     * @throws IllegalArgumentException when the VM's control area is not its own
     * @throws VmNotFoundException      when the VM has gone meanwhile
     */
    public void exit(HostVm vm, int code) {
        controlAreas.exit(requestable(vm), code);
    }

    public void startDebugging(HostVm vm, int suspend) {
        controlAreas.startDebugging(requestable(vm), suspend);
    }

    public void stopDebugging(HostVm vm) {
        controlAreas.stopDebugging(requestable(vm));
    }

    private static VmRef requestable(HostVm vm) {
        if (!vm.controlAreaIsOwn()) {
            throw new IllegalArgumentException("VM pid " + vm.pid() + " has no control area of its own");
        }
        return vm.ref().orElseThrow();
    }

    // ---------------------------------------------------------------- counters and boards

    /** Every performance counter of a HotSpot VM, in the VM's order. */
    public Optional<List<PerfCounter>> counters(int pid) {
        return hotspot.counters(pid);
    }

    /** One counter of a HotSpot VM; empty when the VM or the counter is not there. */
    public Optional<PerfCounter> counter(int pid, String name) {
        return hotspot.counter(pid, name);
    }

    /** Whether a HotSpot VM with this pid publishes performance data this user may read. */
    public boolean publishesPerfData(int pid) {
        return hotspot.figures(pid).isPresent();
    }

    /** The uid that owns the process, -1 when there is no such process. */
    public static int processOwner(int pid) {
        return new Processes().owner(pid).uid();
    }

    /** Whether a process with this pid exists. */
    public static boolean processExists(int pid) {
        return pid > 0 && InspectorNatives.isProcessAlive0(pid) != 0;
    }

    /** The monitoring boards visible now, by pid. */
    public List<MonitoringBoard> boards() {
        InspectorNatives.initLocalMonitorBoards0(MonitoringBoard.class);
        Object[] found = InspectorNatives.getListOfVisibleMonitorBoards0();
        List<MonitoringBoard> boards = new ArrayList<>();
        if (found != null) {
            for (Object o : found) {
                if (o instanceof MonitoringBoard board) {
                    boards.add(board);
                }
            }
        }
        boards.sort(Comparator.comparingInt(MonitoringBoard::pid));
        return boards;
    }
}
