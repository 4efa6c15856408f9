package com.nox.jvm.inspector.natives;

import java.nio.ByteBuffer;

/**
 * A board class of the tool with both constructors: the library then builds each board from
 * its file's name. The fields keep what the constructors and the two methods are given.
 */
public class Board {
    final ByteBuffer buffer;
    final String fileName;
    final int pid;
    volatile boolean alive = true;
    volatile int goneCalls;

    public Board(ByteBuffer buffer, int pid) {
        this.buffer = buffer;
        this.fileName = null;
        this.pid = pid;
    }

    public Board(String fileName, int pid) {
        this.buffer = null;
        this.fileName = fileName;
        this.pid = pid;
    }

    public boolean isAlive() {
        return alive;
    }

    public void processOfBoardIsGone() {
        goneCalls++;
    }
}
