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
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

import org.junit.jupiter.api.Test;

/** The agent's parts one by one: options, /proc parsing, collectors, requests, files, the server. */
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

    @Test
    void ownProcessFactsComeFromProc() throws IOException {
        assertEquals(Files.getAttribute(Path.of("/proc/self/"), "unix:uid"), ProcSelf.userId(0));
        assertTrue(EUID >= 0);
        try (ProcSelf proc = new ProcSelf()) {
            ProcSelf.CpuTimes times = proc.cpuTimes();
            assertTrue(times.userMillis() > 0, times.toString());
            assertTrue(times.systemMillis() >= 0, times.toString());
        }
    }

    @Test
    void collectorsAreCountedByKind() {
        for (String full : List.of("MarkSweepCompact", "PS MarkSweep", "G1 Old Generation")) {
            assertEquals(MxReadings.Kind.FULL, MxReadings.kindOf(full), full);
        }
        for (String concurrent : List.of("ZGC Cycles", "Shenandoah Cycles", "G1 Concurrent GC")) {
            assertEquals(MxReadings.Kind.CONCURRENT, MxReadings.kindOf(concurrent), concurrent);
        }
        for (String young : List.of("Copy", "PS Scavenge", "G1 Young Generation", "ZGC Pauses", "Shenandoah Pauses")) {
            assertEquals(MxReadings.Kind.YOUNG, MxReadings.kindOf(young), young);
        }
    }

    @Test
    void readingsOfThisVmAreSane() throws IOException {
        try (ProcSelf proc = new ProcSelf()) {
            MxReadings readings = new MxReadings(proc);
            MxReadings.Figures f = new MxReadings.Figures();
            readings.read(f);
            assertTrue(f.heapCommitted > 0 && f.heapUsed > 0 && f.heapUsed <= f.heapCommitted);
            assertEquals(Runtime.getRuntime().maxMemory(), f.heapMax);
            assertTrue(f.metaspaceCommitted > 0 && f.codeCacheCommitted > 0);
            assertTrue(f.processCpuMillis > 0 && f.userMillis >= 0 && f.systemMillis >= 0);
            assertFalse(readings.collectorKinds().isEmpty());
        }
    }

    @Test
    void flagsAreWrittenAsTheVmWritesThem() {
        assertEquals("-XX:+UseG1GC", VmFlags.format("UseG1GC", "true"));
        assertEquals("-XX:-UsePerfData", VmFlags.format("UsePerfData", "false"));
        assertEquals("-XX:MaxHeapSize=1024", VmFlags.format("MaxHeapSize", "1024"));
        // This VM's collector is chosen by ergonomics or the command line, never a default.
        String flags = VmFlags.nonDefault();
        assertTrue(flags.matches(".*-XX:\\+Use(Serial|Parallel|G1|Z|Shenandoah)GC.*"), flags);
        assertTrue(flags.contains("-XX:MaxHeapSize="), flags);
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

    @Test
    void requestsAreClearedAndActedOn() {
        ByteBuffer block = block();
        ControlAreaWriter writer = new ControlAreaWriter(block);
        List<Integer> exits = new ArrayList<>();
        int[] gcs = {0};
        RequestWatcher watcher = new RequestWatcher(writer, exits::add, () -> gcs[0]++);
        int vm = ControlAreaLayout.INSTANCE_AREA_SIZE;
        assertEquals(0, watcher.check());
        block.putInt(vm + ControlAreaLayout.V_REQUESTED_EXIT_CODE, 42);
        block.putInt(vm + ControlAreaLayout.F_EXIT, 1);
        block.putInt(vm + ControlAreaLayout.F_GC, 1);
        block.putInt(vm + ControlAreaLayout.F_MAXIMUM_COMPACTION_GC, 1);
        block.putInt(vm + ControlAreaLayout.F_START_DEBUGGING, 1);
        block.putInt(vm + 35368, 1);  // enqueue operation: unknown to a stock VM
        block.putInt(vm + 25092, 7);  // dump code blobs, any nonzero value
        assertEquals(6, watcher.check());
        assertEquals(List.of(42), exits);
        assertEquals(2, gcs[0]);
        for (int flag : ControlAreaLayout.FLAGS) {
            assertEquals(0, block.getInt(vm + flag), "flag at " + flag);
        }
        assertEquals(ControlAreaLayout.DEBUGGING_NOT_ACTIVE, block.getInt(vm + ControlAreaLayout.V_DEBUGGING_STATE));
        assertEquals(-1, block.getInt(vm + ControlAreaLayout.V_CURRENT_DEBUG_PORT));
        assertEquals(0, watcher.check());
        assertEquals(6, watcher.handled());
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
                assertEquals(ByteOrder.nativeOrder(), file.map().order());
                file.map().putInt(8, 0x01020304);
                ByteBuffer read = ByteBuffer.wrap(Files.readAllBytes(path)).order(ByteOrder.nativeOrder());
                assertEquals(0x01020304, read.getInt(8));
            }
            assertFalse(Files.exists(path, LinkOption.NOFOLLOW_LINKS), "closing removes the file");
            // A file that replaced ours meanwhile is not ours to remove.
            PublishedFile file = PublishedFile.create(path, 64, EUID);
            Files.delete(path);
            Files.writeString(path, "someone else's");
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
        while (bytes.hasRemaining()) {
            channel.write(bytes);
        }
    }

    private static String read(SocketChannel channel, int count) throws IOException {
        ByteBuffer bytes = ByteBuffer.allocate(count);
        while (bytes.hasRemaining()) {
            if (channel.read(bytes) < 0) {
                break;
            }
        }
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
