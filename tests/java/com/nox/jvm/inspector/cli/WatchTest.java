package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.PlantedFiles;
import com.nox.jvm.inspector.testing.Spawned;
import com.nox.jvm.inspector.testing.Vmsim;

import java.io.IOException;
import java.lang.reflect.Proxy;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardWatchEventKinds;
import java.nio.file.WatchEvent;
import java.nio.file.WatchKey;
import java.nio.file.WatchService;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * {@code noxinspect watch} as a real process: VMs of process and instance clusters and JDK VMs
 * known by their performance data that run when it starts, appear, change, end on request, on
 * SIGTERM and killed outright; a neighbour who plants, touches and deletes names under /tmp (by a
 * second user when this runs as root); and which performance-data folders it follows. Instance
 * clusters 56 and 57 are this class's own.
 */
class WatchTest {
    private static final String USER = System.getProperty("user.name");
    private static final Path PERF_DATA = Path.of("/tmp", "hsperfdata_" + USER);
    private static final Path DAEMONS = Path.of("/tmp/hsperfdata_daemon");
    private static final HostSnapshot EMPTY = HostSnapshot.of(List.of(), Map.of(), List.of());
    /** Generous bounds for a loaded host; the benchmark measures the real latency. */
    private static final double SECONDS = 5;

    private static boolean tells(String line, String event, String orEvent, long pid) {
        return (line.contains("\"event\":\"" + event + "\",") || line.contains("\"event\":\"" + orEvent + "\","))
                && line.contains("\"pid\":" + pid + ",");
    }

    /**
     * The fields of the line of {@code event} (or {@code orEvent}) for {@code pid}, among the lines
     * already read or the next ones (the order of events of different VMs is not fixed).
     */
    private static Map<String, String> await(Spawned watch, String event, String orEvent, long pid) throws Exception {
        String line = watch.seen().stream().filter(l -> tells(l, event, orEvent, pid)).findFirst().orElse(null);
        line = line != null ? line : watch.find(l -> tells(l, event, orEvent, pid), SECONDS);
        if (line == null) {
            throw new AssertionError("watch reported no '" + event + "' of pid " + pid + " within " + SECONDS
                    + " s; it printed: " + watch.seen());
        }
        return Launcher.flatJson(line);
    }

    private static Map<String, String> await(Spawned watch, String event, long pid) throws Exception {
        return await(watch, event, event, pid);
    }

    /** How many lines read so far tell {@code event} of {@code pid}. */
    private static long told(Spawned watch, String event, long pid) {
        return watch.seen().stream().filter(l -> tells(l, event, event, pid)).count();
    }

    private static void assertCluster(String cluster, Map<String, String> fields) {
        assertEquals("\"" + cluster + "\"", fields.get("cluster"), fields.toString());
    }

