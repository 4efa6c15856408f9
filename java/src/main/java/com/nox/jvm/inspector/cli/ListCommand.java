package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.host.Names;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.util.ArrayList;
import java.util.List;

/**
 * {@code noxinspect list [-q] [-m] [-v] [-u USER] [-c TEXT]}: every VM of the host once, from one
 * snapshot. The table shows a VM with both sources in its cluster's row, marked {@code +hotspot};
 * JSON has the running clusters and every VM in the shape of {@link VmDocs#vm}, with its
 * debugging state. As with jps: -q prints the pids alone, -m adds the arguments given to main,
 * -v the VM's arguments; -u keeps the VMs of one user (name or uid), -c those whose main class
 * contains the text. A control area that another user owns than the process it names
 * shows that user's uid.
 */
final class ListCommand {
    /** What to show: pids only, the main arguments, the VM arguments; the filters (null: none). */
    record Options(boolean quiet, boolean arguments, boolean vmArguments, String user, String main) {
        static final Options NONE = new Options(false, false, false, null, null);

        boolean keeps(HostVm vm) {
            return (user == null || user.equals(vm.user()) || user.equals(Integer.toString(vm.uid())))
                    && (main == null || vm.mainClass().contains(main));
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
        Doc doc = render(snapshot, options, System.currentTimeMillis() / 1000);
        if (!options.quiet()) {
            out.table(doc, "vms", "No Java VMs on this host" + (options.equals(Options.NONE) ? "." : " that match."));
            return;
        }
        List<Object> pids = new ArrayList<>();
        List<String> lines = new ArrayList<>();
        for (HostVm vm : snapshot.vms()) {
            if (options.keeps(vm)) {
                pids.add(vm.pid());
                lines.add(Integer.toString(vm.pid()));
            }
        }
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
        List<Doc> vms = new ArrayList<>();
        for (HostVm vm : snapshot.vms()) {
            if (options.keeps(vm)) {
                vms.add(row(vm, options, now));
            }
        }
        return new Doc().put("clusters", clusters).put("vms", vms);
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
