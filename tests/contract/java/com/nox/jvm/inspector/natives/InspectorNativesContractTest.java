package com.nox.jvm.inspector.natives;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;

import com.nox.jvm.inspector.contract.ToolLibrary;
import com.nox.jvm.inspector.testing.Vmsim;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Test;

/**
 * Every inspector native through the tool's own InspectorNatives, with the tool's board classes:
 * one with both constructors (boards are then made from their file's name) and one with only
 * the required constructor (boards are then their mapped bytes).
 */
class InspectorNativesContractTest {
    static {
        ToolLibrary.load();
    }

    @Test
    void processQuestions() throws Exception {
        int own = (int) ProcessHandle.current().pid();
        Process ended = new ProcessBuilder("true").start();
        ended.waitFor(10, TimeUnit.SECONDS);
        int gone = (int) ended.pid();
        Process getconf = new ProcessBuilder("getconf", "_NPROCESSORS_CONF").start();
        int configured = Integer.parseInt(new String(getconf.getInputStream().readAllBytes()).trim());
        long started = ProcessHandle.current().info().startInstant().orElseThrow().getEpochSecond();

        assertEquals(own, InspectorNatives.getOwnProcessId0());
        assertEquals(1, InspectorNatives.isProcessAlive0(own));
        assertEquals(0, InspectorNatives.isProcessAlive0(gone));
        assertEquals(0, InspectorNatives.isProcessAlive0(0));
        assertEquals(started, InspectorNatives.getCreationTimeOfProcess0(own));
        assertEquals(0, InspectorNatives.getCreationTimeOfProcess0(gone));
        assertEquals(configured, InspectorNatives.getCpuCount0());
        assertFalse(InspectorNatives.couldElevate0());

        assertNull(InspectorNatives.getProfilingServerIdentifier0(own));
        assertEquals(-1, InspectorNatives.isFileSocketServerAttachable0(own));
        try (Vmsim vm = new Vmsim("--profiling-server")) {
            assertEquals(vm.field("servers"), InspectorNatives.getProfilingServerIdentifier0(vm.id()));
            assertEquals(0, InspectorNatives.isFileSocketServerAttachable0(vm.id()));
        }
    }

    private static Object boardOf(long pid) {
        Object found = null;
        for (Object board : InspectorNatives.getListOfVisibleMonitorBoards0()) {
            int boardPid = board instanceof Board b ? b.pid : ((BufferBoard) board).pid;
            if (boardPid == pid) {
                assertNull(found, "one board per process");
                found = board;
            }
        }
        return found;
    }

    @Test
    void boardsComeKeepTheirObjectAndGo() throws Exception {
        try (Vmsim vm = new Vmsim("--board", "4096")) {
            // With both constructors, the board is made from its file's name.
            InspectorNatives.initLocalMonitorBoards0(Board.class);
            Board named = (Board) boardOf(vm.id());
            assertEquals(vm.field("boards"), named.fileName);
            assertNull(named.buffer);

            // With only the required constructor, it is the board's bytes.
            InspectorNatives.initLocalMonitorBoards0(BufferBoard.class);
            BufferBoard board = (BufferBoard) boardOf(vm.id());
            assertNotNull(board);
            assertEquals(1, named.goneCalls, "the boards of the earlier class were given up");
            ByteBuffer bytes = board.buffer.order(ByteOrder.LITTLE_ENDIAN);
            assertEquals(4096, bytes.capacity());
            byte[] magic = new byte[8];
            bytes.get(0, magic);
            assertEquals("NOXBOARD", new String(magic, StandardCharsets.US_ASCII));
            assertEquals(vm.id(), bytes.getInt(8));
            assertSame(board, boardOf(vm.id()), "a board seen again keeps its object");

            // A board that says it is no longer alive is left out once and then made anew.
            board.alive = false;
            assertNull(boardOf(vm.id()));
            assertEquals(1, board.goneCalls);
            BufferBoard renewed = (BufferBoard) boardOf(vm.id());
            assertNotSame(board, renewed);

            vm.close();
            assertNull(boardOf(vm.id()));
            assertEquals(1, renewed.goneCalls);
            for (int i = 0; i < renewed.buffer.capacity(); i++) assertEquals(0, renewed.buffer.get(i), "byte " + i);
        }
    }
}
