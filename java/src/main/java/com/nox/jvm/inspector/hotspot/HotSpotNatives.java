package com.nox.jvm.inspector.hotspot;

import com.nox.jvm.inspector.natives.NativeLibrary;

/**
 * Natives that read the performance-data files of the host's HotSpot VMs (every OpenJDK VM that
 * runs without {@code -XX:-UsePerfData} publishes one, in its own /tmp: the VMs in containers are
 * found through /proc/PID/root). No agent and no attach: each call copies the files it needs and
 * returns a byte record, or null when the VM is not there (no such process, no file the caller
 * may read, or a VM that has ended). Pids are the host's. Decoded by
 * {@link HotSpotInspector}; the record layouts are written down in its decoders.
 */
public final class HotSpotNatives {
    static {
        NativeLibrary.load();
    }

    private HotSpotNatives() {
    }

    /** One VM entry per live VM whose file the caller may read, concatenated; never null. */
    public static native byte[] listVms0();

    /**
     * The host pass: the figures of every live VM whose file the caller may read, each file
     * copied once, then every process that maps libjvm.so without one; null when there was no
     * room for the record. Decoded by {@link HotSpotSnapshot}.
     */
    public static native byte[] getHostPass0();

    /** The figures of one VM, or null. */
    public static native byte[] getVm0(int pid);

    /** Every counter of one VM, concatenated, or null. */
    public static native byte[] getCounters0(int pid);

    /** One counter of one VM, or null when the VM or the counter is not there. */
    public static native byte[] getCounter0(int pid, String name);
}
