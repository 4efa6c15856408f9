package com.nox.jvm.inspector.natives;

/**
 * Loads libnoxjvm_inspector once per class loader. The system property
 * {@code nox.inspector.library} may name the shared object's absolute path; otherwise it is
 * looked up as "noxjvm_inspector" on {@code java.library.path}.
 */
public final class NativeLibrary {
    private static boolean loaded;

    private NativeLibrary() {
    }

    public static synchronized void load() {
        if (loaded) {
            return;
        }
        String path = System.getProperty("nox.inspector.library");
        if (path != null && !path.isEmpty()) {
            System.load(path);
        } else {
            System.loadLibrary("noxjvm_inspector");
        }
        loaded = true;
    }
}
