package com.nox.jvm.inspector.hotspot;

import java.util.ArrayList;
import java.util.List;

/**
 * One performance counter of a HotSpot VM, as the VM published it.
 *
 * @param name         e.g. "sun.gc.collector.0.invocations"
 * @param type         'J' for a 64-bit number, 'B' for bytes (a string)
 * @param units        1 none, 2 bytes, 3 ticks, 4 events, 5 string, 6 hertz
 * @param variability  1 constant, 2 monotonic, 3 variable
 * @param flags        bit 0: a supported counter
 * @param longValue    the number, for type 'J'
 * @param stringValue  the bytes up to their terminator as text, for type 'B'; null for 'J'
 */
public record PerfCounter(String name, char type, int units, int variability, int flags, long longValue,
                          String stringValue) {

    public boolean isLong() {
        return type == 'J';
    }

    /** The value as the JDK's PerfCounter.print writes it: a number, or a text in quotes. */
    public String valueText() {
        return isLong() ? Long.toString(longValue) : '"' + stringValue + '"';
    }

    public String unitsName() {
        return switch (units) {
            case 1 -> "none";
            case 2 -> "bytes";
            case 3 -> "ticks";
            case 4 -> "events";
            case 5 -> "string";
            case 6 -> "hertz";
            default -> "unknown(" + units + ")";
        };
    }

    public String variabilityName() {
        return switch (variability) {
            case 1 -> "constant";
            case 2 -> "monotonic";
            case 3 -> "variable";
            default -> "unknown(" + variability + ")";
        };
    }

    /** Layout: string name, int type, int units, int variability, int flags, then long or string. */
    static PerfCounter read(RecordReader in) {
        String name = in.readString();
        int type = in.readInt();
        int units = in.readInt();
        int variability = in.readInt();
        int flags = in.readInt();
        if (type == 'J') {
            return new PerfCounter(name, 'J', units, variability, flags, in.readLong(), null);
        }
        if (type == 'B') {
            return new PerfCounter(name, 'B', units, variability, flags, 0, in.readString());
        }
        throw new com.nox.jvm.inspector.cluster.MalformedRecordException("counter " + name + " of type " + type);
    }

    static List<PerfCounter> decodeList(byte[] record) {
        RecordReader in = new RecordReader(record);
        List<PerfCounter> counters = new ArrayList<>();
        while (in.hasMore()) {
            counters.add(read(in));
        }
        return counters;
    }

    static PerfCounter decode(byte[] record) {
        RecordReader in = new RecordReader(record);
        PerfCounter counter = read(in);
        in.expectEnd();
        return counter;
    }
}
