package com.nox.jvm.inspector.cli;

/**
 * Makes text that another process wrote safe to show: every renderer passes such text through
 * {@link #printable} before it reaches a terminal, a JSON string or a metric label.
 */
final class Text {
    private Text() {
    }

    /**
     * The text with every character that could act on a terminal or change how the text reads
     * replaced by a visible escape: line feed, tab and carriage return as {@code \n}, {@code \t},
     * {@code \r}; the other C0 controls and DEL as {@code \xNN}; the C1 controls U+0080 to U+009F
     * (among them CSI, U+009B, which starts an escape sequence on many terminals), the
     * bidirectional overrides, embeddings, isolates and marks (which reorder what follows them),
     * the line and paragraph separators, and lone surrogates (half a character, which no encoder
     * writes faithfully) as a backslash, u and four hex digits. Everything else, including every other non-ASCII
     * character, is kept. Text that needs nothing is returned as it is.
     */
    static String printable(String text) {
        int i = 0;
        while (i < text.length() && !needsEscape(text, i)) {
            i++;
        }
        if (i == text.length()) {
            return text;
        }
        StringBuilder sb = new StringBuilder(text.length() + 16).append(text, 0, i);
        for (; i < text.length(); i++) {
            char c = text.charAt(i);
            if (!needsEscape(text, i)) {
                sb.append(c);
            } else if (c == '\n') {
                sb.append("\\n");
            } else if (c == '\t') {
                sb.append("\\t");
            } else if (c == '\r') {
                sb.append("\\r");
            } else if (c < 0x80) {
                sb.append("\\x").append(hex(c, 2));
            } else {
                sb.append("\\u").append(hex(c, 4));
            }
        }
        return sb.toString();
    }

    /** Whether the char at {@code i} is escaped; a high surrogate and the low one after it are a whole character. */
    private static boolean needsEscape(String text, int i) {
        char c = text.charAt(i);
        if (c >= 0x20 && c < 0x7f) {
            return false;
        }
        if (c < 0x20 || (c >= 0x7f && c <= 0x9f)) {
            return true;
        }
        if (Character.isHighSurrogate(c)) {
            return i + 1 >= text.length() || !Character.isLowSurrogate(text.charAt(i + 1));
        }
        if (Character.isLowSurrogate(c)) {
            return i == 0 || !Character.isHighSurrogate(text.charAt(i - 1));
        }
        return isReordering(c);
    }

    /** The characters that reorder or break the text around them. */
    private static boolean isReordering(char c) {
        return c == 0x061c                      // Arabic letter mark
                || c == 0x200e || c == 0x200f   // left-to-right and right-to-left marks
                || (c >= 0x202a && c <= 0x202e) // embeddings, pop, overrides
                || (c >= 0x2066 && c <= 0x2069) // isolates
                || c == 0x2028 || c == 0x2029;  // line and paragraph separators
    }

    private static String hex(int value, int digits) {
        String text = Integer.toHexString(value);
        return "0".repeat(Math.max(0, digits - text.length())) + text;
    }
}
