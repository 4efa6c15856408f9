package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.ClusterEntry;
import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmInspector;
import com.nox.jvm.inspector.cluster.VmInspector.Vm;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmNotFoundException;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.cluster.VmTimeInfo;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.HotSpotVm;
import com.nox.jvm.inspector.natives.InspectorNatives;
import com.nox.jvm.inspector.natives.MonitoringBoard;

import java.io.PrintStream;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.RecordComponent;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Optional;

/** The commands of the inspector, each writing either text or JSON to {@code out}. */
final class Commands {
    /** Bytes of each monitoring board shown by {@code boards}. */
    static final int BOARD_PREFIX = 16;

    private final PrintStream out;
    private final boolean json;
    private final VmInspector inspector = new VmInspector();
    private final HotSpotView hotspot;

    Commands(PrintStream out, boolean json) {
        this.out = out;
        this.json = json;
        this.hotspot = new HotSpotView(out, json);
    }

    // ---------------------------------------------------------------- list

    /** What {@code list} shows of one VM; records the VM no longer publishes are empty. */
    private record Row(Vm vm, Optional<VmStartInfo> start, Optional<VmDebugInfo> debug, long startedAt,
                       HotSpotVm hotspot) {
    }

    void list() {
        long now = System.currentTimeMillis() / 1000;
        // One pass over the host; rows come in cluster order (instance clusters by id, then
        // process clusters by pid) and slot order.
        HostPass pass = inspector.host();
        List<ClusterEntry> clusters = new ArrayList<>();
        List<Row> rows = new ArrayList<>();
        List<Integer> liveCounts = new ArrayList<>();
        // HotSpot VMs that publish performance data; one that also publishes a control area is
        // shown once, in its cluster's row, and leaves this map.
        Map<Integer, HotSpotVm> hotspotVms = hotspot.vmsByPid();
        for (HostPass.Cluster cluster : pass.clusters()) {
            clusters.add(cluster.entry());
            liveCounts.add(cluster.vms().size());
            for (HostPass.VmFigures vm : cluster.vms()) {
                rows.add(new Row(vm.vm(), vm.start(), vm.debug(), vm.processStart(), hotspotVms.remove(vm.vm().pid())));
            }
        }
        if (json) {
            Json j = new Json().beginObject().name("clusters").beginArray();
            for (int i = 0; i < clusters.size(); i++) {
                ClusterEntry c = clusters.get(i);
                j.beginObject().name("cluster").value(clusterName(c.type(), c.typeCode(), c.id()))
                        .name("type").value(typeName(c.type(), c.typeCode())).name("typeCode").value(c.typeCode())
                        .name("id").value(c.id()).name("attachable").value(c.attachable())
                        .name("liveVms").value(liveCounts.get(i)).endObject();
            }
            j.endArray().name("vms").beginArray();
            for (Row row : rows) {
                j.beginObject();
                vmMembers(j, row.vm(), row.startedAt(), now);
                j.name("version").value(row.start().map(VmStartInfo::vmVersion).orElse(null))
                        .name("mainClass").value(row.start().map(VmStartInfo::mainClass).orElse(null))
                        .name("debuggingState").value(row.debug().map(d -> d.state().name()).orElse(null));
                j.name("sources").beginArray().value("control-area");
                if (row.hotspot() != null) {
                    j.value(HotSpotView.CLUSTER).endArray().name("hotspot");
                    HotSpotView.vmJson(j, row.hotspot());
                } else {
                    j.endArray();
                }
                j.endObject();
            }
            for (HotSpotVm vm : hotspotVms.values()) {
                HotSpotView.listEntry(j, vm, now);
            }
            out.print(j.endArray().endObject());
            return;
        }
        Table table = new Table("CLUSTER", ">SLOT", ">PID", ">VM-ID", "VERSION", "MAIN-CLASS", "DEBUGGING", ">UPTIME");
        for (Row row : rows) {
            Vm vm = row.vm();
            HotSpotVm also = row.hotspot();
            String version = row.start().map(s -> orDash(s.vmVersion())).orElse("-");
            String mainClass = row.start().map(s -> orDash(s.mainClass())).orElse("-");
            table.add(clusterName(vm.ref()) + (also != null ? "+" + HotSpotView.CLUSTER : ""), vm.ref().slot(),
                    vm.pid(), vm.vmId(),
                    version.equals("-") && also != null ? orDash(also.vmVersion()) : version,
                    mainClass.equals("-") && also != null ? orDash(also.mainClass()) : mainClass,
                    row.debug().map(d -> stateName(d.state(), d.stateCode())).orElse("-"),
                    row.startedAt() > 0 ? Human.duration(now - row.startedAt()) : "-");
        }
        for (HotSpotVm vm : hotspotVms.values()) {
            table.add(HotSpotView.row(vm, now));
        }
        if (table.isEmpty()) {
            out.println("No Java VMs on this host publish a control area or performance data.");
        } else {
            out.print(table);
        }
    }

