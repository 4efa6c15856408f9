package com.nox.jvm.inspector.host;

import java.util.Optional;

/**
 * The names that VMs publish under /tmp, parsed back: a process cluster's control-area file
 * {@code nox_jvm_<uid>_<pid>}, a performance-data folder {@code hsperfdata_<user>} and the
 * {@code <pid>} files in it. Anyone can create names under /tmp: a name counts only when it is
 * exactly of its form (decimal numbers that fit an int, nothing before or after).
 */
public final class FileNames {
    private static final String CONTROL_AREA_PREFIX = "nox_jvm_";
    private static final String PERF_DATA_PREFIX = "hsperfdata_";

    /** A control-area file's name: the uid it names as its owner and the pid of its process. */
    public record ControlAreaName(int uid, int pid) {
    }

    private FileNames() {
    }

    public static Optional<ControlAreaName> controlArea(String name) {
        if (!name.startsWith(CONTROL_AREA_PREFIX)) {
            return Optional.empty();
        }
        String rest = name.substring(CONTROL_AREA_PREFIX.length());
        int blank = rest.indexOf('_');
        if (blank < 0) {
            return Optional.empty();
        }
        int uid = number(rest.substring(0, blank));
        int pid = number(rest.substring(blank + 1));
        return uid >= 0 && pid > 0 ? Optional.of(new ControlAreaName(uid, pid)) : Optional.empty();
    }

    /** The user a performance-data folder is named after; empty for any other name. */
    public static Optional<String> perfDataFolderUser(String name) {
        return name.startsWith(PERF_DATA_PREFIX) && name.length() > PERF_DATA_PREFIX.length()
                ? Optional.of(name.substring(PERF_DATA_PREFIX.length())) : Optional.empty();
    }

    /** The pid a performance-data file is named after; -1 for any other name. */
    public static int perfDataPid(String name) {
        int pid = number(name);
        return pid > 0 ? pid : -1;
    }

    /** A decimal number of at most 10 digits that fits an int; -1 for anything else. */
    private static int number(String text) {
        if (text.isEmpty() || text.length() > 10) {
            return -1;
        }
        long value = 0;
        for (int i = 0; i < text.length(); i++) {
            char c = text.charAt(i);
            if (c < '0' || c > '9') {
                return -1;
            }
            value = value * 10 + (c - '0');
        }
        return value <= Integer.MAX_VALUE ? (int) value : -1;
    }
}
