package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.testing.AgentTarget;
import com.nox.jvm.inspector.testing.AgentVm;

import java.util.Map;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * tools/noxinspect against real JDK 17 VMs: one started with nox-agent.jar, one that gets it
 * through {@code noxinspect attach}. Other tests run VMs at the same time, so only our own VMs'
 * entries are asserted on.
 */
class NoxinspectAgentTest {
    private static final long MIB = 1024 * 1024;

    /** The index i for which {@code vms.i.pid} is this pid in a flattened list, or -1. */
    /**
     * The index of the VM with this pid that publishes a control area; -1 when there is none. A
     * stock VM is also listed, without a control area, from its performance data.
     */
    private static int vmIndex(Map<String, String> flat, long pid) {
        for (int i = 0; flat.containsKey("vms." + i + ".pid"); i++) {
            if (flat.get("vms." + i + ".pid").equals(Long.toString(pid))
                    && q("control-area").equals(flat.get("vms." + i + ".sources.0"))) {
                return i;
            }
        }
        return -1;
    }

    /** How many entries of the list name this pid. */
    private static int entriesOf(Map<String, String> flat, long pid) {
        int count = 0;
        for (int i = 0; flat.containsKey("vms." + i + ".pid"); i++) {
            if (flat.get("vms." + i + ".pid").equals(Long.toString(pid))) {
                count++;
            }
        }
        return count;
    }

    private static String q(String text) {
        return "\"" + text + "\"";
    }

    /** Runs {@code --json list} until the VM is in it (at most {@code seconds}); the flattened answer. */
    private static Map<String, String> listUntilPresent(long pid, int seconds) throws Exception {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
        while (true) {
            Launcher.Result r = Launcher.run("--json", "list");
            assertEquals(0, r.exitCode(), r.toString());
            Map<String, String> flat = Launcher.flatJson(r.out());
            if (vmIndex(flat, pid) >= 0) {
                return flat;
            }
            if (System.nanoTime() - deadline > 0) {
                fail("VM pid " + pid + " not in noxinspect --json list within " + seconds + " s:\n" + r);
            }
        }
    }

    @Test
    void jsonListShowsTheAgentVmWithItsPidAndMainClass() throws Exception {
        try (AgentVm vm = AgentVm.withAgent("tag=cli-test")) {
            Map<String, String> flat = listUntilPresent(vm.pid(), 5);
            int i = vmIndex(flat, vm.pid());
            assertEquals(q("process:" + vm.pid()), flat.get("vms." + i + ".cluster"));
            assertEquals("0", flat.get("vms." + i + ".slot"));
            assertEquals(q(AgentTarget.class.getName()), flat.get("vms." + i + ".mainClass"));
            assertEquals(q("NOT_ACTIVE"), flat.get("vms." + i + ".debuggingState"));
            assertTrue(flat.get("vms." + i + ".version").contains(System.getProperty("java.vm.version")));

            Launcher.Result text = Launcher.run("list");
            assertEquals(0, text.exitCode(), text.toString());
            assertTrue(text.out().lines().anyMatch(l -> l.contains(" " + vm.pid() + " ")
                    && l.contains(AgentTarget.class.getName())), text.toString());
        }
    }

    @Test
    void infoAgreesWithTheVmsOwnReadingsStartTimeAndCommandLine() throws Exception {
        try (AgentVm vm = AgentVm.withAgent("refresh=100", "alpha", "beta")) {
            listUntilPresent(vm.pid(), 5);
            Map<String, Long> before = vm.readings();
            Launcher.Result r = Launcher.run("--json", "info", Long.toString(vm.pid()));
            Map<String, Long> after = vm.readings();
            assertEquals(0, r.exitCode(), r.toString());
            Map<String, String> flat = Launcher.flatJson(r.out());
            assertEquals(Long.toString(before.get("committed")), flat.get("memory.committedJavaHeap"), r.toString());
            assertEquals(Long.toString(before.get("max")), flat.get("memory.maxOldGenSize"));
            assertEquals(Long.toString(before.get("committed")), flat.get("memory.globalMemory"));
            long used = Long.parseLong(flat.get("memory.globalAllocatedMemory"));
            long low = Math.min(before.get("used"), after.get("used")) - 2 * MIB;
            long high = Math.max(before.get("used"), after.get("used")) + 2 * MIB;
            assertTrue(used >= low && used <= high, "heap used " + used + " not within " + low + ".." + high);
            // The process start time is whole seconds; the VM's own start time a little later.
            long startSeconds = Long.parseLong(flat.get("vm.startTime"));
            long vmStart = before.get("start") / 1000;
            assertTrue(startSeconds <= vmStart && vmStart - startSeconds <= 2,
                    "process started " + startSeconds + ", VM says " + vmStart);
            assertEquals(q(AgentTarget.class.getName() + " alpha beta"), flat.get("start.javaArguments"));
            assertTrue(flat.get("start.vmArguments").contains("-Xmx" + AgentVm.HEAP), flat.get("start.vmArguments"));
            assertTrue(flat.get("start.vmArguments").contains("-javaagent:"), flat.get("start.vmArguments"));
            assertEquals(q(System.getProperty("user.dir")), flat.get("start.workingDirectory"));
            assertEquals("false", flat.get("debugging.canDebugOnDemand"));
            assertTrue(Long.parseLong(flat.get("time.processingTime")) > 0, r.toString());
        }
    }

