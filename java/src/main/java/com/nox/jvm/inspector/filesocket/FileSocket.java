package com.nox.jvm.inspector.filesocket;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.SocketException;
import java.util.Objects;

/**
 * A connected file socket with input and output streams, used like {@link java.net.Socket}:
 * {@link #setSoTimeout} bounds each read (a {@link java.net.SocketTimeoutException} when it
 * runs out), {@link #close} from any thread releases threads blocked in it, and every use after
 * close throws a {@link SocketException}.
 */
public final class FileSocket implements AutoCloseable {

    private final FileSocketImpl impl;
    private volatile int soTimeout;
    private volatile int writeTimeout;
    private final SocketInputStream input = new SocketInputStream();
    private final SocketOutputStream output = new SocketOutputStream();
    private volatile boolean connected;

    /** An unconnected socket; see {@link #connect}. */
    public FileSocket() throws IOException {
        this.impl = new FileSocketImpl();
    }

    /** A socket connected to the server whose socket file is named by name (see {@link FileSocketAddress}). */
    public FileSocket(String name) throws IOException {
        this(new FileSocketAddress(name), 0);
    }

    /** A socket connected to address, waiting at most timeoutMillis (below 1: no limit). */
    public FileSocket(FileSocketAddress address, int timeoutMillis) throws IOException {
        this.impl = new FileSocketImpl();
        try {
            connect(address, timeoutMillis);
        } catch (IOException | RuntimeException e) {
            impl.close();
            throw e;
        }
    }

    FileSocket(FileSocketImpl accepted) {
        this.impl = accepted;
        this.connected = true;
    }

    public void connect(FileSocketAddress address) throws IOException {
        connect(address, 0);
    }

    /** Connects; a full listen queue is waited for at most timeoutMillis (below 1: no limit). */
    public void connect(FileSocketAddress address, int timeoutMillis) throws IOException {
        Objects.requireNonNull(address, "address");
        if (connected) throw new SocketException("already connected");
        impl.connect(address, timeoutMillis);
        connected = true;
    }

    /** The address of the server's socket file (for an accepted socket: the server's own). */
    public FileSocketAddress getAddress() {
        return impl.getAddress();
    }

    public boolean isConnected() {
        return connected;
    }

    public boolean isClosed() {
        return impl.isClosed();
    }

    /** Bounds each read, in milliseconds; 0 waits without limit. */
    public void setSoTimeout(int timeoutMillis) throws SocketException {
        if (timeoutMillis < 0) throw new IllegalArgumentException("timeout < 0");
        checkOpen();
        soTimeout = timeoutMillis;
    }

    public int getSoTimeout() {
        return soTimeout;
    }

    /** Bounds each wait for room to write, in milliseconds; 0 waits without limit. */
    public void setWriteTimeout(int timeoutMillis) throws SocketException {
        if (timeoutMillis < 0) throw new IllegalArgumentException("timeout < 0");
        checkOpen();
        writeTimeout = timeoutMillis;
    }

    public int getWriteTimeout() {
        return writeTimeout;
    }

    public InputStream getInputStream() throws IOException {
        checkConnected();
        return input;
    }

    public OutputStream getOutputStream() throws IOException {
        checkConnected();
        return output;
    }

    /** Ends the connection both ways; the peer reads end of stream. */
    public void shutdown() throws IOException {
        impl.shutdown();
    }

    /** Closes the socket; threads blocked in it get a SocketException. Closing twice does nothing. */
    @Override
    public void close() throws IOException {
        impl.close();
    }

    /** The native socket, for callers that want its raw paths. */
    public FileSocketImpl impl() {
        return impl;
    }

    private void checkOpen() throws SocketException {
        if (impl.isClosed()) throw new SocketException("Socket is closed");
    }

    private void checkConnected() throws SocketException {
        checkOpen();
        if (!connected) throw new SocketException("Socket is not connected");
    }

    private final class SocketInputStream extends InputStream {
        private final byte[] single = new byte[1];

        @Override
        public int read() throws IOException {
            synchronized (single) {
                int n = read(single, 0, 1);
                return n < 0 ? -1 : single[0] & 0xFF;
            }
        }

        @Override
        public int read(byte[] b, int off, int len) throws IOException {
            Objects.checkFromIndexSize(off, len, b.length);
            if (len == 0) return 0;
            return impl.read(b, off, len, soTimeout);
        }

        @Override
        public int available() throws IOException {
            return impl.available();
        }

        @Override
        public void close() throws IOException {
            FileSocket.this.close();
        }
    }

    private final class SocketOutputStream extends OutputStream {
        private final byte[] single = new byte[1];

        @Override
        public void write(int b) throws IOException {
            synchronized (single) {
                single[0] = (byte) b;
                impl.write(single, 0, 1, writeTimeout);
            }
        }

        @Override
        public void write(byte[] b, int off, int len) throws IOException {
            Objects.checkFromIndexSize(off, len, b.length);
            if (len > 0) impl.send(b, off, len, writeTimeout);
        }

        @Override
        public void close() throws IOException {
            FileSocket.this.close();
        }
    }
}
