package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostChange;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.host.InstanceSegments;

import java.io.IOException;
import java.nio.file.ClosedWatchServiceException;
import java.nio.file.FileSystems;
import java.nio.file.WatchKey;
import java.nio.file.WatchService;
import java.time.Instant;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Set;
import java.util.concurrent.TimeUnit;

/**
 * {@code noxinspect watch}: prints the VMs of this host as they appear, change and vanish, one line
 * (or one JSON object) each, until interrupted. What it prints is the difference between the VMs
 * it has told and a {@link HostSnapshot} of the host model, which it keeps up to date in part:
 * file events on /tmp and on the performance-data folders say which names to look at, but only a
 * read of the sources says what is there, so no event that another user can cause makes a VM
 * appear or vanish by itself. Every tick ({@value #TICK_MILLIS} ms) costs a bounded amount of work
 * whatever /tmp holds (see {@link WatchedFiles}); a lost event (the queue overflowed) leads to a
 * full read of the host. Instance clusters are followed through the kernel's segment list, read
 * every tick; a VM killed outright (its files stay) is noticed by a look at its process every
 * {@value #LIVENESS_MILLIS} ms.
 *
 * <p>A VM that is about to publish both sources is told once with both: one known only by its
 * performance data waits up to {@value #GRACE_MILLIS} ms for a control area of its pid (an agent
 * makes it while the VM starts), and one known only by its control area waits as long for a
 * performance-data file of its pid that is being written. A VM that gains or loses a source later
 * is told as changed; one that loses a source waits as long first, since a VM that ends removes its
 * control area before its performance data, and is then told only as vanished.
 */
final class Watch {
    static final long TICK_MILLIS = 10;
    static final long GRACE_MILLIS = 500;
    private static final long LIVENESS_MILLIS = 250;
    /** How long a changed instance cluster is read again (a VM marks its slot after it attached). */
    private static final long SETTLE_MILLIS = 500;
    /** The least time between two full reads after lost events. */
    private static final long RESYNC_MILLIS = 1000;

    private final Output out;
    private final Host host = new Host();
    private final Map<HostVm.Key, HostVm> told = new LinkedHashMap<>();
    /** VMs not yet told, waiting out their grace: pid to when they were first seen. */
    private final Map<Integer, Long> held = new HashMap<>();
    private HostSnapshot current;
    private WatchedFiles files;
    private Map<Integer, InstanceSegments.Segment> segments = Map.of();
    private final Map<Integer, Long> settling = new HashMap<>();
    private long nextAreaRead;
    private long nextLiveness;
    private long nextResync;

    Watch(Output out) {
        this.out = out;
    }

    void run() {
        try (WatchService service = FileSystems.getDefault().newWatchService()) {
            // Watching starts before the first read, so that nothing falls between the two.
            files = new WatchedFiles(service);
            segments = host.instanceSegments();
            current = host.snapshot();
            for (HostVm vm : current.vms()) {
                told.put(vm.key(), vm);
                print("present", vm);
            }
            files.lookAtUnknownNames(current, System.nanoTime());
            while (true) {
                WatchKey events = service.poll(TICK_MILLIS, TimeUnit.MILLISECONDS);
                while (events != null) {
                    files.take(events, current, System.nanoTime());
                    events = service.poll();
                }
                tick(System.nanoTime());
            }
        } catch (InterruptedException | ClosedWatchServiceException e) {
            Thread.currentThread().interrupt();
        } catch (IOException e) {
            throw CliError.broken("cannot watch /tmp: " + e.getMessage());
        }
    }

