package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.cluster.ClusterEntry;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.VmWithoutPerfData;

import java.util.ArrayList;
import java.util.Collection;
import java.util.Iterator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Optional;
import java.util.TreeMap;

/**
 * The Java VMs of the host as one read of each source found them: every VM once, with the facts
 * of both sources merged by {@link MergeRule}. The VMs come in a stable order: those with a
 * control area in cluster order (instance clusters by id, then process clusters by pid) and slot
 * order, then those known only by their performance data, by pid. Immutable; made by
 * {@link Host}, or by {@link #of} from views read elsewhere (tests).
 */
public final class HostSnapshot {
    /** What one read of the control areas gave: the pass, and per VM its view and its process's owner. */
    record ControlAreas(HostPass pass, List<ControlAreaView> views, Map<Integer, Processes.Owner> owners) {
    }

    /**
     * What one read of the performance data gave: the live VMs by pid, the processes that map
     * libjvm.so but publish no performance data this user may read, and the time it took.
     */
    record HotSpotVms(Map<Integer, HotSpotFigures> vms, List<VmWithoutPerfData> withoutPerfData, long nanos) {
        HotSpotVms {
            withoutPerfData = List.copyOf(withoutPerfData);
        }

        HotSpotVms with(Map<Integer, HotSpotFigures> others, long otherNanos) {
            return new HotSpotVms(others, withoutPerfData, otherNanos);
        }
    }

    private final ControlAreas areas;
    private final HotSpotVms hotspot;
    private final List<HostVm> vms;
    private final long takenMillis;

    private HostSnapshot(ControlAreas areas, HotSpotVms hotspot, long takenMillis) {
        this.areas = areas;
        this.hotspot = hotspot;
        this.takenMillis = takenMillis;
        this.vms = List.copyOf(merge(areas, hotspot));
    }

    static HostSnapshot of(ControlAreas areas, HotSpotVms hotspot) {
        return new HostSnapshot(areas, hotspot, System.currentTimeMillis());
    }

    /**
     * A snapshot of views read elsewhere (tests, tools): the control-area VMs (their clusters in the
     * order given) with the uid of each pid's process, and the performance data. Users are named
     * by their uid.
     */
    public static HostSnapshot of(List<ControlAreaView> views, Map<Integer, Integer> processUids,
                                  List<HotSpotFigures> hotspot) {
        Map<ClusterEntry, List<HostPass.VmFigures>> byCluster = new LinkedHashMap<>();
        views.forEach(v -> byCluster.computeIfAbsent(v.cluster(), c -> new ArrayList<>()).add(v.figures()));
        List<HostPass.Cluster> clusters = new ArrayList<>();
        byCluster.forEach((entry, vms) -> clusters.add(new HostPass.Cluster(entry, 0, vms.size(), List.copyOf(vms))));
        Map<Integer, Processes.Owner> owners = new LinkedHashMap<>();
        processUids.forEach((pid, uid) -> owners.put(pid, new Processes.Owner(uid, Integer.toString(uid))));
        Map<Integer, HotSpotFigures> byPid = new TreeMap<>();
        hotspot.forEach(f -> byPid.put(f.pid(), f));
        return of(new ControlAreas(new HostPass(List.copyOf(clusters), 0), List.copyOf(views), owners),
                new HotSpotVms(byPid, List.of(), 0));
    }

    private static List<HostVm> merge(ControlAreas areas, HotSpotVms hotspot) {
        Map<Integer, HotSpotFigures> unjoined = new TreeMap<>(hotspot.vms());
        List<HostVm> vms = new ArrayList<>();
        for (ControlAreaView view : areas.views()) {
            int pid = view.pid();
            Processes.Owner owner = areas.owners().getOrDefault(pid, Processes.Owner.UNKNOWN);
            long start = view.figures().processStart();
            HotSpotFigures perf = unjoined.get(pid);
            if (perf != null && MergeRule.joins(view, owner.uid(), start, perf)) {
                unjoined.remove(pid);
            } else {
                perf = null;
            }
            vms.add(HostVm.of(pid, start, owner.uid(), owner.user(), view, perf));
        }
        for (HotSpotFigures perf : unjoined.values()) {
            vms.add(HostVm.of(perf.pid(), perf.processStartSeconds(), perf.uid(), perf.user(), null, perf));
        }
        return vms;
    }

    ControlAreas controlAreas() {
        return areas;
    }

    HotSpotVms hotspotVms() {
        return hotspot;
    }

    /** Every VM of the host, each once. */
    public List<HostVm> vms() {
        return vms;
    }

