package com.nox.jvm.agent;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;

/**
 * Names under /tmp that carry this process's user id and pid, and the rules for taking one
 * over: a file of our name is either left behind by an ended process of ours that had our pid
 * (stale, removed) or belongs to another user (never touched).
 */
final class TmpFiles {
    private TmpFiles() {
    }

    static Path controlArea(int euid, long pid) {
        return Path.of("/tmp/nox_jvm_" + euid + "_" + pid);
    }

    static Path profilingServer(int euid, long pid) {
        return Path.of("/tmp/nox_jvm_profiling_server_" + euid + "_" + pid);
    }

    /**
     * Removes a file of ours left at {@code path} by an ended process that had our pid. Links
     * are not followed. A file of another user stays and the call fails: we must not publish
     * under a name whose file someone else controls.
     */
    static void removeStale(Path path, int euid) throws IOException {
        Object owner;
        try {
            owner = Files.getAttribute(path, "unix:uid", LinkOption.NOFOLLOW_LINKS);
        } catch (NoSuchFileException e) {
            return;
        }
        if (!(owner instanceof Integer uid) || uid != euid) {
            throw new IOException(path + " belongs to another user; not publishing under its name");
        }
        Files.deleteIfExists(path);
    }

    /** The identity (device and inode) of the file at {@code path}, links not followed; null if none. */
    static Object identity(Path path) {
        try {
            return Files.readAttributes(path, java.nio.file.attribute.BasicFileAttributes.class,
                    LinkOption.NOFOLLOW_LINKS).fileKey();
        } catch (IOException e) {
            return null;
        }
    }

    /** Deletes {@code path} when it is still the file we created (same identity). */
    static void deleteIfSame(Path path, Object identity) {
        if (identity != null && identity.equals(identity(path))) {
            try {
                Files.deleteIfExists(path);
            } catch (IOException e) {
                // Gone already, or /tmp is read-only now: the next scan judges it stale.
            }
        }
    }
}