    // ---------------------------------------------------------------- info

    void info(Target target) {
        // One pass over the host finds the VM and reads all its records at once. A pid that no
        // control area names may be a HotSpot VM known only by its performance data.
        Optional<HostPass.VmFigures> found = findInPass(inspector.host(), target);
        if (target.pid() != null && found.isEmpty()) {
            Optional<HotSpotFigures> hotspotOnly = hotspot.figures(target.pid());
            if (hotspotOnly.isPresent()) {
                hotspot.info(hotspotOnly.get());
                return;
            }
        }
        HostPass.VmFigures figures = found.orElseThrow(() -> notFound(target));
        Vm vm = figures.vm();
        VmRef ref = vm.ref();
        VmStartInfo start = figures.start().orElseThrow(() -> gone(vm));
        Optional<VmTimeInfo> time = figures.time();
        Optional<VmMemoryInfo> memory = figures.memory();
        Optional<VmDebugInfo> debug = figures.debug();
        long startedAt = figures.processStart();
        long now = System.currentTimeMillis() / 1000;
        HotSpotFigures hotspotFigures = hotspot.figures(vm.pid()).orElse(null);
        if (json) {
            Json j = new Json().beginObject().name("vm").beginObject();
            vmMembers(j, vm, startedAt, now);
            j.endObject();
            j.name("start");
            recordJson(j, start);
            j.name("time");
            recordJson(j, time.orElse(null));
            j.name("memory");
            recordJson(j, memory.orElse(null));
            j.name("debugging");
            recordJson(j, debug.orElse(null));
            j.name("hotspot");
            HotSpotView.figuresJson(j, hotspotFigures);
            out.print(j.endObject());
            return;
        }
        out.println("VM pid " + vm.pid() + ", VM id " + vm.vmId() + ", " + ref + " (" + clusterName(ref) + ":"
                + ref.slot() + ")");
        Section s = new Section(out);
        s.line("process started", startedAt > 0
                ? Human.duration(now - startedAt) + " ago (" + java.time.Instant.ofEpochSecond(startedAt) + ")"
                : "unknown");
        s.print("");
        s.line("version", orDash(start.vmVersion()));
        s.line("working directory", orDash(start.workingDirectory()));
        s.line("VM flags", orDash(start.vmFlags()));
        s.line("VM arguments", orDash(start.vmArguments()));
        s.line("Java arguments", orDash(start.javaArguments()));
        s.line("splittable Java arguments", orDash(start.splittableJavaArguments()));
        s.line("tag", orDash(start.vmTag()));
        s.line("main class", orDash(start.mainClass()));
        s.line("monitoring board", yesNo(start.runsWithMonitoringBoard()));
        s.line("metaspace", yesNo(start.hasMetaspace()));
        s.print("Start");
        if (time.isEmpty()) {
            s.line("(not available: the VM has gone)", "");
        } else if (!time.get().available()) {
            s.line("(the VM publishes no process times)", "");
        } else {
            VmTimeInfo t = time.get();
            s.line("total (system + user)", t.totalTime());
            s.line("system", t.systemTime());
            s.line("user", t.userTime());
            s.line("processing", t.processingTime());
        }
        s.print("Time (CPU time, in the VM's own unit)");
        if (memory.isEmpty()) {
            s.line("(not available: the VM has gone)", "");
        } else {
            VmMemoryInfo m = memory.get();
            s.line("committed total", Human.bytes(m.committedTotal()));
            s.line("  Java heap", Human.bytes(m.committedJavaHeap()));
            s.line("  class pool", Human.bytes(m.committedClassPool()));
            s.line("  code cache", Human.bytes(m.committedCodeCache()));
            s.line("max old generation", Human.bytes(m.maxOldGenSize()));
            s.line("max permanent generation", Human.bytes(m.maxPermGenSize()));
            s.line("old gen. after last GC", Human.bytes(m.oldGenUsageAfterGc()));
            s.line("perm. gen. after last GC", Human.bytes(m.permGenUsageAfterGc()));
            s.line("GCs (full)", m.numberOfGcs() + " (" + m.numberOfFullGcs() + ")");
            s.line("GC durations", "all " + m.durationOfGcs() + ", full " + m.durationOfFullGcs() + ", concurrent "
                    + m.durationOfConcurrentGcs() + " (VM's unit)");
            s.line("GC work time", "all " + m.workTimeOfGcs() + ", full " + m.workTimeOfFullGcs() + " (VM's unit)");
            s.line("memory shortages", "Java heap " + m.javaHeapMemoryShortages() + ", perm. gen. "
                    + m.permGenMemoryShortages());
            s.line("GC spinning", "Java heap " + m.gcSpinningDueToJavaHeap() + ", perm. gen. "
                    + m.gcSpinningDueToPermGen());
            s.line("OutOfMemoryErrors", m.outOfMemoryErrorCount());
            s.line("cluster shared pool", Human.bytes(m.sharedPoolSize()));
            s.line("cluster global memory", Human.bytes(m.globalMemory()));
            s.line("cluster allocated", Human.bytes(m.globalAllocatedMemory()));
            s.line("cluster peak", Human.bytes(m.globalMemoryPeak()));
        }
        s.print("Memory");
        if (debug.isEmpty()) {
            s.line("(not available: the VM has gone)", "");
        } else {
            VmDebugInfo d = debug.get();
            s.line("state", stateName(d.state(), d.stateCode()));
            s.line("on demand", yesNo(d.canDebugOnDemand()));
            s.line("port range", d.fromPort() == -1 && d.toPort() == -1 ? "-" : d.fromPort() + "-" + d.toPort());
            s.line("current port", d.currentDebugPort() == -1 ? "-" : Integer.toString(d.currentDebugPort()));
            s.line("client", orDash(d.debuggingClient()));
            s.line("locally", yesNo(d.debuggingLocally()));
        }
        s.print("Debugging");
        if (hotspotFigures != null) {
            hotspot.sections(hotspotFigures);
        }
    }

