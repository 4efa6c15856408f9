package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.net.SocketException;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/**
 * A close from one thread while others are blocked in the same socket: they come back (an
 * exception, or end of stream for a read), and no descriptor is left behind.
 */
class FileSocketCloseTest {
    private static final int ROUNDS = 1000;
    /** Only a hang detector: a released thread returns in microseconds. */
    private static final long HANG_MILLIS = 20_000;

    private final SocketPaths paths = new SocketPaths();

    @AfterEach
    void removeFiles() throws IOException {
        paths.close();
    }

    /** Runs body on a new thread and returns what it threw (null if nothing), or fails on a hang. */
    private static final class Blocked {
        final Thread thread;
        final AtomicReference<Throwable> thrown = new AtomicReference<>();
        final CountDownLatch started = new CountDownLatch(1);

        Blocked(String name, ThrowingRunnable body) {
            thread = new Thread(() -> {
                started.countDown();
                try {
                    body.run();
                } catch (Throwable t) {
                    thrown.set(t);
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
            return thrown.get();
        }
    }

    interface ThrowingRunnable {
        void run() throws Exception;
    }

    @Test
    void closeReleasesAcceptRepeatedly() throws Exception {
        runRounds(() -> {
            FileServerSocket server = new FileServerSocket(new FileSocketAddress(paths.next("accept")), 0, false);
            return new Round(server::accept, server::close);
        }, "accept");
    }

    @Test
    void closeReleasesReadRepeatedly() throws Exception {
        runRounds(() -> {
            String path = paths.next("read");
            FileServerSocket server = new FileServerSocket(new FileSocketAddress(path), 0, false);
            FileSocket client = new FileSocket(new FileSocketAddress(path), 0);
            FileSocket accepted = server.accept();
            return new Round(() -> {
                int n = client.getInputStream().read(new byte[100]);
                if (n != -1) throw new AssertionError("read returned " + n);
                throw new SocketException("end of stream");
            }, () -> {
                client.close();
                accepted.close();
                server.close();
            });
        }, "read");
    }

    @Test
    void closeReleasesWriteAndSeveralThreadsAtOnce() throws Exception {
        String path = paths.next("write");
        int before = SocketPaths.openDescriptors();
        for (int round = 0; round < 50; round++) {
            FileServerSocket server = new FileServerSocket(new FileSocketAddress(path), 0, false);
            FileSocket client = new FileSocket(new FileSocketAddress(path), 0);
            FileSocket accepted = server.accept();
            List<Blocked> blocked = new ArrayList<>();
            byte[] block = new byte[1 << 20];
            for (int i = 0; i < 3; i++) {
                blocked.add(new Blocked("write", () -> {
                    while (true) client.getOutputStream().write(block);
                }));
                blocked.add(new Blocked("read", () -> client.getInputStream().read()));
            }
            for (Blocked b : blocked) b.awaitStart(round);
            Thread.sleep(2); // let the writers fill the buffers
            client.close();
            for (Blocked b : blocked) {
                Throwable t = b.join();
                if (b.thread.getName().equals("write")) assertTrue(t instanceof SocketException, String.valueOf(t));
                else assertTrue(t == null || t instanceof SocketException, String.valueOf(t));
            }
            accepted.close();
            server.close();
        }
        assertEquals(before, SocketPaths.openDescriptors(), "descriptors left open");
    }

    @Test
    void closeReleasesAConnectWaitingForAFullQueue() throws Exception {
        String path = paths.next("queue");
        try (FileServerSocket server = new FileServerSocket(new FileSocketAddress(path), 1, false)) {
            // Fill the listen queue: nobody accepts.
            List<FileSocket> queued = new ArrayList<>();
            try {
                for (int i = 0; i < 64; i++) queued.add(new FileSocket(new FileSocketAddress(path), 20));
                fail("the listen queue never filled");
            } catch (java.net.SocketTimeoutException expected) {
                assertEquals("Connect timed out", expected.getMessage());
            }
            for (int round = 0; round < 20; round++) {
                FileSocket waiting = new FileSocket();
                Blocked b = new Blocked("connect", () -> waiting.connect(new FileSocketAddress(path), 0));
                b.awaitStart(round);
                Thread.sleep(5);
                waiting.close();
                Throwable t = b.join();
                assertTrue(t instanceof SocketException, String.valueOf(t));
            }
            for (FileSocket s : queued) s.close();
        }
    }

    private record Round(ThrowingRunnable blockingCall, ThrowingRunnable close) {}

    interface RoundFactory {
        Round make() throws Exception;
    }

    private void runRounds(RoundFactory factory, String what) throws Exception {
        // One round first, so that what the JVM opens once (classes, jars) is open before counting.
        runRound(factory, 0, what);
        int before = SocketPaths.openDescriptors();
        for (int round = 1; round <= ROUNDS; round++) runRound(factory, round, what);
        assertEquals(before, SocketPaths.openDescriptors(), "descriptors left open");
    }

    private void runRound(RoundFactory factory, int round, String what) throws Exception {
        Round r = factory.make();
        Blocked blocked = new Blocked(what, r.blockingCall());
        blocked.awaitStart(round);
        r.close().run();
        Throwable t = blocked.join();
        assertTrue(t instanceof SocketException, "round " + round + ": " + t);
        assertFalse(blocked.thread.isAlive());
    }
}
