package com.nox.jvm.agent;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTimeoutPreemptively;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

import org.junit.jupiter.api.Test;

/**
 * The agent's parts one by one, for what a whole VM with the agent (the CLI's agent test) does
 * not reach: options, /proc parsing, texts, requests, damaged files, the refresh, the server.
 */
class AgentPartsTest {
    private static final int EUID = ProcSelf.userId(1);
    private static final long PID = ProcessHandle.current().pid();

    @Test
    void optionsHaveDefaultsAndAreChecked() {
        AgentOptions defaults = AgentOptions.parse("");
        assertEquals(new AgentOptions(1000, 50, "nox-agent", true), defaults);
        assertEquals(defaults, AgentOptions.parse(null));
        assertEquals(new AgentOptions(250, 10, "web", false), AgentOptions.parse("refresh=250, tag=web,poll=10,server=false"));
        for (String bad : List.of("refresh=5", "refresh=x", "poll=101", "poll=0", "refresh", "colour=red", "server=yes")) {
            assertThrows(IllegalArgumentException.class, () -> AgentOptions.parse(bad), bad);
        }
    }

    @Test
    void statTimesAreReadAfterTheLastParenthesis() {
        String fields = " S 1 2 3 4 5 6 7 8 9 10 250 30 0 0 20 0 1 0 100 0 0";
        ProcSelf.CpuTimes times = ProcSelf.parseStat("4711 (odd) name) (x)" + fields);
        assertEquals(2500, times.userMillis());
        assertEquals(300, times.systemMillis());
        assertEquals(new ProcSelf.CpuTimes(-1, -1), ProcSelf.parseStat("4711 no parenthesis"));
        assertEquals(new ProcSelf.CpuTimes(-1, -1), ProcSelf.parseStat("4711 (short) S 1 2"));
        assertEquals(new ProcSelf.CpuTimes(-1, -1), ProcSelf.parseStat("4711 (x) S 1 2 3 4 5 6 7 8 9 10 u s"));
    }

    private static ByteBuffer block() {
        return ByteBuffer.allocate(ControlAreaLayout.BLOCK_SIZE).order(ByteOrder.nativeOrder());
    }

    @Test
    void textsAreCutAtTheirCapacityAndAtACharacterBoundary() {
        ByteBuffer block = block();
        ControlAreaWriter writer = new ControlAreaWriter(block);
        writer.text(100, 8, "abc");
        assertArrayEquals(new byte[] {'a', 'b', 'c', 0, 0, 0, 0, 0}, Arrays.copyOfRange(block.array(), 100, 108));
        writer.text(100, 8, "abcdefghij");
        assertArrayEquals("abcdefgh".getBytes(StandardCharsets.US_ASCII), Arrays.copyOfRange(block.array(), 100, 108));
        writer.text(100, 8, "abcdefg\u00e9");  // the second byte of é would lie beyond the field
        assertArrayEquals(new byte[] {'a', 'b', 'c', 'd', 'e', 'f', 'g', 0}, Arrays.copyOfRange(block.array(), 100, 108));
        writer.text(100, 8, "abcdef\u00e9x");  // é ends at the field's end: kept whole
        assertArrayEquals(new byte[] {'a', 'b', 'c', 'd', 'e', 'f', (byte) 0xC3, (byte) 0xA9},
                Arrays.copyOfRange(block.array(), 100, 108));
        assertThrows(IllegalArgumentException.class, () -> new ControlAreaWriter(ByteBuffer.allocate(100)));
    }

    private static final int VM = ControlAreaLayout.LEAD_IN + ControlAreaLayout.INSTANCE_AREA_SIZE;

    private static ControlAreaWriter.Identity identity() {
        return new ControlAreaWriter.Identity((int) PID, 1, "Test VM", "-Xmx1m", "", "demo.Main", "/", "t", "demo.Main");
    }

    /** Stores an int32 into the file at {@code offset} as a requester (or someone else) would. */
    private static void store(Path path, long offset, int value) throws IOException {
        try (FileChannel channel = FileChannel.open(path, StandardOpenOption.WRITE)) {
            channel.write(ByteBuffer.allocate(4).order(ByteOrder.nativeOrder()).putInt(0, value), offset);
        }
    }

