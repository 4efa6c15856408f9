package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.VmInspector;
import com.nox.jvm.inspector.cluster.VmInspector.Vm;
import com.nox.jvm.inspector.natives.InspectorNatives;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.file.ClosedWatchServiceException;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardWatchEventKinds;
import java.nio.file.WatchEvent;
import java.nio.file.WatchKey;
import java.nio.file.WatchService;
import java.time.Instant;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.Iterator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/**
 * {@code noxinspect watch}: prints the VMs of this host as they appear and vanish, one line (or
 * one JSON object) each, until interrupted. Process clusters are followed through file events
 * on /tmp (inotify on Linux): a control-area file that appears or changes is read until its VM
 * is there, one that is deleted ends its VM. Instance clusters are followed by re-reading
 * /proc/sysvipc/shm every {@value #TICK_MILLIS} ms: a cluster whose segment appears, vanishes or
 * changes its attach count is read again, and for a short while after, since a VM marks its
 * slot in use only after it has attached.
 */
final class Watch {
    static final long TICK_MILLIS = 10;
    /** How long a changed cluster is read again on every tick. */
    private static final long SETTLE_MILLIS = 500;
    /** How long a new control-area file is read until its VM shows. */
    private static final long FILE_PATIENCE_MILLIS = 5000;
    /** How often the processes of known process-cluster VMs are probed (a killed VM leaves its file). */
    private static final long LIVENESS_MILLIS = 250;
    private static final String FILE_PREFIX = "nox_jvm_";
    private static final int INSTANCE_KEY_BASE = 4500000;
    private static final int INSTANCE_IDS = 99;

    /** One VM as watch tells it apart: a slot reused by another process is another VM. */
    private record Key(ClusterType type, int clusterId, int slot, int pid) {
    }

    private final VmInspector inspector = new VmInspector();
    private final PrintStream out;
    private final boolean json;
    private final Map<Key, Vm> known = new LinkedHashMap<>();
    /** Pids of control-area files seen created or changed, with the time to give up on them. */
    private final Map<Integer, Long> pendingFiles = new HashMap<>();
    /** Per instance-cluster id: shmid and attach count as last read, and the end of its settle time. */
    private final Map<Integer, String> segments = new HashMap<>();
    private final Map<Integer, Long> settling = new HashMap<>();

    Watch(PrintStream out, boolean json) {
        this.out = out;
        this.json = json;
    }

    void run() {
        try (WatchService files = FileSystems.getDefault().newWatchService()) {
            Path tmp = Path.of("/tmp");
            tmp.register(files, StandardWatchEventKinds.ENTRY_CREATE, StandardWatchEventKinds.ENTRY_DELETE,
                    StandardWatchEventKinds.ENTRY_MODIFY);
            // Watching starts before the first pass, so that nothing falls between the two.
            readSegments();
            for (Vm vm : inspector.host().vms().stream().map(f -> f.vm()).toList()) {
                known.put(key(vm), vm);
                print("present", vm);
            }
            // A VM that was still writing its file during the first pass is read again for a while.
            try (var names = Files.list(tmp)) {
                long until = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(FILE_PATIENCE_MILLIS);
                names.map(path -> controlAreaPid(path.getFileName().toString()))
                        .filter(pid -> pid > 0 && !knowsCluster(ClusterType.PROCESS, pid))
                        .forEach(pid -> pendingFiles.put(pid, until));
            }
            long nextLiveness = System.nanoTime();
            while (true) {
                WatchKey events = files.poll(TICK_MILLIS, TimeUnit.MILLISECONDS);
                if (events != null) {
                    fileEvents(events);
                }
                checkPendingFiles();
                checkSegments();
                if (System.nanoTime() - nextLiveness >= 0) {
                    checkProcessLiveness();
                    nextLiveness = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(LIVENESS_MILLIS);
                }
            }
        } catch (InterruptedException | ClosedWatchServiceException e) {
            Thread.currentThread().interrupt();
        } catch (IOException e) {
            throw CliError.broken("cannot watch /tmp: " + e.getMessage());
        }
    }

    // ---------------------------------------------------------------- process clusters

    private void fileEvents(WatchKey events) {
        long now = System.nanoTime();
        for (WatchEvent<?> event : events.pollEvents()) {
            if (event.kind() == StandardWatchEventKinds.OVERFLOW) {
                resync();
                continue;
            }
            int pid = controlAreaPid(event.context().toString());
            if (pid <= 0) {
                continue;
            }
            if (event.kind() == StandardWatchEventKinds.ENTRY_DELETE) {
                pendingFiles.remove(pid);
                sync(ClusterType.PROCESS, pid, List.of());
            } else if (!knowsCluster(ClusterType.PROCESS, pid)) {
                pendingFiles.put(pid, now + TimeUnit.MILLISECONDS.toNanos(FILE_PATIENCE_MILLIS));
            }
        }
        events.reset();
    }

    private void checkPendingFiles() {
        long now = System.nanoTime();
        for (Iterator<Map.Entry<Integer, Long>> it = pendingFiles.entrySet().iterator(); it.hasNext(); ) {
            Map.Entry<Integer, Long> pending = it.next();
            List<Vm> vms = inspector.vmsOf(ClusterType.PROCESS, pending.getKey());
            if (!vms.isEmpty()) {
                sync(ClusterType.PROCESS, pending.getKey(), vms);
                it.remove();
            } else if (now - pending.getValue() >= 0) {
                it.remove();
            }
        }
    }

    /** A VM killed outright leaves its file behind: its process is probed now and then. */
    private void checkProcessLiveness() {
        List<Key> ended = new ArrayList<>();
        for (Key key : known.keySet()) {
            if (key.type() == ClusterType.PROCESS && InspectorNatives.isProcessAlive0(key.pid()) == 0) {
                ended.add(key);
            }
        }
        for (Key key : ended) {
            print("vanished", known.remove(key));
        }
    }

