package com.nox.jvm.inspector.natives;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.filesocket.FileServerSocket;

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
 * The inspector natives in a real JVM: process questions against real processes, and the
 * monitoring-board collector against real board files that the test writes for a child process
 * of its own (boards of other tests may be visible too; only our own pid's board is asserted on).
 */
class InspectorNativesTest {

    /** A board class that counts the calls the collector makes and can refuse to stay alive. */
    public static final class CountingBoard extends MonitoringBoard {
        static final AtomicInteger GONE_CALLS = new AtomicInteger();
        volatile boolean refuse;
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
            GONE_CALLS.incrementAndGet();
            super.processOfBoardIsGone();
        }
    }

    private Process child;
    private Path boardFile;

    @BeforeEach
    void startChild() throws IOException {
        child = new ProcessBuilder("sleep", "600").start();
        boardFile = Path.of("/tmp/nox_jvm_monitoringboard_" + uid() + "_" + child.pid());
    }

    @AfterEach
    void endChild() throws Exception {
        child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
        Files.deleteIfExists(boardFile);
    }

    private static long uid() throws IOException {
        return (Integer) Files.getAttribute(Path.of("/proc/self"), "unix:uid");
    }

    private static CountingBoard boardOf(long pid) {
        Object[] boards = InspectorNatives.getListOfVisibleMonitorBoards0();
        assertNotNull(boards);
        List<Object> ours = Arrays.stream(boards).filter(b -> ((MonitoringBoard) b).pid() == pid).toList();
        assertTrue(ours.size() <= 1, "one board per pid");
        return ours.isEmpty() ? null : (CountingBoard) ours.get(0);
    }

    private void writeBoard(byte[] bytes) throws IOException {
        try (RandomAccessFile file = new RandomAccessFile(boardFile.toFile(), "rw")) {
            file.write(bytes);
        }
    }

    @Test
    void boardsKeepTheirObjectFollowTheFileAndAreToldWhenTheProcessEnds() throws Exception {
        InspectorNatives.initLocalMonitorBoards0(CountingBoard.class);
        byte[] content = "board of the child, version 1".getBytes(StandardCharsets.US_ASCII);
        writeBoard(content);

        CountingBoard first = boardOf(child.pid());
        assertNotNull(first);
        assertEquals(content.length, first.size());
        byte[] seen = new byte[content.length];
        first.buffer().get(seen);
        assertArrayEquals(content, seen);

        // The buffer is the file, mapped shared: a change of the file shows at once.
        try (RandomAccessFile file = new RandomAccessFile(boardFile.toFile(), "rw")) {
            file.seek(27);
            file.write('9');
        }
        assertEquals('9', first.buffer().get(27));

        CountingBoard second = boardOf(child.pid());
        assertSame(first, second);
        assertEquals(1, first.aliveCalls.get());  // asked once in the second listing

        // A board that refuses to stay alive vanishes for one listing and comes back anew.
        first.refuse = true;
        int goneBefore = CountingBoard.GONE_CALLS.get();
        assertNull(boardOf(child.pid()));
        assertEquals(goneBefore + 1, CountingBoard.GONE_CALLS.get());
        assertTrue(first.isGone());
        CountingBoard renewed = boardOf(child.pid());
        assertNotNull(renewed);
        assertNotSame(first, renewed);

        // The process ends: its file is deleted by the listing and its board told once.
        child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
        goneBefore = CountingBoard.GONE_CALLS.get();
        assertNull(boardOf(child.pid()));
        assertEquals(goneBefore + 1, CountingBoard.GONE_CALLS.get());
        assertTrue(renewed.isGone());
        assertFalse(Files.exists(boardFile));
        assertNull(boardOf(child.pid()));
        assertEquals(goneBefore + 1, CountingBoard.GONE_CALLS.get());
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
        InspectorNatives.initLocalMonitorBoards0(CountingBoard.class);
        assertNotNull(InspectorNatives.getListOfVisibleMonitorBoards0());
    }

    @Test
    void processQuestions() throws Exception {
        assertEquals(ProcessHandle.current().pid(), InspectorNatives.getOwnProcessId0());
        assertEquals(1, InspectorNatives.isProcessAlive0(InspectorNatives.getOwnProcessId0()));
        assertEquals(1, InspectorNatives.isProcessAlive0((int) child.pid()));
        assertEquals(0, InspectorNatives.isProcessAlive0(0));
        assertEquals(0, InspectorNatives.isProcessAlive0(-1));

        long started = child.info().startInstant().orElseThrow().getEpochSecond();
        assertEquals(started, InspectorNatives.getCreationTimeOfProcess0((int) child.pid()));

        Process ended = new ProcessBuilder("true").start();
        assertTrue(ended.waitFor(10, TimeUnit.SECONDS), "the process 'true' did not end");
        assertEquals(0, InspectorNatives.isProcessAlive0((int) ended.pid()));
        assertEquals(0, InspectorNatives.getCreationTimeOfProcess0((int) ended.pid()));

        Process getconf = new ProcessBuilder("getconf", "_NPROCESSORS_CONF").start();
        int configured = Integer.parseInt(new String(getconf.getInputStream().readAllBytes()).trim());
        assertEquals(configured, InspectorNatives.getCpuCount0());
        assertFalse(InspectorNatives.couldElevate0());
    }

    @Test
    void profilingServerOfAPid() throws Exception {
        int pid = (int) child.pid();
        assertNull(InspectorNatives.getProfilingServerIdentifier0(pid));
        assertEquals(-1, InspectorNatives.isFileSocketServerAttachable0(pid));
        String path = "/tmp/nox_jvm_profiling_server_" + uid() + "_" + pid;
        try (FileServerSocket server = new FileServerSocket(path)) {
            assertEquals(path, InspectorNatives.getProfilingServerIdentifier0(pid));
            assertEquals(0, InspectorNatives.isFileSocketServerAttachable0(pid));
        }
        assertNull(InspectorNatives.getProfilingServerIdentifier0(pid));
    }
}