    private static ByteBuffer contents(Path path) throws IOException {
        return ByteBuffer.wrap(Files.readAllBytes(path)).order(ByteOrder.nativeOrder());
    }

    @Test
    void requestsAreClearedInTheFileAndActedOn() throws IOException {
        Path path = Path.of("/tmp/nox_agent_test_requests_" + PID);
        Files.deleteIfExists(path);
        try (PublishedArea area = PublishedArea.create(path, EUID)) {
            area.publish(identity(), new MxReadings.Figures());
            List<Integer> exits = new ArrayList<>();
            int[] gcs = {0};
            RequestWatcher watcher = new RequestWatcher(area, exits::add, () -> gcs[0]++);
            assertEquals(0, watcher.check());
            store(path, VM + ControlAreaLayout.V_REQUESTED_EXIT_CODE, 42);
            store(path, VM + ControlAreaLayout.F_EXIT, 1);
            store(path, VM + ControlAreaLayout.F_GC, 1);
            store(path, VM + ControlAreaLayout.F_MAXIMUM_COMPACTION_GC, 1);
            store(path, VM + ControlAreaLayout.F_START_DEBUGGING, 1);
            store(path, VM + 35368, 1);  // enqueue operation: unknown to a stock VM
            store(path, VM + 25092, 7);  // dump code blobs, any nonzero value
            assertEquals(6, watcher.check());
            assertEquals(List.of(42), exits);
            assertEquals(2, gcs[0]);
            ByteBuffer file = contents(path);
            for (int flag : ControlAreaLayout.FLAGS) assertEquals(0, file.getInt(VM + flag), "flag at " + flag);
            assertEquals(ControlAreaLayout.DEBUGGING_NOT_ACTIVE, file.getInt(VM + ControlAreaLayout.V_DEBUGGING_STATE));
            assertEquals(-1, file.getInt(VM + ControlAreaLayout.V_CURRENT_DEBUG_PORT));
            assertEquals(0, watcher.check());
            assertEquals(6, watcher.handled());
        } finally {
            Files.deleteIfExists(path);
        }
    }

    /** One way of damaging a published file; each must be seen, never taken for a request, and repaired. */
    private interface Damage {
        void apply(Path path) throws IOException;
    }

    @Test
    void aDamagedFileIsNeverReadForRequestsAndIsPublishedAgainWhole() throws IOException {
        Path path = Path.of("/tmp/nox_agent_test_damage_" + PID);
        Files.deleteIfExists(path);
        Map<String, Damage> damages = new LinkedHashMap<>();
        damages.put("cut to 0", p -> Files.write(p, new byte[0]));
        damages.put("cut to 8", p -> truncate(p, 8));
        damages.put("cut before the far flags", p -> truncate(p, 30000));
        damages.put("cut by one byte", p -> truncate(p, ControlAreaLayout.FILE_SIZE - 1));
        damages.put("grown by one byte", p -> Files.write(p, new byte[1], StandardOpenOption.APPEND));
        damages.put("header version", p -> store(p, ControlAreaLayout.LEAD_IN + ControlAreaLayout.H_VERSION, 7));
        damages.put("lead-in", p -> store(p, 0, -1));
        damages.put("slot pid", p -> store(p, VM + ControlAreaLayout.V_PID, 1));
        damages.put("slot eyecatcher and every flag", p -> {
            for (int offset = VM; offset < VM + 100; offset += 4) store(p, offset, -1);
        });
        try (PublishedArea area = PublishedArea.create(path, EUID)) {
            area.publish(identity(), new MxReadings.Figures());
            byte[] published = Files.readAllBytes(path);
            int[] exits = {0};
            RequestWatcher watcher = new RequestWatcher(area, code -> exits[0]++, () -> { });
            for (Map.Entry<String, Damage> damage : damages.entrySet()) {
                store(path, VM + ControlAreaLayout.F_EXIT, 1);
                damage.getValue().apply(path);
                assertEquals(-1, watcher.check(), damage.getKey());
                area.republish();
                assertArrayEquals(published, Files.readAllBytes(path), damage.getKey());
                assertEquals(0, watcher.check(), damage.getKey());
            }
            assertEquals(0, exits[0], "a request in a damaged file is not acted on");

            assertFalse(area.recreateIfGone(), "the file is still at its name");
            Files.delete(path);
            assertTrue(area.recreateIfGone());
            assertArrayEquals(published, Files.readAllBytes(path));
            assertEquals("rw-------", PosixFilePermissions.toString(Files.getPosixFilePermissions(path)));
            store(path, VM + ControlAreaLayout.F_EXIT, 1);
            assertEquals(1, watcher.check(), "requests arrive through the new file");
        } finally {
            Files.deleteIfExists(path);
        }
        assertFalse(Files.exists(path), "closing removes the file made anew");
    }

