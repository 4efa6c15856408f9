package com.nox.jvm.inspector.hotspot;

import com.nox.jvm.inspector.cluster.MalformedRecordException;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;

/**
 * Reads the fields of a HotSpot byte record: big-endian ints and longs, strings as a two-byte
 * length followed by their bytes (UTF-8, as the VM wrote them). A record that ends inside a
 * field raises {@link MalformedRecordException}.
 */
final class RecordReader {
    private final ByteBuffer in;

    RecordReader(byte[] record) {
        if (record == null) {
            throw new MalformedRecordException("no record");
        }
        this.in = ByteBuffer.wrap(record);
    }

    boolean hasMore() {
        return in.hasRemaining();
    }

    int readInt() {
        need(4);
        return in.getInt();
    }

    long readLong() {
        need(8);
        return in.getLong();
    }

    String readString() {
        need(2);
        int length = Short.toUnsignedInt(in.getShort());
        need(length);
        String text = new String(in.array(), in.position(), length, StandardCharsets.UTF_8);
        in.position(in.position() + length);
        return text;
    }

    void expectEnd() {
        if (in.hasRemaining()) {
            throw new MalformedRecordException(in.remaining() + " unread bytes at the end of a " + in.limit()
                    + "-byte record");
        }
    }

    private void need(int bytes) {
        if (in.remaining() < bytes) {
            throw new MalformedRecordException("record ends early (" + in.limit() + " bytes)");
        }
    }
}
