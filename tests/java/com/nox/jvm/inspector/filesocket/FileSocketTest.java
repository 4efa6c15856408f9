package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.io.InputStream;
import java.lang.reflect.Field;
import java.net.SocketException;
import java.net.SocketTimeoutException;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/**
 * What our socket classes add to the natives that the contract test drives: the hand-over of a
 * close to the last thread inside the socket, the Cleaner's release of dropped sockets, streams
 * and direct buffers, our exceptions, and the range checks of the raw transfers.
 */
class FileSocketTest {
    private static final AtomicInteger COUNTER = new AtomicInteger();
    private static final int MIB = 1 << 20;
    private final List<Path> paths = new ArrayList<>();
    private final List<AutoCloseable> open = new ArrayList<>();

    @AfterEach
    void release() throws Exception {
        for (AutoCloseable socket : open) socket.close();
        for (Path path : paths) Files.deleteIfExists(path);
    }

    /** A fresh bare name: its socket file is /tmp/ + name. */
    private String name(String tag) {
        String name = "noxfs_" + ProcessHandle.current().pid() + "_" + tag + "_" + COUNTER.incrementAndGet();
        paths.add(Path.of("/tmp", name));
        return name;
    }

    private <T extends AutoCloseable> T opened(T socket) {
        open.add(socket);
        return socket;
    }

    /** A bound server, a client connected to it and the accepted end. */
    private FileSocketImpl[] connection() throws IOException {
        FileSocketImpl server = opened(new FileSocketImpl());
        FileSocketAddress address = new FileSocketAddress(name("pair"));
        server.bind(address, 0, false);
        FileSocketImpl client = opened(new FileSocketImpl());
        client.connect(address, 1000);
        return new FileSocketImpl[] {server, client, opened(server.accept())};
    }

    /** A server with backlog 1 whose queue is full (nobody accepts): a further connect waits. */
    private FileSocketAddress fullQueue() throws IOException {
        FileSocketImpl server = opened(new FileSocketImpl());
        FileSocketAddress address = new FileSocketAddress(name("queue"));
        server.bind(address, 1, false);
        try {
            for (int i = 0; i < 64; i++) opened(new FileSocketImpl()).connect(address, 20);
        } catch (SocketTimeoutException queueFull) {
            return address;
        }
        return fail("the listen queue never filled");
    }

    interface Call {
        void run() throws Exception;
    }

    private record Inside(String what, FileSocketImpl socket, Call call) {}

    private static Object field(FileSocketImpl socket, String name) throws ReflectiveOperationException {
        Field field = FileSocketImpl.class.getDeclaredField(name);
        field.setAccessible(true);
        return field.get(socket);
    }

    /**
     * A thread is inside a blocking call when another closes the socket. The test holds the
     * socket's state lock while it closes, so the released thread cannot leave the call before
     * the close has returned: the close must leave the native socket to that thread, which frees
     * it on its way out and reports the close (a read too, not as the end of the stream).
     */
    @Test
    void theLastThreadToLeaveAClosedSocketFreesIt() throws Exception {
        FileSocketImpl[] forRead = connection();
        FileSocketImpl[] forLargeRead = connection();
        FileSocketImpl[] forWrite = connection();
        FileSocketImpl waiting = opened(new FileSocketImpl());
        FileSocketAddress full = fullQueue();
        List<Inside> calls = List.of(
                new Inside("accept", forRead[0], forRead[0]::accept),
                new Inside("read", forRead[1], () -> forRead[1].read(new byte[8], 0, 8, 0)),
                new Inside("large read", forLargeRead[1], () -> forLargeRead[1].read(new byte[MIB], 0, MIB, 0)),
                new Inside("write", forWrite[1], () -> forWrite[1].write(new byte[4 * MIB], 0, 4 * MIB, 0)),
                new Inside("connect", waiting, () -> waiting.connect(full, 0)));
        for (Inside inside : calls) {
            AtomicReference<Throwable> thrown = new AtomicReference<>();
            Thread thread = new Thread(() -> {
                try {
                    inside.call().run();
                } catch (Throwable t) {
                    thrown.set(t);
                }
            }, inside.what());
            thread.start();
            Object state = field(inside.socket(), "state");
            synchronized (state) {
                while ((int) field(inside.socket(), "callers") == 0) state.wait(10);
                inside.socket().close();
                assertNotEquals(0, inside.socket().fileSocket_pd, inside.what() + ": freed under a caller");
            }
            thread.join(20_000);
            assertFalse(thread.isAlive(), inside.what() + " was not released by the close");
            SocketException e = assertInstanceOf(SocketException.class, thrown.get(), inside.what());
            assertEquals("Socket closed", e.getMessage(), inside.what());
            assertEquals(0, inside.socket().fileSocket_pd, inside.what() + ": not freed by the last caller");
        }
    }

