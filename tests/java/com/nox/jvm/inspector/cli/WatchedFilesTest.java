package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.host.HostSnapshot;

import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardWatchEventKinds;
import java.nio.file.WatchEvent;
import java.nio.file.WatchKey;
import java.nio.file.WatchService;
import java.nio.file.Watchable;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * Which performance-data folders watch follows, and that a lost event leads to a full look at
 * folders and files. Runs as root, which can make folders and processes of another user (daemon,
 * uid 1); skipped with a message otherwise.
 */
class WatchedFilesTest {
    private static final Path FOLDER = Path.of("/tmp/hsperfdata_daemon");
    private static final HostSnapshot EMPTY = HostSnapshot.of(List.of(), Map.of(), List.of());

    /** A key that gives one overflow event, as the JDK does when the kernel's event queue overflowed. */
    private static final class Overflowed implements WatchKey {
        @Override
        public boolean isValid() {
            return true;
        }

        @Override
        public List<WatchEvent<?>> pollEvents() {
            return List.of(new WatchEvent<Object>() {
                @Override
                public WatchEvent.Kind<Object> kind() {
                    return StandardWatchEventKinds.OVERFLOW;
                }

                @Override
                public int count() {
                    return 1;
                }

                @Override
                public Object context() {
                    return null;
                }
            });
        }

        @Override
        public boolean reset() {
            return true;
        }

        @Override
        public void cancel() {
        }

        @Override
        public Watchable watchable() {
            return WatchedFiles.TMP;
        }
    }

    /** Waits until the process runs `command`: setpriv has then given it its user. */
    static void awaitExec(Process process, String command) throws Exception {
        Path comm = Path.of("/proc/" + process.pid() + "/comm");
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (!Files.readString(comm).strip().equals(command)) {
            assertTrue(System.nanoTime() < deadline, "process " + process.pid() + " never ran " + command);
            Thread.sleep(5);
        }
    }

    @Test
    void aFolderIsFollowedOnlyAsTheReaderTakesItAndAfterLostEventsToo() throws Exception {
        assumeTrue(SecondUserTest.isRoot(), "needs root to make another user's folder and process: skipped");
        assumeTrue(!Files.exists(FOLDER), FOLDER + " exists: skipped");
        Process daemon = new ProcessBuilder("setpriv", "--reuid=1", "--regid=1", "--clear-groups", "sleep", "60").start();
        awaitExec(daemon, "sleep");
        Path file = FOLDER.resolve(Long.toString(daemon.pid()));
        record Case(String what, String mode, int folderOwner, boolean followed) {
        }
        List<Case> cases = List.of(new Case("another owner than the user named", "rwx------", 0, false),
                new Case("writable by others", "rwxrwxrwx", 1, false),
                new Case("the user's own folder, made while events were lost", "rwx------", 1, true));
        try (WatchService service = FileSystems.getDefault().newWatchService()) {
            for (Case c : cases) {
                WatchedFiles files = new WatchedFiles(service);
                Files.createDirectory(FOLDER, PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString(c.mode)));
                Files.setPosixFilePermissions(FOLDER, PosixFilePermissions.fromString(c.mode));
                Files.write(file, new byte[64]);
                Files.setAttribute(file, "unix:uid", 1);
                Files.setAttribute(FOLDER, "unix:uid", c.folderOwner);
                // No event of the folder's making reaches the files: an overflow stands for it.
                files.take(new Overflowed(), EMPTY, System.nanoTime());
                assertTrue(files.resyncWanted(), c.what);
                files.resync(EMPTY, System.nanoTime());
                assertFalse(files.resyncWanted(), c.what);
                assertEquals(c.followed, files.perfDataPending((int) daemon.pid()), c.what);
                List<Integer> wanted = files.perfDataWanted(EMPTY, System.nanoTime());
                assertEquals(c.followed, wanted.contains((int) daemon.pid()), c.what + ": " + wanted);
                assertEquals(wanted.size(), wanted.stream().distinct().count(), "each pid once: " + wanted);
                Files.delete(file);
                Files.delete(FOLDER);
            }
        } finally {
            Files.deleteIfExists(file);
            Files.deleteIfExists(FOLDER);
            daemon.destroyForcibly();
            daemon.waitFor(10, TimeUnit.SECONDS);
        }
    }
}
