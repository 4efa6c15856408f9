package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/**
 * Ours against a Unix-domain socket that nobody here wrote: socat, as server and as client. It
 * relays between its standard streams and the socket, so the test feeds one mebibyte into it and
 * compares what comes out on both sides.
 */
class FileSocketPeersTest {
    private final SocketPaths paths = new SocketPaths();

    @AfterEach
    void removeFiles() throws IOException {
        paths.close();
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
