package com.nox.jvm.inspector.filesocket;

/** The address class as the tool declares it: the identifier field and the one native. */
public class FileSocketAddress {
    String socketIdentifier;

    static native String createIdentifier(String name);
}
