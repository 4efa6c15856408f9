package com.nox.jvm.inspector.filesocket;

import java.io.IOException;

/**
 * The socket class as the tool declares it: the three fields, the constructor and getAddress
 * that the natives use, and the natives. The one other field is the state behind getAddress.
 */
public class FileSocketImpl {
    long fileSocket_pd;
    boolean restrictAccess;
    int backlog;
    FileSocketAddress address;

    FileSocketImpl(long fileSocket_pd, String socketIdentifier) {
        this.fileSocket_pd = fileSocket_pd;
        this.address = new FileSocketAddress();
        this.address.socketIdentifier = socketIdentifier;
    }

    FileSocketAddress getAddress() {
        return address;
    }

    static native void init0();

    native void create0() throws IOException;

    native void bind0(String path, int backlog, boolean restrictAccess) throws IOException;

    native FileSocketImpl accept0() throws IOException;

    native void connect0(String path, int timeout) throws IOException;

    native int read0(byte[] b, int off, int len, int timeout) throws IOException;

    native int write0(byte[] b, int off, int len, int timeout) throws IOException;

    native int available0();

    native void shutdown0(boolean how) throws IOException;

    native void close0() throws IOException;

    native void destroy0();
}
