package com.nox.jvm.inspector.cluster;

/** How a VM was started. Texts the VM does not publish are empty. */
public record VmStartInfo(String vmVersion, String workingDirectory, String vmFlags, String vmArguments,
                          String javaArguments, String vmTag, String splittableJavaArguments, String mainClass,
                          boolean runsWithMonitoringBoard, boolean hasMetaspace) {

    public static VmStartInfo decode(byte[] record) {
        RecordReader in = new RecordReader(record);
        VmStartInfo info = new VmStartInfo(in.readString(), in.readString(), in.readString(), in.readString(),
                in.readString(), in.readString(), in.readString(), in.readString(), in.readBoolean(),
                in.readBoolean());
        in.expectEnd();
        return info;
    }
}
