package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.host.Names;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.VmWithoutPerfData;

import java.util.ArrayList;
import java.util.List;

/**
 * {@code noxinspect list [-q] [-m] [-v] [-u USER] [-c TEXT]}: every VM of the host once, from one
 * snapshot. The table shows a VM with both sources in its cluster's row, marked {@code +hotspot};
 * JSON has the running clusters and every VM in the shape of {@link VmDocs#vm}, with its
 * debugging state. As with jps: -q prints the pids alone, -m adds the arguments given to main,
 * -v the VM's arguments; -u keeps the VMs of one user (name or uid), -c those whose main class
 * contains the text. A control area that another user owns than the process it names
 * shows that user's uid. A process that maps libjvm.so but publishes no performance data (which
 * jps cannot see) is listed last, its cluster "no-perf-data", in JSON under "withoutPerfData".
 */
final class ListCommand {
    /** What to show: pids only, the main arguments, the VM arguments; the filters (null: none). */
    record Options(boolean quiet, boolean arguments, boolean vmArguments, String user, String main) {
        static final Options NONE = new Options(false, false, false, null, null);

        boolean keeps(HostVm vm) {
            return keeps(vm.user(), vm.uid(), vm.mainClass());
        }

        boolean keeps(String vmUser, int uid, String mainClass) {
            return (user == null || user.equals(vmUser) || user.equals(Integer.toString(uid)))
                    && (main == null || mainClass.contains(main));
        }
    }

    private ListCommand() {
    }

    static Runnable parse(List<String> rest, Host host, Output out) {
        boolean quiet = false;
        boolean arguments = false;
        boolean vmArguments = false;
        String user = null;
        String main = null;
        for (int i = 0; i < rest.size(); i++) {
            switch (rest.get(i)) {
                case "-q" -> quiet = true;
                case "-m" -> arguments = true;
                case "-v" -> vmArguments = true;
                case "-u", "-c" -> {
                    if (i + 1 >= rest.size()) {
                        throw CliError.usage(rest.get(i) + " needs a value");
                    }
                    if (rest.get(i).equals("-u")) {
                        user = rest.get(++i);
                    } else {
                        main = rest.get(++i);
                    }
                }
                default -> throw CliError.usage("list takes -q, -m, -v, -u USER and -c TEXT, not " + rest.get(i));
            }
        }
        Options options = new Options(quiet, arguments, vmArguments, user, main);
        return () -> run(host.snapshot(), options, out);
    }

    static void run(HostSnapshot snapshot, Options options, Output out) {
        long now = System.currentTimeMillis() / 1000;
        if (!options.quiet()) {
            // The table has a row for each VM, those without performance data last, marked.
            Doc doc = out.json() ? render(snapshot, options, now)
                    : new Doc().put("vms", rows(snapshot, options, now, true));
            out.table(doc, "vms", "No Java VMs on this host" + (options.equals(Options.NONE) ? "." : " that match."));
            return;
        }
        List<Object> pids = new ArrayList<>();
        List<String> lines = new ArrayList<>();
        for (HostVm vm : snapshot.vms()) {
            if (options.keeps(vm)) {
                pids.add(vm.pid());
            }
        }
        for (VmWithoutPerfData p : snapshot.withoutPerfData()) {
            if (options.keeps(p.user(), p.uid(), p.mainClass())) {
                pids.add(p.pid());
            }
        }
        pids.forEach(pid -> lines.add(pid.toString()));
        out.textOr(new Doc().put("pids", pids), lines);
    }

    static Doc render(HostSnapshot snapshot, long now) {
        return render(snapshot, Options.NONE, now);
    }

    static Doc render(HostSnapshot snapshot, Options options, long now) {
        List<Doc> clusters = new ArrayList<>();
        for (HostPass.Cluster c : snapshot.clusters()) {
            clusters.add(new Doc().put("cluster", Names.cluster(c.entry()))
                    .put("type", Names.clusterType(c.entry().type(), c.entry().typeCode()))
                    .put("typeCode", c.entry().typeCode()).put("id", c.entry().id())
                    .put("attachable", c.entry().attachable()).put("liveVms", c.vms().size()));
        }
        return new Doc().put("clusters", clusters).put("vms", rows(snapshot, options, now, false))
                .put("withoutPerfData", quietRows(snapshot, options, now));
    }

    /** A row per VM the options keep; with {@code all}, those without performance data after them. */
    private static List<Doc> rows(HostSnapshot snapshot, Options options, long now, boolean all) {
        List<Doc> rows = new ArrayList<>();
        for (HostVm vm : snapshot.vms()) {
            if (options.keeps(vm)) {
                rows.add(row(vm, options, now));
            }
        }
        if (all) {
            rows.addAll(quietRows(snapshot, options, now));
        }
        return rows;
    }

