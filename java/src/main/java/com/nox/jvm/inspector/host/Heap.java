package com.nox.jvm.inspector.host;

/**
 * The Java heap of a VM in bytes; a figure that no source publishes is -1.
 *
 * @param used      in use (performance data only: a control area does not publish it)
 * @param committed committed
 * @param max       the most it may grow to (performance data only)
 */
public record Heap(long used, long committed, long max) {
    public static final Heap UNKNOWN = new Heap(-1, -1, -1);
}
