package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.net.InetSocketAddress;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.net.http.HttpTimeoutException;
import java.nio.ByteBuffer;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * {@code noxinspect serve} as a real process against clients that hold connections without
 * finishing their requests, on loopback: some send nothing, some one byte, some a byte now and
 * then. A normal scrape is still answered at once, the slow connections are closed once their
 * time to send a request is up, and no more connections than the cap stay open.
 */
class ServeSlowClientsTest {
    private static final int SLOW = 100;
    private static final byte[] DRIBBLE = ("GET /metrics HTTP/1.1\r\nX-Slow: " + "a".repeat(4000))
            .getBytes(StandardCharsets.US_ASCII);

    @Test
    void slowClientsNeitherStallAScrapeNorStayOpen() throws Exception {
        try (LongRunning serve = new LongRunning("serve", "--port", "0")) {
            String line = serve.next(20, "the address serve listens on").text();
            String url = line.substring(line.indexOf("http://")).trim();
            URI uri = URI.create(url);
            InetSocketAddress address = new InetSocketAddress(uri.getHost(), uri.getPort());
            HttpClient http = HttpClient.newBuilder().connectTimeout(Duration.ofSeconds(5)).build();
            assertEquals(200, scrape(http, uri).statusCode(), "a first scrape");

            List<SocketChannel> slow = new ArrayList<>();
            List<SocketChannel> dribbling = new ArrayList<>();
            Thread dribbler = null;
            try {
                long openedAt = System.nanoTime();
                for (int i = 0; i < SLOW; i++) {
                    SocketChannel channel = SocketChannel.open(address);
                    channel.configureBlocking(false);
                    slow.add(channel);
                    if (i % 3 == 1) {
                        channel.write(ByteBuffer.wrap(new byte[] {'G'}));
                    } else if (i % 3 == 2) {
                        dribbling.add(channel);
                    }
                }
                dribbler = dribble(dribbling);
                Thread.sleep(300);  // every slow connection has been accepted and has sent what it sends

                // Answered while every slow connection is still open: they do not stall it (how
                // fast it is answered is the benchmark's to measure).
                HttpResponse<String> response = scrape(http, uri);
                assertEquals(200, response.statusCode());
                assertTrue(response.body().contains("nox_host_vms "), response.body());
                assertEquals(0, closedByServer(slow), "the slow connections are still within their time");

                // All are closed once their time to send a request is up, and not long after.
                long bound = openedAt + HttpFrontEnd.HEAD_NANOS + TimeUnit.SECONDS.toNanos(3);
                while (closedByServer(slow) < SLOW && System.nanoTime() - bound < 0) {
                    Thread.sleep(100);
                }
                assertEquals(SLOW, closedByServer(slow), "slow connections left open 3 s after their time");
                assertTrue(System.nanoTime() - openedAt >= HttpFrontEnd.HEAD_NANOS - TimeUnit.MILLISECONDS.toNanos(500),
                        "closed before their time");
            } finally {
                if (dribbler != null) {
                    dribbler.interrupt();
                    dribbler.join();
                }
                closeAll(slow);
            }
            connectionsBeyondTheCapAreClosed(http, uri, address);
        }
    }

    /** Twice the cap of silent connections: at most the cap stay open, and a scrape still gets through. */
    private static void connectionsBeyondTheCapAreClosed(HttpClient http, URI uri, InetSocketAddress address)
            throws Exception {
        List<SocketChannel> silent = new ArrayList<>();
        try {
            for (int i = 0; i < 2 * HttpFrontEnd.MAX_CONNECTIONS; i++) {
                SocketChannel channel = SocketChannel.open(address);
                channel.configureBlocking(false);
                silent.add(channel);
            }
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(3);
            while (silent.size() - closedByServer(silent) > HttpFrontEnd.MAX_CONNECTIONS
                    && System.nanoTime() - deadline < 0) {
                Thread.sleep(50);
            }
            int stillOpen = silent.size() - closedByServer(silent);
            assertTrue(stillOpen <= HttpFrontEnd.MAX_CONNECTIONS, stillOpen + " connections open, above the cap");
            assertEquals(200, scrape(http, uri).statusCode());
        } finally {
            closeAll(silent);
        }
    }

    private static HttpResponse<String> scrape(HttpClient http, URI uri) throws IOException, InterruptedException {
        try {
            return http.send(HttpRequest.newBuilder(uri).timeout(Duration.ofSeconds(5)).build(),
                    HttpResponse.BodyHandlers.ofString(StandardCharsets.UTF_8));
        } catch (HttpTimeoutException e) {
            throw new AssertionError("no answer to a scrape within 5 s", e);
        }
    }

    /** Sends one more byte of a request that never ends to each connection, every 200 ms. */
    private static Thread dribble(List<SocketChannel> channels) {
        Thread thread = new Thread(() -> {
            for (int sent = 0; sent < DRIBBLE.length && !Thread.currentThread().isInterrupted(); sent++) {
                for (SocketChannel channel : channels) {
                    try {
                        channel.write(ByteBuffer.wrap(DRIBBLE, sent, 1));
                    } catch (IOException e) {
                        // closed by the server: that is what the test waits for
                    }
                }
                try {
                    Thread.sleep(200);
                } catch (InterruptedException e) {
                    return;
                }
            }
        }, "slow-client");
        thread.setDaemon(true);
        thread.start();
        return thread;
    }

    /** How many of the (non-blocking) connections the server has closed (end of stream or reset). */
    private static int closedByServer(List<SocketChannel> channels) throws IOException {
        int closed = 0;
        ByteBuffer buffer = ByteBuffer.allocate(4096);
        for (SocketChannel channel : channels) {
            try {
                int n;
                do {
                    n = channel.read(buffer.clear());
                } while (n > 0);
                if (n < 0) {
                    closed++;
                }
            } catch (IOException e) {
                closed++;
            }
        }
        return closed;
    }

    private static void closeAll(List<SocketChannel> channels) {
        for (SocketChannel channel : channels) {
            try {
                channel.close();
            } catch (IOException e) {
                // released either way
            }
        }
    }
}
