package com.nox.jvm.inspector.hotspot;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.testing.JdkVm;

import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.function.Function;

import org.junit.jupiter.api.Test;

/** Real JDK 17 VMs started by the test, read through the HotSpot natives. */
class HotSpotVmsTest {
    private static final String USER = System.getProperty("user.name");
    private final HotSpotInspector inspector = new HotSpotInspector();

    /** The VM as the natives list it, waiting up to 10 s for it to publish its file. */
    private HotSpotVm listed(JdkVm vm) throws InterruptedException {
        assertTrue(vm.awaitPerfDataFile(USER), "the VM published no file " + vm.perfDataFile(USER));
        long deadline = System.nanoTime() + 10_000_000_000L;
        while (System.nanoTime() < deadline) {
            for (HotSpotVm found : inspector.vms()) {
                if (found.pid() == vm.pid()) {
                    return found;
                }
            }
            Thread.sleep(20);
        }
        fail("VM " + vm.pid() + " was not listed within 10 s: " + inspector.vms());
        return null;
    }

    @Test
    void everyStartedVmIsListedWithItsPidAndMainClass() throws Exception {
        try (JdkVm a = new JdkVm(List.of(), List.of("-XX:+UseSerialGC"), "first", "argument");
             JdkVm b = new JdkVm(List.of(), List.of("-Xmx96m"), "second")) {
            HotSpotVm first = listed(a);
            HotSpotVm second = listed(b);
            assertEquals(JdkVm.MAIN_CLASS, first.mainClass());
            assertEquals(JdkVm.MAIN_CLASS + " first argument", first.javaCommand());
            assertEquals(JdkVm.MAIN_CLASS + " second", second.javaCommand());
            assertEquals(USER, first.user());
            assertEquals(System.getProperty("java.vm.version"), first.vmVersion());
            long now = System.currentTimeMillis();
            assertTrue(first.beginMillis() > now - 120_000 && first.beginMillis() <= now, first.toString());

            HotSpotFigures f = inspector.figures(b.pid()).orElseThrow();
            assertEquals(b.pid(), f.pid());
            assertEquals(JdkVm.MAIN_CLASS, f.mainClass());
            assertEquals(System.getProperty("java.vm.name"), f.vmName());
            assertEquals(System.getProperty("java.vm.vendor"), f.vmVendor());
            assertTrue(f.vmArguments().contains("-Xmx96m"), f.vmArguments());
            assertTrue(f.heapMax() >= 90L << 20 && f.heapMax() <= 100L << 20, "heap max " + f.heapMax());
            // G1 pads each of its spaces' sizes by a few bytes in its counters.
            assertTrue(f.heapCommitted() > 0 && f.heapCommitted() <= f.heapMax() + 64, f.toString());
            assertFalse(f.collectors().isEmpty());
            for (GcCollector c : f.collectors()) {
                assertFalse(c.name().isEmpty(), c.toString());
                assertTrue(c.invocations() >= 0 && c.timeSeconds() >= 0, c.toString());
                assertEquals((double) c.timeTicks() / f.tickFrequency(), c.timeSeconds(), 1e-12);
            }
            assertTrue(f.classesLoaded() > 300, "classes " + f.classesLoaded());
            assertTrue(f.threadsLive() >= 1 && f.threadsLive() <= f.threadsPeak(), f.toString());
            assertTrue(f.uptimeSeconds() > 0 && f.uptimeSeconds() < 120, "uptime " + f.uptimeSeconds());
        }
    }

    @Test
    void countersThatDoNotChangeReadBackAsJcmdPrintsThem() throws Exception {
        try (JdkVm vm = new JdkVm(List.of(), List.of("-XX:+UseSerialGC", "-Xmx128m"), "jcmd", "compare")) {
            listed(vm);
            // jcmd attaches, which starts threads in the VM: take its reading twice, ours between.
            Map<String, String> before = JcmdCounters.print(vm.pid());
            List<PerfCounter> ours = inspector.counters(vm.pid()).orElseThrow();
            Map<String, String> after = JcmdCounters.print(vm.pid());
            JcmdCounters.assertSameAs(before, ours, after);
            // Names, strings, maximum sizes and frequencies, by name.
            for (String name : List.of("sun.rt.javaCommand", "java.property.java.vm.version", "java.rt.vmArgs",
                    "sun.os.hrt.frequency", "sun.gc.generation.1.maxCapacity", "sun.gc.collector.0.name",
                    "java.property.java.home", "sun.perfdata.size", "sun.perfdata.majorVersion")) {
                PerfCounter c = inspector.counter(vm.pid(), name).orElseThrow(() -> new AssertionError(name));
                assertEquals(before.get(name), c.isLong() ? Long.toString(c.longValue()) : c.stringValue(), name);
            }
            assertEquals(Optional.empty(), inspector.counter(vm.pid(), "no.such.counter"));
        }
    }

