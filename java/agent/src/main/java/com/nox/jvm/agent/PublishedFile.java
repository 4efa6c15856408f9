package com.nox.jvm.agent;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.MappedByteBuffer;
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
 * user's file), mode 0600, its whole size written with zeros before it is mapped, so that a full
 * /tmp fails here with an IOException and never later as a fault on the mapping. The file keeps
 * its full size while it is published, since readers copy it whole after a size check.
 */
final class PublishedFile implements AutoCloseable {
    private final Path path;
    private final Object identity;
    private final MappedByteBuffer map;

    private PublishedFile(Path path, Object identity, MappedByteBuffer map) {
        this.path = path;
        this.identity = identity;
        this.map = map;
    }

    static PublishedFile create(Path path, int size, int euid) throws IOException {
        TmpFiles.removeStale(path, euid);
        Set<PosixFilePermission> owner = EnumSet.of(PosixFilePermission.OWNER_READ, PosixFilePermission.OWNER_WRITE);
        // CREATE_NEW is O_CREAT | O_EXCL: an existing name, a link included, makes it fail.
        try (FileChannel channel = FileChannel.open(path, Set.of(StandardOpenOption.CREATE_NEW,
                StandardOpenOption.READ, StandardOpenOption.WRITE, LinkOption.NOFOLLOW_LINKS),
                PosixFilePermissions.asFileAttribute(owner))) {
            Object identity = TmpFiles.identity(path);
            try {
                // The umask may have narrowed the mode further; 0600 is what readers expect.
                java.nio.file.Files.setPosixFilePermissions(path, owner);
                ByteBuffer zeros = ByteBuffer.allocate(size);
                while (zeros.hasRemaining()) {
                    channel.write(zeros, zeros.position());
                }
                MappedByteBuffer map = channel.map(FileChannel.MapMode.READ_WRITE, 0, size);
                map.order(ByteOrder.nativeOrder());
                return new PublishedFile(path, identity, map);
            } catch (IOException | RuntimeException e) {
                TmpFiles.deleteIfSame(path, identity);
                throw e;
            }
        }
    }

    Path path() {
        return path;
    }

    /** The mapping, in the processor's byte order. */
    MappedByteBuffer map() {
        return map;
    }

    /** Removes the file if it is still ours; the mapping stays valid memory until it is collected. */
    @Override
    public void close() {
        TmpFiles.deleteIfSame(path, identity);
    }
}
