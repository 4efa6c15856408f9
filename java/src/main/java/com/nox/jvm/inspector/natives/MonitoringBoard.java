package com.nox.jvm.inspector.natives;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/**
 * A VM's monitoring board: the bytes of its board file, mapped read-only and shared, so that
 * the buffer follows what the VM writes. The library keeps one object per board; when the VM's
 * process has gone it calls {@link #processOfBoardIsGone()} once and gives the mapping up: from
 * then on the buffer reads as zeros (its memory is never handed to anything else).
 */
public class MonitoringBoard {
    private final ByteBuffer buffer;
    private final int pid;
    private volatile boolean gone;
    private volatile boolean released;

    public MonitoringBoard(ByteBuffer buffer, int pid) {
        this.buffer = buffer.asReadOnlyBuffer().order(ByteOrder.nativeOrder());
        this.pid = pid;
    }

    /** The board's bytes (read-only, native byte order, position 0). */
    public ByteBuffer buffer() {
        return buffer.duplicate().order(buffer.order());
    }

    public int pid() {
        return pid;
    }

    public int size() {
        return buffer.capacity();
    }

    /** True until the board was released or its process has gone. */
    public boolean isAlive() {
        return !released && !gone;
    }

    /** Asks for a fresh mapping: the next listing leaves this board out, the one after maps it anew. */
    public void release() {
        released = true;
    }

    /** Called by the library once, when the board's process has gone or the board was released. */
    public void processOfBoardIsGone() {
        gone = true;
    }

    public boolean isGone() {
        return gone;
    }

    @Override
    public String toString() {
        return "monitoring board of pid " + pid + " (" + size() + " bytes" + (gone ? ", gone" : "") + ")";
    }
}
