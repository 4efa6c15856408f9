package com.nox.jvm.inspector.natives;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * Java may keep a board's ByteBuffer after the library has reported the board gone, and read
 * it: the read must see zeros, never kill the JVM. The boards are real files of child processes
 * that the test writes and ends.
 */
class BoardAfterGoneTest {
    private static final int SIZE = 3 * 4096 + 100;

    private static long uid() throws IOException {
        return (Integer) Files.getAttribute(Path.of("/proc/self"), "unix:uid");
    }

    private static MonitoringBoard boardOf(long pid) {
        for (Object o : InspectorNatives.getListOfVisibleMonitorBoards0()) {
            MonitoringBoard board = (MonitoringBoard) o;
            if (board.pid() == pid) {
                return board;
            }
        }
        return null;
    }

    private static void assertAllZero(ByteBuffer buffer) {
        for (int i = 0; i < buffer.capacity(); i++) {
            if (buffer.get(i) != 0) {
                throw new AssertionError("byte " + i + " of a gone board is " + buffer.get(i));
            }
        }
    }

    @Test
    void aBufferReadAfterTheGoneCallSeesZeros() throws Exception {
        InspectorNatives.initLocalMonitorBoards0(MonitoringBoard.class);
        Process child = new ProcessBuilder("sleep", "600").start();
        Path file = Path.of("/tmp/nox_jvm_monitoringboard_" + uid() + "_" + child.pid());
        try {
            byte[] content = new byte[SIZE];
            Arrays.fill(content, (byte) 'b');
            Files.write(file, content);

            // A board that its own object gives up (isAlive false) is left out for one listing;
            // the old buffer is kept by the test.
            MonitoringBoard first = boardOf(child.pid());
            assertNotNull(first, "the board of the child is listed");
            ByteBuffer firstBuffer = first.buffer();
            assertEquals('b', firstBuffer.get(SIZE - 1));
            first.release();
            assertNull(boardOf(child.pid()));
            assertTrue(first.isGone());
            assertAllZero(firstBuffer);

            // The board comes back as a new board; then its process ends and its file goes.
            MonitoringBoard second = boardOf(child.pid());
            assertNotNull(second, "the board is listed again after its release");
            ByteBuffer secondBuffer = second.buffer();
            assertEquals('b', secondBuffer.get(0));
            child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
            assertNull(boardOf(child.pid()));
            assertTrue(second.isGone());
            assertAllZero(secondBuffer);
            // The file of the ended process was removed by the listing; reading stays harmless.
            assertTrue(!Files.exists(file));
            assertAllZero(secondBuffer);
        } finally {
            child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
            Files.deleteIfExists(file);
        }
    }
}
