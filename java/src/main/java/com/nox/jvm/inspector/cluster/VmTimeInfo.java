package com.nox.jvm.inspector.cluster;

/**
 * The CPU time of a VM's process, in the unit the VM publishes. A time the VM does not publish
 * is -1, and the total is then the plain sum (-2 when both parts are missing).
 */
public record VmTimeInfo(long totalTime, long systemTime, long userTime, long processingTime) {

    public static VmTimeInfo decode(byte[] record) {
        RecordReader in = new RecordReader(record);
        VmTimeInfo info = new VmTimeInfo(in.readLong(), in.readLong(), in.readLong(), in.readLong());
        in.expectEnd();
        return info;
    }

    /** False when the VM publishes no process times. */
    public boolean available() {
        return systemTime != -1 || userTime != -1 || processingTime != -1;
    }
}
