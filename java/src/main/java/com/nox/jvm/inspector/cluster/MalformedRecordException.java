package com.nox.jvm.inspector.cluster;

/** A byte record from the native side does not have the layout its reader expects. */
public class MalformedRecordException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    public MalformedRecordException(String message) {
        super(message);
    }
}
