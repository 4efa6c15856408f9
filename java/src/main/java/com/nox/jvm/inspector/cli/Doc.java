package com.nox.jvm.inspector.cli;

import java.util.ArrayList;
import java.util.List;

/**
 * What a command shows, built once from the model and written by {@link Output} either as JSON or
 * as text for a person: an ordered list of members, each with its JSON name, its text label, or
 * both. A member without a JSON name is text only (a column or line that only a person needs);
 * one without a label is JSON only. Values are null, strings, numbers, booleans, nested Docs and
 * lists of those.
 */
final class Doc {
    /** How a value reads as text; JSON writes the plain value. */
    enum Show {
        /** As it is; null and the empty string as "-". */
        PLAIN,
        /** A byte count in binary units ("1.5 GiB"); negative or null as "-". */
        BYTES,
        /** Whole seconds as "3m05s"; negative or null as "-". */
        DURATION,
        /** A boolean as yes or no. */
        YES_NO,
        /** No value: the label is a note of its own. */
        NOTE
    }

    /**
     * One member.
     *
     * @param key   its JSON name; null when it is text only
     * @param label its text label (a table's column, a section's line, a heading); null when it is JSON only
     */
    record Member(String key, String label, Object value, Show show) {
    }

    private final List<Member> members = new ArrayList<>();

    /** A JSON-only member. */
    Doc put(String key, Object value) {
        return add(key, null, value, Show.PLAIN);
    }

    /** A member shown in both outputs. */
    Doc put(String key, String label, Object value) {
        return add(key, label, value, Show.PLAIN);
    }

    Doc put(String key, String label, Object value, Show show) {
        return add(key, label, value, show);
    }

    /** A text-only member. */
    Doc text(String label, Object value) {
        return add(null, label, value, Show.PLAIN);
    }

    Doc text(String label, Object value, Show show) {
        return add(null, label, value, show);
    }

    /** A text-only line that is its label alone, e.g. why a section is empty. */
    Doc note(String label) {
        return add(null, label, null, Show.NOTE);
    }

    /** Every member of {@code other}, appended. */
    Doc putAll(Doc other) {
        members.addAll(other.members);
        return this;
    }

    List<Member> members() {
        return members;
    }

    private Doc add(String key, String label, Object value, Show show) {
        if (key == null && label == null) {
            throw new IllegalArgumentException("a member needs a JSON name or a text label");
        }
        if (value instanceof List<?> list) {
            value = List.copyOf(list);
        }
        members.add(new Member(key, label, value, show));
        return this;
    }
}
