package com.nox.jvm.inspector.natives;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/**
 * The monitoring-board collector in a real JVM, beyond what the contract test drives: real board
 * files that the test writes for a child process of its own (boards of other tests may be
 * visible too; only our own pid's board is asserted on), followed as they change, given up when
 * their object refuses or their process ends, and the refusals of a class without the methods.
 */
class InspectorNativesTest {

    /** A board class that counts the collector's calls, can refuse to stay alive, and reads its first byte when told it is gone. */
    public static final class CountingBoard extends MonitoringBoard {
        static final AtomicInteger GONE_CALLS = new AtomicInteger();
        volatile boolean refuse;
        volatile int firstByteWhenGone = -1;
        final AtomicInteger aliveCalls = new AtomicInteger();

        public CountingBoard(ByteBuffer buffer, int pid) {
            super(buffer, pid);
        }

        @Override
        public boolean isAlive() {
            aliveCalls.incrementAndGet();
            return !refuse && super.isAlive();
        }

        @Override
        public void processOfBoardIsGone() {
            firstByteWhenGone = buffer().get(0);
            GONE_CALLS.incrementAndGet();
            super.processOfBoardIsGone();
        }
    }

    private Process child;
    private Path boardFile;

    @BeforeEach
    void startChild() throws IOException {
        child = new ProcessBuilder("sleep", "600").start();
        long uid = (Integer) Files.getAttribute(Path.of("/proc/self"), "unix:uid");
        boardFile = Path.of("/tmp/nox_jvm_monitoringboard_" + uid + "_" + child.pid());
    }

    @AfterEach
    void endChild() throws Exception {
        child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
        Files.deleteIfExists(boardFile);
    }

    private static CountingBoard boardOf(long pid) {
        List<Object> ours = Arrays.stream(InspectorNatives.getListOfVisibleMonitorBoards0())
                .filter(b -> ((MonitoringBoard) b).pid() == pid).toList();
        assertTrue(ours.size() <= 1, "one board per pid");
        return ours.isEmpty() ? null : (CountingBoard) ours.get(0);
    }

    private void writeBoard(byte[] bytes) throws IOException {
        try (RandomAccessFile file = new RandomAccessFile(boardFile.toFile(), "rw")) {
            file.write(bytes);
        }
    }

    @Test
    void boardsFollowTheFileAndAreToldWhenTheyGoWhileTheirBytesAreStillThere() throws Exception {
        InspectorNatives.initLocalMonitorBoards0(CountingBoard.class);
        byte[] content = "board of the child, version 1".getBytes(StandardCharsets.US_ASCII);
        writeBoard(content);
        CountingBoard first = boardOf(child.pid());
        assertNotNull(first);
        assertEquals(content.length, first.size());
        // The buffer is the file, mapped shared: a change of the file shows at once.
        writeBoard("B".getBytes(StandardCharsets.US_ASCII));
        assertEquals('B', first.buffer().get(0));
        assertSame(first, boardOf(child.pid()));
        assertEquals(1, first.aliveCalls.get(), "asked once in the second listing");

        // A board that refuses to stay alive is told it is gone (its bytes still there), left
        // out for one listing, and comes back anew.
        first.refuse = true;
        int goneBefore = CountingBoard.GONE_CALLS.get();
        assertNull(boardOf(child.pid()));
        assertEquals(goneBefore + 1, CountingBoard.GONE_CALLS.get());
        assertEquals('B', first.firstByteWhenGone);
        CountingBoard renewed = boardOf(child.pid());
        assertNotSame(first, renewed);

        // The process ends: the listing deletes its file and tells its board once.
        child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
        assertNull(boardOf(child.pid()));
        assertNull(boardOf(child.pid()));
        assertEquals(goneBefore + 2, CountingBoard.GONE_CALLS.get());
        assertEquals('B', renewed.firstByteWhenGone);
        assertFalse(Files.exists(boardFile));
    }

    @Test
    void emptyBoardFilesAndForeignNamesAreLeftOut() throws Exception {
        InspectorNatives.initLocalMonitorBoards0(CountingBoard.class);
        writeBoard(new byte[0]);
        assertNull(boardOf(child.pid()));
        Path bak = Path.of(boardFile + ".bak");
        try {
            Files.write(bak, new byte[] {1, 2, 3});
            assertNull(boardOf(child.pid()));
            assertTrue(Files.exists(bak));
        } finally {
            Files.deleteIfExists(bak);
        }
    }

    @Test
    void aBoardClassWithoutTheNeededMethodsIsRefusedClearly() {
        assertThrows(NoSuchMethodError.class, () -> InspectorNatives.initLocalMonitorBoards0(String.class));
        assertThrows(IllegalStateException.class, InspectorNatives::getListOfVisibleMonitorBoards0);
        assertThrows(IllegalStateException.class, () -> InspectorNatives.initLocalMonitorBoards0(null));
        InspectorNatives.initLocalMonitorBoards0(CountingBoard.class);
        assertNotNull(InspectorNatives.getListOfVisibleMonitorBoards0());
    }
}
