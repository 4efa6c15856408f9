package com.nox.jvm.inspector.cli;

import java.util.ArrayList;
import java.util.List;

/**
 * A text table: columns as wide as their widest cell, two blanks apart, no trailing blanks. Cells
 * are shown as given: {@link Output} makes them printable first.
 */
final class Table {
    private final String[] header;
    private final boolean[] rightAligned;
    private final List<String[]> rows = new ArrayList<>();

    /** Column names; a name starting with '>' is right-aligned (numbers), the '>' is not shown. */
    Table(String... columns) {
        header = new String[columns.length];
        rightAligned = new boolean[columns.length];
        for (int i = 0; i < columns.length; i++) {
            rightAligned[i] = columns[i].startsWith(">");
            header[i] = rightAligned[i] ? columns[i].substring(1) : columns[i];
        }
    }

    void add(Object... cells) {
        if (cells.length != header.length) {
            throw new IllegalArgumentException(cells.length + " cells for " + header.length + " columns");
        }
        String[] row = new String[cells.length];
        for (int i = 0; i < cells.length; i++) {
            row[i] = String.valueOf(cells[i]);
        }
        rows.add(row);
    }

    boolean isEmpty() {
        return rows.isEmpty();
    }

    @Override
    public String toString() {
        int[] widths = new int[header.length];
        List<String[]> all = new ArrayList<>();
        all.add(header);
        all.addAll(rows);
        for (String[] row : all) {
            for (int i = 0; i < row.length; i++) {
                widths[i] = Math.max(widths[i], row[i].length());
            }
        }
        StringBuilder sb = new StringBuilder();
        for (String[] row : all) {
            StringBuilder line = new StringBuilder();
            for (int i = 0; i < row.length; i++) {
                if (i > 0) {
                    line.append("  ");
                }
                String pad = " ".repeat(widths[i] - row[i].length());
                line.append(rightAligned[i] ? pad + row[i] : row[i] + pad);
            }
            sb.append(line.toString().stripTrailing()).append('\n');
        }
        return sb.toString();
    }
}
