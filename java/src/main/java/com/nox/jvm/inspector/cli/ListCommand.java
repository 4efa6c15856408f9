package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.host.Names;

import java.util.ArrayList;
import java.util.List;

/**
 * {@code noxinspect list}: every VM of the host once, from one snapshot. The table shows a VM with
 * both sources in its cluster's row, marked {@code +hotspot}; JSON has the running clusters and
 * every VM in the shape of {@link VmDocs#vm}, with its debugging state.
 */
final class ListCommand {
    private ListCommand() {
    }

    static void run(HostSnapshot snapshot, Output out) {
        out.table(render(snapshot, System.currentTimeMillis() / 1000), "vms", "No Java VMs on this host.");
    }

    static Doc render(HostSnapshot snapshot, long now) {
        List<Doc> clusters = new ArrayList<>();
        for (HostPass.Cluster c : snapshot.clusters()) {
            clusters.add(new Doc().put("cluster", Names.cluster(c.entry()))
                    .put("type", Names.clusterType(c.entry().type(), c.entry().typeCode()))
                    .put("typeCode", c.entry().typeCode()).put("id", c.entry().id())
                    .put("attachable", c.entry().attachable()).put("liveVms", c.vms().size()));
        }
        List<Doc> vms = new ArrayList<>();
        for (HostVm vm : snapshot.vms()) {
            vms.add(row(vm, now));
        }
        return new Doc().put("clusters", clusters).put("vms", vms);
    }

    private static Doc row(HostVm vm, long now) {
        String debugging = vm.controlArea().flatMap(c -> c.figures().debug())
                .map(d -> Names.debuggingState(d.state(), d.stateCode())).orElse(null);
        String cluster = vm.controlArea().isPresent() && vm.hotspot().isPresent()
                ? vm.clusterName() + "+" + HostVm.HOTSPOT : vm.clusterName();
        return new Doc().text("CLUSTER", cluster).text(">SLOT", vm.slot()).text(">PID", vm.pid())
                .text(">VM-ID", vm.vmId()).text("VERSION", vm.version()).text("MAIN-CLASS", vm.mainClass())
                .text("DEBUGGING", debugging).text(">UPTIME", vm.uptimeSeconds(now), Doc.Show.DURATION)
                .putAll(VmDocs.vm(vm, now))
                .put("debuggingState", vm.controlArea().flatMap(c -> c.figures().debug())
                        .map(VmDebugInfo::state).map(Enum::name).orElse(null));
    }
}
