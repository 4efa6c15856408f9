package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.testing.JdkVm;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.function.Predicate;

import org.junit.jupiter.api.Test;

/**
 * noxinspect top in a real terminal: a tmux session of 60 columns on a server of its own, driven
 * with send-keys and read with capture-pane (without a terminal: NoxinspectHotSpotTest).
 */
class TopTerminalTest {
    private static final Path TMUX = Path.of("/usr/bin/tmux");
    private final String socket = "nox-top-test-" + ProcessHandle.current().pid();

    private String tmux(String... args) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>(List.of(TMUX.toString(), "-L", socket));
        command.addAll(List.of(args));
        ProcessBuilder builder = new ProcessBuilder(command).redirectErrorStream(true);
        // tmux runs the session's command with $SHELL, else the account's login shell: for an
        // account such as nobody that is nologin, and the session would end at once.
        builder.environment().put("SHELL", "/bin/sh");
        Process p = builder.start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        if (!p.waitFor(10, TimeUnit.SECONDS)) {
            p.destroyForcibly();
        }
        return out;
    }

    /** The screen as it is; fails when {@code until} is not true of it within {@code seconds}. */
    private String screen(double seconds, String what, Predicate<String> until) throws Exception {
        long deadline = System.nanoTime() + (long) (seconds * 1e9);
        String screen = "";
        while (System.nanoTime() < deadline) {
            screen = tmux("capture-pane", "-p", "-t", "top");
            if (until.test(screen)) {
                return screen;
            }
            Thread.sleep(100);
        }
        throw new AssertionError("not within " + seconds + " s: " + what + "\n" + screen);
    }

    /** The pids of the table's rows, top to bottom. */
    private static List<Integer> pids(String screen) {
        List<Integer> pids = new ArrayList<>();
        for (String line : screen.split("\n")) {
            if (line.matches(" *[0-9]+ .*")) {
                pids.add(Integer.parseInt(line.trim().split(" +")[0]));
            }
        }
        return pids;
    }

    private static boolean shows(String screen, JdkVm... vms) {
        List<Integer> pids = pids(screen);
        for (JdkVm vm : vms) {
            if (!pids.contains(vm.pid())) {
                return false;
            }
        }
        return true;
    }

    @Test
    void liveTableInSixtyColumns() throws Exception {
        assumeTrue(Files.isExecutable(TMUX), "tmux is not installed (Debian package tmux): skipped");
        String launcher = Path.of(System.getProperty("nox.launcher", "tools/noxinspect")).toAbsolutePath().toString();
        String build = Path.of(Launcher.buildDir()).toAbsolutePath().toString();
        try (JdkVm a = new JdkVm("-XX:+UseSerialGC");
             JdkVm b = new JdkVm("-XX:+UseG1GC")) {
            a.awaitListed();
            b.awaitListed();
            String started = tmux("-f", "/dev/null", "new-session", "-d", "-s", "top", "-x", "60", "-y", "30",
                    "env NOX_BUILD_DIR=" + build + " " + launcher + " top -d 1; echo top-ended-$?; sleep 60");

            // Both VMs within two refreshes of the first table.
            assertEquals("", started, "tmux new-session");
            screen(30, "the first table", s -> s.contains("noxinspect top"));
            String screen = screen(2.5, "the test's VMs", s -> shows(s, a, b));

            // Columns cut to the width, never wrapped: joining wrapped lines changes nothing (-J also
            // keeps trailing blanks, which the plain capture drops).
            String joined = tmux("capture-pane", "-p", "-J", "-t", "top").replaceAll(" +\n", "\n");
            assertEquals(joined, tmux("capture-pane", "-p", "-t", "top"), screen);
            for (String line : screen.split("\n")) {
                assertTrue(line.length() <= 60, "wider than the terminal: " + line);
            }

            tmux("send-keys", "-t", "top", "p");
            screen = screen(5, "sorted by pid", s -> s.contains("sort pid") && !s.contains("reversed") && shows(s, a, b));
            List<Integer> ascending = pids(screen);
            assertEquals(ascending.stream().sorted().toList(), ascending, screen);
            tmux("send-keys", "-t", "top", "p");
            screen = screen(5, "sorted by pid, reversed", s -> s.contains("sort pid, reversed") && shows(s, a, b));
            List<Integer> descending = pids(screen);
            assertEquals(descending.stream().sorted((x, y) -> y - x).toList(), descending, screen);

            tmux("send-keys", "-t", "top", "q");
            screen(10, "top ended with status 0, the screen as it was", s -> s.contains("top-ended-0")
                    && !s.contains("noxinspect top"));
        } finally {
            tmux("kill-server");
        }
    }
}
