package com.nox.jvm.inspector.cluster;

/** The debugging state a VM publishes. */
public enum DebuggingState {
    UNKNOWN, NOT_ACTIVE, REQUESTED, STARTING, WAIT_FOR_DEBUGGER, DEBUGGER_ATTACHED, STOPPING;

    public static DebuggingState of(int code) {
        DebuggingState[] states = values();
        return code >= 0 && code < states.length ? states[code] : UNKNOWN;
    }
}
