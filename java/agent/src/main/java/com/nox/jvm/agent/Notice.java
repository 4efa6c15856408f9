package com.nox.jvm.agent;

import java.io.PrintStream;

/**
 * The agent's word on the application's standard error when something goes wrong while it runs:
 * one line, and at most one a minute however often it happens again, so that a file cut over
 * and over never floods the application's output. What was not said is counted in the next line.
 */
final class Notice {
    static final long QUIET_NANOS = 60_000_000_000L;

    private final PrintStream err;
    private boolean said;
    private long saidAt;
    private int unsaid;

    Notice(PrintStream err) {
        this.err = err;
    }

    /** Says "nox-agent: {@code what}" unless a line was said less than a minute ago. */
    void say(String what, long nanoTime) {
        if (said && nanoTime - saidAt < QUIET_NANOS) {
            unsaid++;
            return;
        }
        err.println("nox-agent: " + what + (unsaid == 0 ? "" : " (" + unsaid + " more held back since the last line)"));
        said = true;
        saidAt = nanoTime;
        unsaid = 0;
    }
}
