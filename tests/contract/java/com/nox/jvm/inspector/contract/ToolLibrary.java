package com.nox.jvm.inspector.contract;

/**
 * Loads libnoxjvm_inspector from java.library.path for the tool's classes: their class loader is
 * this one's, so their natives bind to it. The tool's classes carry no loading code of their own.
 */
public final class ToolLibrary {
    private static boolean loaded;

    private ToolLibrary() {
    }

    public static synchronized void load() {
        if (!loaded) {
            System.loadLibrary("noxjvm_inspector");
            loaded = true;
        }
    }
}
