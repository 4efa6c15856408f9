package com.nox.jvm.inspector.cli;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.Iterator;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * Pids that {@code watch} looks at on later ticks, each until its deadline: at most a fixed number
 * per tick, so that however many names someone plants or touches under /tmp, a tick costs no more
 * than that many looks. Pids named by a new event are looked at first, in the order of their
 * events; the others take turns.
 */
final class Pending {
    /** A pending pid: the uid its name gives (-1 when none) and until when to look at it. */
    record Entry(int pid, int uid, long deadlineNanos) {
    }

    private final Map<Integer, Entry> entries = new HashMap<>();
    /** Pids named by an event since they were last looked at, oldest event first. */
    private final ArrayDeque<Integer> fresh = new ArrayDeque<>();
    private final Set<Integer> inFresh = new HashSet<>();
    /** Pids looked at before, in turn order. */
    private final LinkedHashSet<Integer> turn = new LinkedHashSet<>();

    /** Adds the pid or gives it a new deadline; either way it is looked at before those that take turns. */
    void add(int pid, int uid, long deadlineNanos) {
        entries.put(pid, new Entry(pid, uid, deadlineNanos));
        turn.remove(pid);
        if (inFresh.add(pid)) {
            fresh.add(pid);
        }
    }

    void remove(int pid) {
        entries.remove(pid);
        turn.remove(pid);
        // A pid left in the fresh queue is skipped when its turn comes.
        inFresh.remove(pid);
    }

    boolean contains(int pid) {
        return entries.containsKey(pid);
    }

    /**
     * Up to {@code count} entries whose deadline has not passed (those whose deadline has passed
     * are dropped on the way), each then put at the end of the turn.
     */
    List<Entry> next(int count, long nowNanos) {
        // The turn as it stands before this call: pids taken now go to its end, after these.
        List<Integer> turns = new ArrayList<>(count);
        for (Iterator<Integer> it = turn.iterator(); it.hasNext() && turns.size() < count; ) {
            turns.add(it.next());
        }
        List<Entry> taken = new ArrayList<>();
        while (taken.size() < count && !fresh.isEmpty()) {
            int pid = fresh.poll();
            if (inFresh.remove(pid)) {
                take(pid, nowNanos, taken);
            }
        }
        for (int i = 0; i < turns.size() && taken.size() < count; i++) {
            int pid = turns.get(i);
            if (turn.remove(pid)) {
                take(pid, nowNanos, taken);
            }
        }
        return taken;
    }

    private void take(int pid, long nowNanos, List<Entry> taken) {
        Entry e = entries.get(pid);
        if (e == null) {
            return;
        }
        if (nowNanos - e.deadlineNanos() >= 0) {
            entries.remove(pid);
            return;
        }
        taken.add(e);
        turn.add(pid);
    }
}
