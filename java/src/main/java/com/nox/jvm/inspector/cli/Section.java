package com.nox.jvm.inspector.cli;

import java.io.PrintStream;
import java.util.ArrayList;
import java.util.List;

/** Label-value lines under a heading, the values lined up; what {@code info} prints. */
final class Section {
    private final PrintStream out;
    private final List<String[]> lines = new ArrayList<>();

    Section(PrintStream out) {
        this.out = out;
    }

    void line(String label, Object value) {
        lines.add(new String[] {label, Human.printable(String.valueOf(value))});
    }

    /** Prints the lines under the heading (none when it is empty) and starts over. */
    void print(String heading) {
        if (!heading.isEmpty()) {
            out.println();
            out.println(heading);
        }
        int width = lines.stream().mapToInt(l -> l[0].length()).max().orElse(0);
        for (String[] l : lines) {
            out.println(("  " + l[0] + " ".repeat(width - l[0].length()) + "  " + l[1]).stripTrailing());
        }
        lines.clear();
    }
}
