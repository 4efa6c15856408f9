package com.nox.jvm.agent;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.PosixFilePermission;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.EnumSet;
import java.util.Set;

/**
 * The control-area file of this process: created new (never through a link, never over another
 * user's file), mode 0600, its whole size written with zeros at once, so that a full /tmp fails
 * here with an IOException. It is read and written with positional reads and writes, never
 * through a mapping: whoever may write the file may also cut it, and a cut mapped file faults on
 * the next access to a page past its new end (the VM turns that into an InternalError on the
 * accessing thread). A write past the end of a cut file makes it grow back instead.
 */
final class PublishedFile implements AutoCloseable {
    private final Path path;
    private final Object identity;
    private final FileChannel channel;

    private PublishedFile(Path path, Object identity, FileChannel channel) {
        this.path = path;
        this.identity = identity;
        this.channel = channel;
    }

    static PublishedFile create(Path path, int size, int euid) throws IOException {
        TmpFiles.removeStale(path, euid);
        Set<PosixFilePermission> owner = EnumSet.of(PosixFilePermission.OWNER_READ, PosixFilePermission.OWNER_WRITE);
        // CREATE_NEW is O_CREAT | O_EXCL: an existing name, a link included, makes it fail.
        FileChannel channel = FileChannel.open(path, Set.of(StandardOpenOption.CREATE_NEW,
                StandardOpenOption.READ, StandardOpenOption.WRITE, LinkOption.NOFOLLOW_LINKS),
                PosixFilePermissions.asFileAttribute(owner));
        Object identity = TmpFiles.identity(path);
        try {
            // The umask may have narrowed the mode further; 0600 is what readers expect.
            java.nio.file.Files.setPosixFilePermissions(path, owner);
            PublishedFile file = new PublishedFile(path, identity, channel);
            file.write(0, ByteBuffer.allocate(size));
            return file;
        } catch (IOException | RuntimeException e) {
            TmpFiles.deleteIfSame(path, identity);
            channel.close();
            throw e;
        }
    }

    Path path() {
        return path;
    }

    /** Writes the remaining bytes of {@code bytes} at {@code position} of the file. */
    void write(long position, ByteBuffer bytes) throws IOException {
        long at = position;
        while (bytes.hasRemaining()) {
            at += channel.write(bytes, at);
        }
    }

    /** Reads from {@code position} until {@code into} is full or the file ends; false when it ended first. */
    boolean read(long position, ByteBuffer into) throws IOException {
        long at = position;
        while (into.hasRemaining()) {
            int n = channel.read(into, at);
            if (n < 0) {
                return false;
            }
            at += n;
        }
        return true;
    }

    /** The file's size now. */
    long size() throws IOException {
        return channel.size();
    }

    /** Cuts the file to {@code size} bytes. */
    void truncate(long size) throws IOException {
        channel.truncate(size);
    }

    /** Whether {@code path} still names this file (not deleted, not replaced by another file). */
    boolean isAtItsPath() {
        return identity != null && identity.equals(TmpFiles.identity(path));
    }

    /** Removes the file if it is still ours, and closes it. */
    @Override
    public void close() {
        TmpFiles.deleteIfSame(path, identity);
        try {
            channel.close();
        } catch (IOException e) {
            // Nothing more to release than the descriptor, which is gone either way.
        }
    }
}
