package com.nox.jvm.inspector.hotspot;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.attribute.UserPrincipal;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * Real JDK 17 VMs started in their own pid and mount namespaces with a /tmp of their own, as a
 * container runtime starts them: found under the host's pid with the pid they know themselves by,
 * and read with the same rules as the VMs of our own /tmp.
 */
class HotSpotContainersTest {
    private static final String USER = System.getProperty("user.name");
    private static final List<String> UNSHARE = List.of("unshare", "--pid", "--mount", "--fork", "--kill-child",
            "--mount-proc");
    private final HotSpotInspector inspector = new HotSpotInspector();

    @BeforeAll
    static void namespacesCanBeCreated() throws Exception {
        List<String> probe = new ArrayList<>(UNSHARE);
        probe.add("true");
        Process p = new ProcessBuilder(probe).redirectErrorStream(true).start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8).trim();
        Assumptions.assumeTrue(p.waitFor(30, TimeUnit.SECONDS) && p.exitValue() == 0,
                "cannot create pid and mount namespaces here (" + USER + "): " + out);
    }

    /**
     * A VM in its own namespaces (pid 1 there) with a tmpfs on its /tmp, and a sleeping process
     * beside it. Ended when closed: unshare --kill-child takes the namespace down.
     */
    private static final class ContainedVm implements AutoCloseable {
        final Process unshare;
        final int hostPid;
        final int sleeperHostPid;

        ContainedVm(List<String> vmOptions, String argument) throws Exception {
            List<String> command = new ArrayList<>(UNSHARE);
            // The test classes may lie under /tmp, which the VM's own tmpfs hides: they are
            // bound to /mnt of the VM's mount namespace first.
            command.addAll(List.of("bash", "-c", "mount --bind \"$0\" /mnt && mount -t tmpfs tmpfs /tmp || exit 1; "
                    + "sleep 600 & exec \"$1\" \"${@:2}\"", JdkVm.testClasses(),
                    Path.of(System.getProperty("java.home"), "bin", "java").toString()));
            command.addAll(vmOptions);
            command.addAll(List.of("-cp", "/mnt", JdkVm.MAIN_CLASS, argument));
            unshare = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT).start();
            try {
                String line = new BufferedReader(new InputStreamReader(unshare.getInputStream(),
                        StandardCharsets.UTF_8)).readLine();
                assertEquals("READY 1", line, "the VM in its own namespaces did not start");
                hostPid = onlyChild((int) unshare.pid());
                sleeperHostPid = onlyChild(hostPid);
            } catch (Throwable e) {
                close();
                throw e;
            }
        }

        private static int onlyChild(int pid) throws IOException {
            String children = Files.readString(Path.of("/proc", Integer.toString(pid), "task", Integer.toString(pid),
                    "children")).trim();
            assertFalse(children.isEmpty() || children.contains(" "), "children of " + pid + ": " + children);
            return Integer.parseInt(children);
        }

        /** The pid the sleeper knows itself by: the last field of NSpid. */
        int sleeperNamespacePid() throws IOException {
            for (String line : Files.readAllLines(Path.of("/proc", Integer.toString(sleeperHostPid), "status"))) {
                if (line.startsWith("NSpid:")) {
                    String[] fields = line.substring(6).trim().split("\\s+");
                    return Integer.parseInt(fields[fields.length - 1]);
                }
            }
            throw new AssertionError("no NSpid for " + sleeperHostPid);
        }

        /** The VM's /tmp, as this host reaches it. */
        Path tmp() {
            return Path.of("/proc", Integer.toString(hostPid), "root", "tmp");
        }

        @Override
        public void close() throws InterruptedException {
            unshare.destroy();
            if (!unshare.waitFor(10, TimeUnit.SECONDS)) {
                unshare.destroyForcibly();
                unshare.waitFor(10, TimeUnit.SECONDS);
            }
        }
    }

    private HotSpotVm awaitListed(int pid) throws InterruptedException {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(20);
        while (System.nanoTime() < deadline) {
            Optional<HotSpotVm> found = inspector.vms().stream().filter(v -> v.pid() == pid).findFirst();
            if (found.isPresent()) {
                return found.get();
            }
            Thread.sleep(20);
        }
        throw new AssertionError("VM " + pid + " was not listed within 20 s: " + inspector.vms());
    }

    @Test
    void vmsInTheirOwnNamespacesAreListedUnderTheHostsPidAndTheirFilesReadByOurRules() throws Exception {
        try (ContainedVm vm = new ContainedVm(List.of("-XX:+UseSerialGC", "-Xmx64m"), "contained");
                ContainedVm quiet = new ContainedVm(List.of("-XX:-UsePerfData"), "quiet")) {
            HotSpotVm listed = awaitListed(vm.hostPid);
            assertEquals(1, listed.namespacePid());
            assertTrue(listed.inContainer());
            assertEquals(JdkVm.MAIN_CLASS, listed.mainClass());
            assertEquals(USER, listed.user());
            HotSpotFigures figures = inspector.figures(vm.hostPid).orElseThrow();
            assertEquals(1, figures.namespacePid());
            assertEquals(JdkVm.MAIN_CLASS + " contained", figures.javaCommand());
            assertEquals(figures.javaCommand(), inspector.snapshot().figures(vm.hostPid).orElseThrow().javaCommand());

            Map<String, String> before = JcmdCounters.print(vm.hostPid);
            List<PerfCounter> ours = inspector.counters(vm.hostPid).orElseThrow();
            Map<String, String> after = JcmdCounters.print(vm.hostPid);
            JcmdCounters.assertSameAs(before, ours, after);

            // noxinspect's info shows the pid it knows itself by.
            String pid = Integer.toString(vm.hostPid);
            String info = noxinspect("info", pid);
            assertTrue(info.lines().anyMatch(l -> l.matches("\\s*pid in ns\\W+1")), info);
            // noxinspect jcmd reaches it through its own /tmp, as the JDK's jcmd does.
            Process jcmd = new ProcessBuilder(Path.of(System.getProperty("java.home"), "bin", "jcmd").toString(), pid,
                    "VM.version").start();
            String theirs = new String(jcmd.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            assertTrue(jcmd.waitFor(60, TimeUnit.SECONDS) && jcmd.exitValue() == 0, theirs);
            assertEquals(theirs.substring(theirs.indexOf('\n') + 1), noxinspect("jcmd", pid, "VM.version"));
            assertFalse(Files.exists(Path.of("/tmp/.java_pid1")), "the VM's socket is in its own /tmp");

            // Files in the VM's /tmp follow the rules of our own.
            Path folder = vm.tmp().resolve("hsperfdata_" + USER);
            byte[] content = Files.readAllBytes(folder.resolve("1"));
            // The sleeper started before the VM whose file is copied.
            int sleeper = vm.sleeperNamespacePid();
            assertTrue(sleeper > 1 && sleeper != vm.sleeperHostPid, "the sleeper's pids: " + sleeper);
            Path planted = folder.resolve(Integer.toString(sleeper));
            UserPrincipal nobody = folder.getFileSystem().getUserPrincipalLookupService().lookupPrincipalByName("nobody");
            record Plant(String what, boolean listed, ThrowingAction make) {
            }
            List<Plant> plants = List.of(
                    new Plant("a link to the VM's file", false, () -> Files.createSymbolicLink(planted, Path.of("1"))),
                    new Plant("a file of another owner", false, () -> {
                        Files.write(planted, content);
                        Files.setOwner(planted, nobody);
                    }),
                    new Plant("a file of the folder's owner", true, () -> Files.write(planted, content)));
            for (Plant plant : plants) {
                Files.deleteIfExists(planted);
                plant.make().run();
                boolean found = inspector.vms().stream()
                        .anyMatch(v -> v.pid() == vm.sleeperHostPid && v.namespacePid() == sleeper);
                assertEquals(plant.listed(), found, plant.what());
                assertEquals(plant.listed(), inspector.figures(vm.sleeperHostPid).isPresent(), plant.what());
            }
            // A name that no process of the namespace has.
            Files.move(planted, folder.resolve("99"));
            assertFalse(inspector.vms().stream().anyMatch(v -> v.namespacePid() == 99), inspector.vms().toString());
            assertFalse(Files.exists(planted, LinkOption.NOFOLLOW_LINKS));

            // A VM without performance data is known to the host pass only, as such.
            HotSpotSnapshot pass = inspector.snapshot();
            VmWithoutPerfData found = pass.withoutPerfData(quiet.hostPid)
                    .orElseThrow(() -> new AssertionError("not in " + pass.withoutPerfData()));
            assertEquals(List.of(1, quiet.hostPid), List.of(found.namespacePid(), found.pid()));
            assertEquals(JdkVm.MAIN_CLASS, found.mainClass());
            assertEquals(USER, found.user());
            long started = ProcessHandle.of(quiet.hostPid).orElseThrow().info().startInstant().orElseThrow()
                    .getEpochSecond();
            assertTrue(Math.abs(found.processStartSeconds() - started) <= 1, found.toString());
            assertEquals(Optional.empty(), pass.figures(quiet.hostPid));
            assertEquals(Optional.empty(), pass.withoutPerfData(quiet.sleeperHostPid), "sleep is no VM");
        }
        // Ended with its namespace: no longer listed.
        assertFalse(inspector.snapshot().vms().stream().anyMatch(f -> f.namespacePid() == 1 && f.javaCommand()
                .endsWith(" contained")));
    }

    /** What tools/noxinspect prints on its standard output; fails the test unless it exits with 0. */
    private static String noxinspect(String... args) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>(List.of(System.getProperty("nox.launcher", "tools/noxinspect")));
        command.addAll(List.of(args));
        ProcessBuilder builder = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT);
        builder.environment().put("NOX_BUILD_DIR", System.getProperty("nox.build.dir", "build/release"));
        Process p = builder.start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(p.waitFor(60, TimeUnit.SECONDS), "noxinspect " + command + " did not end");
        assertEquals(0, p.exitValue(), out);
        return out;
    }

    @FunctionalInterface
    private interface ThrowingAction {
        void run() throws IOException;
    }
}
