package com.nox.jvm.inspector.filesocket;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * Unique socket paths under /tmp (they carry the pid, so test classes can run in parallel), all
 * removed again when the owner is closed, also after a failed test; and helpers that move bytes.
 */
final class SocketPaths implements AutoCloseable {
    static final int MIB = 1 << 20;
    private static final AtomicInteger COUNTER = new AtomicInteger();
    private final List<Path> paths = new ArrayList<>();

    /** A fresh bare name (no '/'): its socket file is /tmp/ + name. */
    String nextName(String tag) {
        String name = "noxfs_" + ProcessHandle.current().pid() + "_" + tag + "_" + COUNTER.incrementAndGet();
        paths.add(Path.of("/tmp", name));
        return name;
    }

    /** A fresh absolute path that does not exist yet. */
    String next(String tag) {
        return "/tmp/" + nextName(tag);
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

    static byte[] randomBytes(int size, long seed) {
        byte[] bytes = new byte[size];
        new Random(seed).nextBytes(bytes);
        return bytes;
    }

    /** Writes data in uneven pieces (1 byte up to 100 KiB), on a thread of its own. */
    static CompletableFuture<Void> writeAsync(OutputStream out, byte[] data) {
        return CompletableFuture.runAsync(() -> {
            try {
                int[] pieces = {1, 1000, 1024, 1025, 65536, 100_000, 7};
                for (int i = 0, off = 0; off < data.length; off += pieces[i++ % pieces.length]) {
                    out.write(data, off, Math.min(pieces[i % pieces.length], data.length - off));
                }
                out.flush();
            } catch (IOException e) {
                throw new RuntimeException(e);
            }
        });
    }

    /** Reads exactly size bytes (fewer only when the stream ends early). */
    static byte[] readExactly(InputStream in, int size) throws IOException {
        ByteArrayOutputStream received = new ByteArrayOutputStream(size);
        byte[] buffer = new byte[50_000];
        while (received.size() < size) {
            int n = in.read(buffer, 0, Math.min(buffer.length, size - received.size()));
            if (n < 0) break;
            received.write(buffer, 0, n);
        }
        return received.toByteArray();
    }
}
