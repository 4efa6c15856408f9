package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.net.SocketTimeoutException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Arrays;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/** The natives of FileSocketImpl and FileSocketAddress, called directly. */
class FileSocketNativesTest {
    private final SocketPaths paths = new SocketPaths();

    @AfterEach
    void removeFiles() throws IOException {
        paths.close();
    }

    /** A bound server, a connected client and the accepted end, all closed by close(). */
    private final class Connection implements AutoCloseable {
        final FileSocketImpl server = new FileSocketImpl();
        final FileSocketImpl client = new FileSocketImpl();
        final FileSocketImpl accepted;
        final String path = paths.next("pair");

        Connection() throws IOException {
            server.bind0(path, 0, false);
            client.connect0(path, 0);
            accepted = server.accept0();
        }

        @Override
        public void close() throws IOException {
            for (FileSocketImpl impl : new FileSocketImpl[] {accepted, client, server}) {
                if (impl != null) impl.close();
            }
        }
    }

    @Test
    void createIdentifierNamesFilesInTmpUnlessGivenAPath() {
        assertEquals("/tmp/abc", FileSocketAddress.createIdentifier("abc"));
        assertEquals("./abc", FileSocketAddress.createIdentifier("./abc"));
        assertEquals("/var/run/x.sock", FileSocketAddress.createIdentifier("/var/run/x.sock"));
        assertNull(FileSocketAddress.createIdentifier(null));
        String longName = "n".repeat(100) + "0123456789ABCDEFGHIJ"; // 120 characters
        assertEquals("/tmp/" + longName.substring(0, 94), FileSocketAddress.createIdentifier(longName));
        assertEquals("/tmp/abc", new FileSocketAddress("abc").getSocketIdentifier());
    }

    @Test
    void connectFailuresCarryTheirTexts() throws IOException {
        String missing = paths.next("nolistener");
        try (FileSocketImpl socket = new FileSocketImpl()) {
            FileSocketException timed = assertThrows(FileSocketException.class, () -> socket.connect0(missing, 500));
            assertEquals("connect0 failed", timed.getMessage());
            FileSocketException untimed = assertThrows(FileSocketException.class, () -> socket.connect0(missing, 0));
            assertEquals("No such file or directory", untimed.getMessage());
            assertEquals("", untimed.getSocketIdentifier());
            FileSocketException empty = assertThrows(FileSocketException.class, () -> socket.connect0("", 0));
            assertEquals("Filesocket path musn't be null", empty.getMessage());
            assertEquals("Filesocket path musn't be null",
                    assertThrows(FileSocketException.class, () -> socket.connect0(null, 100)).getMessage());
        }
        // A socket file with no listener behind it (the JDK leaves its file on close).
        String stale = paths.next("stale");
        try (var channel = java.nio.channels.ServerSocketChannel.open(java.net.StandardProtocolFamily.UNIX)) {
            channel.bind(java.net.UnixDomainSocketAddress.of(stale));
        }
        try (FileSocketImpl socket = new FileSocketImpl()) {
            assertEquals("Connection refused",
                    assertThrows(FileSocketException.class, () -> socket.connect0(stale, 0)).getMessage());
        }
        try (FileSocketImpl socket = new FileSocketImpl()) {
            assertEquals("connect0 failed",
                    assertThrows(FileSocketException.class, () -> socket.connect0(stale, 200)).getMessage());
        }
    }

    @Test
    void bindAcceptAndCloseHandleTheSocketFile() throws IOException {
        String path = paths.next("bind");
        try (FileSocketImpl unbound = new FileSocketImpl()) {
            assertNull(unbound.getAddress());
            FileSocketException e = assertThrows(FileSocketException.class, unbound::accept0);
            assertEquals("FileSocket::accept failed: file socket has no bound filename", e.getMessage());
            assertEquals("", e.getSocketIdentifier());
            assertEquals("bind failed", assertThrows(FileSocketException.class, () -> unbound.bind0("", 0, false)).getMessage());
        }
        // A stale socket file of an earlier server is replaced.
        try (FileSocketImpl first = new FileSocketImpl()) {
            first.bind0(path, 0, false);
            first.destroy0(); // leaves no file behind, as close does
        }
        assertFalse(Files.exists(Path.of(path)));
        try (FileSocketImpl earlier = new FileSocketImpl()) {
            earlier.bind0(path, 0, false);
        }
        // Keep a stale file: bind a socket with the JDK and leave its file in place.
        try (var channel = java.nio.channels.ServerSocketChannel.open(java.net.StandardProtocolFamily.UNIX)) {
            channel.bind(java.net.UnixDomainSocketAddress.of(path));
        }
        assertTrue(Files.exists(Path.of(path)));

        try (FileSocketImpl server = new FileSocketImpl();
                FileSocketImpl client = new FileSocketImpl()) {
            server.bind(new FileSocketAddress(path), 0, true);
            assertEquals("rw-------", PosixFilePermissions.toString(Files.getPosixFilePermissions(Path.of(path))));
            client.connect0(path, 1000);
            FileSocketImpl accepted = server.accept0();
            assertEquals(path, accepted.getAddress().getSocketIdentifier());
            accepted.close();
            client.close();
            assertTrue(Files.exists(Path.of(path)), "closing an accepted or connected socket keeps the file");
            server.close();
            assertFalse(Files.exists(Path.of(path)), "closing the bound socket removes its file");
        }
    }

