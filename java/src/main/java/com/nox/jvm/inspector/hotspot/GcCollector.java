package com.nox.jvm.inspector.hotspot;

/**
 * One garbage collector of a HotSpot VM (its performance counters sun.gc.collector.N.*).
 *
 * @param name             as the VM names it, e.g. "G1 young collection pauses"
 * @param invocations      collections so far
 * @param timeTicks        their total time, in ticks of the VM's clock
 * @param timeSeconds      the same time in seconds (ticks divided by the VM's tick frequency);
 *                         -1 when the frequency is not published
 * @param lastEntryTicks   when the last collection began, in ticks since the VM began
 * @param lastExitTicks    when it ended
 */
public record GcCollector(String name, long invocations, long timeTicks, double timeSeconds, long lastEntryTicks,
                          long lastExitTicks) {
}
