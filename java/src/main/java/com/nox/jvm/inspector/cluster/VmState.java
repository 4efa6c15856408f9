package com.nox.jvm.inspector.cluster;

/** A VM's slot index and pid, from the 16-byte state record (its last two words are reserved). */
public record VmState(int vmIndex, int pid) {

    public static VmState decode(byte[] record) {
        RecordReader in = new RecordReader(record);
        int index = in.readInt();
        int pid = in.readInt();
        in.readInt();
        in.readInt();
        in.expectEnd();
        return new VmState(index, pid);
    }
}
