package com.nox.jvm.inspector.filesocket;

/** Loads libnoxjvm_inspector.so from java.library.path once per class loader. */
final class NativeLibrary {
    private static boolean loaded;

    private NativeLibrary() {}

    static synchronized void load() {
        if (!loaded) {
            System.loadLibrary("noxjvm_inspector");
            loaded = true;
        }
    }
}
