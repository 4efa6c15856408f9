package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.SocketException;
import java.net.SocketTimeoutException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/**
 * The socket classes users see: streams, time-outs, failures, and what happens after close; and
 * ours against a Unix-domain socket that nobody here wrote (socat as server and as client, which
 * relays between its standard streams and the socket).
 */
class FileSocketStreamsTest {
    private final SocketPaths paths = new SocketPaths();

    @AfterEach
    void removeFiles() throws IOException {
        paths.close();
    }

    @Test
    void oursAgainstOursMovesAMebibyteBothWays() throws Exception {
        String name = paths.nextName("ours");
        byte[] toServer = SocketPaths.randomBytes(SocketPaths.MIB, 1);
        byte[] toClient = SocketPaths.randomBytes(SocketPaths.MIB, 2);
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(name);
                FileSocket accepted = server.accept()) {
            assertEquals("/tmp/" + name, server.getAddress().getSocketIdentifier());
            assertEquals("/tmp/" + name, accepted.getAddress().getSocketIdentifier());
            CompletableFuture<Void> up = SocketPaths.writeAsync(client.getOutputStream(), toServer);
            CompletableFuture<Void> down = SocketPaths.writeAsync(accepted.getOutputStream(), toClient);
            assertArrayEquals(toServer, SocketPaths.readExactly(accepted.getInputStream(), SocketPaths.MIB));
            assertArrayEquals(toClient, SocketPaths.readExactly(client.getInputStream(), SocketPaths.MIB));
            up.get();
            down.get();
            // Direct buffers, both ways.
            ByteBuffer out = ByteBuffer.allocateDirect(3000).put(toServer, 0, 3000).flip();
            assertEquals(3000, client.impl().write(out, 0, 3000, 1000));
            ByteBuffer in = ByteBuffer.allocateDirect(3000);
            for (int total = 0; total < 3000; ) total += accepted.impl().read(in, total, 3000 - total, 1000);
            assertEquals(out.rewind(), in.rewind());
        }
        assertFalse(Files.exists(Path.of("/tmp", name)));
    }

    @Test
    void timeOutsEndOfStreamAndBytesLeftAfterAHangUp() throws Exception {
        String name = paths.nextName("timeouts");
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(new FileSocketAddress(name), 1000);
                FileSocket accepted = server.accept()) {
            client.setSoTimeout(200);
            InputStream in = client.getInputStream();
            // A loose bound, no speed test: a wait of 200 ms that takes 5 s is broken.
            long started = System.nanoTime();
            SocketTimeoutException e = assertThrows(SocketTimeoutException.class, in::read);
            long millis = (System.nanoTime() - started) / 1_000_000;
            assertEquals("Read timed out", e.getMessage());
            assertTrue(millis >= 100 && millis < 5000, "a 200 ms time-out came after " + millis + " ms");
            assertFalse(client.isClosed(), "a time-out leaves the socket usable");

            // The peer writes and leaves: the bytes still arrive, then end of stream.
            byte[] last = SocketPaths.randomBytes(200_000, 3);
            accepted.getOutputStream().write(last);
            accepted.close();
            assertArrayEquals(last, SocketPaths.readExactly(in, last.length));
            assertEquals(-1, in.read());
            assertEquals(-1, in.read(new byte[10], 0, 10));
            assertEquals(0, in.read(new byte[10], 0, 0));
        }
    }

    @Test
    void aFailedReadIsAnIOExceptionWithItsTextAndOnlyTheEndOfStreamIsMinusOne() throws Exception {
        // Small reads (through the native stack) and large ones (straight into the array).
        for (int[] variant : new int[][] {{0, 10}, {2000, 10}, {0, 100_000}, {2000, 100_000}}) {
            int timeout = variant[0];
            int size = variant[1];
            String what = "timeout " + timeout + ", read of " + size;
            String name = paths.nextName("reset");
            try (FileServerSocket server = new FileServerSocket(name);
                    FileSocket client = new FileSocket(name);
                    FileSocket accepted = server.accept()) {
                client.setSoTimeout(timeout);
                // The accepted end closes with bytes it never read: Linux resets the connection.
                client.getOutputStream().write(new byte[100]);
                accepted.close();
                InputStream in = client.getInputStream();
                IOException e = assertThrows(IOException.class, () -> in.read(new byte[size]), what);
                assertEquals("Connection reset by peer", e.getMessage(), what);
                assertEquals(-1, in.read(new byte[size]), what + ": reported once, then the end of stream");
            }
        }
    }

    @Test
    void aGonePeerFailsWritesAndTheFailureNamesTheSocket() throws Exception {
        String name = paths.nextName("epipe");
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(name)) {
            server.accept().close();
            FileSocketException e = assertThrows(FileSocketException.class, () -> {
                for (int i = 0; i < 100; i++) client.getOutputStream().write(new byte[4096]);
            });
            assertTrue(e.getMessage().equals("Broken pipe") || e.getMessage().equals("Connection reset by peer"),
                    e.getMessage());
            assertEquals("/tmp/" + name, e.getSocketIdentifier());
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
        }
    }

    /** The raw transfers refuse a range outside their array or buffer before they touch it. */
    @Test
    void rawTransfersCheckTheirRanges() throws Exception {
        String name = paths.nextName("ranges");
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(name);
                FileSocket accepted = server.accept()) {
            accepted.getOutputStream().write(new byte[8192]); // a read that got past its check would take these
            FileSocketImpl s = client.impl();
            byte[] small = new byte[8];
            Executable[] outsideTheArray = {
                () -> s.read0(small, 4, 5, 0), () -> s.write0(small, -1, 2, 0), () -> s.write0(small, 1, Integer.MAX_VALUE, 0),
                () -> s.receive0(small, 4, 5, 1000), () -> s.receiveArray0(small, 4, 5000, 1000),
                () -> s.sendArray0(small, 4, 5000, 1000),
            };
            for (Executable call : outsideTheArray) assertThrows(ArrayIndexOutOfBoundsException.class, call);
            Executable[] outsideTheBuffer = {
                () -> s.writeDirect0(ByteBuffer.allocateDirect(8), 4, 8, 0),
                () -> s.receiveDirect0(ByteBuffer.allocateDirect(8), 4, 5000, 1000),
            };
            for (Executable call : outsideTheBuffer) assertThrows(IndexOutOfBoundsException.class, call);
            assertThrows(NullPointerException.class, () -> s.read0(null, 0, 1, 0));
            assertThrows(IllegalArgumentException.class, () -> s.writeDirect0(ByteBuffer.allocate(8), 0, 8, 0));
            assertEquals(8192, s.available0(), "no refused call took a byte");
        }
    }

    @Test
    void socatAsServerAndAsClient() throws Exception {
        for (boolean peerServes : new boolean[] {true, false}) {
            String path = paths.next("socat");
            List<String> command = List.of("socat", "-t", "30", peerServes ? "UNIX-LISTEN:" + path : "STDIO",
                    peerServes ? "STDIO" : "UNIX-CONNECT:" + path);
            long seed = peerServes ? 13 : 14;
            if (peerServes) {
                Process process = start(command);
                try {
                    exchange(connectWhenListening(path, process), process, seed);
                } finally {
                    process.destroyForcibly();
                }
                continue;
            }
            try (FileServerSocket server = new FileServerSocket(new FileSocketAddress(path), 0, true)) {
                Process process = start(command);
                try {
                    exchange(server.accept(), process, seed);
                } finally {
                    process.destroyForcibly();
                }
            }
        }
    }

    private static Process start(List<String> command) throws IOException {
        return new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT).start();
    }

    /** The peer binds before it listens: retry a refused connect while the peer runs. */
    private static FileSocket connectWhenListening(String path, Process peer) throws Exception {
        for (int attempt = 0; attempt < 1000; attempt++) {
            if (!peer.isAlive()) fail("the peer ended with " + peer.exitValue());
            if (Files.exists(Path.of(path))) {
                try {
                    return new FileSocket(new FileSocketAddress(path), 1000);
                } catch (FileSocketException notYet) {
                    // bound but not listening yet
                }
            }
            Thread.sleep(10);
        }
        fail("the peer never listened on " + path);
        return null;
    }

    /**
     * Feeds fromPeer into the peer's standard input while ours sends toPeer; both sides must
     * receive the other's mebibyte byte for byte.
     */
    private static void exchange(FileSocket ours, Process peer, long seed) throws Exception {
        byte[] fromPeer = SocketPaths.randomBytes(SocketPaths.MIB, seed);
        byte[] toPeer = SocketPaths.randomBytes(SocketPaths.MIB, seed + 100);
        CompletableFuture<byte[]> peerOutput = CompletableFuture.supplyAsync(() -> {
            try {
                return peer.getInputStream().readAllBytes();
            } catch (IOException e) {
                throw new RuntimeException(e);
            }
        });
        CompletableFuture<Void> feed = CompletableFuture.runAsync(() -> {
            try (OutputStream stdin = peer.getOutputStream()) {
                stdin.write(fromPeer);
            } catch (IOException e) {
                throw new RuntimeException(e);
            }
        });
        try (FileSocket socket = ours) {
            CompletableFuture<Void> sent = SocketPaths.writeAsync(socket.getOutputStream(), toPeer);
            assertArrayEquals(fromPeer, SocketPaths.readExactly(socket.getInputStream(), SocketPaths.MIB));
            sent.get(60, TimeUnit.SECONDS);
        }
        feed.get(60, TimeUnit.SECONDS);
        assertArrayEquals(toPeer, peerOutput.get(60, TimeUnit.SECONDS));
        if (!peer.waitFor(60, TimeUnit.SECONDS)) fail("the peer did not end");
        assertEquals(0, peer.exitValue());
    }
}
