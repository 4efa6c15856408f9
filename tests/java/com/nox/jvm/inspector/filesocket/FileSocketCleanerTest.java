package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/** Sockets dropped without close release their descriptors (and a server its socket file). */
class FileSocketCleanerTest {
    private static final int DROPPED = 4000;
    private final SocketPaths paths = new SocketPaths();

    @AfterEach
    void removeFiles() throws IOException {
        paths.close();
    }

    @Test
    void droppedSocketsConnectionsAndServersReleaseEverything() throws Exception {
        new FileSocket().close(); // the classes and the Cleaner's thread, before the count is taken
        int before = SocketPaths.openDescriptors();
        for (int i = 0; i < DROPPED; i++) new FileSocket(); // an unconnected socket owns a descriptor
        assertDescriptorsReturnTo(before, "after " + DROPPED + " dropped sockets");
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
