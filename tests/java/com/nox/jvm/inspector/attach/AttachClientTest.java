package com.nox.jvm.inspector.attach;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.testing.JdkVm;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * The Java API of the attach client on real JDK 17 VMs: the reply streamed, a VM that stops
 * answering, and one that ends while the client waits for its listener.
 */
class AttachClientTest {
    private static void signal(int pid, String signal) throws IOException, InterruptedException {
        assertEquals(0, new ProcessBuilder("kill", "-" + signal, Integer.toString(pid)).start().waitFor());
    }

    /** Stops the VM and waits until every one of its threads has stopped (a stop is not immediate). */
    private static void stop(int pid) throws IOException, InterruptedException {
        signal(pid, "STOP");
        Path tasks = Path.of("/proc", Integer.toString(pid), "task");
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (true) {
            boolean all = true;
            try (java.util.stream.Stream<Path> list = Files.list(tasks)) {
                for (Path task : list.toList()) {
                    all &= Files.readString(task.resolve("status")).contains("\nState:\tT");
                }
            }
            if (all) {
                return;
            }
            if (System.nanoTime() - deadline > 0) {
                fail("VM pid " + pid + " did not stop");
            }
            Thread.sleep(2);
        }
    }

    /** Where the client put the trigger file of {@code pid}: the VM's working folder or /tmp. */
    private static Path awaitTrigger(int pid) throws InterruptedException {
        String name = ".attach_pid" + pid;
        List<Path> places = List.of(Path.of(System.getProperty("user.dir"), name), Path.of("/tmp", name));
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (System.nanoTime() - deadline < 0) {
            for (Path p : places) {
                if (Files.exists(p)) {
                    return p;
                }
            }
            Thread.sleep(5);
        }
        return fail("no trigger file " + name + " appeared");
    }

    @Test
    void streamsTheOutputAndTimesOutOnAStoppedVm() throws Exception {
        try (JdkVm vm = new JdkVm()) {
            try (CommandReply reply = AttachClient.jcmd(vm.pid(), "VM.command_line", Duration.ofSeconds(10))) {
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
            try (CommandReply reply = AttachClient.execute(vm.pid(), "jcmd", List.of("No.such_command"),
                    Duration.ofSeconds(10))) {
                assertEquals(-1, reply.status());
                assertEquals("java.lang.IllegalArgumentException: Unknown diagnostic command\n", reply.text());
            }
            stop(vm.pid());
            try {
                long start = System.nanoTime();
                AttachException e = assertThrows(AttachException.class,
                        () -> AttachClient.jcmd(vm.pid(), "VM.version", Duration.ofMillis(500)));
                assertEquals(AttachException.Reason.TIMED_OUT, e.reason(), e.getMessage());
                assertTrue(System.nanoTime() - start < TimeUnit.SECONDS.toNanos(5), "the time-out was not kept");
            } finally {
                signal(vm.pid(), "CONT");
            }
            try (CommandReply reply = AttachClient.jcmd(vm.pid(), "VM.version", Duration.ofSeconds(10))) {
                assertTrue(reply.text().contains("JDK 17"), "a VM that runs again answers again");
            }
        }
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
            Path trigger = awaitTrigger(vm.pid());
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
