package com.nox.jvm.inspector.filesocket;

import java.net.SocketException;

/**
 * A failure of a file-socket operation: the text of the failure (a fixed text or the system's
 * description of the error) and the path of the socket that failed, empty when it had none.
 */
public class FileSocketException extends SocketException {
    private static final long serialVersionUID = 1L;

    private final String socketIdentifier;

    public FileSocketException(String message, String socketIdentifier) {
        super(message);
        this.socketIdentifier = socketIdentifier == null ? "" : socketIdentifier;
    }

    /** The path of the socket file the failing socket was bound or connected to, or "". */
    public String getSocketIdentifier() {
        return socketIdentifier;
    }
}
