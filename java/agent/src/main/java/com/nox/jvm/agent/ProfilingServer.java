package com.nox.jvm.agent;

import java.io.IOException;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Iterator;

/**
 * The VM's profiling server: a Unix-domain stream socket at
 * /tmp/nox_jvm_profiling_server_<euid>_<pid>, served by one daemon thread with one selector.
 * Protocol: nothing is sent on connect; every line received (bytes up to '\n', the newline not
 * included) is answered with "PONG <line>\n"; a line longer than 65536 bytes is answered in
 * pieces of 65536 bytes; a last line without newline is answered when the client shuts down its
 * output, then the connection is closed. A client that leaves its answers unread for a second
 * is dropped.
 */
final class ProfilingServer implements AutoCloseable {
    static final int LONGEST_LINE = 65536;
    private static final long SEND_LIMIT_NANOS = 1_000_000_000L;
    private static final byte[] PONG = "PONG ".getBytes(StandardCharsets.US_ASCII);

    private final Path path;
    private final Object identity;
    private final ServerSocketChannel server;
    private final Selector selector;
    private final Thread thread;
    private volatile boolean closed;

    /** One connection: the bytes of its unfinished line and the answers not yet sent. */
    private static final class Client {
        final SocketChannel channel;
        ByteBuffer pending = ByteBuffer.allocate(256);
        ByteBuffer out = ByteBuffer.allocate(256);
        boolean inputEnded;
        long blockedSince;

        Client(SocketChannel channel) {
            this.channel = channel;
        }
    }

    private ProfilingServer(Path path, Object identity, ServerSocketChannel server, Selector selector) {
        this.path = path;
        this.identity = identity;
        this.server = server;
        this.selector = selector;
        this.thread = new Thread(new Runnable() {
            @Override
            public void run() {
                serveUntilClosed();
            }
        }, "nox-agent-profiling-server");
        thread.setDaemon(true);
    }

    /**
     * Binds the socket inside a fresh folder that only we can enter, gives it mode 0600, and then
     * renames it to its public name, so the socket is never reachable with a wider mode. A stale
     * socket of ours at that name is removed first; another user's file is left alone.
     */
    static ProfilingServer start(Path path, int euid) throws IOException {
        TmpFiles.removeStale(path, euid);
        Path folder = privateFolder(path);
        Path inside = folder.resolve("s");
        ServerSocketChannel server = ServerSocketChannel.open(StandardProtocolFamily.UNIX);
        try {
            server.bind(UnixDomainSocketAddress.of(inside), 16);
            Files.setPosixFilePermissions(inside, PosixFilePermissions.fromString("rw-------"));
            Files.move(inside, path, StandardCopyOption.ATOMIC_MOVE);
            server.configureBlocking(false);
            Selector selector = Selector.open();
            server.register(selector, SelectionKey.OP_ACCEPT);
            ProfilingServer result = new ProfilingServer(path, TmpFiles.identity(path), server, selector);
            result.thread.start();
            return result;
        } catch (IOException | RuntimeException e) {
            server.close();
            Files.deleteIfExists(inside);
            throw e;
        } finally {
            Files.deleteIfExists(folder);
        }
    }

    Path path() {
        return path;
    }

