package com.nox.jvm.inspector.cluster;

/**
 * A VM's debugging situation. Ports the VM does not publish are -1; a VM without a debugging
 * client has the empty string.
 */
public record VmDebugInfo(boolean canDebugOnDemand, int fromPort, int toPort, DebuggingState state,
                          int stateCode, int currentDebugPort, String debuggingClient, boolean debuggingLocally) {

    public static VmDebugInfo decode(byte[] record) {
        RecordReader in = new RecordReader(record);
        boolean onDemand = in.readBoolean();
        int from = in.readInt();
        int to = in.readInt();
        int state = in.readInt();
        int port = in.readInt();
        String client = in.readString();
        boolean locally = in.readBoolean();
        in.expectEnd();
        return new VmDebugInfo(onDemand, from, to, DebuggingState.of(state), state, port, client, locally);
    }
}
