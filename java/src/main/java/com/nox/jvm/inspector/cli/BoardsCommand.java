package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.natives.MonitoringBoard;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;

/** {@code noxinspect boards}: the monitoring boards visible on this host, with their first bytes. */
final class BoardsCommand {
    /** Bytes of each monitoring board shown. */
    static final int PREFIX = 16;

    private BoardsCommand() {
    }

    static void run(List<MonitoringBoard> boards, Output out) {
        List<Doc> rows = new ArrayList<>();
        for (MonitoringBoard board : boards) {
            byte[] first = prefix(board);
            rows.add(new Doc().put("pid", ">PID", board.pid()).put("size", ">SIZE", board.size(), Doc.Show.BYTES)
                    .put("firstBytes", "FIRST BYTES", Human.hex(first, PREFIX)).text("AS TEXT", Human.ascii(first)));
        }
        out.table(new Doc().put("boards", rows), "boards", "No monitoring boards are visible on this host.");
    }

    private static byte[] prefix(MonitoringBoard board) {
        ByteBuffer buffer = board.buffer();
        byte[] bytes = new byte[Math.min(PREFIX, buffer.remaining())];
        buffer.get(bytes);
        return bytes;
    }
}
