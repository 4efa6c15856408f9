package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/**
 * close0 called by 200 threads at the same moment on one socket (a Java close racing a cleaner,
 * a pool shutting down), while threads are blocked in accept0 and read0 on the sockets and
 * another thread keeps opening, writing and closing ordinary files.
 */
class FileSocketConcurrentCloseTest {
    private static final int CLOSERS = 200;
    private static final int ROUNDS = 25;
    private final SocketPaths paths = new SocketPaths();

    @AfterEach
    void removeFiles() throws IOException {
        paths.close();
    }

    @Test
    void twoHundredClosersCloseOnceWithoutAnException() throws Exception {
        Path file = Path.of("/tmp/noxfs_" + ProcessHandle.current().pid() + "_closefiles");
        AtomicBoolean stop = new AtomicBoolean();
        ConcurrentLinkedQueue<Throwable> fileFailures = new ConcurrentLinkedQueue<>();
        AtomicInteger fileCycles = new AtomicInteger();
        Thread files = new Thread(() -> {
            byte[] pattern = new byte[4096];
            while (!stop.get()) {
                try {
                    Arrays.fill(pattern, (byte) fileCycles.get());
                    Files.write(file, pattern);
                    byte[] back = Files.readAllBytes(file);
                    if (!Arrays.equals(pattern, back)) throw new IOException("the file holds other bytes");
                    fileCycles.incrementAndGet();
                } catch (Throwable t) {
                    fileFailures.add(t);
                }
            }
        });
        // One round and one file cycle first, so that the classes they load and the files the
        // JVM opens for them are in place before the count is taken.
        oneRound(-1);
        Files.write(file, new byte[1]);
        Files.readAllBytes(file);
        int before = SocketPaths.openDescriptors();
        files.start();
        try {
            for (int round = 0; round < ROUNDS; round++) oneRound(round);
        } finally {
            stop.set(true);
            files.join(10_000);
            Files.deleteIfExists(file);
        }
        assertTrue(fileFailures.isEmpty(), () -> "the file thread failed: " + fileFailures.peek());
        assertTrue(fileCycles.get() > 0, "the file thread made no cycle");
        assertEquals(before, SocketPaths.openDescriptors(), "descriptors left open");
    }

    private void oneRound(int round) throws Exception {
        String path = paths.next("close");
        FileSocketImpl server = new FileSocketImpl();
        FileSocketImpl client = new FileSocketImpl();
        server.bind0(path, 0, false);
        client.connect0(path, 0);
        FileSocketImpl accepted = server.accept0();
        List<Thread> blocked = new ArrayList<>();
        CountDownLatch returned = new CountDownLatch(4);
        for (int i = 0; i < 2; i++) {
            blocked.add(new Thread(() -> {
                try {
                    FileSocketImpl more = server.accept0();
                    if (more != null) more.close();
                } catch (IOException expected) {
                    // released by the close
                } finally {
                    returned.countDown();
                }
            }));
            blocked.add(new Thread(() -> {
                try {
                    client.read0(new byte[1], 0, 1, 0);
                } catch (IOException expected) {
                    // released by the close
                } finally {
                    returned.countDown();
                }
            }));
        }
        blocked.forEach(Thread::start);
        // The blocked threads are inside their calls once nothing more happens on their stacks;
        // a close that comes earlier must release them all the same.
        Thread.sleep(Math.floorMod(round, 3) == 0 ? 0 : 20);

        CountDownLatch start = new CountDownLatch(1);
        CountDownLatch done = new CountDownLatch(CLOSERS);
        ConcurrentLinkedQueue<Throwable> thrown = new ConcurrentLinkedQueue<>();
        for (int i = 0; i < CLOSERS; i++) {
            Thread closer = new Thread(() -> {
                try {
                    start.await();
                    server.close0();
                    client.close0();
                } catch (Throwable t) {
                    thrown.add(t);
                } finally {
                    done.countDown();
                }
            });
            closer.start();
        }
        start.countDown();
        assertTrue(done.await(10, TimeUnit.SECONDS), "not every close0 returned within 10 s");
        assertTrue(thrown.isEmpty(), () -> "round " + round + ": " + thrown.size() + " close0 calls threw, first: " + thrown.peek());
        assertTrue(returned.await(10, TimeUnit.SECONDS), "the threads blocked in accept0 and read0 were not released");
        for (Thread t : blocked) t.join();
        assertEquals(-1, server.available0(), "the server is closed");
        assertEquals(-1, client.available0(), "the client is closed");
        assertFalse(Files.exists(Path.of(path)), "the server's socket file is removed");
        server.close();
        client.close();
        accepted.close();
    }
}