    private void tick(long now) throws IOException {
        boolean areasWanted = files.controlAreasWanted(current, now) | segmentsChanged(now);
        if (areasWanted && now - nextAreaRead >= 0) {
            long began = System.nanoTime();
            current = host.withControlAreas(current);
            // A read that is slow (many names under /tmp) is made less often: watch's share of a
            // CPU stays bounded however often events ask for one.
            nextAreaRead = began + Math.max(TimeUnit.MILLISECONDS.toNanos(TICK_MILLIS), 4 * (System.nanoTime() - began));
        }
        List<Integer> perf = files.perfDataWanted(current, now);
        if (!perf.isEmpty()) {
            current = host.withHotSpot(current, perf);
            files.perfDataRead(current);
        }
        if (now - nextLiveness >= 0) {
            current = host.withoutEnded(current);
            nextLiveness = now + TimeUnit.MILLISECONDS.toNanos(LIVENESS_MILLIS);
        }
        if (files.resyncWanted() && now - nextResync >= 0) {
            files.resync(current, now);
            current = host.snapshot();
            nextResync = now + TimeUnit.MILLISECONDS.toNanos(RESYNC_MILLIS);
        }
        tell(now);
    }

    /** Reads the segment list; a cluster whose segment appeared, vanished or changed is read for a while. */
    private boolean segmentsChanged(long now) {
        Map<Integer, InstanceSegments.Segment> fresh = host.instanceSegments();
        for (int id : union(segments, fresh)) {
            if (!Objects.equals(segments.get(id), fresh.get(id))) {
                settling.put(id, now + TimeUnit.MILLISECONDS.toNanos(SETTLE_MILLIS));
            }
        }
        segments = fresh;
        settling.values().removeIf(until -> now - until >= 0);
        return !settling.isEmpty();
    }

    private static Set<Integer> union(Map<Integer, ?> a, Map<Integer, ?> b) {
        Set<Integer> ids = new HashSet<>(a.keySet());
        ids.addAll(b.keySet());
        return ids;
    }

    /** Prints what differs between the VMs told and the snapshot; VMs in their grace wait. */
    private void tell(long now) {
        for (HostChange change : HostSnapshot.changes(told.values(), current.vms())) {
            HostVm vm = change.vm();
            switch (change.kind()) {
                case APPEARED -> {
                    if (!waits(vm.pid(), appearsAlone(vm), now)) {
                        told.put(vm.key(), vm);
                        print("appeared", vm);
                    }
                }
                case CHANGED -> {
                    // A VM that ends removes its control area first: it waits, and is told only as vanished.
                    if (!waits(vm.pid(), vm.sources().size() < change.before().sources().size(), now)) {
                        told.remove(change.before().key());
                        told.put(vm.key(), vm);
                        print("changed", vm);
                    }
                }
                case ENDED -> {
                    told.remove(vm.key());
                    print("vanished", vm);
                }
            }
        }
        held.keySet().removeIf(pid -> current.allWithPid(pid).isEmpty());
    }

    /** A new VM with one source whose other source may show soon. */
    private boolean appearsAlone(HostVm vm) {
        return vm.sources().size() == 1 && (vm.controlArea().isEmpty() || files.perfDataPending(vm.pid()));
    }

    /** Whether the VM of this pid still waits: {@code wanted} for at most the grace since it was first held. */
    private boolean waits(int pid, boolean wanted, long now) {
        if (!wanted) {
            held.remove(pid);
            return false;
        }
        long since = held.computeIfAbsent(pid, p -> now);
        if (now - since < TimeUnit.MILLISECONDS.toNanos(GRACE_MILLIS)) {
            return true;
        }
        held.remove(pid);
        return false;
    }

    private void print(String event, HostVm vm) {
        out.line(line(event, vm, Instant.now()));
    }

    /** One line of watch: when, what, and the VM in the shape of {@link VmDocs#vm}. */
    static Doc line(String event, HostVm vm, Instant time) {
        Doc line = new Doc().put("time", "", time.toString()).put("event", event)
                .text("", String.format("%-8s", event))
                .text("", vm.clusterName() + (vm.slot() != null ? ":" + vm.slot() : "")).text("pid", vm.pid());
        if (vm.vmId() != null) {
            line.text("VM id", vm.vmId());
        }
        return line.text("", vm.mainClass()).putAll(VmDocs.vm(vm, time.getEpochSecond()));
    }
}
