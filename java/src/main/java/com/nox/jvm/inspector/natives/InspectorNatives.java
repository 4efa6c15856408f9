package com.nox.jvm.inspector.natives;

/**
 * Process questions and the monitoring boards of the VMs on this host. The process questions
 * never throw: an unknown process is not alive (0), started at 0, and has no profiling server
 * (null, or -1 for attachability).
 */
public final class InspectorNatives {
    static {
        NativeLibrary.load();
    }

    private InspectorNatives() {
    }

    /**
     * Names the class whose objects represent boards: it needs a constructor
     * {@code (java.nio.ByteBuffer, int)} (the board's bytes and the VM's pid) and the methods
     * {@code boolean isAlive()} and {@code void processOfBoardIsGone()}; a constructor
     * {@code (String, int)}, if present, is used instead, with the board file's name.
     */
    public static synchronized native void initLocalMonitorBoards0(Class<?> boardClass);

    /**
     * The boards visible now, one object per board: a board seen before keeps its object, a new
     * one gets a new object, and the object of a board that has gone (or that answered false to
     * {@code isAlive}) is told {@code processOfBoardIsGone()} once. Serialised on this class.
     */
    public static synchronized native Object[] getListOfVisibleMonitorBoards0();

    /** 1 when the process exists (or may exist), 0 when it certainly does not. */
    public static native int isProcessAlive0(int pid);

    public static native int getOwnProcessId0();

    /** The socket identifier of the process's profiling server, or null when it has none. */
    public static native String getProfilingServerIdentifier0(int pid);

    /** Configured processors. */
    public static native int getCpuCount0();

    /** Start time of the process in whole seconds since the epoch; 0 when unknown. */
    public static native long getCreationTimeOfProcess0(int pid);

    /** -1 when the process has no profiling server, else the server's attachability code. */
    public static native short isFileSocketServerAttachable0(int pid);

    /** Always false on this platform. */
    public static native boolean couldElevate0();
}
