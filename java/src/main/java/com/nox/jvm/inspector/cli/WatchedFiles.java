package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.FileNames;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;

import java.io.IOException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardWatchEventKinds;
import java.nio.file.WatchEvent;
import java.nio.file.WatchKey;
import java.nio.file.WatchService;
import java.nio.file.attribute.PosixFilePermission;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Set;
import java.util.concurrent.TimeUnit;

/**
 * The file events {@code watch} follows, and which names they make it look at. Anyone may create,
 * touch and delete names under /tmp, so an event is only a hint:
 * <ul>
 * <li>a control-area name {@code nox_jvm_<uid>_<pid>} that appears or changes is looked at (a
 *     few each tick, in turn) until its VM shows or its patience ends; it asks for a read of
 *     the control areas only while the file is a regular file of the uid in its name, large
 *     enough to hold a control area, and the pid's process belongs to that uid;</li>
 * <li>a deleted control-area name asks for a read only when it is the name of a VM that watch
 *     knows, under that VM's owner; the read then says whether the VM has ended;</li>
 * <li>performance-data folders are followed only when they are folders (not links) owned by the
 *     user they name and writable by no one else, as the reader takes them; their files are read
 *     (a few each tick) when the file and the pid's process belong to the folder's user;</li>
 * <li>a lost event (the queue overflowed) asks for a full read: folders, files, everything.</li>
 * </ul>
 */
final class WatchedFiles {
    static final Path TMP = Path.of("/tmp");
    /** Pending names looked at per tick (a look is a stat or two). */
    private static final int LOOKS_PER_TICK = 64;
    /** Performance-data files read per tick. */
    private static final int READS_PER_TICK = 8;
    private static final long PATIENCE_MILLIS = 5000;
    /** A control area is its 8-byte lead-in and a header; anything shorter is still being written, or none. */
    private static final long CONTROL_AREA_LEAST_BYTES = 8 + 32;
    /** The prologue of a performance-data file. */
    private static final long PERF_DATA_LEAST_BYTES = 32;

    /** A performance-data folder that is followed: its user's uid and name. */
    private record Folder(Path path, int uid) {
    }

    private final WatchService service;
    private final Map<WatchKey, Folder> folders = new HashMap<>();
    private final Pending areas = new Pending();
    private final Pending perf = new Pending();
    /** Live HotSpot VMs whose file was deleted: read again to see whether they have ended. */
    private final Set<Integer> perfGone = new LinkedHashSet<>();
    private boolean areaDeleted;
    private boolean resync;

    WatchedFiles(WatchService service) throws IOException {
        this.service = service;
        TMP.register(service, StandardWatchEventKinds.ENTRY_CREATE, StandardWatchEventKinds.ENTRY_DELETE,
                StandardWatchEventKinds.ENTRY_MODIFY);
        followFolders();
    }

    /**
     * The names of /tmp and of the followed folders whose VM the snapshot does not have, looked
     * at for a while: VMs that were still writing their files when the snapshot was read.
     */
    void lookAtUnknownNames(HostSnapshot snapshot, long now) throws IOException {
        try (DirectoryStream<Path> names = Files.newDirectoryStream(TMP, "nox_jvm_*")) {
            for (Path path : names) {
                FileNames.controlArea(path.getFileName().toString())
                        .filter(name -> !knowsProcessCluster(snapshot, name.pid()))
                        .ifPresent(name -> areas.add(name.pid(), name.uid(), now + patience()));
            }
        }
        for (Folder folder : List.copyOf(folders.values())) {
            lookAtFiles(folder, snapshot, now);
        }
    }

    private void lookAtFiles(Folder folder, HostSnapshot snapshot, long now) {
        try (DirectoryStream<Path> files = Files.newDirectoryStream(folder.path())) {
            for (Path file : files) {
                int pid = FileNames.perfDataPid(file.getFileName().toString());
                if (pid > 0 && snapshot.allWithPid(pid).stream().noneMatch(vm -> vm.hotspot().isPresent())) {
                    perf.add(pid, folder.uid(), now + patience());
                }
            }
        } catch (IOException | SecurityException e) {
            // gone meanwhile: nothing to look at
        }
    }

