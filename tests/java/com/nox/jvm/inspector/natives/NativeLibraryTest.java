package com.nox.jvm.inspector.natives;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.filesocket.FileServerSocket;
import com.nox.jvm.inspector.filesocket.FileSocket;
import com.nox.jvm.inspector.filesocket.FileSocketAddress;
import java.io.File;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Test;

/**
 * One loader for the whole Java side: a tool that names the library's path in the system
 * property nox.inspector.library, with no java.library.path to find it on, uses file sockets
 * and inspector natives alike.
 */
class NativeLibraryTest {
    @Test
    void theLibraryNamedByItsPathServesSocketsAndNatives() throws Exception {
        Path library = findLibrary();
        String socketPath = "/tmp/noxfs_" + ProcessHandle.current().pid() + "_loader";
        String classPath = location(FileSocket.class) + File.pathSeparator + location(NativeLibraryTest.class);
        Path java = Path.of(System.getProperty("java.home"), "bin", "java");
        ProcessBuilder builder = new ProcessBuilder(List.of(java.toString(),
                "-Dnox.inspector.library=" + library,
                "-Djava.library.path=/nonexistent",
                "-cp", classPath,
                NativeLibraryTest.class.getName(), socketPath));
        builder.redirectErrorStream(true);
        Process probe = builder.start();
        try {
            assertTrue(probe.waitFor(30, TimeUnit.SECONDS), "the probe JVM did not end within 30 s");
            String output = new String(probe.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            assertEquals(0, probe.exitValue(), "the probe failed:\n" + output);
            assertEquals("ok", output.strip());
        } finally {
            probe.destroyForcibly();
            Files.deleteIfExists(Path.of(socketPath));
        }
    }

    /**
     * The probe, run in a JVM of its own: opens a file socket first (so the socket classes are
     * the first to load the library), then asks an inspector native. Prints "ok".
     */
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

    private static Path findLibrary() {
        for (String folder : System.getProperty("java.library.path").split(File.pathSeparator)) {
            Path candidate = Path.of(folder, "libnoxjvm_inspector.so");
            if (Files.isRegularFile(candidate)) return candidate.toAbsolutePath();
        }
        throw new IllegalStateException("libnoxjvm_inspector.so is not on java.library.path of the test JVM");
    }

    private static String location(Class<?> cls) throws Exception {
        return Path.of(cls.getProtectionDomain().getCodeSource().getLocation().toURI()).toString();
    }
}
