package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.contract.ToolLibrary;
import com.nox.jvm.inspector.testing.Vmsim;
import java.io.IOException;
import java.net.SocketTimeoutException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/**
 * Every socket native through the tool's own FileSocketImpl, which has the documented fields,
 * constructor and getAddress and nothing else: real connections, time-outs, failures, a close
 * from another thread while calls are blocked, destroy, and a simulated VM's profiling server.
 */
class FileSocketImplContractTest {
    /** A functional bound, no speed test: a wait of 200 ms that takes this long is broken. */
    private static final long BOUND_MILLIS = 5_000;

    static {
        ToolLibrary.load();
        FileSocketImpl.init0();
    }

    private final List<FileSocketImpl> sockets = new ArrayList<>();
    private final List<Path> paths = new ArrayList<>();

    @AfterEach
    void release() throws IOException {
        for (FileSocketImpl socket : sockets) {
            if (socket.fileSocket_pd != 0) socket.close0();
            socket.destroy0();
        }
        for (Path path : paths) Files.deleteIfExists(path);
    }

    private FileSocketImpl socket() throws IOException {
        FileSocketImpl socket = new FileSocketImpl(0, null);
        sockets.add(socket);
        socket.create0();
        assertNotEquals(0, socket.fileSocket_pd, "create0 made a native socket");
        return socket;
    }

    private String path() {
        Path path = Path.of("/tmp/noxcontract_" + ProcessHandle.current().pid() + "_" + paths.size());
        paths.add(path);
        return path.toString();
    }

    /** A listening server (its address set as the tool sets it), a connected client and the accepted end. */
    private FileSocketImpl[] connection() throws IOException {
        String path = path();
        FileSocketImpl server = socket();
        server.bind0(path, 0, true);
        server.address.socketIdentifier = path;
        FileSocketImpl client = socket();
        client.connect0(path, 1000);
        FileSocketImpl accepted = server.accept0();
        sockets.add(accepted);
        return new FileSocketImpl[] {server, client, accepted};
    }

    @Test
    void aConnectionThroughEveryNative() throws IOException {
        FileSocketImpl[] c = connection();
        FileSocketImpl server = c[0], client = c[1], accepted = c[2];
        Path file = Path.of(server.address.socketIdentifier);
        assertEquals("rw-------", PosixFilePermissions.toString(Files.getPosixFilePermissions(file)));
        long first = server.fileSocket_pd;
        server.create0();
        assertEquals(first, server.fileSocket_pd, "a second create0 keeps the first native socket");
        assertNotEquals(0, accepted.fileSocket_pd);
        assertSame(server.address.socketIdentifier, accepted.getAddress().socketIdentifier,
                "the accepted socket carries the server's identifier object");

        byte[] data = new byte[3000];
        for (int i = 0; i < data.length; i++) data[i] = (byte) (i * 7);
        assertEquals(3000, client.write0(data, 0, 3000, 1000));
        byte[] received = new byte[4096];
        int total = 0;
        while (total < 3000) {
            int n = accepted.read0(received, total, received.length - total, 1000);
            assertTrue(n > 0, "read0 returned " + n);
            total += n;
        }
        assertArrayEquals(data, Arrays.copyOf(received, total));
        assertEquals(2, accepted.write0(data, 10, 2, 0));
        while (client.available0() < 2) Thread.onSpinWait();
        assertEquals(2, client.read0(received, 0, 1, 0) + client.read0(received, 1, 1, 0));
        assertEquals(data[10], received[0]);

        accepted.shutdown0(true);
        assertEquals(-1, client.read0(received, 0, 16, 0), "end of stream: -1 and no exception");
        client.close0();
        assertEquals(-1, client.available0(), "a closed socket has nothing available");
        client.destroy0();
        assertEquals(0, client.fileSocket_pd);
        server.close0();
        assertFalse(Files.exists(file), "closing the bound socket removes its file");
    }

    private record Failure(String what, Callable<?> call, Class<? extends IOException> type, String message) {}