    /** Takes the events of one watched folder. */
    void take(WatchKey key, HostSnapshot snapshot, long now) {
        Folder folder = folders.get(key);
        for (WatchEvent<?> event : key.pollEvents()) {
            if (event.kind() == StandardWatchEventKinds.OVERFLOW) {
                resync = true;
            } else if (folder == null) {
                tmpEvent(event.kind(), event.context().toString(), snapshot, now);
            } else {
                perfEvent(folder, event.kind(), event.context().toString(), snapshot, now);
            }
        }
        if (!key.reset() && folder != null) {
            folders.remove(key);  // the folder is gone; made again, it is followed anew
        }
    }

    private void tmpEvent(WatchEvent.Kind<?> kind, String name, HostSnapshot snapshot, long now) {
        if (kind == StandardWatchEventKinds.ENTRY_CREATE && FileNames.perfDataFolderUser(name).isPresent()) {
            // A folder made just now may hold files made before it was followed.
            follow(TMP.resolve(name)).ifPresent(folder -> lookAtFiles(folder, snapshot, now));
            return;
        }
        Optional<FileNames.ControlAreaName> parsed = FileNames.controlArea(name);
        if (parsed.isEmpty()) {
            return;
        }
        FileNames.ControlAreaName area = parsed.get();
        if (kind == StandardWatchEventKinds.ENTRY_DELETE) {
            // Only the name of a known VM, under its owner, is worth a read; the read tells.
            areaDeleted |= snapshot.vms().stream().anyMatch(vm -> vm.isProcessCluster()
                    && vm.clusterId() == area.pid() && vm.controlArea().get().ownerUid() == area.uid());
        } else if (!knowsProcessCluster(snapshot, area.pid())) {
            areas.add(area.pid(), area.uid(), now + patience());
        }
    }

    private void perfEvent(Folder folder, WatchEvent.Kind<?> kind, String name, HostSnapshot snapshot, long now) {
        int pid = FileNames.perfDataPid(name);
        if (pid <= 0) {
            return;
        }
        Optional<HostVm> known = snapshot.allWithPid(pid).stream().filter(vm -> vm.hotspot().isPresent()).findFirst();
        if (kind == StandardWatchEventKinds.ENTRY_DELETE) {
            if (known.map(vm -> vm.hotspot().get().uid() == folder.uid()).orElse(false)) {
                perfGone.add(pid);
            }
        } else if (known.isEmpty()) {
            perf.add(pid, folder.uid(), now + patience());
        }
    }

    /**
     * Looks at some pending control-area names; true when one of them may hold a VM by now, or a
     * known VM's name was deleted: the control areas are then worth a read.
     */
    boolean controlAreasWanted(HostSnapshot snapshot, long now) {
        boolean wanted = areaDeleted;
        areaDeleted = false;
        for (Pending.Entry e : areas.next(LOOKS_PER_TICK, now)) {
            if (knowsProcessCluster(snapshot, e.pid())) {
                areas.remove(e.pid());
                continue;
            }
            Path file = TMP.resolve("nox_jvm_" + e.uid() + "_" + e.pid());
            Look look = look(file, e.uid(), e.pid(), CONTROL_AREA_LEAST_BYTES);
            if (look == Look.NEVER) {
                areas.remove(e.pid());
            }
            wanted |= look == Look.READY;
        }
        return wanted;
    }

    /** The pids whose performance data is worth a read now: deleted files of live VMs, then new files. */
    List<Integer> perfDataWanted(HostSnapshot snapshot, long now) {
        List<Integer> pids = new ArrayList<>(perfGone);
        perfGone.clear();
        for (Pending.Entry e : perf.next(LOOKS_PER_TICK, now)) {
            if (pids.size() >= READS_PER_TICK) {
                break;
            }
            Optional<Path> folder = folderOf(e.uid());
            Look look = folder.map(f -> look(f.resolve(Integer.toString(e.pid())), e.uid(), e.pid(),
                    PERF_DATA_LEAST_BYTES)).orElse(Look.NEVER);
            if (look == Look.NEVER) {
                perf.remove(e.pid());
            } else if (look == Look.READY) {
                pids.add(e.pid());
            }
        }
        return pids;
    }

    /** After a read: the pids now live leave the pending ones. */
    void perfDataRead(HostSnapshot snapshot) {
        for (HostVm vm : snapshot.vms()) {
            vm.hotspot().ifPresent(f -> perf.remove(f.pid()));
        }
    }