    @Test
    void exitEndsTheVmWithTheRequestedStatus() throws Exception {
        try (AgentVm vm = AgentVm.withAgent("")) {
            listUntilPresent(vm.pid(), 5);
            Launcher.Result r = Launcher.run("exit", Long.toString(vm.pid()), "3");
            assertEquals(0, r.exitCode(), r.toString());
            assertEquals(3, vm.awaitExit(5), "the VM did not end with status 3 within 5 s");
            assertFalse(java.nio.file.Files.exists(vm.controlAreaFile()));
        }
    }

    @Test
    void attachMakesARunningVmVisible() throws Exception {
        try (AgentVm vm = AgentVm.plain("plain")) {
            Launcher.Result before = Launcher.run("--json", "list");
            assertEquals(-1, vmIndex(Launcher.flatJson(before.out()), vm.pid()), before.toString());
            assertEquals(1, entriesOf(Launcher.flatJson(before.out()), vm.pid()), "listed from its performance data");

            Launcher.Result attach = Launcher.run("attach", Long.toString(vm.pid()), "refresh=200");
            assertEquals(0, attach.exitCode(), attach.toString());
            assertTrue(attach.out().contains("VM pid " + vm.pid() + " now publishes its control area"), attach.toString());

            Map<String, String> flat = Launcher.flatJson(Launcher.run("--json", "list").out());
            int i = vmIndex(flat, vm.pid());
            assertTrue(i >= 0, "attached VM not listed");
            assertEquals(q(AgentTarget.class.getName()), flat.get("vms." + i + ".mainClass"));
            // Both sources describe one VM: it is listed once, with both.
            assertEquals(1, entriesOf(flat, vm.pid()), "the attached VM is listed once");
            assertEquals(q("hotspot"), flat.get("vms." + i + ".sources.1"));

            Launcher.Result again = Launcher.run("--json", "attach", Long.toString(vm.pid()));
            assertEquals(0, again.exitCode(), again.toString());
            Map<String, String> answer = Launcher.flatJson(again.out());
            assertEquals("false", answer.get("attached"));
            assertEquals("true", answer.get("publishing"));

            // The VM the agent came to answers requests like one that had it from the start.
            assertEquals(0, Launcher.run("exit", Long.toString(vm.pid()), "7").exitCode());
            assertEquals(7, vm.awaitExit(5), "the attached VM did not end with status 7 within 5 s");
        }
    }

    @Test
    void attachRefusesWhatIsNotARunningVmOfTheUser() throws Exception {
        Process sleeper = new ProcessBuilder("sleep", "30").start();
        try {
            Launcher.Result notVm = Launcher.run("attach", Long.toString(sleeper.pid()));
            assertEquals(1, notVm.exitCode(), notVm.toString());
            assertTrue(notVm.err().contains("is not a Java VM"), notVm.toString());
            assertTrue(sleeper.isAlive(), "the probe must not signal a process that is not a VM");
        } finally {
            sleeper.destroyForcibly();
            sleeper.waitFor(5, TimeUnit.SECONDS);
        }
        Launcher.Result gone = Launcher.run("attach", Long.toString(sleeper.pid()));
        assertEquals(1, gone.exitCode(), gone.toString());
        assertTrue(gone.err().contains("no process with pid " + sleeper.pid()), gone.toString());

        Launcher.Result usage = Launcher.run("attach", "zero");
        assertEquals(2, usage.exitCode(), usage.toString());

        try (AgentVm vm = AgentVm.plain()) {
            Launcher.Result bad = Launcher.run("attach", Long.toString(vm.pid()), "bogus=1");
            assertEquals(2, bad.exitCode(), bad.toString());
            assertTrue(bad.err().contains("unknown agent option 'bogus'"), bad.toString());
            assertTrue(vm.process().isAlive(), "a refused option must leave the VM running");
            assertFalse(bad.err().contains("\tat "), bad.toString());
        }

        try (AgentVm closed = AgentVm.plainWith(java.util.List.of("-XX:+DisableAttachMechanism"))) {
            Launcher.Result refused = Launcher.run("attach", Long.toString(closed.pid()));
            assertEquals(1, refused.exitCode(), refused.toString());
            assertTrue(refused.err().contains("VM pid " + closed.pid() + " does not accept attach requests"),
                    refused.toString());
            assertTrue(closed.process().isAlive(), "a VM that refuses the attach runs on");
        }
    }

    @Test
    void debugRequestsToAStockVmLeaveItNotDebuggingAndSayNotOnDemand() throws Exception {
        try (AgentVm vm = AgentVm.withAgent("")) {
            listUntilPresent(vm.pid(), 5);
            Launcher.Result start = Launcher.run("debug", "start", Long.toString(vm.pid()));
            assertEquals(0, start.exitCode(), start.toString());
            assertTrue(start.out().contains("it does not debug on demand"), start.toString());
            Launcher.Result info = Launcher.run("info", Long.toString(vm.pid()));
            assertEquals(0, info.exitCode(), info.toString());
            assertTrue(info.out().lines().anyMatch(l -> l.trim().matches("on demand\\s+no")), info.toString());
            assertTrue(info.out().lines().anyMatch(l -> l.trim().matches("state\\s+not-active")), info.toString());
            assertTrue(vm.process().isAlive());
        }
    }
}
