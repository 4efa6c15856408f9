package com.nox.jvm.inspector.filesocket;

import java.io.IOException;

/** The exception as the tool declares it: the two-string constructor (and where it keeps its second string). */
@SuppressWarnings("serial")
public class FileSocketException extends IOException {
    final String socketIdentifier;

    public FileSocketException(String message, String socketIdentifier) {
        super(message);
        this.socketIdentifier = socketIdentifier;
    }
}
