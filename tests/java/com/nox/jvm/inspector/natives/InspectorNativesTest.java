package com.nox.jvm.inspector.natives;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * The monitoring-board collector with our board class, beyond what the contract test drives:
 * boards followed as their file changes and mapped anew after a release, and boards that come and
 * go for a long time, as short-lived VMs do: the address range of a gone board is given back once
 * its buffer has been collected, so the process's mappings (lines of /proc/self/maps) and its
 * address space stay bounded instead of growing with every board until the kernel's limit. A
 * thread that keeps a gone board's buffer reads zeros meanwhile.
 *
 * <p>Those boards are files of child processes that the test writes and deletes, PROCESSES at a
 * time; each is 1 MiB (sparse: one page written), so that a range kept for good shows in the
 * address space whether or not the kernel merges neighbouring zero-page ranges into one mapping.
 * The number of boards is the system property nox.boards.cycled (10,000 in the suite; longer runs
 * pass 100,000). The test collects garbage every GC_EVERY rounds, as any working JVM does now and
 * then: until a buffer is collected its range is kept.
 */
class InspectorNativesTest {

    /** Our board class, noting the first byte it reads when told that its board is gone. */
    public static final class NotedBoard extends MonitoringBoard {
        volatile int firstByteWhenGone = -1;

        public NotedBoard(ByteBuffer buffer, int pid) {
            super(buffer, pid);
        }

        @Override
        public void processOfBoardIsGone() {
            firstByteWhenGone = buffer().get(0);
            super.processOfBoardIsGone();
        }
    }

    private static NotedBoard boardOf(long pid) {
        List<Object> ours = Arrays.stream(InspectorNatives.getListOfVisibleMonitorBoards0())
                .filter(b -> ((MonitoringBoard) b).pid() == pid).toList();
        assertTrue(ours.size() <= 1, "one board per pid");
        return ours.isEmpty() ? null : (NotedBoard) ours.get(0);
    }

    @BeforeAll
    static void noListBeforeABoardClassWithTheMethods() {
        assertThrows(IllegalStateException.class, InspectorNatives::getListOfVisibleMonitorBoards0);
        assertThrows(NoSuchMethodError.class, () -> InspectorNatives.initLocalMonitorBoards0(String.class));
        assertThrows(IllegalStateException.class, () -> InspectorNatives.initLocalMonitorBoards0(null));
    }

    /**
     * A board file that the test writes for a child process of its own: followed as it changes,
     * left out while empty, mapped anew after our class releases it, and given up when its
     * process ends; told that it is gone while its bytes are still there.
     */
    @Test
    void boardsFollowTheirFileAndAreMappedAnewAfterARelease() throws Exception {
        InspectorNatives.initLocalMonitorBoards0(NotedBoard.class);
        Process child = new ProcessBuilder("sleep", "600").start();
        long uid = (Integer) Files.getAttribute(Path.of("/proc/self"), "unix:uid");
        Path boardFile = Path.of("/tmp/nox_jvm_monitoringboard_" + uid + "_" + child.pid());
        try {
            Files.write(boardFile, new byte[0]);
            assertNull(boardOf(child.pid()), "an empty board file");
            Files.writeString(boardFile, "board of the child");
            NotedBoard first = boardOf(child.pid());
            assertEquals(18, first.size());
            try (RandomAccessFile out = new RandomAccessFile(boardFile.toFile(), "rw")) {
                out.write('B'); // the buffer is the file, mapped shared: the change shows at once
            }
            assertEquals('B', first.buffer().get(0));
            assertSame(first, boardOf(child.pid()));

            first.release();
            assertNull(boardOf(child.pid()), "a released board is left out once");
            assertEquals('B', first.firstByteWhenGone);
            NotedBoard renewed = boardOf(child.pid());
            assertNotSame(first, renewed);

            child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
            assertNull(boardOf(child.pid()));
            assertTrue(renewed.isGone());
            assertEquals('B', renewed.firstByteWhenGone);
            assertFalse(Files.exists(boardFile), "the listing removes the file of a gone process");
        } finally {
            child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
            Files.deleteIfExists(boardFile);
        }
    }

    private static final int BOARDS = Integer.getInteger("nox.boards.cycled", 10_000);
    private static final int PROCESSES = 50;
    private static final int GC_EVERY = 20;
    private static final int SIZE = 1 << 20;
    private static final int WRITTEN = 4096;
    private static final long MIB = 1 << 20;

    /** Lines of /proc/self/maps and the bytes they cover. */
    private record Mappings(int lines, long bytes) {
        static Mappings now() throws IOException {
            List<String> lines = Files.readAllLines(Path.of("/proc/self/maps"));
            long bytes = 0;
            for (String line : lines) {
                String[] range = line.substring(0, line.indexOf(' ')).split("-");
                bytes += Long.parseUnsignedLong(range[1], 16) - Long.parseUnsignedLong(range[0], 16);
            }
            return new Mappings(lines.size(), bytes);
        }

