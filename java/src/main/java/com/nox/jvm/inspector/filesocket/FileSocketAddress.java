package com.nox.jvm.inspector.filesocket;

import com.nox.jvm.inspector.natives.NativeLibrary;
import java.net.SocketAddress;
import java.util.Objects;

/**
 * The address of a file socket: the path of its socket file. A name without '/' names a file
 * in /tmp (cut to 94 characters); a name with '/' is used as it is.
 */
public final class FileSocketAddress extends SocketAddress {
    private static final long serialVersionUID = 1L;

    static {
        NativeLibrary.load();
    }

    /** The socket file's path, as the natives read it. */
    final String socketIdentifier;

    /** The address of the socket file that {@link #createIdentifier(String)} makes of name. */
    public FileSocketAddress(String name) {
        this.socketIdentifier = createIdentifier(Objects.requireNonNull(name, "name"));
    }

    private FileSocketAddress(String identifier, boolean exact) {
        this.socketIdentifier = identifier;
    }

    /** An address whose identifier is taken as given (the identifier of a bound or accepted socket). */
    static FileSocketAddress ofIdentifier(String identifier) {
        return new FileSocketAddress(identifier, true);
    }

    /** The path of the socket file. */
    public String getSocketIdentifier() {
        return socketIdentifier;
    }

    /** "/tmp/" + name for a bare name (at most 94 characters of it), name itself when it holds '/'; null for null. */
    public static native String createIdentifier(String name);

    @Override
    public boolean equals(Object other) {
        return other instanceof FileSocketAddress
                && Objects.equals(socketIdentifier, ((FileSocketAddress) other).socketIdentifier);
    }

    @Override
    public int hashCode() {
        return Objects.hashCode(socketIdentifier);
    }

    @Override
    public String toString() {
        return "FileSocketAddress[" + socketIdentifier + "]";
    }
}
