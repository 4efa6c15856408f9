package com.nox.jvm.agent;

import static com.nox.jvm.agent.ControlAreaLayout.*;

import java.io.IOException;
import java.util.function.IntConsumer;

/**
 * Looks at the request flags of the VM's slot and acts on the ones that are raised. A requester
 * stores a request's parameters first and then sets its flag to 1; the watcher clears the flag
 * before it acts, so a request raised again meanwhile is seen at the next look.
 */
final class RequestWatcher {
    private final PublishedArea area;
    private final IntConsumer exit;
    private final Runnable gc;
    private final int[] flags = new int[FLAGS.length];
    private int handled;

    /** {@code exit} ends the VM with the given code; {@code gc} runs a garbage collection. */
    RequestWatcher(PublishedArea area, IntConsumer exit, Runnable gc) {
        this.area = area;
        this.exit = exit;
        this.gc = gc;
    }

    /**
     * One look at every flag; returns how many were raised, or -1 when the file was found
     * damaged (cut, or its header overwritten): nothing in it is then taken for a request.
     */
    int check() throws IOException {
        if (!area.readFlags(flags)) {
            return -1;
        }
        int raised = 0;
        for (int i = 0; i < FLAGS.length; i++) {
            if (flags[i] == 0) {
                continue;
            }
            raised++;
            int flag = FLAGS[i];
            area.putInt(flag, 0);
            switch (flag) {
                case F_EXIT -> exit.accept(area.readInt(V_REQUESTED_EXIT_CODE));
                case F_GC, F_MAXIMUM_COMPACTION_GC -> gc.run();
                case F_START_DEBUGGING, F_STOP_DEBUGGING -> {
                    // Not available on demand in a stock VM: the state stays as published.
                    area.putInt(V_DEBUGGING_STATE, DEBUGGING_NOT_ACTIVE);
                    area.putInt(V_CURRENT_DEBUG_PORT, -1);
                }
                default -> {
                    // A request a stock VM has no means for: cleared, nothing done.
                }
            }
        }
        handled += raised;
        return raised;
    }

    /** Requests seen since the start. */
    int handled() {
        return handled;
    }
}
