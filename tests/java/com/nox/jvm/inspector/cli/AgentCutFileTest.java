package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.nox.jvm.inspector.testing.AgentVm;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * A real JDK VM with nox-agent.jar whose control-area file someone cuts, overwrites or deletes
 * while it runs: each time the agent publishes again, with the VM's current figures, and it
 * still answers requests; its only word on standard error is one line.
 */
class AgentCutFileTest {
    /** The whole file: an 8-byte lead-in, the header and instance area (288), one per-VM area (46072). */
    private static final int FILE_SIZE = 8 + 288 + 46072;
    /** The start-debugging flag of the one slot, from the start of the file. */
    private static final int START_DEBUGGING_FLAG = 8 + 288 + 4;

    /** One way of damaging the file. */
    private interface Damage {
        void apply(Path file) throws IOException;
    }

    private record Case(String name, Damage damage) {
    }

    private static final List<Case> CASES = List.of(
            new Case("cut to 0 bytes", file -> cut(file, 0)),
            new Case("cut to 8 bytes", file -> cut(file, 8)),
            new Case("cut inside the per-VM area", file -> cut(file, 20000)),
            new Case("header overwritten", file -> overwrite(file, 0, 64, (byte) 0x5A)),
            new Case("deleted", Files::delete));

    private static void cut(Path file, long size) throws IOException {
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
            channel.truncate(size);
        }
    }

    private static void overwrite(Path file, long at, int count, byte value) throws IOException {
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
            ByteBuffer bytes = ByteBuffer.allocate(count);
            while (bytes.hasRemaining()) {
                bytes.put(value);
            }
            bytes.flip();
            while (bytes.hasRemaining()) {
                channel.write(bytes, at + bytes.position());
            }
        }
    }

    @Test
    void theAgentPublishesAgainAfterEachDamageAndStillAnswersRequests() throws Exception {
        Path errors = Files.createTempFile("nox-agent-cut-test", ".err");
        Path file;
        try {
            try (AgentVm vm = AgentVm.withAgentErrorsTo(errors, "refresh=100")) {
                file = vm.controlAreaFile();
                awaitCurrentFigures(vm, "at start");
                for (Case c : CASES) {
                    c.damage().apply(vm.controlAreaFile());
                    vm.gc();  // a figure that changes after the damage: the agent must still refresh
                    awaitCurrentFigures(vm, "after the file was " + c.name());
                    assertEquals(FILE_SIZE, Files.size(vm.controlAreaFile()), c.name());
                }
                Launcher.Result debug = Launcher.run("--json", "debug", "start", Long.toString(vm.pid()));
                assertEquals(0, debug.exitCode(), debug.toString());
                assertEquals("true", Launcher.flatJson(debug.out()).get("raised"), debug.toString());
                awaitFlagCleared(vm.controlAreaFile(), START_DEBUGGING_FLAG);

                Launcher.Result exit = Launcher.run("exit", Long.toString(vm.pid()), "4");
                assertEquals(0, exit.exitCode(), exit.toString());
                assertEquals(4, vm.awaitExit(5), "the VM did not end with status 4 within 5 s");
                assertFalse(Files.exists(vm.controlAreaFile()), "the file made again is removed at the end");
            }
            String said = Files.readString(errors);
            assertFalse(said.contains("\tat ") || said.contains("Exception") || said.contains("Error"),
                    "a stack trace on the VM's standard error:\n" + said);
            List<String> lines = said.lines().filter(l -> l.startsWith("nox-agent")).toList();
            assertEquals(1, lines.size(), "the agent reports the damage once:\n" + said);
            assertTrue(lines.get(0).contains(file.toString()), lines.get(0));
        } finally {
            Files.deleteIfExists(errors);
        }
    }

    /**
     * Waits (at most 5 s) until {@code info} reads the VM's control area with the collections the
     * VM itself counts, which the agent publishes within one refresh.
     */
    private static void awaitCurrentFigures(AgentVm vm, String when) throws Exception {
        long gcs = vm.readings().get("gcs");
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(5);
        Launcher.Result last = null;
        while (System.nanoTime() - deadline < 0) {
            last = Launcher.run("--json", "info", Long.toString(vm.pid()));
            if (last.exitCode() == 0) {
                Map<String, String> flat = Launcher.flatJson(last.out());
                if (("\"process:" + vm.pid() + "\"").equals(flat.get("vm.cluster"))
                        && Long.toString(gcs).equals(flat.get("memory.numberOfGcs"))) {
                    return;
                }
            }
            Thread.sleep(50);
        }
        fail("the VM's control area did not show its " + gcs + " collections within 5 s " + when + ":\n" + last);
    }

    /** Waits (at most 5 s) until the int32 at {@code offset} of the file reads 0. */
    private static void awaitFlagCleared(Path file, int offset) throws Exception {
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(5);
        while (System.nanoTime() - deadline < 0) {
            ByteBuffer bytes = ByteBuffer.wrap(Files.readAllBytes(file)).order(ByteOrder.nativeOrder());
            if (bytes.capacity() >= offset + 4 && bytes.getInt(offset) == 0) {
                return;
            }
            Thread.sleep(20);
        }
        fail("the agent did not clear the request flag at " + offset + " within 5 s");
    }
}