    /**
     * A new folder beside {@code path} that only we can enter. Named by the socket's own name and
     * a counter rather than by Files.createTempDirectory, whose random names cost a first
     * SecureRandom (tens of milliseconds of seeding) in a VM that has none yet.
     */
    private static Path privateFolder(Path path) throws IOException {
        for (int attempt = 0; ; attempt++) {
            Path folder = path.resolveSibling("." + path.getFileName() + "." + System.nanoTime() + "." + attempt);
            try {
                return Files.createDirectory(folder,
                        PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------")));
            } catch (java.nio.file.FileAlreadyExistsException e) {
                if (attempt >= 100) {
                    throw e;
                }
            }
        }
    }

    private void serveUntilClosed() {
        try {
            while (!closed) {
                selector.select(250);
                Iterator<SelectionKey> keys = selector.selectedKeys().iterator();
                while (keys.hasNext()) {
                    SelectionKey key = keys.next();
                    keys.remove();
                    if (!key.isValid()) {
                        continue;
                    }
                    if (key.isAcceptable()) {
                        accept();
                    } else {
                        serve(key);
                    }
                }
                dropSlowReaders();
            }
        } catch (IOException | RuntimeException e) {
            // The selector failed or was closed: the server ends; the VM runs on without it.
        }
    }

    private void accept() throws IOException {
        SocketChannel channel = server.accept();
        if (channel == null) {
            return;
        }
        channel.configureBlocking(false);
        channel.register(selector, SelectionKey.OP_READ, new Client(channel));
    }

    private void serve(SelectionKey key) {
        Client client = (Client) key.attachment();
        try {
            if (key.isWritable()) {
                flush(client);
            }
            if (key.isValid() && key.isReadable() && !client.inputEnded) {
                read(client);
            }
            if (client.inputEnded && client.out.position() == 0) {
                drop(key);
                return;
            }
            key.interestOps((client.inputEnded ? 0 : SelectionKey.OP_READ)
                    | (client.out.position() > 0 ? SelectionKey.OP_WRITE : 0));
        } catch (IOException e) {
            drop(key);
        }
    }

    private void read(Client client) throws IOException {
        ensure(client, 4096);
        int n = client.channel.read(client.pending);
        if (n < 0) {
            client.inputEnded = true;
            if (client.pending.position() > 0) {
                answer(client, client.pending.array(), 0, client.pending.position());
                client.pending.clear();
            }
        } else {
            answerLines(client);
        }
        flush(client);
    }

    /** Answers every complete line in the client's pending bytes and keeps the rest. */
    private static void answerLines(Client client) {
        byte[] bytes = client.pending.array();
        int end = client.pending.position();
        int start = 0;
        for (int i = 0; i < end; i++) {
            if (bytes[i] == '\n') {
                answer(client, bytes, start, i - start);
                start = i + 1;
            } else if (i + 1 - start == LONGEST_LINE) {
                answer(client, bytes, start, LONGEST_LINE);
                start = i + 1;
            }
        }
        client.pending.position(start).limit(end);
        client.pending.compact();
    }

    private static void answer(Client client, byte[] line, int from, int length) {
        int need = PONG.length + length + 1;
        if (client.out.remaining() < need) {
            ByteBuffer bigger = ByteBuffer.allocate(Math.max(client.out.capacity() * 2, client.out.position() + need));
            client.out.flip();
            bigger.put(client.out);
            client.out = bigger;
        }
        client.out.put(PONG).put(line, from, length).put((byte) '\n');
    }

    private void flush(Client client) throws IOException {
        client.out.flip();
        client.channel.write(client.out);
        client.out.compact();
        client.blockedSince = client.out.position() == 0 ? 0 : (client.blockedSince == 0 ? System.nanoTime()
                : client.blockedSince);
    }

    private static void ensure(Client client, int room) {
        if (client.pending.remaining() < room) {
            ByteBuffer bigger = ByteBuffer.allocate(client.pending.capacity() * 2 + room);
            client.pending.flip();
            bigger.put(client.pending);
            client.pending = bigger;
        }
    }

    private void dropSlowReaders() {
        long now = System.nanoTime();
        for (SelectionKey key : selector.keys()) {
            if (key.attachment() instanceof Client client && client.blockedSince != 0
                    && now - client.blockedSince > SEND_LIMIT_NANOS) {
                drop(key);
            }
        }
    }

    private static void drop(SelectionKey key) {
        key.cancel();
        try {
            key.channel().close();
        } catch (IOException e) {
            // Closed either way.
        }
    }

    /** Stops serving, closes every connection and removes the socket file if it is still ours. */
    @Override
    public void close() {
        closed = true;
        TmpFiles.deleteIfSame(path, identity);
        try {
            selector.wakeup();
            thread.join(1000);
            for (SelectionKey key : selector.keys()) {
                key.channel().close();
            }
            selector.close();
            server.close();
        } catch (IOException e) {
            // Closing what is left is all that can be done.
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }
}
