package com.nox.jvm.inspector.cluster;

import com.nox.jvm.inspector.cluster.natives.ProfilingClusterNatives;

import java.util.ArrayList;
import java.util.List;
import java.util.Optional;

/**
 * Lists the VMs on this host and asks them to act. Every call attaches the VM's cluster afresh,
 * so what it answers is as current as the VM's last write. A VM that is not there (cluster
 * gone, slot empty or out of range, process ended) gives an empty result from the readers and
 * a {@link VmNotFoundException} from the requests.
 */
public final class VmInspector {

    /** One live VM: where it is, its pid and VM id. */
    public record Vm(VmRef ref, int pid, int vmId) {
    }

    /** The running clusters, instance clusters (ascending id) first, then process clusters. */
    public List<ClusterEntry> clusters() {
        byte[] record = ProfilingClusterNatives.getClusterInfo0();
        if (record == null) {
            throw new OutOfMemoryError("no room for the cluster list");
        }
        return ClusterEntry.decodeList(record);
    }

    /**
     * One pass over the host: every running cluster and every live VM's start, time, memory and
     * debugging records, read in one native call.
     */
    public HostPass host() {
        long began = System.nanoTime();
        byte[] stream = ProfilingClusterNatives.getHostPass0();
        long took = System.nanoTime() - began;
        if (stream == null) {
            throw new OutOfMemoryError("no room for the host pass");
        }
        return HostPass.decode(stream, took);
    }

    /** Every live VM of every running cluster, in cluster order and then slot order. */
    public List<Vm> vms() {
        List<Vm> vms = new ArrayList<>();
        for (ClusterEntry cluster : clusters()) {
            vms.addAll(vmsOf(cluster.type(), cluster.id()));
        }
        return vms;
    }

    /** The live VMs of one cluster; empty when the cluster cannot be attached. */
    public List<Vm> vmsOf(ClusterType type, int clusterId) {
        List<Vm> vms = new ArrayList<>();
        if (type == ClusterType.INSTANCE) {
            byte[] record = ProfilingClusterNatives.getClusterDetailedInfo0(clusterId);
            if (record == null) {
                return vms;
            }
            for (ClusterDetails.LiveVm live : ClusterDetails.decode(record).liveVms()) {
                vms.add(new Vm(new VmRef(type, clusterId, live.slot()), live.pid(), live.vmId()));
            }
        } else if (type == ClusterType.PROCESS) {
            VmRef ref = new VmRef(type, clusterId, 0);
            state(ref).ifPresent(s -> vms.add(new Vm(ref, s.pid(), ProfilingClusterNatives.getUniqueId0(
                    type.code(), clusterId, 0))));
        }
        return vms;
    }

    /** The VM whose process has this pid, if it is in a running cluster. */
    public Optional<Vm> byPid(int pid) {
        return vms().stream().filter(vm -> vm.pid() == pid).findFirst();
    }

    public boolean isAlive(VmRef vm) {
        return ProfilingClusterNatives.isValidVm0(vm.type().code(), vm.clusterId(), vm.slot());
    }

    public Optional<VmState> state(VmRef vm) {
        return Optional.ofNullable(ProfilingClusterNatives.getVmStateInfo0(vm.type().code(), vm.clusterId(),
                vm.slot())).map(VmState::decode);
    }

    public Optional<VmDebugInfo> debugInfo(VmRef vm) {
        return Optional.ofNullable(ProfilingClusterNatives.getVmDebugInfo0(vm.type().code(), vm.clusterId(),
                vm.slot())).map(VmDebugInfo::decode);
    }

    public Optional<VmStartInfo> startInfo(VmRef vm) {
        return Optional.ofNullable(ProfilingClusterNatives.getVmStartInfo0(vm.type().code(), vm.clusterId(),
                vm.slot())).map(VmStartInfo::decode);
    }

    public Optional<VmTimeInfo> timeInfo(VmRef vm) {
        return Optional.ofNullable(ProfilingClusterNatives.getVmTimeInfo0(vm.type().code(), vm.clusterId(),
                vm.slot())).map(VmTimeInfo::decode);
    }

    public Optional<VmMemoryInfo> memoryInfo(VmRef vm) {
        return Optional.ofNullable(ProfilingClusterNatives.getVmMemoryInfo0(vm.type().code(), vm.clusterId(),
                vm.slot())).map(VmMemoryInfo::decode);
    }

    /**
     * Asks the VM to start debugging with the given suspend policy. Returns once the request is
     * raised; the VM acts on it in its own time.
     */
    public void startDebugging(VmRef vm, int suspend) {
        if (!ProfilingClusterNatives.startDebug0(vm.type().code(), vm.clusterId(), vm.slot(), suspend)) {
            throw new VmNotFoundException(vm);
        }
    }

    /** Asks the VM to stop debugging. */
    public void stopDebugging(VmRef vm) {
        if (!ProfilingClusterNatives.stopDebug0(vm.type().code(), vm.clusterId(), vm.slot())) {
            throw new VmNotFoundException(vm);
        }
    }

    /** Asks the VM to exit with the given exit code. */
    public void exit(VmRef vm, int exitCode) {
        if (!ProfilingClusterNatives.exit0(vm.type().code(), vm.clusterId(), vm.slot(), exitCode)) {
            throw new VmNotFoundException(vm);
        }
    }
}