    private static void truncate(Path path, long size) throws IOException {
        try (FileChannel channel = FileChannel.open(path, StandardOpenOption.WRITE)) {
            channel.truncate(size);
        }
    }

    @Test
    void refreshesWriteTheFiguresAndNoFieldThatRequestersWrite() {
        int[] requesterFields = {ControlAreaLayout.V_REQUESTED_EXIT_CODE, ControlAreaLayout.V_SUSPEND_POLICY,
            ControlAreaLayout.V_CAN_DEBUG_ON_DEMAND, ControlAreaLayout.V_CURRENT_DEBUG_PORT};
        int[] ranges = ControlAreaWriter.REFRESHED;
        for (int i = 0; i < ranges.length; i += 2) {
            int from = ranges[i] - ControlAreaLayout.INSTANCE_AREA_SIZE;
            int to = from + ranges[i + 1];
            for (int field : requesterFields) {
                assertFalse(field + 4 > from && field < to, "field " + field + " in range " + ranges[i]);
            }
            for (int flag : ControlAreaLayout.FLAGS) {
                assertFalse(flag + 4 > from && flag < to, "flag " + flag + " in range " + ranges[i]);
            }
        }
        // Every byte that a refresh changes lies in a range (the file gets only those).
        ByteBuffer block = block();
        ControlAreaWriter writer = new ControlAreaWriter(block);
        writer.publish(identity(), new MxReadings.Figures());
        byte[] before = block.array().clone();
        long v = 0x0101010101010101L;  // every byte of every figure changes
        MxReadings.Figures all = new MxReadings.Figures();
        all.heapCommitted = all.heapUsed = all.heapMax = all.metaspaceCommitted = all.metaspaceMax = v;
        all.codeCacheCommitted = all.oldGenUsedAfterGc = all.gcCount = all.fullGcCount = all.gcMillis = v;
        all.fullGcMillis = all.concurrentGcMillis = all.processCpuMillis = all.userMillis = all.systemMillis = v;
        writer.refresh(all);
        int changed = 0;
        for (int at = 0; at < before.length; at++) {
            if (before[at] != block.get(at)) {
                changed++;
                boolean inside = false;
                for (int i = 0; i < ranges.length; i += 2) {
                    inside |= at >= ranges[i] && at < ranges[i] + ranges[i + 1];
                }
                assertTrue(inside, "byte " + at + " changed outside the refreshed ranges");
            }
        }
        assertEquals(18 * 8, changed, "the 18 figures of a refresh");
    }

