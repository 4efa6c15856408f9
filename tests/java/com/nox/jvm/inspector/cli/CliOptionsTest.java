package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.testing.JdkVm;

import java.util.List;
import java.util.function.Predicate;

import org.junit.jupiter.api.Test;

/**
 * What a jps user reaches for in list (-q, -m, -v, -u, -c), counters by prefix, --version, and the
 * hint when --bind names an address this host does not have: each command line with what its
 * output must show, against a real VM started with known arguments.
 */
class CliOptionsTest {
    private record Case(List<String> args, int exitCode, Predicate<Launcher.Result> holds, String what) {
    }

    @Test
    void optionsShowWhatTheySay() throws Exception {
        String user = System.getProperty("user.name");
        try (JdkVm vm = new JdkVm(List.of(), List.of("-Dnox.cli.options=1", "-Xmx48m"), "alpha", "beta")) {
            NoxinspectHotSpotTest.awaitListed(vm);
            String pid = Integer.toString(vm.pid());
            String prefix = "sun.gc.collector.0.";
            List<Case> cases = List.of(
                    new Case(List.of("list", "-q"), 0, r -> r.out().lines().anyMatch(pid::equals)
                            && r.out().lines().allMatch(l -> l.matches("[0-9]+")), "pids alone, this VM's among them"),
                    new Case(List.of("--json", "list", "-q", "-c", "SleepingVm"), 0,
                            r -> r.out().replaceAll("\\s", "").matches("\\{\"pids\":\\[([0-9]+,)*" + pid + "(,[0-9]+)*]}"),
                            "JSON pids of the VMs whose main class has the text"),
                    new Case(List.of("list", "-m", "-c", "SleepingVm"), 0, r -> line(r, pid).endsWith("alpha beta")
                            && r.out().startsWith("CLUSTER") && r.out().lines().findFirst().get().endsWith("ARGUMENTS"),
                            "a column of main's arguments"),
                    new Case(List.of("list", "-v", "-u", user), 0, r -> line(r, pid).contains("-Dnox.cli.options=1 -Xmx48m")
                            && line(r, pid).contains(" " + user + " "), "the VM's arguments and its user"),
                    new Case(List.of("list", "-u", "no-such-user-here"), 0,
                            r -> r.out().equals("No Java VMs on this host that match.\n"), "nothing of another user"),
                    new Case(List.of("counters", pid, prefix + "*"), 0, r -> r.out().lines().count() >= 5
                            && r.out().lines().allMatch(l -> l.startsWith(prefix)), "every counter of the prefix"),
                    new Case(List.of("counters", pid, "no.such.prefix.*"), 1, r -> r.err().equals("noxinspect: VM pid "
                            + pid + " has no counter that begins with no.such.prefix.\n"), "a prefix nothing begins with"),
                    new Case(List.of("--version"), 0, r -> r.out().startsWith("noxinspect 1.") && r.out().contains("\njava "),
                            "the version, the library and the Java"),
                    new Case(List.of("serve", "--bind", "192.0.2.77", "--port", "0"), 1,
                            r -> r.err().contains("this host has no address 192.0.2.77; its addresses are ")
                                    && r.err().contains("127.0.0.1"), "the host's own addresses"));
            for (Case c : cases) {
                Launcher.Result r = Launcher.run(c.args().toArray(String[]::new));
                assertEquals(c.exitCode(), r.exitCode(), c.args() + "\n" + r);
                assertTrue(c.holds().test(r), c.what() + ": " + c.args() + "\n" + r);
                assertFalse(r.err().contains("Exception"), r.toString());
            }
        }
    }

    /** The line of the table that starts with the pid's row (the pid is the third cell); "" when none. */
    private static String line(Launcher.Result r, String pid) {
        return r.out().lines().filter(l -> {
            String[] cells = l.trim().split("\\s+");
            return cells.length > 2 && cells[2].equals(pid);
        }).findFirst().orElse("");
    }
}
