package com.nox.jvm.inspector.cli;

import java.io.FilterOutputStream;
import java.io.IOException;
import java.io.OutputStream;

/**
 * UTF-8 text from another process on its way to a terminal: every control character but tab and
 * newline (C0, DEL, and the C1 range U+0080 to U+009F, whose CSI starts escape sequences as ESC
 * does) becomes '?', so that a thread's name cannot retitle, clear or rewrite the operator's
 * terminal. Bytes pass through unchanged otherwise; a stream that goes to a file or a pipe is
 * not filtered at all, so it stays what the VM sent.
 */
final class TerminalSafe extends FilterOutputStream {
    private static final int C1_LEAD = 0xC2;

    /** A C2 byte waits for the next one, which decides whether the pair is a C1 control. */
    private boolean leadPending;

    TerminalSafe(OutputStream out) {
        super(out);
    }

    @Override
    public void write(int b) throws IOException {
        int c = b & 0xff;
        if (leadPending) {
            leadPending = false;
            if (c >= 0x80 && c <= 0x9f) {
                out.write('?');
                return;
            }
            out.write(C1_LEAD);
        }
        if (c == C1_LEAD) {
            leadPending = true;
        } else if ((c < 0x20 && c != '\t' && c != '\n') || c == 0x7f) {
            out.write('?');
        } else {
            out.write(c);
        }
    }

    @Override
    public void write(byte[] bytes, int offset, int length) throws IOException {
        for (int i = offset; i < offset + length; i++) {
            write(bytes[i]);
        }
    }

    /** Ends the text: a lead byte that no second byte followed is no character ('?'). */
    @Override
    public void flush() throws IOException {
        if (leadPending) {
            leadPending = false;
            out.write('?');
        }
        out.flush();
    }
}
