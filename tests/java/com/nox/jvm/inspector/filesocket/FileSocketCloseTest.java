package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.net.SocketException;
import java.net.SocketTimeoutException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.MethodOrderer;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

/**
 * A close from other threads while threads are blocked in the same socket: every blocked call
 * comes back with a SocketException (a read too, not as the end of the stream), the native socket
 * is freed only after the last caller has left it, and no descriptor is left behind. Sockets
 * dropped without close release their descriptors (and a server its socket file), once.
 */
@TestMethodOrder(MethodOrderer.OrderAnnotation.class)
class FileSocketCloseTest {
    /** Only a hang detector: a released thread returns in microseconds. */
    private static final long HANG_MILLIS = 20_000;

    private final SocketPaths paths = new SocketPaths();
    private final List<FileSocket> queued = new ArrayList<>();

    @AfterEach
    void removeFiles() throws IOException {
        for (FileSocket socket : queued) socket.close();
        paths.close();
    }

    interface Call {
        void run() throws Exception;
    }

    /** Runs call on a new thread; join() returns what it threw (null if nothing), or fails on a hang. */
    private static final class Blocked {
        final Thread thread;
        volatile Throwable thrown;
        final CountDownLatch started = new CountDownLatch(1);

        Blocked(String name, Call call) {
            thread = new Thread(() -> {
                started.countDown();
                try {
                    call.run();
                } catch (Throwable t) {
                    thrown = t;
                }
            }, name);
            thread.start();
        }

        /** Waits until the thread is on its way into the call; every few rounds until it is well inside. */
        void awaitStart(int round) throws InterruptedException {
            started.await();
            if (round % 4 == 1) Thread.sleep(1);
            if (round % 4 == 2) Thread.yield();
        }

        Throwable join() throws InterruptedException {
            thread.join(HANG_MILLIS);
            if (thread.isAlive()) fail("a thread blocked in " + thread.getName() + " was not released by close");
            return thrown;
        }
    }

    /** A server with backlog 1 whose queue is full: nobody accepts, a further connect waits. */
    private FileServerSocket fullServer() throws IOException {
        FileServerSocket server = new FileServerSocket(new FileSocketAddress(paths.next("queue")), 1, false);
        try {
            for (int i = 0; i < 64; i++) queued.add(new FileSocket(server.getAddress(), 20));
            fail("the listen queue never filled");
        } catch (SocketTimeoutException expected) {
            assertEquals("Connect timed out", expected.getMessage());
        }
        return server;
    }

    /**
     * Each round: threads blocked in accept on a server, in read and write on a client, and in a
     * connect to a full queue; then 20 threads close all three sockets at once.
     * It runs first, on the JVM's fresh native heap, where a native socket freed while a caller is
     * still inside shows as a crash rather than hiding among the Cleaner tests' thousands of sockets.
     */
    @Test
    @Order(1)
    void closesFromManyThreadsReleaseEveryBlockedCall() throws Exception {
        try (FileServerSocket full = fullServer()) {
            int before = -1;
            for (int round = 0; round < 500; round++) {
                if (round == 1) before = SocketPaths.openDescriptors(); // after what the JVM opens once
                String path = paths.next("close");
                FileServerSocket server = new FileServerSocket(new FileSocketAddress(path), 0, false);
                FileSocket client = new FileSocket(server.getAddress(), 0);
                FileSocket accepted = server.accept();
                FileSocket waiting = new FileSocket();
                List<Blocked> blocked = List.of(
                        new Blocked("accept", server::accept),
                        new Blocked("read", () -> client.getInputStream().read(new byte[100])),
                        new Blocked("write", () -> {
                            while (true) client.getOutputStream().write(new byte[1 << 16]);
                        }),
                        new Blocked("connect", () -> waiting.connect(full.getAddress(), 0)));
                for (Blocked b : blocked) b.awaitStart(round);
                CountDownLatch start = new CountDownLatch(1);
                ConcurrentLinkedQueue<Throwable> closeFailures = new ConcurrentLinkedQueue<>();
                List<Thread> closers = new ArrayList<>();
                for (int i = 0; i < 20; i++) {
                    closers.add(new Thread(() -> {
                        try {
                            start.await();
                            for (AutoCloseable socket : new AutoCloseable[] {server, client, waiting}) socket.close();
                        } catch (Throwable t) {
                            closeFailures.add(t);
                        }
                    }));
                    closers.get(i).start();
                }
                start.countDown();
                for (Thread closer : closers) closer.join(HANG_MILLIS);
                assertTrue(closeFailures.isEmpty(), () -> "a close threw: " + closeFailures.peek());
                // A read released by the close reports the close, not the end of the stream.
                for (Blocked b : blocked) {
                    Throwable t = b.join();
                    assertTrue(t instanceof SocketException, "round " + round + ", " + b.thread.getName() + ": " + t);
                }
                accepted.close();
                assertFalse(Files.exists(Path.of(path)));
            }
            assertEquals(before, SocketPaths.openDescriptors(), "descriptors left open");
        }
    }


    @Test
    void droppedSocketsConnectionsAndServersReleaseEverything() throws Exception {
        new FileSocket().close(); // the classes and the Cleaner's thread, before the count is taken
        int before = SocketPaths.openDescriptors();
        for (int i = 0; i < 4000; i++) new FileSocket(); // an unconnected socket owns a descriptor
        assertDescriptorsReturnTo(before, "after 4000 dropped sockets");
        List<String> serverPaths = new ArrayList<>();
        for (int i = 0; i < 200; i++) {
            serverPaths.add(paths.next("dropped"));
            FileServerSocket server = new FileServerSocket(new FileSocketAddress(serverPaths.get(i)), 0, false);
            FileSocket client = new FileSocket(server.getAddress(), 0);
            server.accept().getOutputStream().write(1);
            assertEquals(1, client.getInputStream().read());
        }
        assertDescriptorsReturnTo(before, "after 200 dropped servers with a connection each");
        for (String path : serverPaths) assertFalse(Files.exists(Path.of(path)), "a dropped server's socket file stays: " + path);
    }

    @Test
    void closedSocketsAreNotReleasedTwice() throws Exception {
        int before = SocketPaths.openDescriptors();
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
            assertFalse(keeper.isClosed());
            assertEquals(0, keeper.impl().available0(), "a live socket's descriptor was closed by a stray release");
        }
    }

    /** Collects garbage until the count is back, at most 10 seconds. */
    private static void assertDescriptorsReturnTo(int expected, String when) throws Exception {
        long deadline = System.nanoTime() + 10_000_000_000L;
        int now = SocketPaths.openDescriptors();
        while (now > expected && System.nanoTime() < deadline) {
            System.gc();
            Thread.sleep(20);
            now = SocketPaths.openDescriptors();
        }
        assertTrue(now <= expected, "descriptors did not return to " + expected + " " + when + ": " + now + " open");
    }
}
