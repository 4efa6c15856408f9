package com.nox.jvm.inspector.host;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;

/**
 * The CPU time a VM's process has used (user plus system), from {@code /proc/PID/stat}, which
 * every user may read for every process. Linux counts these times in USER_HZ ticks, 100 a second
 * on every architecture a JDK runs on.
 */
public final class ProcessCpu {
    static final double TICKS_PER_SECOND = 100;

    /** Seconds since the epoch at which the host booted (btime of /proc/stat); read once. */
    private static volatile long bootTime = -1;

    private ProcessCpu() {
    }

    /**
     * User plus system seconds of the process, or -1 when there is no such process or it is not
     * the VM's (its start is not {@code startTime}: the pid was reused). A {@code startTime} of 0
     * (unknown) takes the process as it is.
     */
    public static double seconds(int pid, long startTime) {
        if (pid <= 0) {
            return -1;
        }
        String stat;
        try {
            stat = Files.readString(Path.of("/proc", Integer.toString(pid), "stat"), StandardCharsets.ISO_8859_1);
        } catch (IOException | RuntimeException e) {
            return -1;
        }
        // The command name may hold blanks and parentheses: the fields start after the last ')'.
        int close = stat.lastIndexOf(')');
        String[] fields = close < 0 ? new String[0] : stat.substring(close + 1).trim().split(" ");
        if (fields.length < 20) {
            return -1;
        }
        try {
            long user = Long.parseLong(fields[11]);
            long system = Long.parseLong(fields[12]);
            long started = Long.parseLong(fields[19]);
            long boot = bootTime();
            if (startTime > 0 && boot > 0 && Math.abs(boot + (long) (started / TICKS_PER_SECOND) - startTime) > 1) {
                return -1;
            }
            return (user + system) / TICKS_PER_SECOND;
        } catch (NumberFormatException e) {
            return -1;
        }
    }

    private static long bootTime() {
        long known = bootTime;
        if (known >= 0) {
            return known;
        }
        try {
            for (String line : Files.readAllLines(Path.of("/proc/stat"), StandardCharsets.ISO_8859_1)) {
                if (line.startsWith("btime ")) {
                    known = Long.parseLong(line.substring(6).trim());
                    bootTime = known;
                    return known;
                }
            }
        } catch (IOException | RuntimeException e) {
            // no /proc/stat: the start cannot be checked
        }
        return 0;
    }
}