    /** The pid of a control-area file name {@code nox_jvm_<uid>_<pid>}, or -1 for any other name. */
    static int controlAreaPid(String name) {
        if (!name.startsWith(FILE_PREFIX)) {
            return -1;
        }
        String[] parts = name.substring(FILE_PREFIX.length()).split("_", -1);
        if (parts.length != 2 || !digits(parts[0]) || !digits(parts[1])) {
            return -1;
        }
        try {
            Integer.parseInt(parts[0]);
            return Integer.parseInt(parts[1]);
        } catch (NumberFormatException e) {
            return -1;
        }
    }

    private static boolean digits(String text) {
        return !text.isEmpty() && text.length() <= 10 && text.chars().allMatch(c -> c >= '0' && c <= '9');
    }

    // ---------------------------------------------------------------- instance clusters

    private void checkSegments() {
        Map<Integer, String> before = new HashMap<>(segments);
        readSegments();
        long now = System.nanoTime();
        for (int id = 0; id < INSTANCE_IDS; id++) {
            String was = before.get(id);
            String is = segments.get(id);
            if (was == null ? is != null : !was.equals(is)) {
                settling.put(id, now + TimeUnit.MILLISECONDS.toNanos(SETTLE_MILLIS));
            }
        }
        for (Iterator<Map.Entry<Integer, Long>> it = settling.entrySet().iterator(); it.hasNext(); ) {
            Map.Entry<Integer, Long> entry = it.next();
            int id = entry.getKey();
            sync(ClusterType.INSTANCE, id, segments.containsKey(id) ? inspector.vmsOf(ClusterType.INSTANCE, id)
                    : List.of());
            if (now - entry.getValue() >= 0) {
                it.remove();
            }
        }
    }

    /** Reads shmid and attach count of every instance-cluster segment from /proc/sysvipc/shm. */
    private void readSegments() {
        segments.clear();
        List<String> lines;
        try {
            lines = Files.readAllLines(Path.of("/proc/sysvipc/shm"));
        } catch (IOException e) {
            return;
        }
        for (int i = 1; i < lines.size(); i++) {
            String[] fields = lines.get(i).trim().split("\\s+");
            if (fields.length < 7) {
                continue;
            }
            long key;
            try {
                key = Long.parseLong(fields[0]);
            } catch (NumberFormatException e) {
                continue;
            }
            long offset = key - INSTANCE_KEY_BASE;
            if (offset < 0 || offset % 100 != 0 || offset / 100 >= INSTANCE_IDS) {
                continue;
            }
            // Our own reads attach and detach again, so the attach count is back when we look.
            segments.put((int) (offset / 100), fields[1] + " " + fields[6]);
        }
    }

    // ---------------------------------------------------------------- changes

    private void resync() {
        Map<Key, Vm> now = new LinkedHashMap<>();
        for (var figures : inspector.host().vms()) {
            now.put(key(figures.vm()), figures.vm());
        }
        for (Iterator<Map.Entry<Key, Vm>> it = known.entrySet().iterator(); it.hasNext(); ) {
            Map.Entry<Key, Vm> entry = it.next();
            if (!now.containsKey(entry.getKey())) {
                it.remove();
                print("vanished", entry.getValue());
            }
        }
        for (Map.Entry<Key, Vm> entry : now.entrySet()) {
            if (known.putIfAbsent(entry.getKey(), entry.getValue()) == null) {
                print("appeared", entry.getValue());
            }
        }
    }

    /** Makes the known VMs of one cluster those of {@code vms}, printing every difference. */
    private void sync(ClusterType type, int clusterId, List<Vm> vms) {
        Map<Key, Vm> now = new LinkedHashMap<>();
        for (Vm vm : vms) {
            now.put(key(vm), vm);
        }
        for (Iterator<Map.Entry<Key, Vm>> it = known.entrySet().iterator(); it.hasNext(); ) {
            Map.Entry<Key, Vm> entry = it.next();
            Key key = entry.getKey();
            if (key.type() == type && key.clusterId() == clusterId && !now.containsKey(key)) {
                it.remove();
                print("vanished", entry.getValue());
            }
        }
        for (Map.Entry<Key, Vm> entry : now.entrySet()) {
            if (known.putIfAbsent(entry.getKey(), entry.getValue()) == null) {
                print("appeared", entry.getValue());
            }
        }
    }

    private boolean knowsCluster(ClusterType type, int clusterId) {
        return known.keySet().stream().anyMatch(k -> k.type() == type && k.clusterId() == clusterId);
    }

    private static Key key(Vm vm) {
        return new Key(vm.ref().type(), vm.ref().clusterId(), vm.ref().slot(), vm.pid());
    }

    private void print(String event, Vm vm) {
        String time = Instant.now().toString();
        String cluster = Commands.clusterName(vm.ref());
        if (json) {
            out.println("{\"time\":\"" + time + "\",\"event\":\"" + event + "\",\"cluster\":\"" + cluster
                    + "\",\"clusterType\":\"" + Commands.typeName(vm.ref().type(), vm.ref().type().code())
                    + "\",\"clusterId\":" + vm.ref().clusterId() + ",\"slot\":" + vm.ref().slot() + ",\"pid\":"
                    + vm.pid() + ",\"vmId\":" + vm.vmId() + "}");
        } else {
            out.println(time + "  " + String.format("%-8s", event) + "  " + cluster + ":" + vm.ref().slot() + "  pid "
                    + vm.pid() + "  VM id " + vm.vmId());
        }
        out.flush();
    }
}