    @Test
    void bindLeavesAnythingButASocketAlone() throws IOException {
        String path = paths.next("regular");
        Files.writeString(Path.of(path), "keep me");
        try (FileSocketImpl server = new FileSocketImpl()) {
            assertEquals("bind failed", assertThrows(FileSocketException.class, () -> server.bind0(path, 0, false)).getMessage());
        }
        assertEquals("keep me", Files.readString(Path.of(path)));
    }

    @Test
    void readsAndWritesFollowTheChunkRules() throws IOException {
        try (Connection c = new Connection()) {
            byte[] data = new byte[3000];
            for (int i = 0; i < data.length; i++) data[i] = (byte) (i * 7);
            assertEquals(3000, c.client.write0(data, 0, 3000, 0));
            assertEquals(0, c.client.write0(data, 0, 0, 0));

            // One read of at most len bytes: never more than what one read returns.
            byte[] received = new byte[4096];
            int total = 0;
            while (total < 3000) {
                int n = c.accepted.read0(received, total, 4096 - total, 0);
                assertTrue(n > 0 && n <= 3000 - total, "one read returns what is there, " + n);
                total += n;
            }
            assertArrayEquals(data, Arrays.copyOf(received, 3000));

            assertEquals(0, c.accepted.available0());
            c.client.write0(data, 0, 10, 0);
            while (c.accepted.available0() < 10) Thread.onSpinWait();
            assertEquals(10, c.accepted.available0());
            assertEquals(10, c.accepted.read0(received, 0, 4096, 1000));

            // Direct buffers take the same bytes in one call.
            ByteBuffer direct = ByteBuffer.allocateDirect(3000);
            direct.put(data).flip();
            assertEquals(3000, c.accepted.writeDirect0(direct, 0, 3000, 1000));
            ByteBuffer in = ByteBuffer.allocateDirect(3000);
            total = 0;
            while (total < 3000) total += c.client.readDirect0(in, total, 3000 - total, 1000);
            byte[] back = new byte[3000];
            in.get(back);
            assertArrayEquals(data, back);
        }
    }

    @Test
    void timeOutsAndEndOfStream() throws IOException {
        try (Connection c = new Connection()) {
            byte[] buffer = new byte[4096];
            SocketTimeoutException timeout =
                    assertThrows(SocketTimeoutException.class, () -> c.client.read0(buffer, 0, 16, 50));
            assertEquals("Read timed out", timeout.getMessage());

            c.accepted.shutdown0(true);
            assertEquals(-1, c.client.read0(buffer, 0, 16, 0), "end of stream is -1 with no exception");
            assertEquals(-1, c.client.read0(buffer, 0, 2000, 0));
        }
    }

    @Test
    void writeTimesOutWhenNobodyReads() throws IOException {
        try (Connection c = new Connection()) {
            // Nobody reads: the socket buffers fill and a timed write gives up.
            byte[] block = new byte[1 << 20];
            SocketTimeoutException e = assertThrows(SocketTimeoutException.class, () -> {
                for (int i = 0; i < 64; i++) c.client.write0(block, 0, block.length, 50);
            });
            assertEquals("Write timed out", e.getMessage());
        }
    }

    @Test
    void badArgumentsGiveJavaExceptions() throws IOException {
        try (Connection c = new Connection()) {
            byte[] small = new byte[8];
            assertThrows(NullPointerException.class, () -> c.client.read0(null, 0, 1, 0));
            assertThrows(NullPointerException.class, () -> c.client.write0(null, 0, 1, 0));
            assertThrows(ArrayIndexOutOfBoundsException.class, () -> c.client.read0(small, 4, 5, 0));
            assertThrows(ArrayIndexOutOfBoundsException.class, () -> c.client.write0(small, -1, 2, 0));
            assertThrows(ArrayIndexOutOfBoundsException.class, () -> c.client.write0(small, 1, Integer.MAX_VALUE, 0));
            assertThrows(IllegalArgumentException.class, () -> c.client.writeDirect0(ByteBuffer.allocate(8), 0, 8, 0));
            assertThrows(IndexOutOfBoundsException.class,
                    () -> c.client.writeDirect0(ByteBuffer.allocateDirect(8), 4, 8, 0));
        }
        FileSocketImpl gone = new FileSocketImpl();
        long first = gone.fileSocket_pd;
        gone.create0();
        assertEquals(first, gone.fileSocket_pd, "a second create0 keeps the first native socket");
        gone.close0();
        assertEquals(-1, gone.available0(), "a closed socket has nothing available");
        gone.destroy0();
        assertEquals(0, gone.fileSocket_pd);
        gone.destroy0();
        assertThrows(FileSocketException.class, () -> gone.read0(new byte[1], 0, 1, 0));
        assertThrows(FileSocketException.class, () -> gone.connect0("/tmp/x", 0));
        assertNotEquals(0, first);
    }
}
