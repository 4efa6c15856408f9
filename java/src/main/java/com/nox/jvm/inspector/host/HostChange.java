package com.nox.jvm.inspector.host;

/**
 * How one VM differs between two snapshots of the host.
 *
 * @param kind   what happened
 * @param before the VM in the earlier snapshot; null when it appeared
 * @param after  the VM in the later snapshot; null when it ended
 */
public record HostChange(Kind kind, HostVm before, HostVm after) {

    public enum Kind {
        /** A VM that the earlier snapshot did not have. */
        APPEARED,
        /**
         * The same VM (same process) with other identity facts: it gained or lost a source
         * (an agent attached, its performance data turned live), or its cluster, version, main
         * class or owner changed.
         */
        CHANGED,
        /** A VM that the later snapshot does not have. */
        ENDED
    }

    /** The VM as it is now, or as it was last seen when it ended. */
    public HostVm vm() {
        return after != null ? after : before;
    }
}
