package com.nox.jvm.agent;

import static com.nox.jvm.agent.ControlAreaLayout.*;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Path;
import java.util.Arrays;

/**
 * This VM's control area: the block as the agent means it to be, an image in memory that
 * {@link ControlAreaWriter} fills, and the file that publishes it. The agent's own fields go from
 * the image to the file with positional writes of their ranges only, so that a request that a
 * requester stores meanwhile is never overwritten; requests are read from the file.
 *
 * <p>The file is the agent's, but its owner (or root) may cut it, overwrite it or delete it while
 * the VM runs. Each look at the requests checks first that the file has its full size and that
 * its header and the slot's identity are what the image holds; a damaged file is written whole
 * again from the image, and a file no longer at its name is made anew. Requests in a damaged
 * file are not acted on.
 *
 * <p>Every method holds this object's monitor, so that {@link #close} (from the shutdown hook)
 * never races with a file being made anew. None calls out while holding it.
 */
final class PublishedArea implements AutoCloseable {
    private static final int VM = LEAD_IN + INSTANCE_AREA_SIZE;
    /** The file's first bytes that a look reads: up to the requested exit code of the slot. */
    private static final int HEAD = VM + V_REQUESTED_EXIT_CODE + 4;
    /** Request flags beyond the head, by their offset in the per-VM area. */
    private static final int FAR_FLAGS = 24;

    private final Path path;
    private final int euid;
    /** The whole file as the agent means it: the lead-in, then the block. */
    private final ByteBuffer image = ByteBuffer.allocate(FILE_SIZE).order(ByteOrder.nativeOrder());
    private final ControlAreaWriter writer;
    private final ByteBuffer head = ByteBuffer.allocate(HEAD).order(ByteOrder.nativeOrder());
    private final ByteBuffer word = ByteBuffer.allocate(8).order(ByteOrder.nativeOrder());
    private PublishedFile file;
    private boolean closed;

    private PublishedArea(Path path, int euid, PublishedFile file) {
        this.path = path;
        this.euid = euid;
        this.file = file;
        writer = new ControlAreaWriter(image.slice(LEAD_IN, BLOCK_SIZE).order(ByteOrder.nativeOrder()));
    }

    /** Makes the file (all zeros: nothing is published yet). */
    static PublishedArea create(Path path, int euid) throws IOException {
        return new PublishedArea(path, euid, PublishedFile.create(path, FILE_SIZE, euid));
    }

    Path path() {
        return path;
    }

    /** Publishes the VM: every field, then the slot's and the header's eyecatchers. */
    synchronized void publish(ControlAreaWriter.Identity identity, MxReadings.Figures figures) throws IOException {
        writer.publish(identity, figures);
        writeWhole();
    }

    /** Writes the figures that change, into the image and their ranges of the file. */
    synchronized void refresh(MxReadings.Figures figures) throws IOException {
        writer.refresh(figures);
        int[] ranges = ControlAreaWriter.REFRESHED;
        for (int i = 0; i < ranges.length; i += 2) {
            writeImage(LEAD_IN + ranges[i], ranges[i + 1]);
        }
    }

    /**
     * Checks the file and reads the value of every request flag, in the order of
     * {@link ControlAreaLayout#FLAGS}, into {@code flags}. False, and {@code flags} untouched,
     * when the file is cut, longer than the block or its header or slot identity differ from the
     * image.
     */
    synchronized boolean readFlags(int[] flags) throws IOException {
        if (file.size() != FILE_SIZE || !file.read(0, head.clear()) || !headMatchesImage()) {
            return false;
        }
        for (int i = 0; i < FAR_FLAGS; i++) {
            flags[i] = head.getInt(VM + FLAGS[i]);
        }
        for (int i = FAR_FLAGS; i < FLAGS.length; i++) {
            flags[i] = readInt(FLAGS[i]);
        }
        return true;
    }

    /** The lead-in, the header and the instance area up to the heap figures, and the slot's identity. */
    private boolean headMatchesImage() {
        return sameBytes(0, LEAD_IN + I_HEAP_SIZE) && sameBytes(VM + V_EYECATCHER, 4) && sameBytes(VM + V_PID, 12);
    }

    private boolean sameBytes(int offset, int length) {
        return Arrays.equals(head.array(), offset, offset + length, image.array(), offset, offset + length);
    }

    /** The int32 at {@code offset} of the per-VM area as the file holds it now; 0 past a cut end. */
    synchronized int readInt(int offset) throws IOException {
        word.clear().limit(4);
        return file.read(VM + offset, word) ? word.getInt(0) : 0;
    }

    /** Stores an int32 of the per-VM area, in the image and the file. */
    synchronized void putInt(int offset, int value) throws IOException {
        image.putInt(VM + offset, value);
        writeImage(VM + offset, 4);
    }

    /**
     * Writes the whole image into the file again, and cuts whatever lies beyond it. The header's
     * eyecatcher is zeroed first and written last, so that a reader sees either no block or the
     * whole one.
     */
    synchronized void republish() throws IOException {
        if (file.size() > FILE_SIZE) {
            file.truncate(FILE_SIZE);
        }
        writeWhole();
    }

    /**
     * Makes the file anew when its name no longer leads to it (deleted, or replaced by another
     * file of ours); true when it did. Fails, and the area stays as it was, when the name is
     * another user's now or the file cannot be made.
     */
    synchronized boolean recreateIfGone() throws IOException {
        if (closed || file.isAtItsPath()) {
            return false;
        }
        PublishedFile fresh = PublishedFile.create(path, FILE_SIZE, euid);
        PublishedFile old = file;
        file = fresh;
        try {
            writeWhole();
        } catch (IOException e) {
            file = old;
            fresh.close();
            throw e;
        }
        old.close();  // its name leads elsewhere now: only the descriptor is released
        return true;
    }

    private void writeWhole() throws IOException {
        int header = LEAD_IN + H_EYECATCHER;
        word.clear().putInt(0, 0).limit(4);
        file.write(header, word);
        writeImage(0, header);
        writeImage(header + 4, VM - header - 4);
        writeImage(VM + V_EYECATCHER + 4, FILE_SIZE - VM - 4);
        writeImage(VM + V_EYECATCHER, 4);
        writeImage(header, 4);
    }

    private void writeImage(int offset, int length) throws IOException {
        file.write(offset, image.slice(offset, length));
    }

    /** Removes the file if it is still ours. */
    @Override
    public synchronized void close() {
        closed = true;
        file.close();
    }
}
