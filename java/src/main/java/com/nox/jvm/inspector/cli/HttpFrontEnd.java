package com.nox.jvm.inspector.cli;

import java.io.IOException;
import java.net.InetSocketAddress;
import java.net.StandardSocketOptions;
import java.nio.ByteBuffer;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Iterator;
import java.util.List;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * The connections of {@code serve}: one thread with a selector accepts them, reads each request
 * head and sends each answer, so a client that is slow to send or to read costs a buffer and no
 * thread; a few handler threads build the answers of complete requests. Whoever can reach the
 * port is trusted with nothing:
 * <ul>
 * <li>a connection has {@link #HEAD_NANOS} from its accept to send its whole request head
 * (at most {@link #MAX_HEAD} bytes), and {@link #SEND_NANOS} to take its answer; then it is
 * closed;</li>
 * <li>at most {@link #MAX_CONNECTIONS} are open at once: a new one beyond that closes the oldest
 * connection that is still sending its head (or being let go), and is itself closed when there
 * is none, so slow clients never crowd out a scrape that sends its request at once;</li>
 * <li>every answer closes its connection: after the answer the input is drained for a moment
 * (so that unread request bytes do not turn the close into a reset that loses the answer).</li>
 * </ul>
 */
final class HttpFrontEnd implements AutoCloseable {
    static final int MAX_CONNECTIONS = 128;
    static final int MAX_HEAD = 8192;
    static final long HEAD_NANOS = TimeUnit.SECONDS.toNanos(5);
    static final long SEND_NANOS = TimeUnit.SECONDS.toNanos(10);
    static final long DRAIN_NANOS = TimeUnit.SECONDS.toNanos(1);

    /** Builds the answer of one request; runs on a handler thread. */
    interface Handler {
        void handle(ServeExchange exchange) throws IOException;
    }

    private enum Stage { HEAD, HANDLED, SENDING, DRAINING }

    /** One connection; touched by the selector thread only, but for {@code answer} (handed over through a queue). */
    private static final class Connection {
        final SocketChannel channel;
        final SelectionKey key;
        final ByteBuffer in = ByteBuffer.allocate(MAX_HEAD);
        Stage stage = Stage.HEAD;
        long deadline;
        ByteBuffer answer;

        Connection(SocketChannel channel, SelectionKey key, long deadline) {
            this.channel = channel;
            this.key = key;
            this.deadline = deadline;
        }
    }

    private final ServerSocketChannel server;
    private final Selector selector;
    private final Handler handler;
    private final ExecutorService handlers;
    /** Open connections in the order they were accepted. */
    private final List<Connection> open = new ArrayList<>();
    private final Queue<Connection> answered = new ConcurrentLinkedQueue<>();
    private final Thread thread;
    private volatile boolean closed;

    private HttpFrontEnd(ServerSocketChannel server, Selector selector, Handler handler, int threads) {
        this.server = server;
        this.selector = selector;
        this.handler = handler;
        AtomicInteger count = new AtomicInteger();
        handlers = Executors.newFixedThreadPool(threads, task -> {
            Thread t = new Thread(task, "noxinspect-serve-" + count.incrementAndGet());
            t.setDaemon(true);
            return t;
        });
        thread = new Thread(this::serve, "noxinspect-serve-connections");
        thread.setDaemon(true);
    }

    /** Binds {@code address} (a BindException when it is taken) and starts serving. */
    static HttpFrontEnd start(InetSocketAddress address, int backlog, int threads, Handler handler) throws IOException {
        ServerSocketChannel server = ServerSocketChannel.open();
        Selector selector = null;
        try {
            server.bind(address, backlog);
            server.configureBlocking(false);
            selector = Selector.open();
            server.register(selector, SelectionKey.OP_ACCEPT);
        } catch (IOException | RuntimeException e) {
            server.close();
            if (selector != null) {
                selector.close();
            }
            throw e;
        }
        HttpFrontEnd frontEnd = new HttpFrontEnd(server, selector, handler, threads);
        frontEnd.thread.start();
        return frontEnd;
    }

    InetSocketAddress address() throws IOException {
        return (InetSocketAddress) server.getLocalAddress();
    }

    private void serve() {
        try {
            while (!closed) {
                selector.select(this::ready, waitMillis(System.nanoTime()));
                long now = System.nanoTime();
                for (Connection c = answered.poll(); c != null; c = answered.poll()) {
                    send(c, now);
                }
                expire(now);
            }
        } catch (IOException | RuntimeException e) {
            if (!closed) {
                System.err.println("noxinspect serve: the connection thread failed: " + e);
            }
        } finally {
            closeAll();
        }
    }

    /** Milliseconds until the nearest deadline (at least 1), or 0 (no limit) without one. */
    private long waitMillis(long now) {
        long nearest = Long.MAX_VALUE;
        for (Connection c : open) {
            if (c.stage != Stage.HANDLED) {
                nearest = Math.min(nearest, Math.max(0, c.deadline - now));
            }
        }
        return nearest == Long.MAX_VALUE ? 0 : Math.max(1, TimeUnit.NANOSECONDS.toMillis(nearest) + 1);
    }

    private void ready(SelectionKey key) {
        long now = System.nanoTime();
        if (key.isValid() && key.isAcceptable()) {
            acceptAll(now);
            return;
        }
        Connection c = (Connection) key.attachment();
        try {
            if (key.isValid() && key.isReadable()) {
                read(c, now);
            }
            if (key.isValid() && key.isWritable()) {
                write(c, now);
            }
        } catch (IOException e) {
            close(c);  // reset by the client, or gone
        }
    }

    private void acceptAll(long now) {
        while (true) {
            SocketChannel channel;
            try {
                channel = server.accept();
            } catch (IOException e) {
                return;  // out of descriptors, or the client gave up: the next round accepts again
            }
            if (channel == null) {
                return;
            }
            if (open.size() >= MAX_CONNECTIONS && !closeOldestIdle()) {
                quietClose(channel);
                continue;
            }
            try {
                channel.configureBlocking(false);
                channel.setOption(StandardSocketOptions.TCP_NODELAY, true);
                SelectionKey key = channel.register(selector, SelectionKey.OP_READ);
                Connection c = new Connection(channel, key, now + HEAD_NANOS);
                key.attach(c);
                open.add(c);
            } catch (IOException e) {
                quietClose(channel);
            }
        }
    }

    /** Closes the oldest connection that is sending its head or being let go; false when there is none. */
    private boolean closeOldestIdle() {
        for (Connection c : open) {
            if (c.stage == Stage.HEAD || c.stage == Stage.DRAINING) {
                close(c);
                return true;
            }
        }
        return false;
    }

    private void read(Connection c, long now) throws IOException {
        if (c.stage == Stage.DRAINING) {
            ByteBuffer discard = ByteBuffer.allocate(4096);
            while (true) {
                int n = c.channel.read(discard.clear());
                if (n < 0) {
                    close(c);
                }
                if (n <= 0) {
                    return;
                }
            }
        }
        int scanFrom = Math.max(0, c.in.position() - 3);
        if (c.channel.read(c.in) < 0) {
            close(c);
            return;
        }
        int end = headEnd(c.in, scanFrom);
        if (end >= 0) {
            dispatch(c, new String(c.in.array(), 0, end, StandardCharsets.ISO_8859_1), now);
        } else if (!c.in.hasRemaining()) {
            answer(c, ServeExchange.plain(431, "the request head is longer than " + MAX_HEAD + " bytes\n"), now);
        }
    }

    /** Where the head in {@code in} ends (before its empty line), or -1 while it has not ended. */
    static int headEnd(ByteBuffer in, int from) {
        byte[] bytes = in.array();
        for (int i = from; i < in.position(); i++) {
            if (bytes[i] != '\n') {
                continue;
            }
            if (i >= 1 && bytes[i - 1] == '\n') {
                return i - 1;
            }
            if (i >= 3 && bytes[i - 1] == '\r' && bytes[i - 2] == '\n' && bytes[i - 3] == '\r') {
                return i - 3;
            }
        }
        return -1;
    }

    /** Hands a complete head to a handler thread; the connection waits without a deadline meanwhile. */
    private void dispatch(Connection c, String head, long now) {
        ServeExchange exchange;
        try {
            exchange = ServeExchange.parse(head);
        } catch (IllegalArgumentException e) {
            answer(c, ServeExchange.plain(400, "bad request: " + e.getMessage() + "\n"), now);
            return;
        }
        c.stage = Stage.HANDLED;
        c.key.interestOps(0);
        handlers.execute(() -> {
            ByteBuffer answer;
            try {
                handler.handle(exchange);
                answer = exchange.response();
            } catch (IOException | RuntimeException e) {
                answer = ServeExchange.plain(500, "the request failed: " + e + "\n");
            }
            c.answer = answer;
            answered.add(c);
            selector.wakeup();
        });
    }

    private void answer(Connection c, ByteBuffer answer, long now) {
        c.answer = answer;
        send(c, now);
    }

    /** Starts sending the answer; what the socket does not take at once is sent as it drains. */
    private void send(Connection c, long now) {
        if (!c.key.isValid()) {
            return;  // closed meanwhile (the front end is stopping)
        }
        c.stage = Stage.SENDING;
        c.deadline = now + SEND_NANOS;
        c.key.interestOps(SelectionKey.OP_WRITE);
        try {
            write(c, now);
        } catch (IOException e) {
            close(c);
        }
    }

    private void write(Connection c, long now) throws IOException {
        if (c.stage != Stage.SENDING) {
            return;
        }
        c.channel.write(c.answer);
        if (c.answer.hasRemaining()) {
            return;
        }
        c.channel.shutdownOutput();
        c.stage = Stage.DRAINING;
        c.deadline = now + DRAIN_NANOS;
        c.key.interestOps(SelectionKey.OP_READ);
    }

    /** Closes every connection whose time is up; a request being handled has no deadline. */
    private void expire(long now) {
        for (int i = open.size() - 1; i >= 0; i--) {
            Connection c = open.get(i);
            if (c.stage != Stage.HANDLED && now - c.deadline >= 0) {
                close(c);
            }
        }
    }

    private void close(Connection c) {
        c.key.cancel();
        quietClose(c.channel);
        open.remove(c);
    }

    private static void quietClose(SocketChannel channel) {
        try {
            channel.close();
        } catch (IOException e) {
            // The descriptor is released either way.
        }
    }

    private void closeAll() {
        for (Connection c : new ArrayList<>(open)) {
            close(c);
        }
        try {
            server.close();
            selector.close();
        } catch (IOException e) {
            // Released either way.
        }
    }

    /** Stops accepting, closes every connection and lets the handler threads go. */
    @Override
    public void close() {
        closed = true;
        selector.wakeup();
        try {
            thread.join(TimeUnit.SECONDS.toMillis(2));
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        handlers.shutdownNow();
    }
}
