package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.cluster.ClusterEntry;
import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.VmRef;

import java.util.Locale;

/** How clusters and debugging states are named wherever the inspector shows them. */
public final class Names {
    private Names() {
    }

    /** "process", "instance", or "unknown(N)" for a type this inspector does not know. */
    public static String clusterType(ClusterType type, int code) {
        return type == ClusterType.UNKNOWN ? "unknown(" + code + ")" : type.name().toLowerCase(Locale.ROOT);
    }

    /** "process:1234", "instance:84". */
    public static String cluster(ClusterEntry entry) {
        return clusterType(entry.type(), entry.typeCode()) + ":" + entry.id();
    }

    /** "process:1234", "instance:84" for a slot. */
    public static String cluster(VmRef ref) {
        return clusterType(ref.type(), ref.type().code()) + ":" + ref.clusterId();
    }

    /** {@code WAIT_FOR_DEBUGGER} as {@code wait-for-debugger}; an unknown code with its number. */
    public static String debuggingState(DebuggingState state, int code) {
        return state == DebuggingState.UNKNOWN ? "unknown(" + code + ")"
                : state.name().toLowerCase(Locale.ROOT).replace('_', '-');
    }
}