    // ---------------------------------------------------------------- counters

    void counters(int pid, List<String> names) {
        hotspot.counters(pid, names);
    }

    // ---------------------------------------------------------------- requests

    void startDebugging(Target target, int suspend) {
        Vm vm = resolve(target);
        long startedAt = InspectorNatives.getCreationTimeOfProcess0(vm.pid());
        // A VM that says it cannot debug on demand (a stock VM with the agent) gets the request
        // all the same, since it is the VM's to decide; the user is told what to expect.
        boolean onDemand = inspector.debugInfo(vm.ref()).map(VmDebugInfo::canDebugOnDemand).orElse(true);
        try {
            inspector.startDebugging(vm.ref(), suspend);
        } catch (VmNotFoundException e) {
            throw gone(vm);
        }
        reportRequest(vm, startedAt, "start-debugging", "suspend", suspend,
                "asked to start debugging (suspend policy " + suspend + ")" + (onDemand ? ""
                        : "; it does not debug on demand, so it will clear the request and not debug"));
    }

    void stopDebugging(Target target) {
        Vm vm = resolve(target);
        long startedAt = InspectorNatives.getCreationTimeOfProcess0(vm.pid());
        try {
            inspector.stopDebugging(vm.ref());
        } catch (VmNotFoundException e) {
            throw gone(vm);
        }
        reportRequest(vm, startedAt, "stop-debugging", null, 0, "asked to stop debugging");
    }

