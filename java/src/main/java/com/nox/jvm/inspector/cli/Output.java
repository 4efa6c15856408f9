package com.nox.jvm.inspector.cli;

import java.io.PrintStream;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/**
 * Writes what a command shows, a {@link Doc}, as JSON (--json) or as text for a person, in one of
 * a few text forms: a table, label-value sections, one line, or lines the command gives. Every
 * string from the model passes through {@link Text#printable} on its way out, in both outputs.
 */
final class Output {
    private final PrintStream out;
    private final boolean json;

    Output(PrintStream out, boolean json) {
        this.out = out;
        this.json = json;
    }

    boolean json() {
        return json;
    }

    /**
     * Text: a table with one row per Doc in the list member {@code rowsKey}, its labelled members
     * as the columns (a label starting with '>' is a right-aligned column), or {@code whenEmpty}
     * when there are no rows.
     */
    void table(Doc doc, String rowsKey, String whenEmpty) {
        if (json) {
            out.print(json(doc, true));
            return;
        }
        List<Doc> rows = docs(find(doc, rowsKey));
        if (rows.isEmpty()) {
            out.println(whenEmpty);
            return;
        }
        List<Doc.Member> columns = labelled(rows.get(0));
        Table table = new Table(columns.stream().map(Doc.Member::label).toArray(String[]::new));
        for (Doc row : rows) {
            table.add(labelled(row).stream().map(m -> show(m.value(), m.show())).toArray());
        }
        out.print(table);
    }

    /**
     * Text: {@code title} on its own line, then the labelled members as lines of label and value;
     * a labelled member whose value is a Doc is a section of its own under its label as heading.
     */
    void sections(String title, Doc doc) {
        if (json) {
            out.print(json(doc, true));
            return;
        }
        out.println(Text.printable(title));
        printSection(doc);
    }

    /** JSON on one line; text: the labelled values on one line, a non-empty label before its value. */
    void line(Doc doc) {
        if (json) {
            out.print(json(doc, false));
        } else {
            List<String> parts = new ArrayList<>();
            for (Doc.Member m : labelled(doc)) {
                String value = show(m.value(), m.show());
                parts.add(m.label().isEmpty() ? value : Text.printable(m.label()) + " " + value);
            }
            out.println(String.join("  ", parts));
        }
        out.flush();
    }

    /**
     * One line of a stream that a command writes as it goes (stat, top): JSON, the Doc on one
     * line (nothing when it is null); text, the line as it is (nothing when it is null). Flushed,
     * so that a pipe sees each line at once.
     */
    void streamLine(Doc doc, String text) {
        if (json && doc != null) {
            out.print(json(doc, false));
        } else if (!json && text != null) {
            out.println(text);
        }
        out.flush();
    }

    /** JSON: the Doc; text: these lines. */
    void textOr(Doc doc, List<String> lines) {
        if (json) {
            out.print(json(doc, true));
            return;
        }
        for (String line : lines) {
            out.println(line);
        }
    }

    // ---------------------------------------------------------------- text

    private void printSection(Doc doc) {
        List<String[]> lines = new ArrayList<>();
        for (Doc.Member m : labelled(doc)) {
            if (m.value() instanceof Doc section) {
                printLines(lines);
                out.println();
                out.println(Text.printable(m.label()));
                printSection(section);
            } else {
                lines.add(new String[] {Text.printable(m.label()), show(m.value(), m.show())});
            }
        }
        printLines(lines);
    }

    private void printLines(List<String[]> lines) {
        int width = lines.stream().mapToInt(l -> l[0].length()).max().orElse(0);
        for (String[] l : lines) {
            out.println(("  " + l[0] + " ".repeat(width - l[0].length()) + "  " + l[1]).stripTrailing());
        }
        lines.clear();
    }

    /** A value as text; what is unknown or empty is "-". */
    static String show(Object value, Doc.Show show) {
        if (show == Doc.Show.NOTE) {
            return "";
        }
        if (value == null) {
            return "-";
        }
        switch (show) {
            case BYTES -> {
                long bytes = ((Number) value).longValue();
                return bytes < 0 ? "-" : Human.bytes(bytes);
            }
            case DURATION -> {
                return Human.duration(((Number) value).longValue());
            }
            case YES_NO -> {
                return Boolean.TRUE.equals(value) ? "yes" : "no";
            }
            default -> {
                if (value instanceof Double d) {
                    return String.format(Locale.ROOT, "%.3f", d);
                }
                String text = Text.printable(String.valueOf(value));
                return text.isEmpty() ? "-" : text;
            }
        }
    }

    private static List<Doc.Member> labelled(Doc doc) {
        return doc.members().stream().filter(m -> m.label() != null).toList();
    }

    private static Object find(Doc doc, String key) {
        return doc.members().stream().filter(m -> key.equals(m.key())).map(Doc.Member::value).findFirst()
                .orElse(null);
    }

    private static List<Doc> docs(Object value) {
        List<Doc> docs = new ArrayList<>();
        if (value instanceof List<?> list) {
            for (Object item : list) {
                docs.add((Doc) item);
            }
        }
        return docs;
    }

    // ---------------------------------------------------------------- JSON

    static String json(Doc doc, boolean indent) {
        Json j = new Json(indent);
        write(j, doc);
        return j.toString();
    }

    private static void write(Json j, Object value) {
        if (value == null) {
            j.nullValue();
        } else if (value instanceof Doc doc) {
            j.beginObject();
            for (Doc.Member m : doc.members()) {
                if (m.key() != null) {
                    j.name(m.key());
                    write(j, m.value());
                }
            }
            j.endObject();
        } else if (value instanceof List<?> list) {
            j.beginArray();
            list.forEach(item -> write(j, item));
            j.endArray();
        } else if (value instanceof Boolean b) {
            j.value(b);
        } else if (value instanceof Double || value instanceof Float) {
            j.value(((Number) value).doubleValue());
        } else if (value instanceof Number n) {
            j.value(n.longValue());
        } else {
            j.value(Text.printable(String.valueOf(value)));
        }
    }
}
