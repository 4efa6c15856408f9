package com.nox.jvm.inspector.natives;

import com.nox.jvm.inspector.filesocket.FileServerSocket;
import com.nox.jvm.inspector.filesocket.FileSocket;
import com.nox.jvm.inspector.filesocket.FileSocketAddress;

/**
 * Started by NativeLibraryTest in a JVM of its own: opens a file socket first (so the socket
 * classes are the first to load the library), then asks an inspector native. Prints "ok".
 */
public final class NativeLibraryProbe {
    private NativeLibraryProbe() {
    }

    public static void main(String[] args) throws Exception {
        FileSocketAddress address = new FileSocketAddress(args[0]);
        try (FileServerSocket server = new FileServerSocket(address, 0, true);
                FileSocket client = new FileSocket(address, 1000);
                FileSocket accepted = server.accept()) {
            client.getOutputStream().write(7);
            if (accepted.getInputStream().read() != 7) throw new IllegalStateException("byte lost");
        }
        if (InspectorNatives.getOwnProcessId0() != ProcessHandle.current().pid()) {
            throw new IllegalStateException("own pid");
        }
        System.out.println("ok");
    }
}
