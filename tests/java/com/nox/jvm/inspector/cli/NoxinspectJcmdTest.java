package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.attach.AttachClient;
import com.nox.jvm.inspector.attach.AttachException;
import com.nox.jvm.inspector.attach.CommandReply;
import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.Spawned;

import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

import org.junit.jupiter.api.Test;

/**
 * {@code noxinspect jcmd} and its shortcuts against the JDK's own {@code jcmd}, on real JDK 17 VMs
 * started by the test: the same output after jcmd's "PID:" line and the same exit status; a VM
 * that disabled attach, to jcmd and to {@code attach} (a VM in its own namespaces is the containers
 * test's); and the Java API of the attach client beneath them: the reply streamed, a VM that stops
 * answering, and one that ends while the client waits for its listener.
 */
class NoxinspectJcmdTest {
    /** How two outputs must agree. */
    enum Agreement {
        SAME,
        /**
         * Equal once the comment lines are dropped (VM.system_properties starts with the time), and
         * user.timezone, which the VM sets when it first formats that time.
         */
        SAME_WITHOUT_COMMENTS,
        /** The same header, and java.lang.String counted in both. */
        HISTOGRAM,
        /** The same thread names (states and addresses change between two dumps). */
        THREAD_NAMES
    }

    record Case(Agreement agreement, List<String> ours, List<String> jcmd) {
    }

