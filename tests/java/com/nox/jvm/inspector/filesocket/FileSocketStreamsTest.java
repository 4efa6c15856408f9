package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.InputStream;
import java.net.SocketException;
import java.net.SocketTimeoutException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.CompletableFuture;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/** The socket classes users see: streams, time-outs and what happens after close. */
class FileSocketStreamsTest {
    private final SocketPaths paths = new SocketPaths();

    @AfterEach
    void removeFiles() throws IOException {
        paths.close();
    }

    @Test
    void oursAgainstOursMovesAMebibyteBothWays() throws Exception {
        String name = paths.nextName("ours");
        byte[] toServer = Exchange.randomBytes(Exchange.MIB, 1);
        byte[] toClient = Exchange.randomBytes(Exchange.MIB, 2);
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(name);
                FileSocket accepted = server.accept()) {
            assertEquals("/tmp/" + name, server.getAddress().getSocketIdentifier());
            assertEquals("/tmp/" + name, accepted.getAddress().getSocketIdentifier());
            assertTrue(client.isConnected() && accepted.isConnected());
            CompletableFuture<Void> up = Exchange.writeAsync(client.getOutputStream(), toServer);
            CompletableFuture<Void> down = Exchange.writeAsync(accepted.getOutputStream(), toClient);
            assertArrayEquals(toServer, Exchange.readExactly(accepted.getInputStream(), Exchange.MIB));
            assertArrayEquals(toClient, Exchange.readExactly(client.getInputStream(), Exchange.MIB));
            up.get();
            down.get();
            // Single bytes, both ways.
            client.getOutputStream().write(0xAB);
            assertEquals(0xAB, accepted.getInputStream().read());
        }
        assertFalse(Files.exists(Path.of("/tmp", name)));
    }

    @Test
    void timeOutsEndOfStreamAndBytesLeftAfterAHangUp() throws Exception {
        String name = paths.nextName("timeouts");
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(new FileSocketAddress(name), 1000);
                FileSocket accepted = server.accept()) {
            client.setSoTimeout(100);
            assertEquals(100, client.getSoTimeout());
            InputStream in = client.getInputStream();
            SocketTimeoutException e = assertThrows(SocketTimeoutException.class, in::read);
            assertEquals("Read timed out", e.getMessage());
            assertTrue(!client.isClosed(), "a time-out leaves the socket usable");

            // The peer writes and leaves: the bytes still arrive, then end of stream.
            byte[] last = Exchange.randomBytes(200_000, 3);
            accepted.getOutputStream().write(last);
            accepted.close();
            assertArrayEquals(last, Exchange.readExactly(in, last.length));
            assertEquals(-1, in.read());
            assertEquals(-1, in.read(new byte[10], 0, 10));
            assertEquals(0, in.read(new byte[10], 0, 0));
        }
    }

    @Test
    void everyUseAfterCloseFails() throws Exception {
        String name = paths.nextName("closed");
        FileServerSocket server = new FileServerSocket(name);
        FileSocket client = new FileSocket(name);
        FileSocket accepted = server.accept();
        client.close();
        client.close(); // twice is harmless
        assertTrue(client.isClosed());
        assertThrows(SocketException.class, client::getInputStream);
        assertThrows(SocketException.class, () -> client.setSoTimeout(5));
        assertThrows(SocketException.class, () -> client.impl().write(new byte[1], 0, 1, 0));
        assertThrows(SocketException.class, () -> client.impl().read(new byte[1], 0, 1, 0));
        assertEquals(-1, accepted.getInputStream().read(), "the peer sees end of stream");
        accepted.close();
        server.close();
        assertThrows(SocketException.class, server::accept);

        try (FileSocket unconnected = new FileSocket()) {
            assertThrows(SocketException.class, unconnected::getOutputStream);
            FileSocketException refused = assertThrows(FileSocketException.class,
                    () -> unconnected.connect(new FileSocketAddress(name), 0));
            assertEquals("No such file or directory", refused.getMessage());
        }
    }

    @Test
    void peerGoneMakesWritesFailInsteadOfKillingTheProcess() throws Exception {
        String name = paths.nextName("epipe");
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(name)) {
            server.accept().close();
            FileSocketException e = assertThrows(FileSocketException.class, () -> {
                for (int i = 0; i < 100; i++) client.getOutputStream().write(new byte[4096]);
            });
            assertTrue(e.getMessage().equals("Broken pipe") || e.getMessage().equals("Connection reset by peer"),
                    e.getMessage());
        }
    }

    @Test
    void aFailedReadIsAnIOExceptionWithItsTextAndOnlyTheEndOfStreamIsMinusOne() throws Exception {
        // Small reads (through the native stack) and large ones (straight into the array).
        for (int[] variant : new int[][] {{0, 10}, {2000, 10}, {0, 100_000}, {2000, 100_000}}) {
            int timeout = variant[0];
            int size = variant[1];
            String name = paths.nextName("reset" + timeout + "_" + size);
            try (FileServerSocket server = new FileServerSocket(name);
                    FileSocket client = new FileSocket(name);
                    FileSocket accepted = server.accept()) {
                client.setSoTimeout(timeout);
                // The accepted end closes with bytes it never read: Linux resets the connection,
                // and the client's next read fails with ECONNRESET.
                client.getOutputStream().write(new byte[100]);
                accepted.close();
                InputStream in = client.getInputStream();
                String what = "timeout " + timeout + ", read of " + size;
                IOException e = assertThrows(IOException.class, () -> in.read(new byte[size]), what);
                assertEquals("Connection reset by peer", e.getMessage(), what);
                // The error is reported once; then the stream is at its end.
                assertEquals(-1, in.read(new byte[size]), what);
            }
        }
        // A peer that closes after reading everything ends the stream: its bytes, then -1.
        String name = paths.nextName("eof");
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(name);
                FileSocket accepted = server.accept()) {
            accepted.getOutputStream().write(new byte[] {1, 2, 3});
            accepted.close();
            client.setSoTimeout(2000);
            byte[] got = new byte[10];
            assertEquals(3, client.getInputStream().read(got));
            assertEquals(-1, client.getInputStream().read(got));
        }
    }

    @Test
    void connectRefusesAPathLongerThanTheSocketAddressHolds() throws Exception {
        String prefix = "/tmp/noxfs_" + ProcessHandle.current().pid() + "_long_";
        String longest = prefix + "x".repeat(107 - prefix.length());
        assertEquals(107, longest.length());
        String longer = longest + "_another_server";
        try (FileServerSocket server = new FileServerSocket(new FileSocketAddress(longest), 0, false)) {
            for (int timeout : new int[] {0, 1000}) {
                FileSocketException e = assertThrows(FileSocketException.class,
                        () -> new FileSocket(new FileSocketAddress(longer), timeout), "timeout " + timeout);
                assertEquals("File name too long", e.getMessage());
            }
            // No connection was made to the server whose path is the cut one: the first
            // connection it accepts is the one that names it exactly.
            try (FileSocket exact = new FileSocket(new FileSocketAddress(longest), 1000);
                    FileSocket accepted = server.accept()) {
                exact.getOutputStream().write(42);
                accepted.setSoTimeout(2000);
                assertEquals(42, accepted.getInputStream().read(), "the server accepted a connection made to another path");
            }
        } finally {
            Files.deleteIfExists(Path.of(longest));
        }
    }
}
