package com.nox.jvm.inspector.hotspot;

import java.util.ArrayList;
import java.util.List;

/**
 * A HotSpot VM found on this host through its performance-data file.
 *
 * @param pid          the VM's process
 * @param uid          its owner
 * @param user         the owner's name (the folder hsperfdata_USER that holds the file)
 * @param javaCommand  the main class or jar followed by the program's arguments; empty when the
 *                     VM was started through JNI without one
 * @param vmVersion    the VM's version (java.vm.version)
 * @param beginMillis  when the VM began, milliseconds since the epoch; -1 when not published
 */
public record HotSpotVm(int pid, int uid, String user, String javaCommand, String vmVersion, long beginMillis) {

    /** The main class or the jar: the first word of the command. */
    public String mainClass() {
        return HotSpotFigures.firstWord(javaCommand);
    }

    /** Layout: int pid, int uid, string user, string java command, string VM version, long begin time. */
    static List<HotSpotVm> decodeList(byte[] record) {
        RecordReader in = new RecordReader(record);
        List<HotSpotVm> vms = new ArrayList<>();
        while (in.hasMore()) {
            vms.add(new HotSpotVm(in.readInt(), in.readInt(), in.readString(), in.readString(), in.readString(),
                    in.readLong()));
        }
        return vms;
    }
}
