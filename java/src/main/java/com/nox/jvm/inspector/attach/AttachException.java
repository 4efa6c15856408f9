package com.nox.jvm.inspector.attach;

import java.io.IOException;

/** An attach, or the command sent through it, failed; {@link #reason()} says how. */
public class AttachException extends IOException {
    private static final long serialVersionUID = 1L;

    /** Why. The natives report all but the last in this order (numbered from 1). */
    public enum Reason {
        /** The VM would drop the request: a name over 16 bytes, an argument over 1024, a NUL byte. */
        BAD_REQUEST,
        /** No process with this pid (a thread id is not a process either). */
        NO_PROCESS,
        /** Another user's or group's VM, and the caller is not root. */
        NOT_PERMITTED,
        /** The process maps no libjvm.so: it was not signalled. */
        NOT_A_VM,
        /** The VM refuses attach or would die of SIGQUIT: it was not signalled. */
        DISABLED,
        /** The socket or trigger name is taken by a file that is not the VM's: not used. */
        FOREIGN_FILE,
        /** The VM started no attach listener within the time-out. */
        NO_ANSWER,
        /** The process ended during the attach. */
        GONE,
        /** The VM did not answer within the time-out. */
        TIMED_OUT,
        /** The reply is not what a VM sends. */
        PROTOCOL,
        /** A system call failed. */
        IO,
        /** The VM ran the command and reported that it failed (never reported by the natives). */
        COMMAND_FAILED
    }

    private final Reason reason;

    public AttachException(Reason reason, String message) {
        super(message);
        this.reason = reason;
    }

    /** Made by the natives, which number the reasons from 1. */
    AttachException(int reason, String message) {
        this(reason >= 1 && reason <= Reason.values().length ? Reason.values()[reason - 1] : Reason.IO, message);
    }

    public Reason reason() {
        return reason;
    }
}