    @Test
    void publishedFileIsNewPrivateAndFullSizedAndReplacesOnlyOurOwnLeftovers() throws IOException {
        Path path = Path.of("/tmp/nox_agent_test_file_" + PID);
        Path target = Files.createTempFile("nox-agent-test", ".target");
        try {
            Files.writeString(target, "keep");
            Files.createSymbolicLink(path, target);  // planted link: removed, never followed
            try (PublishedFile file = PublishedFile.create(path, ControlAreaLayout.FILE_SIZE, EUID)) {
                assertTrue(Files.isRegularFile(path, LinkOption.NOFOLLOW_LINKS));
                assertEquals(ControlAreaLayout.FILE_SIZE, Files.size(path));
                assertEquals("rw-------", PosixFilePermissions.toString(Files.getPosixFilePermissions(path)));
                assertEquals("keep", Files.readString(target));
                file.write(8, ByteBuffer.allocate(4).order(ByteOrder.nativeOrder()).putInt(0, 0x01020304));
                assertEquals(0x01020304, contents(path).getInt(8));
                // A cut file is written and read without a fault: it grows back, and a read past its end says so.
                truncate(path, 0);
                assertFalse(file.read(8, ByteBuffer.allocate(4)));
                file.write(8, ByteBuffer.allocate(4).order(ByteOrder.nativeOrder()).putInt(0, 5));
                assertEquals(12, Files.size(path));
                assertTrue(file.isAtItsPath());
            }
            assertFalse(Files.exists(path, LinkOption.NOFOLLOW_LINKS), "closing removes the file");
            // A file that replaced ours meanwhile is not ours to remove.
            PublishedFile file = PublishedFile.create(path, 64, EUID);
            Files.delete(path);
            Files.writeString(path, "someone else's");
            assertFalse(file.isAtItsPath());
            file.close();
            assertEquals("someone else's", Files.readString(path));
        } finally {
            Files.deleteIfExists(path);
            Files.deleteIfExists(target);
        }
    }

    @Test
    void profilingServerAnswersLinesAsTheProtocolSays() {
        // Channel reads have no time-out of their own: the whole exchange is bounded instead.
        assertTimeoutPreemptively(Duration.ofSeconds(20), this::exchangeWithTheServer,
                "the profiling server did not answer within 20 s");
    }

    private void exchangeWithTheServer() throws Exception {
        Path path = Path.of("/tmp/nox_agent_test_server_" + PID);
        Files.deleteIfExists(path);
        Files.writeString(path, "");  // our own leftover at the name: replaced
        try (ProfilingServer server = ProfilingServer.start(path, EUID)) {
            assertEquals("rw-------", PosixFilePermissions.toString(Files.getPosixFilePermissions(path)));
            try (SocketChannel client = SocketChannel.open(StandardProtocolFamily.UNIX)) {
                client.connect(UnixDomainSocketAddress.of(path));
                write(client, "one\ntwo\r\n");
                assertEquals("PONG one\nPONG two\r\n", read(client, 19));
                String longLine = "x".repeat(ProfilingServer.LONGEST_LINE + 10);
                write(client, longLine + "\n");
                assertEquals("PONG " + "x".repeat(ProfilingServer.LONGEST_LINE) + "\nPONG xxxxxxxxxx\n",
                        read(client, 5 + ProfilingServer.LONGEST_LINE + 1 + 16));
                write(client, "last");
                client.shutdownOutput();
                assertEquals("PONG last\n", readToEnd(client));
            }
            // Two clients at once are both served.
            try (SocketChannel a = SocketChannel.open(UnixDomainSocketAddress.of(path));
                 SocketChannel b = SocketChannel.open(UnixDomainSocketAddress.of(path))) {
                write(b, "b\n");
                write(a, "a\n");
                assertEquals("PONG a\n", read(a, 7));
                assertEquals("PONG b\n", read(b, 7));
            }
        }
        assertFalse(Files.exists(path, LinkOption.NOFOLLOW_LINKS), "closing removes the socket");
    }

    private static void write(SocketChannel channel, String text) throws IOException {
        ByteBuffer bytes = ByteBuffer.wrap(text.getBytes(StandardCharsets.US_ASCII));
        while (bytes.hasRemaining()) channel.write(bytes);
    }

    private static String read(SocketChannel channel, int count) throws IOException {
        ByteBuffer bytes = ByteBuffer.allocate(count);
        while (bytes.hasRemaining() && channel.read(bytes) >= 0) continue;
        return new String(bytes.array(), 0, bytes.position(), StandardCharsets.US_ASCII);
    }

    private static String readToEnd(SocketChannel channel) throws IOException {
        StringBuilder text = new StringBuilder();
        ByteBuffer bytes = ByteBuffer.allocate(1024);
        while (channel.read(bytes.clear()) >= 0) {
            text.append(new String(bytes.array(), 0, bytes.position(), StandardCharsets.US_ASCII));
        }
        return text.toString();
    }
}