    private static int openDescriptors() throws IOException {
        try (var entries = Files.list(Path.of("/proc/self/fd"))) {
            return (int) entries.count();
        }
    }

    /** Collects garbage until the count is back, at most 10 seconds. */
    private static void assertDescriptorsReturnTo(int expected, String when) throws Exception {
        long deadline = System.nanoTime() + 10_000_000_000L;
        int now = openDescriptors();
        while (now > expected && System.nanoTime() < deadline) {
            System.gc();
            Thread.sleep(20);
            now = openDescriptors();
        }
        assertTrue(now <= expected, "descriptors did not return to " + expected + " " + when + ": " + now + " open");
    }

    @Test
    void droppedSocketsConnectionsAndServersReleaseEverything() throws Exception {
        new FileSocket().close(); // the classes and the Cleaner's thread, before the count is taken
        int before = openDescriptors();
        for (int i = 0; i < 4000; i++) new FileSocket(); // an unconnected socket owns a descriptor
        assertDescriptorsReturnTo(before, "after 4000 dropped sockets");
        List<String> names = new ArrayList<>();
        for (int i = 0; i < 200; i++) {
            names.add(name("dropped"));
            FileServerSocket server = new FileServerSocket(names.get(i));
            FileSocket client = new FileSocket(names.get(i));
            server.accept().getOutputStream().write(1);
            assertEquals(1, client.getInputStream().read());
        }
        assertDescriptorsReturnTo(before, "after 200 dropped servers with a connection each");
        for (String name : names) assertFalse(Files.exists(Path.of("/tmp", name)), "a dropped server's file stays");
    }

    @Test
    void closedSocketsAreNotReleasedTwice() throws Exception {
        int before = openDescriptors();
        for (int i = 0; i < 1000; i++) {
            FileSocketImpl impl = new FileSocketImpl();
            if (i % 2 == 0) {
                impl.close();
            } else {
                impl.close0();
                impl.destroy0(); // the natives alone, as a caller of the raw operations does
            }
        }
        // The Cleaner runs for every one of them; a second release of a native socket would
        // free its memory twice and close a number that another socket may hold by then.
        try (FileSocket keeper = new FileSocket()) {
            assertDescriptorsReturnTo(before + 1, "after 1000 closed sockets were collected");
            assertEquals(0, keeper.impl().available0(), "a live socket's descriptor was closed by a stray release");
        }
    }

    private static byte[] randomBytes(int size, long seed) {
        byte[] bytes = new byte[size];
        new Random(seed).nextBytes(bytes);
        return bytes;
    }

    /** Writes data in uneven pieces (1 byte up to 100 KiB), on a thread of its own. */
    private static CompletableFuture<Void> writeAsync(FileSocket socket, byte[] data) {
        return CompletableFuture.runAsync(() -> {
            try {
                int[] pieces = {1, 1000, 1024, 1025, 65536, 100_000, 7};
                for (int i = 0, off = 0; off < data.length; off += pieces[i++ % pieces.length]) {
                    socket.getOutputStream().write(data, off, Math.min(pieces[i % pieces.length], data.length - off));
                }
            } catch (IOException e) {
                throw new RuntimeException(e);
            }
        });
    }

    /** Reads exactly size bytes (fewer only when the stream ends early). */
    private static byte[] readExactly(InputStream in, int size) throws IOException {
        byte[] received = new byte[size];
        int total = 0;
        while (total < size) {
            int n = in.read(received, total, Math.min(50_000, size - total));
            if (n < 0) break;
            total += n;
        }
        return Arrays.copyOf(received, total);
    }

