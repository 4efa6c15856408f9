package com.nox.jvm.inspector.cli;

import java.util.ArrayDeque;
import java.util.Deque;

/**
 * Writes JSON text, indented by two spaces per level, or on one line. Strings are escaped so that the output is
 * plain ASCII: quotes, backslashes and control characters get their short escapes or a
 * backslash-u escape of four hex digits, and so does every character outside ASCII (UTF-16 code units, so
 * characters beyond the BMP become surrogate pairs, as JSON wants them). The output therefore
 * survives any terminal or locale encoding.
 */
final class Json {
    private final StringBuilder out = new StringBuilder();
    /** One entry per open container: true while it has no element yet. */
    private final Deque<Boolean> empty = new ArrayDeque<>();
    /** The closing bracket of each open container, innermost first. */
    private final Deque<Character> closers = new ArrayDeque<>();
    private final boolean indent;
    private boolean afterName;

    /** A writer that indents. */
    Json() {
        this(true);
    }

    /** {@code indent} false: the whole text on one line, no blanks. */
    Json(boolean indent) {
        this.indent = indent;
    }

    Json beginObject() {
        beforeValue();
        out.append('{');
        empty.push(true);
        closers.push('}');
        return this;
    }

    Json endObject() {
        return end('}');
    }

    Json beginArray() {
        beforeValue();
        out.append('[');
        empty.push(true);
        closers.push(']');
        return this;
    }

    Json endArray() {
        return end(']');
    }

    /** The name of the next member of the current object. */
    Json name(String name) {
        if (afterName || closers.isEmpty() || closers.peek() != '}') {
            throw new IllegalStateException("a name must stand inside an object, before a value");
        }
        newElement();
        quote(out, name);
        out.append(indent ? ": " : ":");
        afterName = true;
        return this;
    }

    Json value(String text) {
        beforeValue();
        if (text == null) {
            out.append("null");
        } else {
            quote(out, text);
        }
        return this;
    }

    Json value(long number) {
        beforeValue();
        out.append(number);
        return this;
    }

    /** A number with a fraction; null when it is not finite, which JSON cannot write. */
    Json value(double number) {
        beforeValue();
        out.append(Double.isFinite(number) ? Double.toString(number) : "null");
        return this;
    }

    Json value(boolean flag) {
        beforeValue();
        out.append(flag);
        return this;
    }

    Json nullValue() {
        beforeValue();
        out.append("null");
        return this;
    }

    /** The text written so far, with a final newline once every container is closed. */
    @Override
    public String toString() {
        return empty.isEmpty() ? out + "\n" : out.toString();
    }

    /** Appends {@code text} as a JSON string literal. */
    static void quote(StringBuilder sb, String text) {
        sb.append('"');
        for (int i = 0; i < text.length(); i++) {
            char c = text.charAt(i);
            switch (c) {
                case '"' -> sb.append("\\\"");
                case '\\' -> sb.append("\\\\");
                case '\b' -> sb.append("\\b");
                case '\f' -> sb.append("\\f");
                case '\n' -> sb.append("\\n");
                case '\r' -> sb.append("\\r");
                case '\t' -> sb.append("\\t");
                default -> {
                    if (c < 0x20 || c > 0x7e) {
                        sb.append(String.format("\\u%04x", (int) c));
                    } else {
                        sb.append(c);
                    }
                }
            }
        }
        sb.append('"');
    }

    private Json end(char close) {
        if (afterName || closers.isEmpty() || closers.peek() != close) {
            throw new IllegalStateException("no open container to close with " + close);
        }
        closers.pop();
        boolean wasEmpty = empty.pop();
        if (!wasEmpty) {
            newLine();
        }
        out.append(close);
        return this;
    }

    private void beforeValue() {
        if (afterName) {
            afterName = false;
            return;
        }
        if (!closers.isEmpty() && closers.peek() == '}') {
            throw new IllegalStateException("a value inside an object needs a name");
        }
        if (!empty.isEmpty()) {
            newElement();
        } else if (out.length() > 0) {
            throw new IllegalStateException("a JSON text holds one value");
        }
    }

    private void newElement() {
        if (!empty.peek()) {
            out.append(',');
        }
        empty.pop();
        empty.push(false);
        newLine();
    }

    private void newLine() {
        if (!indent) {
            return;
        }
        out.append('\n');
        out.append("  ".repeat(empty.size()));
    }
}