    @Test
    void heapUsedIsWithinTheVmsOwnReading() throws Exception {
        for (String collector : List.of("-XX:+UseSerialGC", "-XX:+UseParallelGC", "-XX:+UseG1GC")) {
            try (JdkVm vm = new JdkVm(List.of(), List.of(collector, "-Xmx256m"), "heap")) {
                listed(vm);
                Thread.sleep(200);  // the VM samples some of its counters every 50 ms
                long[] before = vm.heap();
                HotSpotFigures f = inspector.figures(vm.pid()).orElseThrow();
                long[] after = vm.heap();
                // Answering a reading allocates a little; the counters follow the heap at the VM's
                // own pace (some at each sample, some at allocation of a new region).
                long slack = 2L << 20;
                long low = Math.min(before[0], after[0]) - slack;
                long high = Math.max(before[0], after[0]) + slack;
                assertTrue(f.heapUsed() >= low && f.heapUsed() <= high, collector + ": heap used " + f.heapUsed()
                        + ", the VM's own readings " + before[0] + " and " + after[0]);
                assertTrue(f.heapCommitted() >= Math.min(before[1], after[1]) - slack, collector + ": committed "
                        + f.heapCommitted() + " vs " + before[1]);
                assertTrue(f.heapMax() >= before[2], collector + ": max " + f.heapMax() + " vs " + before[2]);
            }
        }
    }

    @Test
    void theHostPassGivesEachVmsFiguresAsTheirOwnReadsDo() throws Exception {
        try (JdkVm a = new JdkVm(List.of(), List.of("-XX:+UseSerialGC"), "first");
             JdkVm b = new JdkVm(List.of(), List.of("-Xmx96m"), "second")) {
            listed(a);
            listed(b);
            HotSpotSnapshot pass = inspector.snapshot();
            for (JdkVm vm : List.of(a, b)) {
                HotSpotFigures inPass = pass.figures(vm.pid()).orElseThrow(() -> new AssertionError(pass.toString()));
                HotSpotFigures alone = inspector.figures(vm.pid()).orElseThrow();
                // What does not change while the VM sleeps is the same in both readings.
                for (Function<HotSpotFigures, Object> figure : List.<Function<HotSpotFigures, Object>>of(
                        HotSpotFigures::uid, HotSpotFigures::user, HotSpotFigures::javaCommand,
                        HotSpotFigures::vmVersion, HotSpotFigures::vmArguments, HotSpotFigures::beginMillis,
                        HotSpotFigures::tickFrequency, HotSpotFigures::heapMax, HotSpotFigures::namespacePid,
                        HotSpotFigures::processStartSeconds, f -> f.collectors().stream().map(GcCollector::name)
                                .toList())) {
                    assertEquals(figure.apply(alone), figure.apply(inPass), inPass.toString());
                }
                assertEquals(vm.pid(), inPass.namespacePid());
                long started = ProcessHandle.of(vm.pid()).orElseThrow().info().startInstant().orElseThrow()
                        .getEpochSecond();
                assertTrue(Math.abs(inPass.processStartSeconds() - started) <= 1, inPass.processStartSeconds()
                        + " against " + started);
                assertEquals(Optional.empty(), pass.withoutPerfData(vm.pid()));
            }
        }
    }

