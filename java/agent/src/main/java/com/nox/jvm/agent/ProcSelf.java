package com.nox.jvm.agent;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;

/**
 * What Linux tells this process about itself through /proc/self: its user ids and the CPU time
 * it has used, split into user and system time.
 */
final class ProcSelf implements AutoCloseable {
    /**
     * Linux reports the times of /proc/<pid>/stat in clock ticks of USER_HZ, which the kernel
     * fixes at 100 per second on every architecture a JDK 17 runs on (x86, arm, aarch64, ppc64,
     * s390x, riscv64). Without a native call Java cannot ask sysconf(_SC_CLK_TCK); the tests check
     * the rate against the JDK's own process CPU time.
     */
    static final int TICKS_PER_SECOND = 100;

    /** User and system CPU time in milliseconds, or -1 each when /proc cannot be read. */
    record CpuTimes(long userMillis, long systemMillis) {
    }

    private final FileChannel stat;
    private final ByteBuffer buffer = ByteBuffer.allocate(1024);

    ProcSelf() throws IOException {
        stat = FileChannel.open(Path.of("/proc/self/stat"), StandardOpenOption.READ);
    }

    /** Fields 14 (utime) and 15 (stime) of /proc/self/stat, counted after the last ')'. */
    CpuTimes cpuTimes() {
        try {
            buffer.clear();
            int n = stat.read(buffer, 0);
            if (n <= 0) {
                return new CpuTimes(-1, -1);
            }
            return parseStat(new String(buffer.array(), 0, n, StandardCharsets.US_ASCII));
        } catch (IOException e) {
            return new CpuTimes(-1, -1);
        }
    }

    static CpuTimes parseStat(String text) {
        int close = text.lastIndexOf(')');
        if (close < 0) {
            return new CpuTimes(-1, -1);
        }
        // After ") " come field 3 (state), 4, ...; utime is field 14, stime field 15.
        String[] fields = text.substring(close + 1).trim().split(" ");
        if (fields.length < 13) {
            return new CpuTimes(-1, -1);
        }
        try {
            long utime = Long.parseLong(fields[11]);
            long stime = Long.parseLong(fields[12]);
            return new CpuTimes(utime * 1000 / TICKS_PER_SECOND, stime * 1000 / TICKS_PER_SECOND);
        } catch (NumberFormatException e) {
            return new CpuTimes(-1, -1);
        }
    }

    /**
     * This process's pid, the target of the /proc/self link. ProcessHandle would give the same
     * number but starts the method-handle machinery of its lambdas, several milliseconds of CPU.
     */
    static long pid() throws IOException {
        return Long.parseLong(Files.readSymbolicLink(Path.of("/proc/self")).toString());
    }

    /** The real (index 0) or effective (index 1) user id from /proc/self/status, or -1. */
    static int userId(int index) {
        try {
            for (String line : Files.readAllLines(Path.of("/proc/self/status"), StandardCharsets.US_ASCII)) {
                if (line.startsWith("Uid:")) {
                    String[] ids = line.substring(4).trim().split("\\s+");
                    return Integer.parseInt(ids[index]);
                }
            }
        } catch (IOException | RuntimeException e) {
            return -1;
        }
        return -1;
    }

    @Override
    public void close() {
        try {
            stat.close();
        } catch (IOException e) {
            // Nothing to release beyond the descriptor, which is gone either way.
        }
    }
}
