package com.nox.jvm.inspector.natives;

/** The inspector natives as the tool declares them: these and nothing else. */
public final class InspectorNatives {
    public static native void initLocalMonitorBoards0(Class<?> boardClass);

    public static native Object[] getListOfVisibleMonitorBoards0();

    public static native int isProcessAlive0(int pid);

    public static native int getOwnProcessId0();

    public static native String getProfilingServerIdentifier0(int pid);

    public static native int getCpuCount0();

    public static native long getCreationTimeOfProcess0(int pid);

    public static native short isFileSocketServerAttachable0(int pid);

    public static native boolean couldElevate0();
}
