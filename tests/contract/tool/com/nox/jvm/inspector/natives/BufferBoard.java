package com.nox.jvm.inspector.natives;

import java.nio.ByteBuffer;

/** A board class of the tool with only the required constructor: each board is its mapped bytes. */
public class BufferBoard {
    final ByteBuffer buffer;
    final int pid;
    volatile boolean alive = true;
    volatile int goneCalls;

    public BufferBoard(ByteBuffer buffer, int pid) {
        this.buffer = buffer;
        this.pid = pid;
    }

    public boolean isAlive() {
        return alive;
    }

    public void processOfBoardIsGone() {
        goneCalls++;
    }
}