    /** What jcmd printed after its "PID:" line, its exit status and its standard error. */
    private static Launcher.Result jcmd(long pid, List<String> command) throws IOException, InterruptedException {
        List<String> words = new ArrayList<>(List.of(Path.of(System.getProperty("java.home"), "bin", "jcmd").toString(),
                Long.toString(pid)));
        words.addAll(command);
        Process process = new ProcessBuilder(words).redirectError(ProcessBuilder.Redirect.PIPE).start();
        String out = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        String err = new String(process.getErrorStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(process.waitFor(60, TimeUnit.SECONDS), "jcmd did not end");
        assertTrue(out.startsWith(pid + ":\n"), out + err);
        return new Launcher.Result(process.exitValue(), out.substring(out.indexOf('\n') + 1), err);
    }

    private static List<String> words(Object... words) {
        List<String> list = new ArrayList<>();
        for (Object w : words) {
            list.add(w.toString());
        }
        return list;
    }

    private static void assertAgree(Case c, Launcher.Result ours, Launcher.Result theirs) {
        String what = c.ours() + "\n" + ours + "\njcmd " + c.jcmd() + "\n" + theirs;
        assertEquals(theirs.exitCode(), ours.exitCode(), what);
        switch (c.agreement()) {
            case SAME -> assertEquals(theirs.out(), ours.out(), what);
            case SAME_WITHOUT_COMMENTS -> assertEquals(withoutComments(theirs.out()), withoutComments(ours.out()), what);
            case HISTOGRAM -> {
                assertEquals(theirs.out().lines().limit(2).toList(), ours.out().lines().limit(2).toList(), what);
                assertTrue(ours.out().contains(" java.lang.String (java.base@"), what);
                assertTrue(theirs.out().contains(" java.lang.String (java.base@"), what);
            }
            case THREAD_NAMES -> {
                Set<String> names = threadNames(ours.out());
                assertTrue(names.contains("main") && names.contains("Attach Listener"), what);
                assertEquals(threadNames(theirs.out()), names, what);
            }
            default -> throw new AssertionError(c.agreement());
        }
    }

    private static List<String> withoutComments(String text) {
        return text.lines().filter(l -> !l.startsWith("#") && !l.startsWith("user.timezone=")).toList();
    }

    private static Set<String> threadNames(String dump) {
        Set<String> names = new TreeSet<>();
        Matcher m = Pattern.compile("^\"([^\"]*)\"", Pattern.MULTILINE).matcher(dump);
        while (m.find()) {
            names.add(m.group(1));
        }
        return names;
    }

    @Test
    void printsWhatJcmdPrintsWithItsExitStatusThroughTheClient() throws Exception {
        // Fixed compiler threads: with dynamic ones a thread may come or go between two dumps.
        try (JdkVm vm = new JdkVm("-XX:-UseDynamicNumberOfCompilerThreads", "-Xmx64m")) {
            int pid = vm.pid();
            List<Case> cases = List.of(
                    new Case(Agreement.SAME, words("jcmd", pid, "VM.version"), words("VM.version")),  // the first attach
                    new Case(Agreement.SAME, words("jcmd", pid, "VM.command_line"), words("VM.command_line")),
                    new Case(Agreement.SAME, words("jcmd", pid, "VM.flags"), words("VM.flags")),
                    new Case(Agreement.SAME, words("flags", pid), words("VM.flags", "-all")),
                    new Case(Agreement.SAME_WITHOUT_COMMENTS, words("props", pid), words("VM.system_properties")),
                    new Case(Agreement.HISTOGRAM, words("histo", pid), words("GC.class_histogram")),
                    new Case(Agreement.THREAD_NAMES, words("threads", pid), words("Thread.print")),
                    new Case(Agreement.SAME, words("jcmd", pid, "GC.run"), words("GC.run")),
                    new Case(Agreement.SAME, words("jcmd", pid, "No.such_command"), words("No.such_command")));
            for (Case c : cases) {
                Launcher.Result ours = Launcher.run(c.ours().toArray(String[]::new));
                assertAgree(c, ours, jcmd(pid, c.jcmd()));
            }
            Launcher.Result rejected = Launcher.run("jcmd", Integer.toString(pid), "No.such_command");
            assertTrue(rejected.err().contains("Unknown diagnostic command"), rejected.toString());

            // The client beneath: a reply streamed in small pieces, a refusal, a VM that stops answering.
            try (CommandReply reply = AttachClient.jcmd(pid, "VM.command_line", Duration.ofSeconds(10))) {
                assertEquals(0, reply.status());
                // Read in pieces smaller than anything the VM sends at once.
                InputStream in = reply.output();
                StringBuilder text = new StringBuilder();
                byte[] piece = new byte[3];
                for (int n = in.read(piece); n >= 0; n = in.read(piece)) {
                    text.append(new String(piece, 0, n, java.nio.charset.StandardCharsets.ISO_8859_1));
                }
                assertTrue(text.toString().startsWith("VM Arguments:\n"), text.toString());
                assertTrue(text.toString().contains("java_command: " + JdkVm.MAIN_CLASS + "\n"), text.toString());
            }
            try (CommandReply reply = AttachClient.execute(pid, "jcmd", List.of("No.such_command"),
                    Duration.ofSeconds(10))) {
                assertEquals(-1, reply.status());
                assertEquals("java.lang.IllegalArgumentException: Unknown diagnostic command\n", reply.text());
            }
            stop(pid);
            try {
                long start = System.nanoTime();
                AttachException e = assertThrows(AttachException.class,
                        () -> AttachClient.jcmd(pid, "VM.version", Duration.ofMillis(500)));
                assertEquals(AttachException.Reason.TIMED_OUT, e.reason(), e.getMessage());
                assertTrue(System.nanoTime() - start < TimeUnit.SECONDS.toNanos(5), "the time-out was not kept");
            } finally {
                signal(pid, "CONT");
            }
            try (CommandReply reply = AttachClient.jcmd(pid, "VM.version", Duration.ofSeconds(10))) {
                assertTrue(reply.text().contains("JDK 17"), "a VM that runs again answers again");
            }
        }
    }

    @Test
    void refusesAVmThatDisabledAttach() throws Exception {
        // Attach disabled, seen in the performance data and, without them, on the command line (what
        // is no VM, or a socket that is not the VM's, the C++ attach tests try with fake VMs).
        for (List<String> options : List.of(List.of("-XX:+DisableAttachMechanism"),
                List.of("-XX:-UsePerfData", "-XX:+DisableAttachMechanism"))) {
            try (JdkVm vm = new JdkVm(options.toArray(String[]::new))) {
                Launcher.Result r = Launcher.run("threads", Integer.toString(vm.pid()));
                assertEquals(1, r.exitCode(), options + "\n" + r);
                assertTrue(r.err().contains("does not accept attach requests (it runs with "
                        + "-XX:+DisableAttachMechanism): not signalled"), options + "\n" + r);
                Launcher.Result attach = Launcher.run("attach", Integer.toString(vm.pid()));
                assertEquals(1, attach.exitCode(), attach.toString());
                assertTrue(attach.err().contains("VM pid " + vm.pid() + " does not accept attach requests"),
                        attach.toString());
                assertFalse(Files.exists(Path.of("/tmp/.java_pid" + vm.pid())), options.toString());
                assertTrue(vm.process().process().isAlive(), "a VM that refuses the attach runs on");
            }
        }
    }

    private static void signal(int pid, String signal) throws IOException, InterruptedException {
        assertEquals(0, new ProcessBuilder("kill", "-" + signal, Integer.toString(pid)).start().waitFor());
    }

    /** Stops the VM and waits until every one of its threads has stopped (a stop is not immediate). */
    private static void stop(int pid) throws Exception {
        signal(pid, "STOP");
        Spawned.until(10, "VM pid " + pid + " stopping", () -> {
            try (Stream<Path> tasks = Files.list(Path.of("/proc", Integer.toString(pid), "task"))) {
                for (Path task : tasks.toList()) {
                    if (!Files.readString(task.resolve("status")).contains("\nState:\tT")) {
                        return false;
                    }
                }
            }
            return true;
        });
    }

    @Test
    void aVmThatEndsDuringTheAttachIsReportedAndItsTriggerRemoved() throws Exception {
        try (JdkVm vm = new JdkVm()) {
            stop(vm.pid());  // it takes the signal but cannot start its listener
            CompletableFuture<CommandReply> attach = CompletableFuture.supplyAsync(() -> {
                try {
                    return AttachClient.jcmd(vm.pid(), "VM.version", Duration.ofSeconds(30));
                } catch (AttachException e) {
                    throw new java.util.concurrent.CompletionException(e);
                }
            });
            // The client puts the trigger file into the VM's working folder or /tmp.
            String name = ".attach_pid" + vm.pid();
            List<Path> places = List.of(Path.of(System.getProperty("user.dir"), name), Path.of("/tmp", name));
            Spawned.until(10, "a trigger file " + name, () -> places.stream().anyMatch(Files::exists));
            Path trigger = places.stream().filter(Files::exists).findFirst().orElseThrow();
            signal(vm.pid(), "KILL");
            // Well before the attach's own 30 s time-out.
            ExecutionException e = assertThrows(ExecutionException.class, () -> attach.get(10, TimeUnit.SECONDS));
            AttachException cause = (AttachException) e.getCause();
            assertEquals(AttachException.Reason.GONE, cause.reason(), cause.getMessage());
            assertEquals("VM pid " + vm.pid() + " ended during the attach", cause.getMessage());
            assertFalse(Files.exists(trigger), "the trigger file " + trigger + " was left behind");
        }
    }
}
