package com.nox.jvm.inspector.hotspot;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.PlantedFiles;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.UserPrincipalLookupService;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;

import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.Test;

/**
 * Hostile files in the real /tmp/hsperfdata_USER folders, read by the natives in this JVM: a file
 * cut and restored in a loop, names that are not pids, links, a folder of the wrong owner. The
 * planted files carry the content of a real VM's file and are published under the pid of a live
 * process that started before that VM (a plain sleep), so that only the defect under test keeps
 * them from being listed.
 */
class HotSpotHostileFilesTest {
    private static final String USER = System.getProperty("user.name");
    private static final Path FOLDER = Path.of("/tmp", "hsperfdata_" + USER);
    private final HotSpotInspector inspector = new HotSpotInspector();

    /** A live process that is not a Java VM, ended when closed. */
    private static final class Sleeper implements AutoCloseable {
        final Process process;

        Sleeper(String... prefix) throws Exception {
            List<String> command = new java.util.ArrayList<>(List.of(prefix));
            command.addAll(List.of("sleep", "120"));
            process = new ProcessBuilder(command).start();
            // Until it runs sleep, a process started through setpriv may still be root's.
            Path comm = Path.of("/proc/" + process.pid() + "/comm");
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
            while (!Files.readString(comm).strip().equals("sleep") && System.nanoTime() < deadline) {
                Thread.sleep(5);
            }
        }

        int pid() {
            return (int) process.pid();
        }

        @Override
        public void close() throws InterruptedException {
            process.destroyForcibly();
            process.waitFor(5, TimeUnit.SECONDS);
        }
    }

    /** The bytes of a real VM's file, started after `after` so its VM began later. */
    private static byte[] realFile(JdkVm vm) throws Exception {
        assertTrue(vm.awaitPerfDataFile(USER), "no file of VM " + vm.pid());
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (System.nanoTime() < deadline) {
            byte[] bytes = Files.readAllBytes(vm.perfDataFile(USER));
            if (bytes.length > 32 && bytes[7] == 1) {
                return bytes;  // accessible
            }
            Thread.sleep(20);
        }
        throw new AssertionError("the VM's file never became accessible");
    }

    private boolean listed(int pid) {
        return inspector.vms().stream().anyMatch(v -> v.pid() == pid);
    }

    @Test
    void aFileCutAndRestoredInALoopWhileReadNeverCrashesTheJvm() throws Exception {
        try (Sleeper sleeper = new Sleeper(); JdkVm vm = new JdkVm(List.of(), List.of(), "flapping");
             PlantedFiles planted = new PlantedFiles()) {
            byte[] content = realFile(vm);
            Path path = planted.file(FOLDER.resolve(Integer.toString(sleeper.pid())), content);
            assertTrue(listed(sleeper.pid()), "the planted copy is a live VM's file before any cut");
            AtomicBoolean stop = new AtomicBoolean();
            Thread flapper = new Thread(() -> {
                try (FileChannel channel = FileChannel.open(path, StandardOpenOption.WRITE)) {
                    while (!stop.get()) {
                        channel.truncate(0);
                        channel.write(java.nio.ByteBuffer.wrap(content, 0, content.length / 3), 0);
                        channel.write(java.nio.ByteBuffer.wrap(content), 0);
                    }
                } catch (java.io.IOException e) {
                    throw new java.io.UncheckedIOException(e);
                }
            });
            flapper.start();
            int seen = 0;
            int reads = 0;
            // A number of rounds, not a rate: every copy taken must be whole, and one must be.
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
            try {
                while ((reads < 50 || seen == 0) && System.nanoTime() < deadline) {
                    reads++;
                    for (HotSpotVm v : inspector.vms()) {
                        if (v.pid() == sleeper.pid()) {
                            assertEquals(JdkVm.MAIN_CLASS, v.mainClass());
                            seen++;
                        }
                    }
                    Optional<HotSpotFigures> f = inspector.figures(sleeper.pid());
                    f.ifPresent(x -> assertEquals(JdkVm.MAIN_CLASS + " flapping", x.javaCommand()));
                    inspector.counters(sleeper.pid()).ifPresent(list -> assertTrue(list.size() > 150));
                    inspector.counter(sleeper.pid(), "sun.rt.javaCommand")
                            .ifPresent(c -> assertEquals(JdkVm.MAIN_CLASS + " flapping", c.stringValue()));
                }
            } finally {
                stop.set(true);
                flapper.join(5000);
            }
            assertFalse(flapper.isAlive(), "the flapping thread did not stop");
            assertTrue(seen > 0, "the file was never read whole in " + reads + " rounds");
        }
    }

