package com.nox.jvm.inspector.cluster;

import java.util.ArrayList;
import java.util.List;

/** One running cluster as the cluster list record names it. */
public record ClusterEntry(boolean attachable, ClusterType type, int typeCode, int id) {

    /** Decodes the cluster list record: int count, then 9 bytes per cluster. */
    public static List<ClusterEntry> decodeList(byte[] record) {
        RecordReader in = new RecordReader(record);
        int count = in.readInt();
        if (count < 0) {
            throw new MalformedRecordException("negative cluster count " + count);
        }
        List<ClusterEntry> clusters = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            boolean attachable = in.readBoolean();
            int type = in.readInt();
            int id = in.readInt();
            clusters.add(new ClusterEntry(attachable, ClusterType.of(type), type, id));
        }
        in.expectEnd();
        return clusters;
    }
}
