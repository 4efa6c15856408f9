package com.nox.jvm.inspector.filesocket;

import com.nox.jvm.inspector.natives.NativeLibrary;
import java.io.IOException;
import java.lang.ref.Cleaner;
import java.net.SocketException;
import java.nio.ByteBuffer;

/**
 * One native file socket. The natives are the raw operations; the public methods add what a
 * socket shared between threads needs: a close from any thread wakes callers blocked in the
 * same socket, and the native object is released only after the last caller has left it. A
 * socket that is dropped without close is closed and released by a {@link Cleaner}.
 */
public final class FileSocketImpl implements AutoCloseable {
    static {
        NativeLibrary.load();
        init0();
    }

    /** Releases the native sockets of dropped objects; one daemon thread for all of them. */
    private static final Cleaner CLEANER = Cleaner.create();
    /** Reads and writes of up to this many bytes go through a buffer on the native stack. */
    static final int SMALL_TRANSFER = 1024;

    /** The native socket; 0 when there is none. Read and written by the natives. */
    long fileSocket_pd;
    /** Read by accept0; bind0 applies the restriction itself. */
    boolean restrictAccess;
    /** Read by accept0; 0 asks bind for the largest listen queue. */
    int backlog;

    private volatile FileSocketAddress address;

    private final Object state = new Object();
    private int callers; // threads inside a native call on this socket
    private boolean closed;
    private boolean destroyed;
    /** Owns the native socket for the Cleaner; create0 and destroy0 keep its handle current. */
    private final NativeRelease release;
    private final Cleaner.Cleanable cleanable;

    /** A new unconnected socket. */
    public FileSocketImpl() throws IOException {
        release = new NativeRelease(0);
        cleanable = CLEANER.register(this, release);
        create0();
        if (fileSocket_pd == 0) {
            throw new FileSocketException("FileSocket was not created successfully (has no socket endpoint)", "");
        }
    }

    /** Wraps an accepted native socket; called by accept0. */
    FileSocketImpl(long nativeSocket, String socketIdentifier) {
        this.fileSocket_pd = nativeSocket;
        this.address = FileSocketAddress.ofIdentifier(socketIdentifier);
        this.release = new NativeRelease(nativeSocket);
        this.cleanable = CLEANER.register(this, release);
    }

    /**
     * The release of a native socket whose FileSocketImpl became unreachable without close, run
     * by the Cleaner. It holds the handle only, never the FileSocketImpl, which would otherwise
     * stay reachable for ever. create0 sets the handle and destroy0 clears it (both natives),
     * so a socket destroyed through close is never released twice.
     */
    static final class NativeRelease implements Runnable {
        volatile long handle;

        NativeRelease(long handle) {
            this.handle = handle;
        }

        @Override
        public void run() {
            long socket = handle;
            handle = 0;
            if (socket != 0) release0(socket);
        }
    }

    /** The address this socket is bound or connected to, or null. Called by accept0. */
    public FileSocketAddress getAddress() {
        return address;
    }

    public boolean isClosed() {
        synchronized (state) {
            return closed;
        }
    }

    /** Binds the socket file and listens; 0 as backlog asks for the largest queue. */
    public void bind(FileSocketAddress where, int backlog, boolean restrictAccess) throws IOException {
        this.backlog = backlog;
        this.restrictAccess = restrictAccess;
        enter();
        try {
            bind0(where.socketIdentifier, backlog, restrictAccess);
            address = where;
        } finally {
            leave();
        }
    }

    /** Waits for a connection; the result is connected to the peer. */
    public FileSocketImpl accept() throws IOException {
        enter();
        try {
            FileSocketImpl accepted = accept0();
            if (accepted == null) throw new SocketException("accept failed");
            return accepted;
        } catch (FileSocketException e) {
            throw closedOr(e);
        } finally {
            leave();
        }
    }

    /** Connects; a time-out below 1 waits without limit. */
    public void connect(FileSocketAddress where, int timeoutMillis) throws IOException {
        enter();
        try {
            connect0(where.socketIdentifier, timeoutMillis);
            address = where;
        } catch (FileSocketException e) {
            throw closedOr(e);
        } finally {
            leave();
        }
    }

    /**
     * One read of at most len bytes: the count, or -1 at end of stream. A time-out below 1
     * waits without limit; a failed read throws an IOException with the system's text, a
     * time-out a {@link java.net.SocketTimeoutException}.
     */
    public int read(byte[] b, int off, int len, int timeoutMillis) throws IOException {
        java.util.Objects.checkFromIndexSize(off, len, b.length);
        if (len == 0) return 0;
        enter();
        try {
            // Large reads go from the socket straight into the array.
            int n = len <= SMALL_TRANSFER ? receive0(b, off, len, timeoutMillis) : receiveArray0(b, off, len, timeoutMillis);
            return endOfStreamOrClosed(n);
        } catch (FileSocketException e) {
            throw closedOr(e);
        } finally {
            leave();
        }
    }

