package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.util.Random;

import org.junit.jupiter.api.Test;

/**
 * The one rule that makes text from another process printable: each class of character, every
 * UTF-16 code unit, and random strings and random bytes decoded as the record readers decode them.
 */
class TextTest {

    /** True for what must never leave printable(): it acts on a terminal or reorders the text around it. */
    private static boolean dangerous(char c) {
        return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x061c || c == 0x200e || c == 0x200f
                || (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069) || c == 0x2028 || c == 0x2029;
    }

    @Test
    void eachClassOfCharacter() {
        String[][] cases = {
            {"plain ASCII ~!", "plain ASCII ~!"},
            {"tab\tline\ncr\r", "tab\\tline\\ncr\\r"},
            {"\u0000\u0001\u001b[2J\u007f", "\\x00\\x01\\x1b[2J\\x7f"},
            {"\u0080\u009b31m\u009f", "\\u0080\\u009b31m\\u009f"},
            {"a\u202eb\u2066c\u200fd\u061ce\u2028f", "a\\u202eb\\u2066c\\u200fd\\u061ce\\u2028f"},
            {"lone \ud800 high, lone \udc00 low", "lone \\ud800 high, lone \\udc00 low"},
            {"\udc00\ud800", "\\udc00\\ud800"},
            {"pair \ud83d\ude00 kept, \u00e9\u20ac\u4e2d\ufffd kept", "pair \ud83d\ude00 kept, \u00e9\u20ac\u4e2d\ufffd kept"},
            {"\ud83d\ud83d\ude00", "\\ud83d\ud83d\ude00"},
            {"back\\slash", "back\\slash"},
        };
        for (String[] c : cases) {
            assertEquals(c[1], Text.printable(c[0]), c[0]);
        }
    }

    /** Every code unit alone, and each between two letters: nothing dangerous survives, everything else does. */
    @Test
    void everyCodeUnit() {
        for (int u = 0; u <= 0xffff; u++) {
            char c = (char) u;
            String out = Text.printable("a" + c + "b");
            boolean escaped = dangerous(c) || Character.isSurrogate(c);
            assertEquals(escaped, !out.equals("a" + c + "b"), Integer.toHexString(u));
            assertSafe(out);
        }
    }

    /** Random strings of every kind of code unit, and random bytes decoded as UTF-8 (invalid ones too). */
    @Test
    void randomText() {
        Random random = new Random(20240607L);
        for (int round = 0; round < 20_000; round++) {
            char[] units = new char[random.nextInt(40)];
            for (int i = 0; i < units.length; i++) {
                // Half from the dangerous ranges and surrogates, half anywhere.
                units[i] = random.nextBoolean() ? (char) random.nextInt(0x10000)
                        : "\u0000\u001b\n\u007f\u0085\u009b\u202e\u2066\ud800\udbff\udc00\udfff".charAt(random.nextInt(12));
            }
            String text = new String(units);
            String out = Text.printable(text);
            assertSafe(out);
            assertEquals(out, Text.printable(out), "escaping twice changes nothing");
            byte[] bytes = new byte[random.nextInt(40)];
            random.nextBytes(bytes);
            assertSafe(Text.printable(new String(bytes, StandardCharsets.UTF_8)));
        }
        for (int b = 0; b < 256; b++) {
            assertSafe(Text.printable(new String(new byte[] {'x', (byte) b, 'y'}, StandardCharsets.UTF_8)));
        }
    }

    private static void assertSafe(String out) {
        for (int i = 0; i < out.length(); i++) {
            char c = out.charAt(i);
            assertTrue(!dangerous(c), "dangerous " + Integer.toHexString(c) + " in " + out);
            if (Character.isHighSurrogate(c)) {
                assertTrue(i + 1 < out.length() && Character.isLowSurrogate(out.charAt(++i)), "lone high half");
            } else {
                assertTrue(!Character.isLowSurrogate(c), "lone low half");
            }
        }
        // Whole characters only: the UTF-8 round trip gives the same text.
        assertEquals(out, new String(out.getBytes(StandardCharsets.UTF_8), StandardCharsets.UTF_8));
    }
}
