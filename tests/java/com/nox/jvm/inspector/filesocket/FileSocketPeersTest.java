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
 * Ours against Unix-domain sockets that nobody here wrote: Python's socket module and socat,
 * each as server and as client. Each peer relays between its standard streams and the socket,
 * so the test feeds one mebibyte into the peer and compares what comes out on both sides.
 */
class FileSocketPeersTest {
    /** Relays stdin to the socket (then half-closes) and the socket to stdout until end of stream. */
    private static final String PYTHON_RELAY = String.join("\n",
            "import os, socket, sys, threading",
            "mode, path = sys.argv[1], sys.argv[2]",
            "s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)",
            "if mode == 'server':",
            "    s.bind(path); s.listen(1); conn, _ = s.accept()",
            "else:",
            "    s.connect(path); conn = s",
            "def upstream():",
            "    while True:",
            "        b = os.read(0, 65536)",
            "        if not b: break",
            "        conn.sendall(b)",
            "    conn.shutdown(socket.SHUT_WR)",
            "t = threading.Thread(target=upstream); t.start()",
            "while True:",
            "    b = conn.recv(65536)",
            "    if not b: break",
            "    sys.stdout.buffer.write(b)",
            "sys.stdout.buffer.flush()",
            "t.join(); conn.close()",
            "if mode == 'server':",
            "    s.close(); os.unlink(path)",
            "");

    private final SocketPaths paths = new SocketPaths();

    @AfterEach
    void removeFiles() throws IOException {
        paths.close();
    }

    @Test
    void pythonAsServer() throws Exception {
        String path = paths.next("pyserver");
        peerAsServer(List.of("python3", "-c", PYTHON_RELAY, "server", path), path, 11);
    }

    @Test
    void pythonAsClient() throws Exception {
        String path = paths.next("pyclient");
        peerAsClient(List.of("python3", "-c", PYTHON_RELAY, "client", path), path, 12);
    }

    @Test
    void socatAsServer() throws Exception {
        String path = paths.next("socatserver");
        peerAsServer(List.of("socat", "-t", "30", "UNIX-LISTEN:" + path, "STDIO"), path, 13);
    }

    @Test
    void socatAsClient() throws Exception {
        String path = paths.next("socatclient");
        peerAsClient(List.of("socat", "-t", "30", "STDIO", "UNIX-CONNECT:" + path), path, 14);
    }

    private void peerAsServer(List<String> command, String path, long seed) throws Exception {
        Process peer = start(command);
        try {
            FileSocket client = connectWhenListening(path, peer);
            exchange(client, peer, seed);
        } finally {
            peer.destroyForcibly();
        }
    }

    private void peerAsClient(List<String> command, String path, long seed) throws Exception {
        try (FileServerSocket server = new FileServerSocket(new FileSocketAddress(path), 0, true)) {
            Process peer = start(command);
            try {
                exchange(server.accept(), peer, seed);
            } finally {
                peer.destroyForcibly();
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
        byte[] fromPeer = Exchange.randomBytes(Exchange.MIB, seed);
        byte[] toPeer = Exchange.randomBytes(Exchange.MIB, seed + 100);
        CompletableFuture<byte[]> peerOutput = Exchange.readAllAsync(peer.getInputStream());
        CompletableFuture<Void> feed = CompletableFuture.runAsync(() -> {
            try (OutputStream stdin = peer.getOutputStream()) {
                stdin.write(fromPeer);
            } catch (IOException e) {
                throw new RuntimeException(e);
            }
        });
        try (FileSocket socket = ours) {
            CompletableFuture<Void> sent = Exchange.writeAsync(socket.getOutputStream(), toPeer);
            assertArrayEquals(fromPeer, Exchange.readExactly(socket.getInputStream(), Exchange.MIB));
            sent.get(60, TimeUnit.SECONDS);
        }
        feed.get(60, TimeUnit.SECONDS);
        assertArrayEquals(toPeer, peerOutput.get(60, TimeUnit.SECONDS));
        if (!peer.waitFor(60, TimeUnit.SECONDS)) fail("the peer did not end");
        assertEquals(0, peer.exitValue());
    }
}