    @Test
    void aVmWithoutPerfDataIsListedOnlyAsSuch() throws Exception {
        try (JdkVm without = new JdkVm(List.of(), List.of("-XX:-UsePerfData"), "without");
             JdkVm with = new JdkVm(List.of(), List.of(), "with")) {
            listed(with);
            assertFalse(inspector.vms().stream().anyMatch(v -> v.pid() == without.pid()), inspector.vms().toString());
            assertEquals(Optional.empty(), inspector.figures(without.pid()));
            assertEquals(Optional.empty(), inspector.counters(without.pid()));
            HotSpotSnapshot pass = inspector.snapshot();
            VmWithoutPerfData found = pass.withoutPerfData(without.pid())
                    .orElseThrow(() -> new AssertionError("not in " + pass.withoutPerfData()));
            assertEquals(without.pid(), found.namespacePid());
            assertEquals(USER, found.user());
            assertEquals(JdkVm.MAIN_CLASS, found.mainClass());
            assertTrue(found.arguments().contains("-XX:-UsePerfData"), found.toString());
            assertEquals("without", found.arguments().get(found.arguments().size() - 1));
            long started = ProcessHandle.of(without.pid()).orElseThrow().info().startInstant().orElseThrow()
                    .getEpochSecond();
            assertTrue(Math.abs(found.processStartSeconds() - started) <= 1, found.toString());
            assertEquals(Optional.empty(), pass.figures(without.pid()));
            assertEquals(Optional.empty(), pass.withoutPerfData(with.pid()));
            assertTrue(pass.figures(with.pid()).isPresent());
        }
    }

    @Test
    void anEndedVmIsNoLongerListed() throws Exception {
        JdkVm vm = new JdkVm(List.of(), List.of(), "ending");
        int pid;
        try {
            pid = listed(vm).pid();
        } finally {
            vm.close();
        }
        assertFalse(inspector.vms().stream().anyMatch(v -> v.pid() == pid));
        assertEquals(Optional.empty(), inspector.figures(pid));
    }

    @Test
    void vmsOfOtherUsersAreReadOnlyByWhoMay() throws Exception {
        long ownUid = (Integer) java.nio.file.Files.getAttribute(java.nio.file.Path.of("/proc/self"), "unix:uid");
        // Whatever the host runs: a caller other than root sees only its own VMs (files are 0600).
        for (HotSpotVm vm : inspector.vms()) {
            assertTrue(ownUid == 0 || vm.uid() == ownUid, "another user's VM listed: " + vm);
        }
        org.junit.jupiter.api.Assumptions.assumeTrue(ownUid == 0, "the rest needs root, to start a VM as another user");
        List<String> asNobody = List.of("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups");
        java.nio.file.Path nobodysFolder = java.nio.file.Path.of("/tmp", "hsperfdata_nobody");
        boolean hadFolder = java.nio.file.Files.exists(nobodysFolder);
        try (JdkVm vm = new JdkVm(asNobody, List.of("-Xmx64m"), "nobody's")) {
            assertTrue(vm.awaitPerfDataFile("nobody"), "no file " + vm.perfDataFile("nobody"));
            HotSpotVm found = null;
            long deadline = System.nanoTime() + 10_000_000_000L;
            while (found == null && System.nanoTime() < deadline) {
                found = inspector.vms().stream().filter(v -> v.pid() == vm.pid()).findFirst().orElse(null);
                Thread.sleep(20);
            }
            assertNotNull(found, "root may read nobody's VM, but it was not listed");
            assertEquals("nobody", found.user());
            assertEquals(65534, found.uid());
            // Another user (bin, uid 2) may not read it: a JVM of that user lists it not.
            ProcessBuilder other = new ProcessBuilder("setpriv", "--reuid=2", "--regid=2", "--clear-groups",
                    java.nio.file.Path.of(System.getProperty("java.home"), "bin", "java").toString(),
                    "-XX:-UsePerfData", "-Dnox.inspector.library=" + System.getProperty("java.library.path")
                            + "/libnoxjvm_inspector.so",
                    "-cp", System.getProperty("nox.build.dir") + "/java/noxjvm-inspector.jar:" + JdkVm.testClasses(),
                    ListPids.class.getName()).redirectErrorStream(true);
            Process p = other.start();
            String out = new String(p.getInputStream().readAllBytes(), java.nio.charset.StandardCharsets.UTF_8);
            assertTrue(p.waitFor(30, java.util.concurrent.TimeUnit.SECONDS), "the other user's JVM did not end");
            assertEquals(0, p.exitValue(), out);
            assertTrue(out.startsWith("PIDS"), out);
            assertFalse(List.of(out.trim().split(" ")).contains(Integer.toString(vm.pid())), out);
        } finally {
            // The VM created nobody's folder and leaves it when it ends: remove it when it is
            // empty and was not there before.
            if (!hadFolder) {
                try {
                    java.nio.file.Files.deleteIfExists(nobodysFolder);
                } catch (java.nio.file.DirectoryNotEmptyException e) {
                    // another VM of nobody's publishes there now
                }
            }
        }
    }
}
