package com.nox.jvm.inspector.hotspot;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.PlantedFiles;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryNotEmptyException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.concurrent.TimeUnit;
import java.util.function.Function;

import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.Test;

/**
 * Real JDK 17 VMs started by the test, read through the HotSpot natives, and copies of their
 * files planted in the real /tmp/hsperfdata_USER folder under the pid of a live process that is
 * no VM (a plain sleep, started before the VM whose file is copied), so that only the rule under
 * test keeps a copy from being listed.
 */
class HotSpotVmsTest {
    private static final String USER = System.getProperty("user.name");
    private static final Path FOLDER = Path.of("/tmp", "hsperfdata_" + USER);
    private static final List<String> AS_NOBODY = List.of("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups");
    private final HotSpotInspector inspector = new HotSpotInspector();

    /** A live process that is not a Java VM, ended when closed. */
    private record Sleeper(Process process) implements AutoCloseable {
        static Sleeper start(List<String> prefix) throws Exception {
            List<String> command = new ArrayList<>(prefix);
            command.addAll(List.of("sleep", "120"));
            Sleeper sleeper = new Sleeper(new ProcessBuilder(command).start());
            // Until it runs sleep, a process started through setpriv may still be root's.
            Path comm = Path.of("/proc", Integer.toString(sleeper.pid()), "comm");
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
            while (!Files.readString(comm).strip().equals("sleep") && System.nanoTime() < deadline) {
                Thread.sleep(5);
            }
            return sleeper;
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

    private boolean listed(int pid) {
        return inspector.vms().stream().anyMatch(v -> v.pid() == pid);
    }

    /** The VM as the natives list it, waiting up to 10 s for it to publish its file. */
    private HotSpotVm awaitListed(JdkVm vm) throws InterruptedException {
        assertTrue(vm.awaitPerfDataFile(USER), "the VM published no file " + vm.perfDataFile(USER));
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (System.nanoTime() < deadline) {
            Optional<HotSpotVm> found = inspector.vms().stream().filter(v -> v.pid() == vm.pid()).findFirst();
            if (found.isPresent()) {
                return found.get();
            }
            Thread.sleep(20);
        }
        throw new AssertionError("VM " + vm.pid() + " was not listed within 10 s: " + inspector.vms());
    }

    /** The bytes of a real VM's file, once the VM has marked it accessible. */
    private byte[] realFile(JdkVm vm) throws Exception {
        awaitListed(vm);
        byte[] bytes = Files.readAllBytes(vm.perfDataFile(USER));
        assertTrue(bytes.length > 32 && bytes[7] == 1, "a listed VM's file is accessible");
        return bytes;
    }

    private static long startSeconds(int pid) {
        return ProcessHandle.of(pid).orElseThrow().info().startInstant().orElseThrow().getEpochSecond();
    }

    @Test
    void vmsAreListedAndReadAsJcmdReadsThemAndAsTheHostPassDoes() throws Exception {
        JdkVm ending = new JdkVm(List.of(), List.of(), "ending");
        try (JdkVm a = new JdkVm(List.of(), List.of("-XX:+UseSerialGC", "-Xmx128m"), "first", "argument");
             JdkVm b = new JdkVm(List.of(), List.of("-Xmx96m"), "second");
             JdkVm third = new JdkVm(List.of(), List.of("-XX:+UseParallelGC", "-Xmx256m"), "third")) {
            HotSpotVm first = awaitListed(a);
            awaitListed(b);
            assertEquals(JdkVm.MAIN_CLASS, first.mainClass());
            assertEquals(JdkVm.MAIN_CLASS + " first argument", first.javaCommand());
            assertEquals(USER, first.user());
            assertEquals(System.getProperty("java.vm.version"), first.vmVersion());
            long now = System.currentTimeMillis();
            assertTrue(first.beginMillis() > now - 120_000 && first.beginMillis() <= now, first.toString());

            HotSpotFigures f = inspector.figures(b.pid()).orElseThrow();
            assertEquals(b.pid(), f.pid());
            assertEquals(JdkVm.MAIN_CLASS + " second", f.javaCommand());
            assertEquals(System.getProperty("java.vm.name"), f.vmName());
            assertEquals(System.getProperty("java.vm.vendor"), f.vmVendor());
            assertTrue(f.vmArguments().contains("-Xmx96m"), f.vmArguments());
            assertTrue(f.heapMax() >= 90L << 20 && f.heapMax() <= 100L << 20, "heap max " + f.heapMax());
            // G1 pads each of its spaces' sizes by a few bytes in its counters.
            assertTrue(f.heapCommitted() > 0 && f.heapCommitted() <= f.heapMax() + 64, f.toString());
            assertFalse(f.collectors().isEmpty());
            assertTrue(f.classesLoaded() > 300, "classes " + f.classesLoaded());
            assertTrue(f.threadsLive() >= 1 && f.threadsLive() <= f.threadsPeak(), f.toString());
            assertTrue(f.uptimeSeconds() > 0 && f.uptimeSeconds() < 120, "uptime " + f.uptimeSeconds());

            // Heap used within the VM's own readings, for each collector's counters (Serial, G1,
            // Parallel). Answering a reading allocates a little; the counters follow the heap at
            // the VM's own pace (some at each sample, some at allocation of a new region).
            awaitListed(third);
            Thread.sleep(200);  // the VM samples some of its counters every 50 ms
            for (JdkVm vm : List.of(a, b, third)) {
                long[] before = vm.heap();
                HotSpotFigures h = inspector.figures(vm.pid()).orElseThrow();
                long[] after = vm.heap();
                long slack = 2L << 20;
                assertTrue(h.heapUsed() >= Math.min(before[0], after[0]) - slack
                        && h.heapUsed() <= Math.max(before[0], after[0]) + slack, h + ": the VM's own readings "
                        + before[0] + " and " + after[0]);
                assertTrue(h.heapCommitted() >= Math.min(before[1], after[1]) - slack, h + " vs " + before[1]);
                assertTrue(h.heapMax() >= before[2], h + " vs " + before[2]);
            }

            // jcmd attaches, which starts threads in the VM: take its reading twice, ours between.
            Map<String, String> before = JcmdCounters.print(a.pid());
            List<PerfCounter> ours = inspector.counters(a.pid()).orElseThrow();
            Map<String, String> after = JcmdCounters.print(a.pid());
            JcmdCounters.assertSameAs(before, ours, after);

            // The host pass gives what does not change while a VM sleeps as its own reads do.
            HotSpotSnapshot pass = inspector.snapshot();
            for (JdkVm vm : List.of(a, b)) {
                HotSpotFigures inPass = pass.figures(vm.pid()).orElseThrow(() -> new AssertionError(pass.toString()));
                HotSpotFigures alone = inspector.figures(vm.pid()).orElseThrow();
                for (Function<HotSpotFigures, Object> figure : List.<Function<HotSpotFigures, Object>>of(
                        HotSpotFigures::uid, HotSpotFigures::user, HotSpotFigures::javaCommand,
                        HotSpotFigures::vmVersion, HotSpotFigures::vmArguments, HotSpotFigures::beginMillis,
                        HotSpotFigures::tickFrequency, HotSpotFigures::heapMax, HotSpotFigures::namespacePid,
                        HotSpotFigures::processStartSeconds,
                        x -> x.collectors().stream().map(GcCollector::name).toList())) {
                    assertEquals(figure.apply(alone), figure.apply(inPass), inPass.toString());
                }
                assertEquals(vm.pid(), inPass.namespacePid());
                assertTrue(Math.abs(inPass.processStartSeconds() - startSeconds(vm.pid())) <= 1, inPass.toString());
                assertEquals(Optional.empty(), pass.withoutPerfData(vm.pid()));
            }

            // An ended VM is no longer listed.
            int endingPid = awaitListed(ending).pid();
            ending.close();
            assertFalse(listed(endingPid));
            assertEquals(Optional.empty(), inspector.figures(endingPid));
        } finally {
            ending.close();
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

    /**
     * Copies of a real file where the rules refuse them (a link, a process of another user), then
     * under the sleeper's pid as a VM's own file, with a VM's frequency of 10^6 ticks a second, as
     * VMs elsewhere count (names, owners and folders are the C++ reader tests' to try in full).
     */
    @Test
    void plantedFilesAreListedOnlyUnderALiveProcessOfTheFoldersUser() throws Exception {
        boolean root = USER.equals("root");
        try (Sleeper sleeper = Sleeper.start(List.of());
             Sleeper nobodys = Sleeper.start(root ? AS_NOBODY : List.of());
             JdkVm vm = new JdkVm(List.of(), List.of("-XX:+UseSerialGC"), "planted");
             PlantedFiles planted = new PlantedFiles()) {
            byte[] content = realFile(vm);
            String pid = Integer.toString(sleeper.pid());
            planted.link(FOLDER.resolve(pid), planted.file(Path.of("/tmp", "nox-hsperf-hostile-" + pid), content));
            if (root) {
                // A file in our folder under the pid of a process of another user.
                planted.file(FOLDER.resolve(Integer.toString(nobodys.pid())), content);
            }
            for (int refused : List.of(sleeper.pid(), nobodys.pid())) {
                assertFalse(listed(refused), inspector.vms().toString());
                assertEquals(Optional.empty(), inspector.figures(refused));
                assertEquals(Optional.empty(), inspector.counters(refused));
                assertEquals(Optional.empty(), inspector.snapshot().figures(refused));
            }

            Files.delete(FOLDER.resolve(pid));
            setCounter(content, "sun.os.hrt.frequency", 1_000_000);
            setCounter(content, "sun.os.hrt.ticks", 90_000_000);
            setCounter(content, "sun.gc.collector.0.time", 2_500_000);
            setCounter(content, "sun.gc.collector.1.time", 500_000);
            planted.file(FOLDER.resolve(pid), content);
            assertTrue(listed(sleeper.pid()), "a copy under a live process of the folder's user is listed");
            for (HotSpotFigures f : List.of(inspector.figures(sleeper.pid()).orElseThrow(),
                    inspector.snapshot().figures(sleeper.pid()).orElseThrow())) {
                assertEquals(1_000_000, f.tickFrequency());
                assertEquals(90.0, f.uptimeSeconds(), 1e-9);
                assertEquals(2.5, f.collectors().get(0).timeSeconds(), 1e-9);
                assertEquals(0.5, f.collectors().get(1).timeSeconds(), 1e-9);
                assertEquals(3.0, f.gcSeconds(), 1e-9);
            }
        }
    }

    /** A caller other than root lists only its own VMs, whatever the host runs; root reads every user's. */
    @Test
    void vmsOfOtherUsersAreReadOnlyByWhoMay() throws Exception {
        long ownUid = (Integer) Files.getAttribute(Path.of("/proc/self"), "unix:uid");
        for (HotSpotVm vm : inspector.vms()) {
            assertTrue(ownUid == 0 || vm.uid() == ownUid, "another user's VM listed: " + vm);
        }
        Assumptions.assumeTrue(ownUid == 0, "the rest needs root, to run processes as other users");
        Path nobodysFolder = Path.of("/tmp", "hsperfdata_nobody");
        boolean hadFolder = Files.exists(nobodysFolder);
        try (JdkVm vm = new JdkVm(AS_NOBODY, List.of("-Xmx64m"), "nobody's")) {
            assertTrue(vm.awaitPerfDataFile("nobody"), "no file " + vm.perfDataFile("nobody"));
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
            while (!listed(vm.pid()) && System.nanoTime() < deadline) {
                Thread.sleep(20);
            }
            HotSpotFigures found = inspector.figures(vm.pid()).orElseThrow(() -> new AssertionError("not listed"));
            assertEquals("nobody", found.user());
            assertEquals(65534, found.uid());
        } finally {
            if (!hadFolder) {
                try {
                    Files.deleteIfExists(nobodysFolder);
                } catch (DirectoryNotEmptyException e) {
                    // another VM of nobody's publishes there now
                }
            }
        }
    }
}
