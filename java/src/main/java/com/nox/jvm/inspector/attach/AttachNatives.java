package com.nox.jvm.inspector.attach;

/**
 * The natives of the attach client. A handle names one command's connection on the native heap,
 * from {@link #open0} to {@link #free0}; {@link CommandReply} owns it and frees it once, after
 * every read has returned.
 */
final class AttachNatives {
    private AttachNatives() {
    }

    /**
     * Attaches to the VM {@code pid} (starting its attach listener when it has none), sends the
     * command with up to three arguments (UTF-8, no NUL; null for none) and waits for its status.
     * Every wait ends after {@code timeoutMillis}.
     */
    static native long open0(int pid, byte[] command, byte[] arg0, byte[] arg1, byte[] arg2, int timeoutMillis)
            throws AttachException;

    /** The command's status: 0 when the VM ran it. */
    static native int status0(long handle);

    /** The count of output bytes read into {@code bytes[offset..]}, or -1 at the end. */
    static native int read0(long handle, byte[] bytes, int offset, int length, int timeoutMillis)
            throws AttachException;

    /** Closes the connection; a thread blocked in read0 returns at once. */
    static native void close0(long handle);

    /** Releases the handle; no call may use it afterwards. */
    static native void free0(long handle);
}