    private static List<Doc> quietRows(HostSnapshot snapshot, Options options, long now) {
        List<Doc> rows = new ArrayList<>();
        for (VmWithoutPerfData p : snapshot.withoutPerfData()) {
            if (options.keeps(p.user(), p.uid(), p.mainClass())) {
                rows.add(row(p, options, now));
            }
        }
        return rows;
    }

    /**
     * A process that maps libjvm.so but publishes no performance data this user may read (jps
     * cannot see it): what /proc tells, in the table's columns, its cluster marked "no-perf-data".
     */
    private static Doc row(VmWithoutPerfData p, Options options, long now) {
        long start = p.processStartSeconds();
        long uptime = start > 0 ? Math.max(0, now - start) : -1;
        Doc row = new Doc().text("CLUSTER", "no-perf-data").text(">SLOT", null).text(">PID", p.pid())
                .text(">VM-ID", null).text("VERSION", null).text("MAIN-CLASS", p.mainClass())
                .text("DEBUGGING", null).text(">UPTIME", uptime, Doc.Show.DURATION).text("USER", p.user())
                .put("pid", p.pid()).put("namespacePid", p.namespacePid())
                .put("startTime", start > 0 ? start : null).put("uptimeSeconds", uptime >= 0 ? uptime : null)
                .put("user", p.user().isEmpty() ? null : p.user()).put("uid", p.uid())
                .put("mainClass", p.mainClass()).put("commandLine", p.commandLine());
        List<String> words = p.arguments();
        int main = p.mainClass().isEmpty() ? -1 : words.subList(1, words.size()).indexOf(p.mainClass()) + 1;
        if (options.arguments()) {
            row.put("arguments", "ARGUMENTS", main > 0 ? String.join(" ", words.subList(main + 1, words.size())) : "");
        }
        if (options.vmArguments()) {
            row.put("vmArguments", "VM-ARGUMENTS", words.size() < 2 ? ""
                    : String.join(" ", words.subList(1, main > 0 ? main : words.size())));
        }
        return row;
    }

    private static Doc row(HostVm vm, Options options, long now) {
        String debugging = vm.controlArea().flatMap(c -> c.figures().debug())
                .map(d -> Names.debuggingState(d.state(), d.stateCode())).orElse(null);
        String cluster = vm.controlArea().isPresent() && vm.hotspot().isPresent()
                ? vm.clusterName() + "+" + HostVm.HOTSPOT : vm.clusterName();
        if (vm.controlArea().isPresent() && !vm.controlAreaIsOwn()) {
            // Another user's control area that names this process: said, since its facts are that user's.
            cluster += "(uid " + vm.controlArea().get().ownerUid() + ")";
        }
        Doc row = new Doc().text("CLUSTER", cluster).text(">SLOT", vm.slot()).text(">PID", vm.pid())
                .text(">VM-ID", vm.vmId()).text("VERSION", vm.version()).text("MAIN-CLASS", vm.mainClass())
                .text("DEBUGGING", debugging).text(">UPTIME", vm.uptimeSeconds(now), Doc.Show.DURATION)
                .text("USER", vm.user())
                .putAll(VmDocs.vm(vm, now))
                .put("debuggingState", vm.controlArea().flatMap(c -> c.figures().debug())
                        .map(VmDebugInfo::state).map(Enum::name).orElse(null));
        if (options.arguments()) {
            row.put("arguments", "ARGUMENTS", arguments(vm));
        }
        if (options.vmArguments()) {
            row.put("vmArguments", "VM-ARGUMENTS", vmArguments(vm));
        }
        return row;
    }

    /** The arguments given to main: the control area's Java arguments, else the command after its first word. */
    static String arguments(HostVm vm) {
        String own = vm.controlArea().flatMap(c -> c.figures().start()).map(VmStartInfo::javaArguments).orElse("");
        if (!own.isBlank()) {
            String words = own.strip();
            int blank = words.indexOf(' ');
            return blank < 0 ? "" : words.substring(blank + 1).strip();
        }
        String command = vm.hotspot().map(HotSpotFigures::javaCommand).orElse("").strip();
        int blank = command.indexOf(' ');
        return blank < 0 ? "" : command.substring(blank + 1).strip();
    }

    /** The VM's own arguments (-Xmx..., -D...): the control area's, else the performance data's. */
    static String vmArguments(HostVm vm) {
        String own = vm.controlArea().flatMap(c -> c.figures().start()).map(VmStartInfo::vmArguments).orElse("");
        return !own.isBlank() ? own.strip() : vm.hotspot().map(HotSpotFigures::vmArguments).orElse("").strip();
    }
}