    /** Whether a performance-data file of this pid is being written (its VM not yet live). */
    boolean perfDataPending(int pid) {
        return perf.contains(pid);
    }

    boolean resyncWanted() {
        return resync;
    }

    /** After lost events: every folder and name looked at again (the caller then reads the whole host). */
    void resync(HostSnapshot snapshot, long now) throws IOException {
        resync = false;
        followFolders();
        lookAtUnknownNames(snapshot, now);
    }

    // ---------------------------------------------------------------- looks

    private enum Look { READY, NOT_YET, NEVER }

    /**
     * Whether a file may hold a VM's data now: a regular file (not a link) of {@code uid}, at least
     * {@code least} bytes long, whose pid's process belongs to {@code uid}. NOT_YET: still short;
     * NEVER: gone, another owner's, or no such process.
     */
    private static Look look(Path file, int uid, int pid, long least) {
        try {
            Map<String, Object> attributes = Files.readAttributes(file, "unix:uid,size,isRegularFile",
                    LinkOption.NOFOLLOW_LINKS);
            if (!Boolean.TRUE.equals(attributes.get("isRegularFile")) || !Integer.valueOf(uid).equals(
                    attributes.get("uid"))) {
                return Look.NEVER;
            }
            Object owner = Files.getAttribute(Path.of("/proc", Integer.toString(pid)), "unix:uid",
                    LinkOption.NOFOLLOW_LINKS);
            if (!Integer.valueOf(uid).equals(owner)) {
                return Look.NEVER;
            }
            return ((Long) attributes.get("size")) >= least ? Look.READY : Look.NOT_YET;
        } catch (IOException | UnsupportedOperationException | ClassCastException e) {
            return Look.NEVER;
        }
    }

    private static boolean knowsProcessCluster(HostSnapshot snapshot, int pid) {
        return snapshot.vms().stream().anyMatch(vm -> vm.isProcessCluster() && vm.clusterId() == pid);
    }

    private static long patience() {
        return TimeUnit.MILLISECONDS.toNanos(PATIENCE_MILLIS);
    }

    // ---------------------------------------------------------------- folders

    /** Follows every performance-data folder of /tmp that is not followed yet. */
    private void followFolders() throws IOException {
        try (DirectoryStream<Path> names = Files.newDirectoryStream(TMP, "hsperfdata_*")) {
            for (Path folder : names) {
                if (folders.values().stream().noneMatch(f -> f.path().equals(folder))) {
                    follow(folder);
                }
            }
        }
    }

    /**
     * Follows a performance-data folder if it is one the reader takes: a folder, not a link, owned
     * by the user it names, writable by no one else, and one this user may read.
     */
    private Optional<Folder> follow(Path folder) {
        Optional<String> user = FileNames.perfDataFolderUser(folder.getFileName().toString());
        try {
            Map<String, Object> attributes = Files.readAttributes(folder, "unix:uid,owner,permissions,isDirectory",
                    LinkOption.NOFOLLOW_LINKS);
            @SuppressWarnings("unchecked")
            Set<PosixFilePermission> mode = (Set<PosixFilePermission>) attributes.get("permissions");
            boolean trusted = Boolean.TRUE.equals(attributes.get("isDirectory")) && user.isPresent()
                    && user.get().equals(attributes.get("owner").toString())
                    && !mode.contains(PosixFilePermission.GROUP_WRITE) && !mode.contains(PosixFilePermission.OTHERS_WRITE);
            if (!trusted || !Files.isReadable(folder) || !Files.isExecutable(folder)) {
                return Optional.empty();
            }
            WatchKey key = folder.register(service, StandardWatchEventKinds.ENTRY_CREATE,
                    StandardWatchEventKinds.ENTRY_DELETE, StandardWatchEventKinds.ENTRY_MODIFY);
            Folder followed = new Folder(folder, (Integer) attributes.get("uid"));
            folders.put(key, followed);
            return Optional.of(followed);
        } catch (IOException | SecurityException | ClassCastException e) {
            return Optional.empty();  // gone meanwhile, or not this user's to read
        }
    }

    private Optional<Path> folderOf(int uid) {
        return folders.values().stream().filter(f -> f.uid() == uid).map(Folder::path).findFirst();
    }
}