    @Test
    void failuresAndTimeOutsCarryTheirTexts() throws Exception {
        FileSocketImpl[] c = connection();
        FileSocketImpl client = c[1];
        String missing = path();
        FileSocketImpl full = fullServer();
        byte[] block = new byte[1 << 20];
        List<Failure> failures = List.of(
                new Failure("timed read of a quiet connection", () -> client.read0(block, 0, 16, 200),
                        SocketTimeoutException.class, "Read timed out"),
                new Failure("timed write nobody reads", () -> {
                    for (int i = 0; i < 64; i++) client.write0(block, 0, block.length, 200);
                    return null;
                }, SocketTimeoutException.class, "Write timed out"),
                new Failure("timed connect to a full queue", () -> connectTo(full.address.socketIdentifier, 200),
                        SocketTimeoutException.class, "Connect timed out"),
                new Failure("timed connect without a listener", () -> connectTo(missing, 200),
                        FileSocketException.class, "connect0 failed"),
                new Failure("connect to an empty path", () -> connectTo("", 0),
                        FileSocketException.class, "Filesocket path musn't be null"),
                new Failure("bind to an empty path", () -> {
                    socket().bind0("", 0, false);
                    return null;
                }, FileSocketException.class, "bind failed"),
                new Failure("accept on an unbound socket", () -> socket().accept0(),
                        FileSocketException.class, "FileSocket::accept failed: file socket has no bound filename"));
        for (Failure f : failures) {
            long started = System.nanoTime();
            IOException e = assertInstanceOf(f.type(), thrownBy(f.call()), f.what());
            long millis = TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - started);
            assertEquals(f.message(), e.getMessage(), f.what());
            assertTrue(millis < BOUND_MILLIS, f.what() + " took " + millis + " ms");
            if (e instanceof FileSocketException fse) assertEquals("", fse.socketIdentifier, f.what());
        }
    }

    private Object connectTo(String path, int timeout) throws IOException {
        socket().connect0(path, timeout);
        return null;
    }

    private static Throwable thrownBy(Callable<?> call) {
        try {
            call.call();
            return null;
        } catch (Exception e) {
            return e;
        }
    }

    /** A server with backlog 1 whose queue is full (nobody accepts): a further connect has to wait. */
    private FileSocketImpl fullServer() throws IOException {
        String path = path();
        FileSocketImpl server = socket();
        server.bind0(path, 1, false);
        server.address.socketIdentifier = path;
        for (int i = 0; i < 64; i++) {
            try {
                socket().connect0(path, 20);
            } catch (SocketTimeoutException queueFull) {
                return server;
            }
        }
        throw new AssertionError("the listen queue never filled");
    }

    @Test
    void closeReleasesBlockedCallsAndDestroyReleasesTheRest() throws Exception {
        int before = openDescriptors();
        FileSocketImpl[] c = connection();
        FileSocketImpl server = c[0], client = c[1];
        FileSocketImpl full = fullServer();
        FileSocketImpl waiting = socket();
        CompletableFuture<Object> accept = blocked(server::accept0);
        CompletableFuture<Object> read = blocked(() -> client.read0(new byte[8], 0, 8, 0));
        CompletableFuture<Object> connect = blocked(() -> connectTo(waiting, full.address.socketIdentifier));
        Thread.sleep(100);
        assertFalse(accept.isDone() || read.isDone() || connect.isDone(), "the calls block");
        for (FileSocketImpl s : new FileSocketImpl[] {server, client, waiting}) s.close0();
        assertInstanceOf(FileSocketException.class, outcome(accept), "accept0 after close");
        assertEquals(-1, outcome(read), "read0 after close");
        assertInstanceOf(FileSocketException.class, outcome(connect), "connect0 after close");

        // destroy0 without close0 closes too; every native socket is the tool's to destroy.
        for (FileSocketImpl s : sockets) {
            s.destroy0();
            assertEquals(0, s.fileSocket_pd);
            s.destroy0();
        }
        for (Path path : paths) assertFalse(Files.exists(path), path + " removed by destroy0");
        assertEquals(before, openDescriptors(), "descriptors left open");
    }

    private static Object connectTo(FileSocketImpl socket, String path) throws IOException {
        socket.connect0(path, 0);
        return null;
    }

    private static CompletableFuture<Object> blocked(Callable<Object> call) {
        CompletableFuture<Object> result = new CompletableFuture<>();
        Thread thread = new Thread(() -> {
            try {
                result.complete(call.call());
            } catch (Throwable t) {
                result.complete(t);
            }
        });
        thread.setDaemon(true);
        thread.start();
        return result;
    }

    private static Object outcome(CompletableFuture<Object> call) throws InterruptedException, ExecutionException {
        try {
            return call.get(BOUND_MILLIS, TimeUnit.MILLISECONDS);
        } catch (TimeoutException e) {
            return fail("a blocked call was not released by close0");
        }
    }

    private static int openDescriptors() throws IOException {
        try (var entries = Files.list(Path.of("/proc/self/fd"))) {
            return (int) entries.count();
        }
    }

    @Test
    void talksToTheProfilingServerOfASimulatedVm() throws Exception {
        try (Vmsim vm = new Vmsim("--profiling-server")) {
            FileSocketImpl client = socket();
            client.connect0(vm.field("servers"), 1000);
            byte[] ping = "ping\n".getBytes(StandardCharsets.US_ASCII);
            assertEquals(ping.length, client.write0(ping, 0, ping.length, 1000));
            byte[] answer = new byte[64];
            int total = 0;
            while (total == 0 || answer[total - 1] != '\n') {
                int n = client.read0(answer, total, answer.length - total, 1000);
                assertTrue(n > 0, "the server answered");
                total += n;
            }
            assertEquals("PONG ping\n", new String(answer, 0, total, StandardCharsets.US_ASCII));
        }
    }
}
