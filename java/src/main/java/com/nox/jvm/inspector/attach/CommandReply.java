package com.nox.jvm.inspector.attach;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.atomic.AtomicBoolean;

/**
 * The answer of a VM to one command: its status, then its output as a stream read from the
 * VM's socket as it arrives, so that a thread dump of 10,000 threads never has to fit in one
 * array. Close it (also when the output is not read): it holds the connection and native memory.
 * The output may be read by one thread while another closes the reply; the read then ends.
 */
public final class CommandReply implements AutoCloseable {
    private final int pid;
    private final String command;
    private final int status;
    private final int timeoutMillis;
    private final Object reading = new Object();
    private final AtomicBoolean closed = new AtomicBoolean();
    private final InputStream output = new Output();
    private long handle;

    CommandReply(int pid, String command, long handle, int timeoutMillis) {
        this.pid = pid;
        this.command = command;
        this.handle = handle;
        this.timeoutMillis = timeoutMillis;
        this.status = AttachNatives.status0(handle);
    }

    public int pid() {
        return pid;
    }

    /** The command as it was sent, e.g. {@code jcmd} or {@code load}. */
    public String command() {
        return command;
    }

    /** The VM's status for the command: 0 when it ran it; otherwise the output says why not. */
    public int status() {
        return status;
    }

    public boolean succeeded() {
        return status == 0;
    }

    /**
     * The command's output, read from the VM as it comes; each read waits at most the time-out
     * given for the command ({@link AttachException} with reason TIMED_OUT).
     */
    public InputStream output() {
        return output;
    }

    /** The whole output as UTF-8 text: for commands whose output is short. */
    public String text() throws IOException {
        ByteArrayOutputStream all = new ByteArrayOutputStream();
        transferTo(all);
        return all.toString(StandardCharsets.UTF_8);
    }

    /** Copies the rest of the output to {@code out} in chunks; the number of bytes. */
    public long transferTo(OutputStream out) throws IOException {
        return output.transferTo(out);
    }

    @Override
    public void close() {
        if (!closed.compareAndSet(false, true)) {
            return;
        }
        AttachNatives.close0(handle);  // releases a read that waits for the VM
        synchronized (reading) {
            AttachNatives.free0(handle);
            handle = 0;
        }
    }

    private final class Output extends InputStream {
        @Override
        public int read() throws IOException {
            byte[] one = new byte[1];
            return read(one, 0, 1) < 0 ? -1 : one[0] & 0xff;
        }

        @Override
        public int read(byte[] bytes, int offset, int length) throws IOException {
            java.util.Objects.checkFromIndexSize(offset, length, bytes.length);
            if (length == 0) {
                return 0;
            }
            synchronized (reading) {
                if (closed.get()) {
                    throw new IOException("the reply of VM pid " + pid + " is closed");
                }
                return AttachNatives.read0(handle, bytes, offset, length, timeoutMillis);
            }
        }

        @Override
        public void close() {
            CommandReply.this.close();
        }
    }
}
