package com.nox.jvm.inspector.host;

import static com.nox.jvm.inspector.testing.ModelFixtures.area;
import static com.nox.jvm.inspector.testing.ModelFixtures.hotspot;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.util.List;
import java.util.Map;

import org.junit.jupiter.api.Test;

/** The host model's one merge rule, its merged facts, its lookups and its differences, over views made by hand. */
class HostModelTest {
    private static final int PID = 4242;
    private static final String AREA_VERSION = "OpenJDK 64-Bit Server VM 17.0.9+9-area";
    private static final String PERF_VERSION = "OpenJDK 64-Bit Server VM 17.0.9+9";

    private static HostSnapshot snapshot(ControlAreaView area, int processUid, HotSpotFigures perf) {
        return HostSnapshot.of(area == null ? List.of() : List.of(area), Map.of(PID, processUid),
                perf == null ? List.of() : List.of(perf));
    }

    /**
     * A control area and performance data of one pid are one VM only when one user owns the control
     * area, the process and the performance data, and the process did not start after the VM began.
     */
    @Test
    void theMergeRule() {
        record Case(String what, int areaOwner, int processUid, int perfUid, long laterMillis, boolean joined) {
        }
        List<Case> cases = List.of(
                new Case("one user, the VM began with its process", 1000, 1000, 1000, 300, true),
                new Case("began 1.9 s before the process's whole second (rounding)", 1000, 1000, 1000, -1900, true),
                new Case("another user's control area names root's VM", 65534, 0, 0, 300, false),
                new Case("the control area's owner is not the process's", 1000, 0, 1000, 300, false),
                new Case("the process started 10 s after the VM began (pid reused)", 1000, 1000, 1000, -10_000, false),
                new Case("the process's owner is unknown", 1000, -1, 1000, 300, false));
        for (Case c : cases) {
            HostSnapshot s = snapshot(area(ClusterType.INSTANCE, 7, 1, PID, c.areaOwner, AREA_VERSION, "app.Main", 1024),
                    c.processUid, hotspot(PID, c.perfUid, "perf.Main x", 512, 2048, 4096, c.laterMillis));
            assertEquals(c.joined ? 1 : 2, s.vms().size(), c.what);
            if (c.joined) {
                HostVm own = s.byPid(PID).orElseThrow();
                assertEquals(List.of(HostVm.CONTROL_AREA, HostVm.HOTSPOT), own.sources(), c.what);
                assertTrue(own.controlAreaIsOwn(), c.what);
                continue;
            }
            // The performance data is a record of its own, with its own facts; so is the control area.
            HostVm perf = s.allWithPid(PID).stream().filter(vm -> vm.controlArea().isEmpty()).findFirst().orElseThrow();
            assertEquals(PERF_VERSION, perf.version(), c.what);
            assertEquals(new Heap(512, 2048, 4096), perf.heap(), c.what);
            HostVm area = s.bySlot(new VmRef(ClusterType.INSTANCE, 7, 1)).orElseThrow();
            assertEquals(List.of(HostVm.CONTROL_AREA), area.sources(), c.what);
            boolean own = c.areaOwner == c.processUid;
            assertEquals(own, area.controlAreaIsOwn(), c.what);
            // A pid names the process's own record: never a control area of another user.
            assertEquals(own ? area : perf, s.byPid(PID).orElseThrow(), c.what);
        }
    }

    /** Each fact both sources publish is chosen one way: the control area's, else the performance data's. */
    @Test
    void mergedFacts() {
        record Case(String what, ControlAreaView area, HotSpotFigures perf, String version, String mainClass, Heap heap) {
        }
        HotSpotFigures perf = hotspot(PID, 1000, "perf.Main x", 512, 2048, 4096, 300);
        List<Case> cases = List.of(
                new Case("both", area(ClusterType.PROCESS, PID, 0, PID, 1000, AREA_VERSION, "app.Main", 1024), perf,
                        AREA_VERSION, "app.Main", new Heap(512, 1024, 4096)),
                new Case("a control area without version, main class and committed heap",
                        area(ClusterType.PROCESS, PID, 0, PID, 1000, "", "", -1), perf, PERF_VERSION, "perf.Main",
                        new Heap(512, 2048, 4096)),
                new Case("control area only", area(ClusterType.PROCESS, PID, 0, PID, 1000, AREA_VERSION, "app.Main", 1024),
                        null, AREA_VERSION, "app.Main", new Heap(-1, 1024, -1)),
                new Case("performance data only", null, perf, PERF_VERSION, "perf.Main", new Heap(512, 2048, 4096)));
        for (Case c : cases) {
            HostVm vm = snapshot(c.area, 1000, c.perf).byPid(PID).orElseThrow();
            assertEquals(c.version, vm.version(), c.what);
            assertEquals(c.mainClass, vm.mainClass(), c.what);
            assertEquals(c.heap, vm.heap(), c.what);
        }
        HotSpotFigures nameless = new HotSpotFigures(PID, 0, "u", "", "", "17.0.9", "", "", "", "", 1, 0, 1, 1, -1, -1,
                -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, List.of(), PID, 0, List.of());
        assertEquals("17.0.9", MergeRule.hotSpotVersion(nameless));
    }

    /** What appeared, changed and ended; a VM that gains a control area is the same VM, changed. */
    @Test
    void differencesBetweenSnapshots() {
        HotSpotFigures perf = hotspot(PID, 1000, "perf.Main", 1, 2, 3, 300);
        ControlAreaView agent = area(ClusterType.PROCESS, PID, 0, PID, 1000, AREA_VERSION, "app.Main", 1024);
        ControlAreaView other = area(ClusterType.INSTANCE, 9, 0, 77, 1000, "v", "x.Main", 1);
        HostSnapshot perfOnly = HostSnapshot.of(List.of(other), Map.of(77, 1000), List.of(perf));
        HostSnapshot both = HostSnapshot.of(List.of(agent), Map.of(PID, 1000), List.of(perf));
        List<HostChange> changes = both.changesSince(perfOnly);
        assertEquals(List.of(HostChange.Kind.ENDED, HostChange.Kind.CHANGED), changes.stream().map(HostChange::kind)
                .toList(), changes.toString());
        assertEquals(77, changes.get(0).vm().pid());
        assertEquals(List.of(HostVm.HOTSPOT), changes.get(1).before().sources());
        assertEquals(List.of(HostVm.CONTROL_AREA, HostVm.HOTSPOT), changes.get(1).after().sources());
        assertEquals(List.of(HostChange.Kind.APPEARED, HostChange.Kind.APPEARED),
                HostSnapshot.changes(List.of(), perfOnly.vms()).stream().map(HostChange::kind).toList());
        assertTrue(both.changesSince(both).isEmpty());
        assertFalse(HostSnapshot.changes(both.vms(), List.of()).isEmpty());
    }
}
