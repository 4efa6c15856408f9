package com.nox.jvm.inspector.filesocket;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.util.Random;
import java.util.concurrent.CompletableFuture;

/** Helpers that move a block of bytes both ways at once. */
final class Exchange {
    static final int MIB = 1 << 20;

    private Exchange() {}

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
                int off = 0;
                for (int i = 0; off < data.length; i++) {
                    int n = Math.min(pieces[i % pieces.length], data.length - off);
                    out.write(data, off, n);
                    off += n;
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

    /** Reads until end of stream. */
    static CompletableFuture<byte[]> readAllAsync(InputStream in) {
        return CompletableFuture.supplyAsync(() -> {
            try {
                return in.readAllBytes();
            } catch (IOException e) {
                throw new RuntimeException(e);
            }
        });
    }
}