        Mappings max(Mappings other) {
            return new Mappings(Math.max(lines, other.lines), Math.max(bytes, other.bytes));
        }
    }

    private static void writeBoard(Path file, byte[] page) throws IOException {
        try (RandomAccessFile out = new RandomAccessFile(file.toFile(), "rw")) {
            out.write(page);
            out.setLength(SIZE);
        }
    }

    /** Reads a board's buffer over and over; once told the board is gone, every byte must be 0. */
    private static final class Reader extends Thread {
        final ByteBuffer buffer;
        volatile boolean gone;
        volatile boolean stop;
        final AtomicLong readsAfterGone = new AtomicLong();
        volatile String wrong;

        Reader(ByteBuffer buffer) {
            super("board-reader");
            this.buffer = buffer;
        }

        @Override
        public void run() {
            while (!stop && wrong == null) {
                boolean goneBefore = gone;
                for (int i = 0; i < WRITTEN; i++) {
                    byte b = buffer.get(i);
                    if (goneBefore ? b != 0 : b != 'b' && b != 0) wrong = "byte " + i + " is " + b + (goneBefore ? " after the board went" : "");
                }
                if (goneBefore && buffer.get(SIZE - 1) != 0) wrong = "the last byte after the board went";
                if (goneBefore) readsAfterGone.incrementAndGet();
                try {
                    Thread.sleep(1);
                } catch (InterruptedException e) {
                    return;
                }
            }
        }
    }

    private static Map<Long, MonitoringBoard> listed(List<Process> children) {
        Map<Long, MonitoringBoard> ours = new HashMap<>();
        for (Object o : InspectorNatives.getListOfVisibleMonitorBoards0()) {
            MonitoringBoard board = (MonitoringBoard) o;
            for (Process child : children) {
                if (child.pid() == board.pid()) ours.put(child.pid(), board);
            }
        }
        return ours;
    }

    @Test
    void rangesOfGoneBoardsAreGivenBackAndAKeptBufferReadsZeros() throws Exception {
        InspectorNatives.initLocalMonitorBoards0(MonitoringBoard.class);
        long uid = (Integer) Files.getAttribute(Path.of("/proc/self"), "unix:uid");
        List<Process> children = new ArrayList<>();
        List<Path> files = new ArrayList<>();
        Reader reader = null;
        try {
            for (int i = 0; i < PROCESSES; i++) {
                Process child = new ProcessBuilder("sleep", "600").start();
                children.add(child);
                files.add(Path.of("/tmp/nox_jvm_monitoringboard_" + uid + "_" + child.pid()));
            }
            byte[] page = new byte[WRITTEN];
            Arrays.fill(page, (byte) 'b');
            System.gc();
            Mappings before = Mappings.now();
            Mappings peak = before;
            int rounds = (BOARDS + PROCESSES - 1) / PROCESSES;
            for (int round = 0; round < rounds; round++) {
                for (Path file : files) writeBoard(file, page);
                Map<Long, MonitoringBoard> boards = listed(children);
                assertEquals(PROCESSES, boards.size(), "round " + round + ": every board is listed");
                if (round == 0) {
                    reader = new Reader(boards.get(children.get(0).pid()).buffer());
                    reader.start();
                }
                peak = peak.max(Mappings.now());
                for (Path file : files) Files.delete(file);
                assertTrue(listed(children).isEmpty(), "round " + round + ": every board has gone");
                for (MonitoringBoard board : boards.values()) assertTrue(board.isGone());
                if (round == 0) reader.gone = true;
                if (round % GC_EVERY == GC_EVERY - 1) System.gc();
            }
            reader.stop = true;
            reader.join(TimeUnit.SECONDS.toMillis(10));
            assertNull(reader.wrong);
            assertTrue(reader.readsAfterGone.get() > 0, "the reader read the gone board");
            reader = null;
            System.gc();
            assertTrue(listed(children).isEmpty());
            Mappings after = Mappings.now();
            String counts = "boards cycled " + rounds * PROCESSES + ", mappings before " + before + ", peak " + peak
                    + ", after " + after;
            System.out.println(counts);
            // At most the live boards and GC_EVERY rounds of gone ones, plus room for the JVM's own
            // mappings (a thread's stack, a malloc arena); kept for good, every board would add its MiB.
            int held = PROCESSES * (GC_EVERY + 2);
            assertTrue(peak.lines() - before.lines() < held + 500, counts);
            assertTrue(peak.bytes() - before.bytes() < held * MIB + 1024 * MIB, counts);
            assertTrue(after.lines() - before.lines() < 500, counts);
            assertTrue(after.bytes() - before.bytes() < 1024 * MIB, counts);
        } finally {
            if (reader != null) reader.stop = true;
            for (Process child : children) child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
            for (Path file : files) Files.deleteIfExists(file);
        }
    }
}
