package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.VmRef;

import org.junit.jupiter.api.Test;

/** The inspector's formatting and parsing, in process: units, JSON text, tables and VM names. */
class FormattingTest {

    @Test
    void bytesInBinaryUnits() {
        assertEquals("0 B", Human.bytes(0));
        assertEquals("1023 B", Human.bytes(1023));
        assertEquals("1 KiB", Human.bytes(1024));
        assertEquals("1.5 KiB", Human.bytes(1536));
        assertEquals("256 MiB", Human.bytes(256L << 20));
        assertEquals("1.5 GiB", Human.bytes(3L << 29));
        // Just below a unit, rounding to one decimal carries into the next unit.
        assertEquals("1 MiB", Human.bytes((1L << 20) - 1));
        assertEquals("8 EiB", Human.bytes(Long.MAX_VALUE));
        assertEquals("-1", Human.bytes(-1));
    }

    @Test
    void durations() {
        assertEquals("0s", Human.duration(0));
        assertEquals("3s", Human.duration(3));
        assertEquals("59s", Human.duration(59));
        assertEquals("1m00s", Human.duration(60));
        assertEquals("2m05s", Human.duration(125));
        assertEquals("1h02m", Human.duration(3720));
        assertEquals("23h59m", Human.duration(86399));
        assertEquals("3d04h", Human.duration(3 * 86400 + 4 * 3600 + 59));
        assertEquals("-", Human.duration(-1));
    }

    @Test
    void jsonEscapesEverythingOutsidePrintableAscii() {
        Json j = new Json().beginObject().name("s").value("q\"b\\s/\b\f\n\r\t\u0001\u007f\u00e9\u20ac\ud83d\ude00")
                .name("n").value(-5).name("t").value(true).name("z").nullValue().name("o").beginObject().endObject()
                .name("a").beginArray().value(1).value("x").endArray().endObject();
        assertEquals("{\n  \"s\": \"q\\\"b\\\\s/\\b\\f\\n\\r\\t\\u0001\\u007f\\u00e9\\u20ac\\ud83d\\ude00\",\n"
                + "  \"n\": -5,\n  \"t\": true,\n  \"z\": null,\n  \"o\": {},\n  \"a\": [\n    1,\n    \"x\"\n  ]\n}\n",
                j.toString());
    }

    @Test
    void jsonRefusesMisplacedNames() {
        assertThrows(IllegalStateException.class, () -> new Json().name("x"));
        assertThrows(IllegalStateException.class, () -> new Json().beginArray().endObject().toString());
        assertThrows(IllegalStateException.class, () -> new Json().value(1).value(2));
        assertThrows(IllegalStateException.class, () -> new Json().beginObject().value(1));
        assertThrows(IllegalStateException.class, () -> new Json().beginArray().name("x"));
    }

    @Test
    void tableAlignsColumnsAndShowsControlCharacters() {
        Table t = new Table("NAME", ">N");
        t.add("a\tb", 7);
        t.add("long name", 1234);
        assertEquals("NAME          N\na\\tb          7\nlong name  1234\n", t.toString());
    }

    @Test
    void vmNames() {
        assertEquals(new Target(1234, null), Target.parse("1234"));
        assertEquals(new Target(null, new VmRef(ClusterType.INSTANCE, 84, 2)), Target.parse("instance:84:2"));
        assertEquals(new Target(null, new VmRef(ClusterType.INSTANCE, 84, 2)), Target.parse("2:84:2"));
        assertEquals(new Target(null, new VmRef(ClusterType.PROCESS, 99, 0)), Target.parse("Process:99:0"));
        for (String bad : new String[] {"", "x", "0", "-1", "2147483648", "1:2", "1:2:3:4", "3:1:0", "1:a:0",
            "1:1:-1", "1::0"}) {
            CliError e = assertThrows(CliError.class, () -> Target.parse(bad), bad);
            assertEquals(CliError.USAGE, e.exitCode(), bad);
        }
    }
}