    /** Overwrites the number counter `name` of a little-endian block (its entries walked as the VM lays them out). */
    private static void setCounter(byte[] block, String name, long value) {
        ByteBuffer b = ByteBuffer.wrap(block).order(ByteOrder.LITTLE_ENDIAN);
        assertEquals(1, block[4], "a little-endian block");
        int at = b.getInt(24);
        for (int i = b.getInt(28); i > 0; i--) {
            int nameAt = at + b.getInt(at + 4);
            int end = nameAt;
            while (block[end] != 0) {
                end++;
            }
            if (new String(block, nameAt, end - nameAt, StandardCharsets.US_ASCII).equals(name)) {
                assertEquals('J', (char) block[at + 12], name);
                b.putLong(at + b.getInt(at + 16), value);
                return;
            }
            at += b.getInt(at);
        }
        throw new AssertionError("no counter " + name);
    }

    @Test
    void ticksAreConvertedWithTheVmsOwnFrequency() throws Exception {
        // A VM on Linux counts 10^9 ticks a second, a VM elsewhere may count 10^6: a real file
        // given that frequency and known times, published under a live process.
        try (Sleeper sleeper = new Sleeper(); JdkVm vm = new JdkVm(List.of(), List.of("-XX:+UseSerialGC"), "ticks");
             PlantedFiles planted = new PlantedFiles()) {
            byte[] content = realFile(vm);
            setCounter(content, "sun.os.hrt.frequency", 1_000_000);
            setCounter(content, "sun.os.hrt.ticks", 90_000_000);
            setCounter(content, "sun.gc.collector.0.time", 2_500_000);
            setCounter(content, "sun.gc.collector.1.time", 500_000);
            planted.file(FOLDER.resolve(Integer.toString(sleeper.pid())), content);
            HotSpotFigures alone = inspector.figures(sleeper.pid()).orElseThrow();
            HotSpotFigures inPass = inspector.snapshot().figures(sleeper.pid()).orElseThrow();
            for (HotSpotFigures f : List.of(alone, inPass)) {
                assertEquals(1_000_000, f.tickFrequency());
                assertEquals(90.0, f.uptimeSeconds(), 1e-9);
                assertEquals(2.5, f.collectors().get(0).timeSeconds(), 1e-9);
                assertEquals(0.5, f.collectors().get(1).timeSeconds(), 1e-9);
                assertEquals(3.0, f.gcSeconds(), 1e-9);
            }
        }
    }

    @Test
    void namesThatAreNotPidsAndLinksAreNotListed() throws Exception {
        try (Sleeper sleeper = new Sleeper(); JdkVm vm = new JdkVm(List.of(), List.of(), "planted");
             PlantedFiles planted = new PlantedFiles()) {
            byte[] content = realFile(vm);
            String pid = Integer.toString(sleeper.pid());
            for (String name : List.of(pid + ".bak", "0" + pid, pid + "x", "+" + pid, "99999999999", "-" + pid)) {
                planted.file(FOLDER.resolve(name), content);
            }
            Path elsewhere = planted.file(Path.of("/tmp", "nox-hsperf-hostile-" + pid), content);
            planted.link(FOLDER.resolve(pid), elsewhere);
            assertFalse(listed(sleeper.pid()), inspector.vms().toString());
            assertEquals(Optional.empty(), inspector.figures(sleeper.pid()));
            assertEquals(Optional.empty(), inspector.counters(sleeper.pid()));
            for (HotSpotVm v : inspector.vms()) {
                assertTrue(v.pid() > 0, v.toString());
            }
            assertTrue(listed(vm.pid()), "the real VM beside the planted files is still listed");
        }
    }

    @Test
    void aFolderOwnedByAnotherUserIsNotRead() throws Exception {
        Assumptions.assumeTrue(USER.equals("root"), "needs root, to run a process as another user");
        // daemon (uid 1) runs no VMs on a test machine; its folder is planted here and removed.
        Path folder = Path.of("/tmp", "hsperfdata_daemon");
        try (Sleeper daemonSleeper = new Sleeper("setpriv", "--reuid=1", "--regid=1", "--clear-groups");
             JdkVm vm = new JdkVm(List.of(), List.of(), "for nobody");
             PlantedFiles planted = new PlantedFiles()) {
            byte[] content = realFile(vm);
            Assumptions.assumeTrue(planted.folder(folder), "daemon has a folder of its own here: left alone");
            UserPrincipalLookupService users = folder.getFileSystem().getUserPrincipalLookupService();
            Path file = planted.file(folder.resolve(Integer.toString(daemonSleeper.pid())), content);
            Files.setOwner(file, users.lookupPrincipalByName("daemon"));
            // The folder belongs to root, not to the user it names: nothing in it is read.
            assertFalse(listed(daemonSleeper.pid()), inspector.vms().toString());
            assertEquals(Optional.empty(), inspector.figures(daemonSleeper.pid()));
            // Given to daemon, the same folder and file are a VM of daemon's.
            Files.setOwner(folder, users.lookupPrincipalByName("daemon"));
            assertTrue(listed(daemonSleeper.pid()), "daemon's folder and file were not read");
            assertEquals("daemon", inspector.figures(daemonSleeper.pid()).orElseThrow().user());
            // Opened to everybody, it is not read again.
            Files.setPosixFilePermissions(folder, java.nio.file.attribute.PosixFilePermissions.fromString("rwxrwxrwx"));
            assertFalse(listed(daemonSleeper.pid()));
        }
    }
}