    /** One read into bytes [pos, pos + len) of a direct buffer, as {@link #read(byte[], int, int, int)}. */
    public int read(ByteBuffer direct, int pos, int len, int timeoutMillis) throws IOException {
        enter();
        try {
            return endOfStreamOrClosed(receiveDirect0(direct, pos, len, timeoutMillis));
        } catch (FileSocketException e) {
            throw closedOr(e);
        } finally {
            leave();
        }
    }

    /** The end of stream that a close from another thread causes is reported as the close. */
    private int endOfStreamOrClosed(int n) throws SocketException {
        if (n < 0 && isClosed()) throw new SocketException("Socket closed");
        return n;
    }

    /**
     * Writes all len bytes, at most 1024 per system call; the time-out bounds each wait for
     * room. Returns len, or throws.
     */
    public int write(byte[] b, int off, int len, int timeoutMillis) throws IOException {
        enter();
        try {
            return write0(b, off, len, timeoutMillis);
        } catch (FileSocketException e) {
            throw closedOr(e);
        } finally {
            leave();
        }
    }

    /**
     * Writes all len bytes: up to 1024 as {@link #write(byte[], int, int, int)}, more straight
     * from the array with as few system calls as the socket takes. The time-out bounds each
     * wait for room. Returns len, or throws.
     */
    public int send(byte[] b, int off, int len, int timeoutMillis) throws IOException {
        if (len <= SMALL_TRANSFER) return write(b, off, len, timeoutMillis);
        enter();
        try {
            return sendArray0(b, off, len, timeoutMillis);
        } catch (FileSocketException e) {
            throw closedOr(e);
        } finally {
            leave();
        }
    }

    /** Writes all bytes [pos, pos + len) of a direct buffer with as few system calls as the socket takes. */
    public int write(ByteBuffer direct, int pos, int len, int timeoutMillis) throws IOException {
        enter();
        try {
            return writeDirect0(direct, pos, len, timeoutMillis);
        } catch (FileSocketException e) {
            throw closedOr(e);
        } finally {
            leave();
        }
    }

    /** Bytes readable without blocking; 0 once closed. */
    public int available() throws IOException {
        enter();
        try {
            return Math.max(available0(), 0);
        } finally {
            leave();
        }
    }

    /** Shuts the connection down both ways. */
    public void shutdown() throws IOException {
        enter();
        try {
            shutdown0(true);
        } finally {
            leave();
        }
    }

    /**
     * Closes the socket: threads blocked in it return at once, a bound socket's file is
     * removed. Closing twice does nothing.
     */
    @Override
    public void close() throws IOException {
        synchronized (state) {
            if (closed) return;
            closed = true;
            callers++;
        }
        try {
            close0();
        } finally {
            leave();
        }
    }

    private void enter() throws SocketException {
        synchronized (state) {
            if (closed) throw new SocketException("Socket is closed");
            callers++;
        }
    }

    private void leave() {
        synchronized (state) {
            callers--;
            if (!closed || callers > 0 || destroyed) return;
            destroyed = true;
        }
        destroy0();
        cleanable.clean(); // finds the handle cleared by destroy0; unregisters
    }

    private IOException closedOr(FileSocketException e) {
        if (!isClosed()) return e;
        SocketException closedException = new SocketException("Socket closed");
        closedException.initCause(e);
        return closedException;
    }

    static native void init0();

    native void create0() throws IOException;

    native void bind0(String path, int backlog, boolean restrictAccess) throws IOException;

    native FileSocketImpl accept0() throws IOException;

    native void connect0(String path, int timeout) throws IOException;

    native int read0(byte[] b, int off, int len, int timeout) throws IOException;

    native int write0(byte[] b, int off, int len, int timeout) throws IOException;

    native int readDirect0(ByteBuffer direct, int pos, int len, int timeout) throws IOException;

    native int writeDirect0(ByteBuffer direct, int pos, int len, int timeout) throws IOException;

    native int receiveDirect0(ByteBuffer direct, int pos, int len, int timeout) throws IOException;

    native int receive0(byte[] b, int off, int len, int timeout) throws IOException;

    native int receiveArray0(byte[] b, int off, int len, int timeout) throws IOException;

    native int sendArray0(byte[] b, int off, int len, int timeout) throws IOException;

    private static native void release0(long handle);

    native int available0();

    native void shutdown0(boolean how) throws IOException;

    native void close0() throws IOException;

    native void destroy0();
}
