package com.nox.jvm.inspector.filesocket;

import java.io.IOException;
import java.util.Objects;

/**
 * A server socket that listens on a socket file, used like {@link java.net.ServerSocket}. An
 * earlier server's stale socket file at the same path is replaced; the file is removed again
 * when this server is closed. {@link #close} from any thread releases a thread blocked in
 * {@link #accept} with a {@link java.net.SocketException}.
 */
public final class FileServerSocket implements AutoCloseable {
    private final FileSocketImpl impl;

    /** Listens on the socket file named by name, with the largest queue, readable by everyone. */
    public FileServerSocket(String name) throws IOException {
        this(new FileSocketAddress(name), 0, false);
    }

    /**
     * Listens on address. backlog 0 asks for the largest queue; restrictAccess makes the socket
     * file readable and writable by its owner only (mode 0600).
     */
    public FileServerSocket(FileSocketAddress address, int backlog, boolean restrictAccess) throws IOException {
        Objects.requireNonNull(address, "address");
        impl = new FileSocketImpl();
        try {
            impl.bind(address, backlog, restrictAccess);
        } catch (IOException | RuntimeException e) {
            impl.close();
            throw e;
        }
    }

    /** Waits for the next connection. */
    public FileSocket accept() throws IOException {
        return new FileSocket(impl.accept());
    }

    public FileSocketAddress getAddress() {
        return impl.getAddress();
    }

    public boolean isClosed() {
        return impl.isClosed();
    }

    @Override
    public void close() throws IOException {
        impl.close();
    }
}