    void exit(Target target, int code) {
        Vm vm = resolve(target);
        long startedAt = InspectorNatives.getCreationTimeOfProcess0(vm.pid());
        try {
            inspector.exit(vm.ref(), code);
        } catch (VmNotFoundException e) {
            throw gone(vm);
        }
        reportRequest(vm, startedAt, "exit", "code", code, "asked to exit with code " + code);
    }

    /** {@code startedAt} is read before the request: a VM asked to exit may be gone by now. */
    private void reportRequest(Vm vm, long startedAt, String request, String argName, int argValue, String text) {
        if (json) {
            Json j = new Json().beginObject().name("request").value(request);
            if (argName != null) {
                j.name(argName).value(argValue);
            }
            j.name("raised").value(true).name("vm").beginObject();
            vmMembers(j, vm, startedAt, System.currentTimeMillis() / 1000);
            out.print(j.endObject().endObject());
        } else {
            out.println("VM pid " + vm.pid() + " (" + clusterName(vm.ref()) + ":" + vm.ref().slot() + ") " + text
                    + "; the VM acts on the request in its own time.");
        }
    }

    // ---------------------------------------------------------------- boards

    void boards() {
        InspectorNatives.initLocalMonitorBoards0(MonitoringBoard.class);
        Object[] found = InspectorNatives.getListOfVisibleMonitorBoards0();
        List<MonitoringBoard> boards = new ArrayList<>();
        if (found != null) {
            for (Object o : found) {
                if (o instanceof MonitoringBoard board) {
                    boards.add(board);
                }
            }
        }
        boards.sort(Comparator.comparingInt(MonitoringBoard::pid));
        if (json) {
            Json j = new Json().beginObject().name("boards").beginArray();
            for (MonitoringBoard b : boards) {
                j.beginObject().name("pid").value(b.pid()).name("size").value(b.size())
                        .name("firstBytes").value(Human.hex(prefix(b), BOARD_PREFIX)).endObject();
            }
            out.print(j.endArray().endObject());
            return;
        }
        Table table = new Table(">PID", ">SIZE", "FIRST BYTES", "AS TEXT");
        for (MonitoringBoard b : boards) {
            byte[] first = prefix(b);
            table.add(b.pid(), Human.bytes(b.size()), Human.hex(first, BOARD_PREFIX), Human.ascii(first));
        }
        if (table.isEmpty()) {
            out.println("No monitoring boards are visible on this host.");
        } else {
            out.print(table);
        }
    }

    private static byte[] prefix(MonitoringBoard board) {
        ByteBuffer buffer = board.buffer();
        byte[] bytes = new byte[Math.min(BOARD_PREFIX, buffer.remaining())];
        buffer.get(bytes);
        return bytes;
    }

    // ---------------------------------------------------------------- helpers

    /** The live VM the user named, or a refusal naming what was not found. */
    private Vm resolve(Target target) {
        if (target.pid() != null) {
            return inspector.byPid(target.pid()).orElseThrow(() -> notFound(target));
        }
        VmRef ref = target.ref();
        return inspector.vmsOf(ref.type(), ref.clusterId()).stream().filter(vm -> vm.ref().slot() == ref.slot())
                .findFirst().orElseThrow(() -> notFound(target));
    }

