package com.nox.jvm.inspector.cluster;

import java.io.ByteArrayInputStream;
import java.io.DataInputStream;
import java.io.EOFException;
import java.io.IOException;
import java.nio.charset.StandardCharsets;

/**
 * Reads the fields of one byte record: big-endian ints and longs, one-byte booleans, and
 * strings as a two-byte length followed by the raw bytes. A record shorter than its fields
 * raises {@link MalformedRecordException}.
 */
final class RecordReader {
    private final byte[] record;
    private final DataInputStream in;

    RecordReader(byte[] record) {
        if (record == null) {
            throw new MalformedRecordException("no record");
        }
        this.record = record;
        this.in = new DataInputStream(new ByteArrayInputStream(record));
    }

    int readInt() {
        try {
            return in.readInt();
        } catch (IOException e) {
            throw truncated(e);
        }
    }

    long readLong() {
        try {
            return in.readLong();
        } catch (IOException e) {
            throw truncated(e);
        }
    }

    boolean readBoolean() {
        try {
            return in.readBoolean();
        } catch (IOException e) {
            throw truncated(e);
        }
    }

    /** The string's bytes as the VM wrote them, decoded as UTF-8. */
    String readString() {
        try {
            int length = in.readUnsignedShort();
            byte[] bytes = new byte[length];
            in.readFully(bytes);
            return new String(bytes, StandardCharsets.UTF_8);
        } catch (IOException e) {
            throw truncated(e);
        }
    }

    /** The next {@code length} bytes as they are. */
    byte[] readBytes(int length) {
        if (length < 0) {
            throw new MalformedRecordException("negative length " + length + " in a " + record.length
                    + "-byte record");
        }
        try {
            if (length > in.available()) {
                throw new MalformedRecordException("record ends early (" + record.length + " bytes)");
            }
            byte[] bytes = new byte[length];
            in.readFully(bytes);
            return bytes;
        } catch (IOException e) {
            throw truncated(e);
        }
    }

    /** Fails when bytes are left over: the record has more fields than its reader knows. */
    void expectEnd() {
        try {
            if (in.available() != 0) {
                throw new MalformedRecordException(in.available() + " unread bytes at the end of a "
                        + record.length + "-byte record");
            }
        } catch (IOException e) {
            throw truncated(e);
        }
    }

    private MalformedRecordException truncated(IOException e) {
        String what = e instanceof EOFException ? "record ends early" : "record unreadable";
        return new MalformedRecordException(what + " (" + record.length + " bytes)");
    }
}