    /**
     * The processes that map libjvm.so but publish no performance data this user may read (a VM
     * started with -XX:-UsePerfData) and no control area: only what /proc tells of them is known.
     */
    public List<VmWithoutPerfData> withoutPerfData() {
        return hotspot.withoutPerfData().stream()
                .filter(p -> vms.stream().noneMatch(vm -> vm.pid() == p.pid())).toList();
    }

    /** The running clusters, in cluster order, with their live slots as the pass read them. */
    public List<HostPass.Cluster> clusters() {
        return areas.pass().clusters();
    }

    /** When the snapshot was made, in milliseconds since the epoch. */
    public long takenMillis() {
        return takenMillis;
    }

    /** How long the native pass over the control areas took. */
    public long controlAreaNanos() {
        return areas.pass().durationNanos();
    }

    /** How long the read of the performance data took. */
    public long hotspotNanos() {
        return hotspot.nanos();
    }

    /**
     * The VM of this process: its record with a control area of its own or its performance data;
     * only when there is none, a record whose control area of another user names the pid.
     */
    public Optional<HostVm> byPid(int pid) {
        HostVm claimed = null;
        for (HostVm vm : vms) {
            if (vm.pid() != pid) {
                continue;
            }
            if (vm.controlAreaIsOwn() || vm.hotspot().isPresent()) {
                return Optional.of(vm);
            }
            claimed = claimed == null ? vm : claimed;
        }
        return Optional.ofNullable(claimed);
    }

    /** Every record that names this pid (more than one only when another user's control area names it). */
    public List<HostVm> allWithPid(int pid) {
        return vms.stream().filter(vm -> vm.pid() == pid).toList();
    }

    /** The VM in this slot of a control area. */
    public Optional<HostVm> bySlot(VmRef ref) {
        return vms.stream().filter(vm -> vm.ref().map(ref::equals).orElse(false)).findFirst();
    }

    /** What differs from an earlier snapshot. */
    public List<HostChange> changesSince(HostSnapshot earlier) {
        return changes(earlier.vms(), vms);
    }

    /**
     * What differs between two sets of VMs: VMs that ended (in the order of {@code before}),
     * changed, and appeared (in the order of {@code after}). A VM whose process gains or loses its
     * control area is the same VM, changed.
     */
    public static List<HostChange> changes(Collection<HostVm> before, Collection<HostVm> after) {
        Map<HostVm.Key, HostVm> old = index(before);
        Map<HostVm.Key, HostVm> now = index(after);
        List<HostVm> ended = new ArrayList<>(old.values());
        ended.removeIf(vm -> now.containsKey(vm.key()));
        List<HostVm> appeared = new ArrayList<>(now.values());
        appeared.removeIf(vm -> old.containsKey(vm.key()));
        List<HostChange> changed = new ArrayList<>();
        for (HostVm vm : now.values()) {
            HostVm was = old.get(vm.key());
            if (was != null && !sameIdentity(was, vm)) {
                changed.add(new HostChange(HostChange.Kind.CHANGED, was, vm));
            }
        }
        pairSourceChanges(ended, appeared, changed);
        List<HostChange> all = new ArrayList<>();
        ended.forEach(vm -> all.add(new HostChange(HostChange.Kind.ENDED, vm, null)));
        all.addAll(changed);
        appeared.forEach(vm -> all.add(new HostChange(HostChange.Kind.APPEARED, null, vm)));
        return all;
    }

    /** An ended and an appeared VM of one process, one of them without a control area, are one VM changed. */
    private static void pairSourceChanges(List<HostVm> ended, List<HostVm> appeared, List<HostChange> changed) {
        for (Iterator<HostVm> it = appeared.iterator(); it.hasNext(); ) {
            HostVm vm = it.next();
            for (Iterator<HostVm> gone = ended.iterator(); gone.hasNext(); ) {
                HostVm was = gone.next();
                if (was.pid() == vm.pid() && was.startTime() == vm.startTime()
                        && (was.ref().isEmpty() != vm.ref().isEmpty())) {
                    changed.add(new HostChange(HostChange.Kind.CHANGED, was, vm));
                    gone.remove();
                    it.remove();
                    break;
                }
            }
        }
    }

    private static boolean sameIdentity(HostVm a, HostVm b) {
        return a.sources().equals(b.sources()) && a.uid() == b.uid() && a.version().equals(b.version())
                && a.mainClass().equals(b.mainClass()) && Objects.equals(a.vmId(), b.vmId());
    }

    private static Map<HostVm.Key, HostVm> index(Collection<HostVm> vms) {
        Map<HostVm.Key, HostVm> byKey = new LinkedHashMap<>();
        for (HostVm vm : vms) {
            byKey.putIfAbsent(vm.key(), vm);
        }
        return byKey;
    }
}
