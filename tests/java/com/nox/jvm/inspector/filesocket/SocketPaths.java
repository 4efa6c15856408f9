package com.nox.jvm.inspector.filesocket;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * Unique socket paths under /tmp (they carry the pid, so test classes can run in parallel), all
 * removed again when the owner is closed, also after a failed test.
 */
final class SocketPaths implements AutoCloseable {
    private static final AtomicInteger COUNTER = new AtomicInteger();
    private final List<Path> paths = new ArrayList<>();

    /** A fresh absolute path that does not exist yet. */
    String next(String tag) {
        String path = "/tmp/noxfs_" + ProcessHandle.current().pid() + "_" + tag + "_" + COUNTER.incrementAndGet();
        paths.add(Path.of(path));
        return path;
    }

    /** A fresh bare name (no '/'): its socket file is /tmp/ + name. */
    String nextName(String tag) {
        String name = "noxfs_" + ProcessHandle.current().pid() + "_" + tag + "_" + COUNTER.incrementAndGet();
        paths.add(Path.of("/tmp", name));
        return name;
    }

    @Override
    public void close() throws IOException {
        for (Path path : paths) Files.deleteIfExists(path);
    }

    /** Number of descriptors this process has open. */
    static int openDescriptors() throws IOException {
        try (var entries = Files.list(Path.of("/proc/self/fd"))) {
            return (int) entries.count();
        }
    }
}
