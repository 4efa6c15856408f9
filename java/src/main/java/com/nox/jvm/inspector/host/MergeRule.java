package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.util.Optional;

/**
 * The one rule by which the two sources of a VM become one record, and by which every fact
 * that both publish is chosen. Every command shows these facts, so one JDK shows one version
 * text and one main class wherever it appears.
 *
 * <ul>
 * <li>A control-area VM and performance data of the same pid are one VM only when the same user
 *     owns the control area, the process and the performance data, and the process did not
 *     start after the VM of the performance data began (a pid reused after that VM ended). A
 *     control area of another user that names a process is never joined with it.</li>
 * <li>Version: the control area's text; without one, the performance data's VM name and version
 *     in the same format ("OpenJDK 64-Bit Server VM 17.0.9+9"), which is what the agent
 *     publishes.</li>
 * <li>Main class: the control area's; without one, the first word of the performance data's
 *     command.</li>
 * <li>Heap: committed from the control area, else from the performance data; used and maximum
 *     from the performance data (a control area publishes neither). A heap in use that reads 0
 *     is not published yet (G1 publishes it at its collections), so it is unknown.</li>
 * </ul>
 */
public final class MergeRule {
    /** The process start is known in whole seconds, the VM's begin time in milliseconds. */
    static final long START_SLACK_SECONDS = 2;

    private MergeRule() {
    }

    /**
     * Whether the control-area VM and the performance data are one VM.
     *
     * @param processUid   owner of the process the control area names, -1 when unknown
     * @param processStart its start in seconds since the epoch, 0 when unknown
     */
    public static boolean joins(ControlAreaView controlArea, int processUid, long processStart, HotSpotFigures hotspot) {
        return controlArea.pid() == hotspot.pid()
                && processUid >= 0 && controlArea.ownerUid() == processUid && hotspot.uid() == processUid
                && startsAgree(processStart, hotspot.beginMillis());
    }

    /** The process was running when the VM began (it did not start after it). */
    static boolean startsAgree(long processStartSeconds, long vmBeginMillis) {
        return processStartSeconds > 0 && vmBeginMillis > 0
                && processStartSeconds <= vmBeginMillis / 1000 + START_SLACK_SECONDS;
    }

    static String version(Optional<ControlAreaView> controlArea, Optional<HotSpotFigures> hotspot) {
        String own = start(controlArea).map(VmStartInfo::vmVersion).orElse("");
        if (!own.isEmpty()) {
            return own;
        }
        return hotspot.map(MergeRule::hotSpotVersion).orElse("");
    }

    /** The performance data's version as the agent writes a version: VM name, blank, VM version. */
    public static String hotSpotVersion(HotSpotFigures hotspot) {
        if (hotspot.vmName().isEmpty()) {
            return hotspot.vmVersion();
        }
        return hotspot.vmVersion().isEmpty() ? hotspot.vmName() : hotspot.vmName() + " " + hotspot.vmVersion();
    }

    static String mainClass(Optional<ControlAreaView> controlArea, Optional<HotSpotFigures> hotspot) {
        String own = start(controlArea).map(VmStartInfo::mainClass).orElse("");
        if (!own.isEmpty()) {
            return own;
        }
        return hotspot.map(HotSpotFigures::mainClass).orElse("");
    }

    static Heap heap(Optional<ControlAreaView> controlArea, Optional<HotSpotFigures> hotspot) {
        long committed = controlArea.flatMap(c -> c.figures().memory()).map(VmMemoryInfo::committedJavaHeap)
                .filter(bytes -> bytes >= 0).orElse(hotspot.map(HotSpotFigures::heapCommitted).orElse(-1L));
        long used = hotspot.map(HotSpotFigures::heapUsed).filter(bytes -> bytes != 0).orElse(-1L);
        long max = hotspot.map(HotSpotFigures::heapMax).orElse(-1L);
        return new Heap(orUnknown(used), orUnknown(committed), orUnknown(max));
    }

    private static long orUnknown(long bytes) {
        return bytes < 0 ? -1 : bytes;
    }

    private static Optional<VmStartInfo> start(Optional<ControlAreaView> controlArea) {
        return controlArea.flatMap(c -> c.figures().start());
    }
}