    /** The live VM the user named, with its records from one pass over the host. */
    private static Optional<HostPass.VmFigures> findInPass(HostPass pass, Target target) {
        List<HostPass.VmFigures> vms = pass.vms();
        if (target.pid() != null) {
            int pid = target.pid();
            return vms.stream().filter(vm -> vm.vm().pid() == pid).findFirst();
        }
        VmRef ref = target.ref();
        return vms.stream().filter(vm -> vm.vm().ref().equals(ref)).findFirst();
    }

    private CliError notFound(Target target) {
        if (target.pid() != null) {
            int pid = target.pid();
            return CliError.refused("no live VM with pid " + pid
                    + (InspectorNatives.isProcessAlive0(pid) == 0 ? " (no such process)"
                    : hotspot.figures(pid).isPresent()
                    ? " (a HotSpot VM that publishes only performance data, which takes no requests)"
                    : " (the process publishes no control area and no performance data)"));
        }
        return CliError.refused("no live VM in " + target.ref());
    }

    private static CliError gone(Vm vm) {
        return CliError.refused("VM pid " + vm.pid() + " (" + vm.ref() + ") has gone");
    }

    private static void vmMembers(Json j, Vm vm, long startedAt, long now) {
        VmRef ref = vm.ref();
        j.name("cluster").value(clusterName(ref)).name("clusterType").value(typeName(ref.type(), ref.type().code()))
                .name("clusterId").value(ref.clusterId()).name("slot").value(ref.slot()).name("pid").value(vm.pid())
                .name("vmId").value(vm.vmId());
        if (startedAt > 0) {
            j.name("startTime").value(startedAt).name("uptimeSeconds").value(Math.max(0, now - startedAt));
        } else {
            j.name("startTime").nullValue().name("uptimeSeconds").nullValue();
        }
    }

    /**
     * A record as a JSON object, one member per component under the component's name (null for
     * no record). Enums are written by name, so the object follows the record classes as they are.
     */
    private static void recordJson(Json j, Record record) {
        if (record == null) {
            j.nullValue();
            return;
        }
        j.beginObject();
        for (RecordComponent component : record.getClass().getRecordComponents()) {
            Object value;
            try {
                value = component.getAccessor().invoke(record);
            } catch (IllegalAccessException | InvocationTargetException e) {
                throw new IllegalStateException("cannot read " + component.getName(), e);
            }
            j.name(component.getName());
            if (value == null) {
                j.nullValue();
            } else if (value instanceof Boolean b) {
                j.value(b);
            } else if (value instanceof Number n) {
                j.value(n.longValue());
            } else if (value instanceof Enum<?> e) {
                j.value(e.name());
            } else {
                j.value(value.toString());
            }
        }
        j.endObject();
    }

    static String clusterName(VmRef ref) {
        return clusterName(ref.type(), ref.type().code(), ref.clusterId());
    }

    static String clusterName(ClusterType type, int code, int id) {
        return typeName(type, code) + ":" + id;
    }

    static String typeName(ClusterType type, int code) {
        return type == ClusterType.UNKNOWN ? "unknown(" + code + ")" : type.name().toLowerCase(Locale.ROOT);
    }

    /** {@code WAIT_FOR_DEBUGGER} as {@code wait-for-debugger}; an unknown code with its number. */
    static String stateName(DebuggingState state, int code) {
        return state == DebuggingState.UNKNOWN ? "unknown(" + code + ")"
                : state.name().toLowerCase(Locale.ROOT).replace('_', '-');
    }

    private static String yesNo(boolean flag) {
        return flag ? "yes" : "no";
    }

    private static String orDash(String text) {
        return text == null || text.isEmpty() ? "-" : text;
    }
}
