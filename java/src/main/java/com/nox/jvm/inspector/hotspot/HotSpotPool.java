package com.nox.jvm.inspector.hotspot;

/**
 * One memory pool of a HotSpot VM, from its performance counters, in bytes; a figure the VM does
 * not publish is -1.
 *
 * @param kind      which pool
 * @param used      in use
 * @param committed committed
 * @param max       the most it may grow to
 */
public record HotSpotPool(Kind kind, long used, long committed, long max) {
    /** The pools, in the order of the figures record. */
    public enum Kind {
        /** The young generation's eden (space 0). */
        EDEN(true),
        /** The young generation's survivor spaces (1 and 2): their use added up, the larger capacity. */
        SURVIVOR(true),
        /** The old generation's space; the whole heap for a collector of one generation. */
        OLD(true),
        /** The metaspace, class space included. */
        METASPACE(false),
        /** The compressed class space. */
        CLASS_SPACE(false);

        private final boolean heap;

        Kind(boolean heap) {
            this.heap = heap;
        }

        public boolean heap() {
            return heap;
        }
    }
}