    @Test
    void streamsAndDirectBuffersMoveEveryByteBothWays() throws Exception {
        String name = name("streams");
        byte[] toServer = randomBytes(MIB, 1);
        byte[] toClient = randomBytes(MIB, 2);
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(name);
                FileSocket accepted = server.accept()) {
            assertEquals("/tmp/" + name, accepted.getAddress().getSocketIdentifier());
            CompletableFuture<Void> up = writeAsync(client, toServer);
            CompletableFuture<Void> down = writeAsync(accepted, toClient);
            assertArrayEquals(toServer, readExactly(accepted.getInputStream(), MIB));
            assertArrayEquals(toClient, readExactly(client.getInputStream(), MIB));
            up.get();
            down.get();
            ByteBuffer out = ByteBuffer.allocateDirect(3000).put(toServer, 0, 3000).flip();
            assertEquals(3000, client.impl().write(out, 0, 3000, 1000));
            ByteBuffer in = ByteBuffer.allocateDirect(3000);
            for (int total = 0; total < 3000; ) total += accepted.impl().read(in, total, 3000 - total, 1000);
            assertEquals(out.rewind(), in.rewind());

            // A time-out leaves the socket usable; the bytes of a peer that wrote and left still
            // arrive, then the end of the stream.
            client.setSoTimeout(200);
            SocketTimeoutException timeout = assertThrows(SocketTimeoutException.class, client.getInputStream()::read);
            assertEquals("Read timed out", timeout.getMessage());
            accepted.getOutputStream().write(toClient, 0, 200_000);
            accepted.close();
            assertArrayEquals(Arrays.copyOf(toClient, 200_000), readExactly(client.getInputStream(), 200_000));
            assertEquals(-1, client.getInputStream().read());
            assertEquals(0, client.getInputStream().read(new byte[10], 0, 0));
        }
        assertFalse(Files.exists(Path.of("/tmp", name)));
    }

    /** Our server with a client that nobody here wrote: the JDK's own Unix-domain channel. */
    @Test
    void aJdkChannelTalksToOurServer() throws Exception {
        String name = name("jdk");
        byte[] up = randomBytes(3000, 5);
        byte[] down = randomBytes(3000, 6);
        try (FileServerSocket server = new FileServerSocket(name);
                SocketChannel client = SocketChannel.open(UnixDomainSocketAddress.of("/tmp/" + name));
                FileSocket accepted = server.accept()) {
            client.write(ByteBuffer.wrap(up));
            assertArrayEquals(up, readExactly(accepted.getInputStream(), up.length));
            accepted.getOutputStream().write(down);
            accepted.shutdown();
            ByteBuffer in = ByteBuffer.allocate(down.length + 1);
            while (in.hasRemaining() && client.read(in) >= 0) continue;
            assertArrayEquals(down, Arrays.copyOf(in.array(), in.position()));
        }
    }

    @Test
    void failuresAreIOExceptionsWithTheirTextAndTheSocketsName() throws Exception {
        // Small reads (through the native stack) and large ones (straight into the array).
        for (int size : new int[] {10, 100_000}) {
            String name = name("reset");
            try (FileServerSocket server = new FileServerSocket(name);
                    FileSocket client = new FileSocket(name);
                    FileSocket accepted = server.accept()) {
                // The accepted end closes with bytes it never read: Linux resets the connection.
                client.getOutputStream().write(new byte[100]);
                accepted.close();
                IOException e = assertThrows(IOException.class, () -> client.getInputStream().read(new byte[size]));
                assertEquals("Connection reset by peer", e.getMessage(), "read of " + size);
                assertEquals(-1, client.getInputStream().read(new byte[size]), "reported once, then the end");
            }
        }
        String name = name("epipe");
        try (FileServerSocket server = new FileServerSocket(name);
                FileSocket client = new FileSocket(name)) {
            server.accept().close();
            FileSocketException e = assertThrows(FileSocketException.class, () -> {
                for (int i = 0; i < 100; i++) client.getOutputStream().write(new byte[4096]);
            });
            assertTrue(List.of("Broken pipe", "Connection reset by peer").contains(e.getMessage()), e.getMessage());
            assertEquals("/tmp/" + name, e.getSocketIdentifier());
            client.close();
            assertThrows(SocketException.class, client::getInputStream);
            assertThrows(SocketException.class, () -> client.impl().write(new byte[1], 0, 1, 0));
            server.close();
            assertThrows(SocketException.class, server::accept);
        }
    }

    /** The raw transfers refuse a range outside their array or buffer before they touch it. */
    @Test
    void rawTransfersCheckTheirRanges() throws Exception {
        FileSocketImpl[] c = connection();
        c[2].write(new byte[8192], 0, 8192, 0); // a read that got past its check would take these
        FileSocketImpl s = c[1];
        byte[] small = new byte[8];
        Executable[] outsideTheArray = {
            () -> s.read0(small, 4, 5, 0), () -> s.write0(small, -1, 2, 0),
            () -> s.write0(small, 1, Integer.MAX_VALUE, 0),
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
