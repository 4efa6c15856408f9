package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.VmInspector;
import com.nox.jvm.inspector.cluster.VmInspector.Vm;
import com.nox.jvm.inspector.hotspot.HotSpotInspector;
import com.nox.jvm.inspector.hotspot.HotSpotVm;
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
import java.util.HashSet;
import java.util.Iterator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.TimeUnit;

/**
 * {@code noxinspect watch}: prints the VMs of this host as they appear and vanish, one line (or
 * one JSON object) each, until interrupted. Process clusters are followed through file events
 * on /tmp (inotify on Linux): a control-area file that appears or changes is read until its VM
 * is there, one that is deleted ends its VM. Instance clusters are followed by re-reading
 * /proc/sysvipc/shm every {@value #TICK_MILLIS} ms: a cluster whose segment appears, vanishes or
 * changes its attach count is read again, and for a short while after, since a VM marks its
 * slot in use only after it has attached.
 *
 * <p>HotSpot VMs are followed through file events on every /tmp/hsperfdata_USER folder this user
 * may read (and such folders as they are made): a performance-data file that appears is read
 * until its VM is live, as {@code list} reads it; one that is deleted, or whose process has
 * gone (a VM killed outright leaves its file), ends its VM. They are told with the cluster
 * "hotspot". A VM that publishes both a control area and performance data is told once: under
 * its control area when that is known first or within {@value #HOTSPOT_GRACE_MILLIS} ms of its
 * performance data turning live (an agent makes its control area while the VM starts), else as
 * "hotspot" for the rest of its life, its control area then making no line of its own.
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
    /** How long a live HotSpot VM waits for a control area of its pid before it is told as "hotspot". */
    static final long HOTSPOT_GRACE_MILLIS = 500;
    private static final String PERF_FOLDER_PREFIX = "hsperfdata_";

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

    private final HotSpotInspector hotspot = new HotSpotInspector();
    /** HotSpot VMs told as "hotspot", by pid. */
    private final Map<Integer, HotSpotVm> hotspotKnown = new LinkedHashMap<>();
    /** Pids of performance-data files seen made, with the time to give up on them. */
    private final Map<Integer, Long> pendingPerfFiles = new HashMap<>();
    /** Pids of live HotSpot VMs waiting out their grace, with its end. */
    private final Map<Integer, Long> hotspotGrace = new HashMap<>();
    /** Control-area VMs whose process is told as "hotspot": they make no lines. */
    private final Set<Key> silent = new HashSet<>();
    private WatchService files;
    private Path tmp;

    Watch(PrintStream out, boolean json) {
        this.out = out;
        this.json = json;
    }

    void run() {
        try (WatchService files = FileSystems.getDefault().newWatchService()) {
            this.files = files;
            tmp = Path.of("/tmp");
            tmp.register(files, StandardWatchEventKinds.ENTRY_CREATE, StandardWatchEventKinds.ENTRY_DELETE,
                    StandardWatchEventKinds.ENTRY_MODIFY);
            // Watching starts before the first pass, so that nothing falls between the two.
            try (var names = Files.list(tmp)) {
                names.filter(path -> path.getFileName().toString().startsWith(PERF_FOLDER_PREFIX))
                        .forEach(this::watchPerfFolder);
            }
            readSegments();
            for (Vm vm : inspector.host().vms().stream().map(f -> f.vm()).toList()) {
                known.put(key(vm), vm);
                print("present", vm);
            }
            for (HotSpotVm vm : hotspot.vms()) {
                if (!knowsPid(vm.pid())) {
                    hotspotKnown.put(vm.pid(), vm);
                    printHotSpot("present", vm);
                }
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
                checkPendingPerfFiles();
                if (System.nanoTime() - nextLiveness >= 0) {
                    checkProcessLiveness();
                    checkHotSpotLiveness();
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
        if (!tmp.equals(events.watchable())) {
            perfFileEvents(events);
            return;
        }
        long now = System.nanoTime();
        for (WatchEvent<?> event : events.pollEvents()) {
            if (event.kind() == StandardWatchEventKinds.OVERFLOW) {
                resync();
                continue;
            }
            String name = event.context().toString();
            if (name.startsWith(PERF_FOLDER_PREFIX) && event.kind() == StandardWatchEventKinds.ENTRY_CREATE) {
                watchPerfFolder(tmp.resolve(name));
                continue;
            }
            int pid = controlAreaPid(name);
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

    // ---------------------------------------------------------------- HotSpot VMs

    /**
     * Watches one performance-data folder, if this user may read it, and reads the files already
     * in it until their VMs are live (a folder made just now may hold files made before it was
     * watched).
     */
    private void watchPerfFolder(Path folder) {
        if (!Files.isDirectory(folder) || !Files.isReadable(folder) || !Files.isExecutable(folder)) {
            return;
        }
        try {
            folder.register(files, StandardWatchEventKinds.ENTRY_CREATE, StandardWatchEventKinds.ENTRY_DELETE);
            long until = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(FILE_PATIENCE_MILLIS);
            try (var names = Files.list(folder)) {
                names.map(path -> perfDataPid(path.getFileName().toString()))
                        .filter(pid -> pid > 0 && !hotspotKnown.containsKey(pid) && !knowsPid(pid))
                        .forEach(pid -> pendingPerfFiles.put(pid, until));
            }
        } catch (IOException | SecurityException e) {
            // A folder that went away or that this user may not read holds no VM this user sees.
        }
    }

    private void perfFileEvents(WatchKey events) {
        long now = System.nanoTime();
        for (WatchEvent<?> event : events.pollEvents()) {
            if (event.kind() == StandardWatchEventKinds.OVERFLOW) {
                resyncHotSpot();
                continue;
            }
            int pid = perfDataPid(event.context().toString());
            if (pid <= 0) {
                continue;
            }
            if (event.kind() == StandardWatchEventKinds.ENTRY_DELETE) {
                pendingPerfFiles.remove(pid);
                hotspotGrace.remove(pid);
                HotSpotVm gone = hotspotKnown.remove(pid);
                if (gone != null) {
                    printHotSpot("vanished", gone);
                }
            } else if (!hotspotKnown.containsKey(pid)) {
                pendingPerfFiles.put(pid, now + TimeUnit.MILLISECONDS.toNanos(FILE_PATIENCE_MILLIS));
            }
        }
        // A folder that was deleted is no longer watched; one made again is watched anew.
        events.reset();
    }

    /**
     * Reads the new performance-data files: a file is there before its VM has published its
     * figures, so it is read until the VM is live, as {@code list} would show it, or until the
     * patience ends. A live VM then waits out its grace for a control area of its pid.
     */
    private void checkPendingPerfFiles() {
        if (pendingPerfFiles.isEmpty() && hotspotGrace.isEmpty()) {
            return;
        }
        long now = System.nanoTime();
        for (Iterator<Map.Entry<Integer, Long>> it = pendingPerfFiles.entrySet().iterator(); it.hasNext(); ) {
            Map.Entry<Integer, Long> pending = it.next();
            int pid = pending.getKey();
            if (knowsPid(pid) || hotspotKnown.containsKey(pid)) {
                it.remove();
            } else if (hotspot.figures(pid).isPresent()) {
                hotspotGrace.put(pid, now + TimeUnit.MILLISECONDS.toNanos(HOTSPOT_GRACE_MILLIS));
                it.remove();
            } else if (now - pending.getValue() >= 0) {
                it.remove();
            }
        }
        for (Iterator<Map.Entry<Integer, Long>> it = hotspotGrace.entrySet().iterator(); it.hasNext(); ) {
            Map.Entry<Integer, Long> waiting = it.next();
            int pid = waiting.getKey();
            if (knowsPid(pid)) {
                it.remove();
            } else if (now - waiting.getValue() >= 0) {
                it.remove();
                hotspot.vms().stream().filter(vm -> vm.pid() == pid).findFirst().ifPresent(vm -> {
                    hotspotKnown.put(pid, vm);
                    printHotSpot("appeared", vm);
                });
            }
        }
    }

    /** A HotSpot VM killed outright leaves its file behind: its process is probed now and then. */
    private void checkHotSpotLiveness() {
        for (Iterator<Map.Entry<Integer, HotSpotVm>> it = hotspotKnown.entrySet().iterator(); it.hasNext(); ) {
            Map.Entry<Integer, HotSpotVm> entry = it.next();
            if (InspectorNatives.isProcessAlive0(entry.getKey()) == 0) {
                it.remove();
                printHotSpot("vanished", entry.getValue());
            }
        }
    }

    /** After lost events: the HotSpot VMs are read again and every difference told. */
    private void resyncHotSpot() {
        Map<Integer, HotSpotVm> now = new LinkedHashMap<>();
        for (HotSpotVm vm : hotspot.vms()) {
            now.put(vm.pid(), vm);
        }
        for (Iterator<Map.Entry<Integer, HotSpotVm>> it = hotspotKnown.entrySet().iterator(); it.hasNext(); ) {
            Map.Entry<Integer, HotSpotVm> entry = it.next();
            if (!now.containsKey(entry.getKey())) {
                it.remove();
                printHotSpot("vanished", entry.getValue());
            }
        }
        for (HotSpotVm vm : now.values()) {
            if (!hotspotKnown.containsKey(vm.pid()) && !knowsPid(vm.pid())) {
                hotspotKnown.put(vm.pid(), vm);
                printHotSpot("appeared", vm);
            }
        }
    }

    /** The pid of a performance-data file name (the pid alone), or -1 for any other name. */
    static int perfDataPid(String name) {
        if (!digits(name)) {
            return -1;
        }
        try {
            int pid = Integer.parseInt(name);
            return pid > 0 ? pid : -1;
        } catch (NumberFormatException e) {
            return -1;
        }
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

    /** Whether a control-area VM of this process is known (told or silent). */
    private boolean knowsPid(int pid) {
        return known.keySet().stream().anyMatch(k -> k.pid() == pid);
    }

    private static Key key(Vm vm) {
        return new Key(vm.ref().type(), vm.ref().clusterId(), vm.ref().slot(), vm.pid());
    }

    private void print(String event, Vm vm) {
        // A process told as "hotspot" keeps that name: its control area makes no lines.
        Key key = key(vm);
        if (event.equals("vanished") ? silent.remove(key) : hotspotKnown.containsKey(vm.pid()) && silent.add(key)) {
            return;
        }
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

    private void printHotSpot(String event, HotSpotVm vm) {
        String time = Instant.now().toString();
        if (json) {
            out.println("{\"time\":\"" + time + "\",\"event\":\"" + event + "\",\"cluster\":\"" + HotSpotView.CLUSTER
                    + "\",\"clusterType\":\"" + HotSpotView.CLUSTER + "\",\"clusterId\":null,\"slot\":null,\"pid\":"
                    + vm.pid() + ",\"vmId\":null}");
        } else {
            out.println(time + "  " + String.format("%-8s", event) + "  " + HotSpotView.CLUSTER + "  pid " + vm.pid());
        }
        out.flush();
    }
}
