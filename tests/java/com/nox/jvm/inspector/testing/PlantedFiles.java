package com.nox.jvm.inspector.testing;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.Deque;

/**
 * Files and links a test plants under /tmp, removed (newest first) when closed, also when the
 * test fails. Only what was planted here is ever removed.
 */
public final class PlantedFiles implements AutoCloseable {
    private final Deque<Path> planted = new ArrayDeque<>();

    public Path file(Path path, byte[] content) throws IOException {
        Files.write(path, content);
        planted.push(path);
        return path;
    }

    public Path link(Path path, Path target) throws IOException {
        Files.createSymbolicLink(path, target);
        planted.push(path);
        return path;
    }

    @Override
    public void close() throws IOException {
        IOException first = null;
        while (!planted.isEmpty()) {
            try {
                Files.deleteIfExists(planted.pop());
            } catch (IOException e) {
                first = first == null ? e : first;
            }
        }
        if (first != null) {
            throw first;
        }
    }
}
