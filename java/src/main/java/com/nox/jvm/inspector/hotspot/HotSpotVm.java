package com.nox.jvm.inspector.hotspot;

import java.util.ArrayList;
import java.util.List;

/**
 * A HotSpot VM found on this host through its performance-data file.
 *
 * @param pid          the VM's process, as this host numbers it
 * @param uid          its owner
 * @param user         the owner's name (the folder hsperfdata_USER that holds the file; for a VM in
 *                     a container, the name the container gives the user)
 * @param javaCommand  the main class or jar followed by the program's arguments; empty when the
 *                     VM was started through JNI without one
 * @param vmVersion    the VM's version (java.vm.version)
 * @param beginMillis  when the VM began, milliseconds since the epoch; -1 when not published
 * @param namespacePid the pid the VM knows itself by: in a container (its own pid namespace) the
 *                     container's pid, which names its files; {@code pid} elsewhere
 */
public record HotSpotVm(int pid, int uid, String user, String javaCommand, String vmVersion, long beginMillis,
                        int namespacePid) {

    /** The main class or the jar: the first word of the command. */
    public String mainClass() {
        return HotSpotFigures.firstWord(javaCommand);
    }

    /** True when the VM runs in a pid namespace of its own (a container). */
    public boolean inContainer() {
        return namespacePid != pid;
    }

    /**
     * Layout: int pid, int namespace pid, int uid, string user, string java command, string VM
     * version, long begin time.
     */
    static List<HotSpotVm> decodeList(byte[] record) {
        RecordReader in = new RecordReader(record);
        List<HotSpotVm> vms = new ArrayList<>();
        while (in.hasMore()) {
            int pid = in.readInt();
            int namespacePid = in.readInt();
            vms.add(new HotSpotVm(pid, in.readInt(), in.readString(), in.readString(), in.readString(), in.readLong(),
                    namespacePid));
        }
        return vms;
    }
}