    @Test
    void vmsAreToldOnceUnderTheirMergedIdentityAsTheyComeChangeAndGo() throws Exception {
        // Before watch starts: a process VM, an instance cluster with a dead slot, a simulated VM
        // with a copy of a JDK VM's performance data under its pid (started before that VM, so
        // the two sources are one VM), and the JDK VM itself.
        try (Vmsim process = new Vmsim("--type", "process");
             Vmsim instance = new Vmsim("--type", "instance", "--id", "57", "--slots", "3", "--dead", "1");
             Vmsim both = new Vmsim("--type", "process");
             JdkVm jdk = new JdkVm();
             PlantedFiles planted = new PlantedFiles()) {
            jdk.awaitListed();
            planted.file(PERF_DATA.resolve(Long.toString(both.pid())), Files.readAllBytes(jdk.perfDataFile(USER)));
            try (Spawned watch = Launcher.start("--json", "watch")) {
                Map<String, String> present = await(watch, "present", process.pid());
                assertCluster("process:" + process.pid(), present);
                assertEquals("0", present.get("slot"));
                assertTrue(present.containsKey("time") && present.containsKey("vmId"), present.toString());
                int[] slots = instance.slotPids();
                await(watch, "present", slots[0]);
                await(watch, "present", slots[2]);
                Map<String, String> hotspot = await(watch, "present", jdk.pid());
                assertEquals(List.of("\"hotspot\"", "\"hotspot\"", "null", "null"), List.of(hotspot.get("cluster"),
                        hotspot.get("clusterType"), hotspot.get("slot"), hotspot.get("vmId")), hotspot.toString());
                Map<String, String> merged = await(watch, "present", both.pid());
                assertCluster("process:" + both.pid(), merged);
                assertEquals("\"hotspot\"", merged.get("sources.1"), merged.toString());
                if (SecondUserTest.isRoot()) {
                    forgeDeletions(watch, process.pid(), jdk.pid());  // told of below: no VM ends by them
                }

                // A VM that gains performance data after its control area is the same VM, changed.
                try (Vmsim later = new Vmsim("--type", "process")) {
                    await(watch, "appeared", later.pid());
                    try (JdkVm after = new JdkVm()) {
                        assertCluster("hotspot", await(watch, "appeared", after.pid()));
                        after.awaitListed();
                        planted.file(PERF_DATA.resolve(Long.toString(later.pid())),
                                Files.readAllBytes(after.perfDataFile(USER)));
                        Map<String, String> changed = await(watch, "changed", later.pid());
                        assertCluster("process:" + later.pid(), changed);
                        assertEquals("\"hotspot\"", changed.get("sources.1"), changed.toString());
                        after.close();
                        await(watch, "vanished", after.pid());
                    }
                    later.close();
                    await(watch, "vanished", later.pid());
                    assertEquals(0, watch.seen().stream().filter(l -> l.contains("\"cluster\":\"hotspot\"")
                            && (tells(l, "present", "changed", both.pid()) || tells(l, "appeared", "changed", later.pid())))
                            .count(), "a VM with a control area is told under it only: " + watch.seen());
                }

                // Instance VMs appear and end one by one, the first on request.
                try (Vmsim more = new Vmsim("--type", "instance", "--id", "56", "--slots", "2")) {
                    int[] pids = more.slotPids();
                    await(watch, "appeared", pids[0]);
                    await(watch, "appeared", pids[1]);
                    Launcher.Result exit = Launcher.run("exit", "instance:56:0", "3");
                    assertEquals(0, exit.exitCode(), exit.toString());
                    await(watch, "vanished", pids[0]);
                    more.close();
                    await(watch, "vanished", pids[1]);
                }

                // VMs killed outright vanish, though their files stay until the next scan.
                Vmsim victim = new Vmsim("--type", "process");
                Path file = Path.of(victim.field("file"));
                try {
                    await(watch, "appeared", victim.pid());
                    assertTrue(ProcessHandle.of(victim.pid()).map(ProcessHandle::destroyForcibly).orElse(false));
                    await(watch, "vanished", victim.pid());
                } finally {
                    victim.close();
                    victim.removeEventSets();  // killed outright, vmsim could not remove them
                    Launcher.run("list");
                }
                assertFalse(Files.exists(file), "the stale file of the killed VM is removed by the next list");
                JdkVm killed = new JdkVm();
                try {
                    await(watch, "appeared", killed.pid());
                    ProcessHandle.of(killed.pid()).ifPresent(ProcessHandle::destroyForcibly);
                    await(watch, "vanished", killed.pid());
                } finally {
                    killed.close();
                    Files.deleteIfExists(killed.perfDataFile(USER));
                }

                instance.close();
                await(watch, "vanished", slots[0]);
                await(watch, "vanished", slots[2]);
                assertEquals(0, told(watch, "vanished", process.pid()), "a forged deletion ended a VM: " + watch.seen());
                process.close();
                await(watch, "vanished", process.pid());
                for (long pid : new long[] {jdk.pid(), both.pid()}) {
                    assertEquals(1, watch.seen().stream().filter(l -> l.contains("\"pid\":" + pid + ","))
                            .count(), "a running VM is told once: " + watch.seen());
                }
            }
        }
    }

    /** Runs a shell script as nobody when root (a second user), else as this user; returns it started. */
    private static Process script(String script) throws IOException {
        List<String> command = new ArrayList<>(SecondUserTest.isRoot() ? SecondUserTest.AS_NOBODY : List.of());
        command.addAll(List.of("sh", "-c", script));
        return new ProcessBuilder(command).redirectErrorStream(true).start();
    }

    private static String uid() throws IOException {
        return SecondUserTest.isRoot() ? "65534" : Files.getAttribute(Path.of("/proc/self"), "unix:uid").toString();
    }

    /**
     * Another user creates and deletes a control-area name of its own under the pid of our
     * simulated VM, and a performance-data file under the pid of our JDK VM in its own folder, while
     * watch reads on for a second.
     */
    private static void forgeDeletions(Spawned watch, long sim, long jdk) throws Exception {
        Path folder = Path.of("/tmp/hsperfdata_nobody");
        boolean made = !Files.exists(folder);
        try {
            Process forger = script("mkdir -p -m 700 " + folder + "; for i in 1 2 3; do : > /tmp/nox_jvm_65534_" + sim
                    + "; : > " + folder + "/" + jdk + "; sleep 0.1; rm -f /tmp/nox_jvm_65534_" + sim + " " + folder
                    + "/" + jdk + "; sleep 0.1; done");
            assertTrue(forger.waitFor(20, TimeUnit.SECONDS) && forger.exitValue() == 0,
                    new String(forger.getInputStream().readAllBytes()));
            for (long end = System.nanoTime() + 1_000_000_000L; System.nanoTime() < end; ) {
                watch.poll(0.05);
            }
        } finally {
            if (made) {
                Files.deleteIfExists(folder);
            }
        }
    }

