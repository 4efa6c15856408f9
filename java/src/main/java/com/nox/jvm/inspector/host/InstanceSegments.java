package com.nox.jvm.inspector.host;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Collections;
import java.util.HashMap;
import java.util.Map;

/**
 * The System V segments of the host's instance clusters, from one read of /proc/sysvipc/shm (the
 * kernel's list of every segment, about 8 us): cluster id N has the key 4500000 + N * 100, for N
 * from 0 to 98. This is the Java side's only reading of that list.
 */
public final class InstanceSegments {
    static final Path LIST = Path.of("/proc/sysvipc/shm");
    private static final long KEY_BASE = 4_500_000;
    private static final int IDS = 99;

    /**
     * One instance cluster's segment.
     *
     * @param shmid       the segment's id: a new segment under the same key has another
     * @param attachCount processes attached to it now
     * @param ownerUid    the segment's owner
     */
    public record Segment(int shmid, long attachCount, int ownerUid) {
    }

    private InstanceSegments() {
    }

    /** The segments by cluster id; empty when the list cannot be read. */
    public static Map<Integer, Segment> read() {
        String text;
        try {
            text = Files.readString(LIST, StandardCharsets.ISO_8859_1);
        } catch (IOException e) {
            return Map.of();
        }
        return parse(text);
    }

    /** Parses the listing: a title line, then per segment key, shmid, perms, size, cpid, lpid, nattch, uid, ... */
    static Map<Integer, Segment> parse(String text) {
        Map<Integer, Segment> segments = new HashMap<>();
        String[] lines = text.split("\n");
        for (int i = 1; i < lines.length; i++) {
            String[] fields = lines[i].trim().split("\\s+");
            if (fields.length < 8) {
                continue;
            }
            try {
                long offset = Long.parseLong(fields[0]) - KEY_BASE;
                if (offset < 0 || offset % 100 != 0 || offset / 100 >= IDS) {
                    continue;
                }
                segments.put((int) (offset / 100), new Segment(Integer.parseInt(fields[1]),
                        Long.parseLong(fields[6]), Integer.parseInt(fields[7])));
            } catch (NumberFormatException e) {
                // not a line of this listing
            }
        }
        return Collections.unmodifiableMap(segments);
    }
}
