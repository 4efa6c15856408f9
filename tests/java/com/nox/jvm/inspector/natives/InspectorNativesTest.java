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
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;

import org.junit.jupiter.api.Test;

/**
 * The monitoring-board collector in a real JVM, beyond what the contract test drives: boards
 * followed as their file changes and given up as they go, and boards that come and go for a long
 * time, as short-lived VMs do: the address range of a gone board is given back once its buffer
 * has been collected, so the process's mappings (lines of /proc/self/maps) and its address space
 * stay bounded instead of growing with every board until the kernel's limit. A thread that keeps
 * a gone board's buffer reads zeros meanwhile.
 *
 * <p>Those boards are files of child processes that the test writes and deletes, PROCESSES at a
 * time; each is 1 MiB (sparse: one page written), so that a range kept for good shows in the
 * address space whether or not the kernel merges neighbouring zero-page ranges into one mapping.
 * The number of boards is the system property nox.boards.cycled (10,000 in the suite; longer runs
 * pass 100,000). The test collects garbage every GC_EVERY rounds, as any working JVM does now and
 * then: until a buffer is collected its range is kept.
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

    private static CountingBoard boardOf(long pid) {
        List<Object> ours = Arrays.stream(InspectorNatives.getListOfVisibleMonitorBoards0())
                .filter(b -> ((MonitoringBoard) b).pid() == pid).toList();
        assertTrue(ours.size() <= 1, "one board per pid");
        return ours.isEmpty() ? null : (CountingBoard) ours.get(0);
    }

    private static void write(Path file, byte[] bytes) throws IOException {
        try (RandomAccessFile out = new RandomAccessFile(file.toFile(), "rw")) {
            out.write(bytes);
        }
    }

    /**
     * Real board files that the test writes for a child process of its own (boards of other tests
     * may be visible too; only our own pid's board is asserted on), followed as they change, given
     * up when their object refuses or their process ends; and the refusals of a class without the
     * methods.
     */
    @Test
    void boardsFollowTheFileAndAreToldWhenTheyGoWhileTheirBytesAreStillThere() throws Exception {
        assertThrows(NoSuchMethodError.class, () -> InspectorNatives.initLocalMonitorBoards0(String.class));
        assertThrows(IllegalStateException.class, InspectorNatives::getListOfVisibleMonitorBoards0);
        assertThrows(IllegalStateException.class, () -> InspectorNatives.initLocalMonitorBoards0(null));
        InspectorNatives.initLocalMonitorBoards0(CountingBoard.class);
        Process child = new ProcessBuilder("sleep", "600").start();
        long uid = (Integer) Files.getAttribute(Path.of("/proc/self"), "unix:uid");
        Path boardFile = Path.of("/tmp/nox_jvm_monitoringboard_" + uid + "_" + child.pid());
        Path bak = Path.of(boardFile + ".bak");
        try {
            // Empty board files and names with more after the pid are left out.
            write(boardFile, new byte[0]);
            write(bak, new byte[] {1, 2, 3});
            assertNull(boardOf(child.pid()));
            assertTrue(Files.exists(bak));
            byte[] content = "board of the child, version 1".getBytes(StandardCharsets.US_ASCII);
            write(boardFile, content);
            CountingBoard first = boardOf(child.pid());
            assertNotNull(first);
            assertEquals(content.length, first.size());
            // The buffer is the file, mapped shared: a change of the file shows at once.
            write(boardFile, "B".getBytes(StandardCharsets.US_ASCII));
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
        } finally {
            child.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
            Files.deleteIfExists(boardFile);
            Files.deleteIfExists(bak);
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
