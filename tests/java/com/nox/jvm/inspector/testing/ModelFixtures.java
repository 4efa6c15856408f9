package com.nox.jvm.inspector.testing;

import com.nox.jvm.inspector.cluster.ClusterEntry;
import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmInspector.Vm;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.cluster.VmTimeInfo;
import com.nox.jvm.inspector.host.ControlAreaView;
import com.nox.jvm.inspector.hotspot.GcCollector;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.HotSpotPool;

import java.util.List;
import java.util.Optional;

/** Views of the host model made by hand, for tests that need no VM: what a control area and performance data say. */
public final class ModelFixtures {
    /** When the test's VMs began: 2023-11-14, in milliseconds. */
    public static final long BEGIN_MILLIS = 1_700_000_000_000L;

    private ModelFixtures() {
    }

    /** A control-area VM in slot {@code slot} of a cluster, owned by {@code ownerUid}, its process started at BEGIN. */
    public static ControlAreaView area(ClusterType type, int clusterId, int slot, int pid, int ownerUid,
                                       String version, String mainClass, long committedHeap) {
        VmStartInfo start = new VmStartInfo(version, "/", "", "", mainClass + " arg", "tag", "", mainClass, false, true);
        VmMemoryInfo memory = new VmMemoryInfo(committedHeap + 3, committedHeap, 1, 2, 0, 0, 0, 0, 0, 0, 7, 1, 30, 20,
                10, 0, 0, 0, 0, 0, 0, 4, 5, 0, 600, 0);
        HostPass.VmFigures figures = new HostPass.VmFigures(new Vm(new VmRef(type, clusterId, slot), pid, 100 + slot),
                BEGIN_MILLIS / 1000, Optional.of(start), Optional.of(new VmTimeInfo(300, 100, 200, 5)),
                Optional.of(memory), Optional.of(new VmDebugInfo(true, 8000, 8009, DebuggingState.STARTING, 3, 8000,
                "", false)));
        return new ControlAreaView(new ClusterEntry(true, type, type.code(), clusterId), figures, ownerUid);
    }

    /** Performance data of a VM whose process started at BEGIN and which began {@code laterMillis} later, with two collectors. */
    public static HotSpotFigures hotspot(int pid, int uid, String command, long used, long committed, long max,
                                         long laterMillis) {
        return new HotSpotFigures(pid, uid, "user" + uid, command, "OpenJDK 64-Bit Server VM", "17.0.9+9", "vendor",
                "-Xmx1g", "", "GarbageFirst", BEGIN_MILLIS + laterMillis, 0, 1_000_000_000L, 5_000_000_000L, used, committed,
                max, 1, 2, 3, 500, 2, 7, 9, 5, 11,
                List.of(new GcCollector("G1 young collection pauses", 4, 250_000_000L, 0.25, 0, 0),
                        new GcCollector("G1 full collection pauses", 1, 1_000_000_000L, 1.0, 0, 0)), pid,
                BEGIN_MILLIS / 1000, List.of(new HotSpotPool(HotSpotPool.Kind.EDEN, used / 2, committed / 2, max),
                        new HotSpotPool(HotSpotPool.Kind.SURVIVOR, 0, 0, max),
                        new HotSpotPool(HotSpotPool.Kind.OLD, used - used / 2, committed - committed / 2, max),
                        new HotSpotPool(HotSpotPool.Kind.METASPACE, 1, 2, 3),
                        new HotSpotPool(HotSpotPool.Kind.CLASS_SPACE, 0, 0, 1 << 30)));
    }
}