    /**
     * 2,000 empty control-area names, 400 of them touched every 2 s (by a second user when this
     * runs as root): VMs started meanwhile are still reported (how soon is the benchmark's to say).
     */
    @Test
    void aStormOfNamesDoesNotKeepNewVmsFromBeingReported() throws Exception {
        int base = Integer.parseInt(Files.readString(Path.of("/proc/sys/kernel/pid_max")).trim()) + 1000;
        String names = "/tmp/nox_jvm_" + uid() + "_";
        String touched = "$(i=0; while [ $i -lt 400 ]; do echo " + names + "$((" + base + " + i * 5)); i=$((i+1)); done)";
        Process storm = script("i=0; while [ $i -lt 2000 ]; do : > " + names + "$((" + base + " + i)); i=$((i+1)); done; "
                + "echo READY; t=\"" + touched + "\"; while :; do touch $t; sleep 2; done");
        try (Spawned watch = Launcher.start("--json", "watch")) {
            assertTrue(new String(storm.getInputStream().readNBytes(6)).startsWith("READY"), "the storm did not start");
            try (Vmsim marker = new Vmsim("--type", "process")) {
                watch.await("\"pid\":" + marker.pid() + ",", 20);
            }
            Thread.sleep(2500);  // at least one round of touches
            for (int round = 0; round < 3; round++) {
                try (Vmsim vm = new Vmsim("--type", "process")) {
                    await(watch, "appeared", vm.pid());
                }
                Thread.sleep(700);
            }
        } finally {
            storm.destroyForcibly();
            storm.waitFor(10, TimeUnit.SECONDS);
            for (int i = 0; i < 2000; i++) {
                Files.deleteIfExists(Path.of(names + (base + i)));
            }
        }
    }

    /** A key that gives one overflow event, as the JDK does when the kernel's event queue overflowed. */
    private static WatchKey overflowed() {
        WatchEvent<?> overflow = fake(WatchEvent.class, Map.of("kind", StandardWatchEventKinds.OVERFLOW, "count", 1));
        return fake(WatchKey.class, Map.of("isValid", true, "reset", true, "pollEvents", List.of(overflow),
                "watchable", WatchedFiles.TMP));
    }

    /** An object of the interface {@code type} whose methods answer from {@code answers} (null for the others). */
    private static <T> T fake(Class<T> type, Map<String, Object> answers) {
        return type.cast(Proxy.newProxyInstance(type.getClassLoader(), new Class<?>[] {type},
                (proxy, method, args) -> switch (method.getName()) {
                    case "hashCode" -> System.identityHashCode(proxy);
                    case "equals" -> proxy == args[0];
                    default -> answers.get(method.getName());
                }));
    }

    @Test
    void aFolderIsFollowedOnlyAsTheReaderTakesItAndAfterLostEventsToo() throws Exception {
        assumeTrue(SecondUserTest.isRoot(), "needs root to make another user's folder and process: skipped");
        assumeTrue(!Files.exists(DAEMONS), DAEMONS + " exists: skipped");
        Process daemon = new ProcessBuilder("setpriv", "--reuid=1", "--regid=1", "--clear-groups", "sleep", "60").start();
        // Until it runs sleep, the process may still be root's.
        Path comm = Path.of("/proc/" + daemon.pid() + "/comm");
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (!Files.readString(comm).strip().equals("sleep") && System.nanoTime() < deadline) {
            Thread.sleep(5);
        }
        Path file = DAEMONS.resolve(Long.toString(daemon.pid()));
        record Case(String what, String mode, int folderOwner, boolean followed) {
        }
        List<Case> cases = List.of(new Case("another owner than the user named", "rwx------", 0, false),
                new Case("writable by others", "rwxrwxrwx", 1, false),
                new Case("the user's own folder, made while events were lost", "rwx------", 1, true));
        try (WatchService service = FileSystems.getDefault().newWatchService()) {
            for (Case c : cases) {
                WatchedFiles files = new WatchedFiles(service);
                Files.createDirectory(DAEMONS, PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString(c.mode)));
                Files.setPosixFilePermissions(DAEMONS, PosixFilePermissions.fromString(c.mode));
                Files.write(file, new byte[64]);
                Files.setAttribute(file, "unix:uid", 1);
                Files.setAttribute(DAEMONS, "unix:uid", c.folderOwner);
                // No event of the folder's making reaches the files: an overflow stands for it.
                files.take(overflowed(), EMPTY, System.nanoTime());
                assertTrue(files.resyncWanted(), c.what);
                files.resync(EMPTY, System.nanoTime());
                assertFalse(files.resyncWanted(), c.what);
                assertEquals(c.followed, files.perfDataPending((int) daemon.pid()), c.what);
                List<Integer> wanted = files.perfDataWanted(EMPTY, System.nanoTime());
                assertEquals(c.followed, wanted.contains((int) daemon.pid()), c.what + ": " + wanted);
                assertEquals(wanted.size(), wanted.stream().distinct().count(), "each pid once: " + wanted);
                Files.delete(file);
                Files.delete(DAEMONS);
            }
        } finally {
            Files.deleteIfExists(file);
            Files.deleteIfExists(DAEMONS);
            daemon.destroyForcibly();
            daemon.waitFor(10, TimeUnit.SECONDS);
        }
    }
}
