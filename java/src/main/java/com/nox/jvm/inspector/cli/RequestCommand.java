package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmNotFoundException;
import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;

import java.util.List;

/**
 * {@code noxinspect exit} and {@code debug start|stop}: a request put into the control area of the
 * VM the user named. Only a VM whose control area is its own takes one: a VM known only by its
 * performance data has none, and a control area of another user that names a process is not
 * that process's VM, so a request there would never reach it.
 */
final class RequestCommand {
    private RequestCommand() {
    }

    static void exit(Host host, Target target, int code, Output out) {
        HostVm vm = requestable(host.snapshot(), target);
        try {
            host.exit(vm, code);
        } catch (VmNotFoundException e) {
            throw gone(vm);
        }
        report(out, vm, new Doc().put("request", "exit").put("code", code), "asked to exit with code " + code);
    }

    static void startDebugging(Host host, Target target, int suspend, Output out) {
        HostVm vm = requestable(host.snapshot(), target);
        // A VM that says it cannot debug on demand (a stock VM with the agent) gets the request
        // all the same, since it is the VM's to decide; the user is told what to expect.
        boolean onDemand = vm.controlArea().flatMap(c -> c.figures().debug()).map(VmDebugInfo::canDebugOnDemand)
                .orElse(true);
        try {
            host.startDebugging(vm, suspend);
        } catch (VmNotFoundException e) {
            throw gone(vm);
        }
        report(out, vm, new Doc().put("request", "start-debugging").put("suspend", suspend),
                "asked to start debugging (suspend policy " + suspend + ")" + (onDemand ? ""
                        : "; it does not debug on demand, so it will clear the request and not debug"));
    }

    static void stopDebugging(Host host, Target target, Output out) {
        HostVm vm = requestable(host.snapshot(), target);
        try {
            host.stopDebugging(vm);
        } catch (VmNotFoundException e) {
            throw gone(vm);
        }
        report(out, vm, new Doc().put("request", "stop-debugging"), "asked to stop debugging");
    }

    /** The start time is the snapshot's, read before the request: a VM asked to exit may be gone by now. */
    private static void report(Output out, HostVm vm, Doc answer, String text) {
        answer.put("raised", true).put("vm", VmDocs.vm(vm, System.currentTimeMillis() / 1000));
        out.textOr(answer, List.of("VM pid " + vm.pid() + " (" + vm.clusterName() + ":" + vm.slot() + ") " + text
                + "; the VM acts on the request in its own time."));
    }

    /** The VM the user named, if it takes requests; else a refusal that says why. */
    static HostVm requestable(HostSnapshot snapshot, Target target) {
        HostVm vm = target.find(snapshot).orElseThrow(target::notFound);
        if (vm.controlAreaIsOwn()) {
            return vm;
        }
        String named = target.pid() != null ? "no live VM with pid " + vm.pid() : "no live VM in " + target.ref();
        if (vm.controlArea().isEmpty()) {
            return refuse("VM pid " + vm.pid() + " is a stock HotSpot VM without a control area of its own"
                    + claims(snapshot, vm.pid()) + ", so it takes no requests; run `noxinspect attach " + vm.pid()
                    + "` to give it one");
        }
        return refuse(named + " that takes requests: the control area in " + vm.ref().orElseThrow()
                + " names pid " + vm.pid() + " but belongs to uid " + vm.controlArea().get().ownerUid()
                + ", not to the process's owner" + (vm.uid() >= 0 ? " (uid " + vm.uid() + ")" : ""));
    }

    /** Control areas of other users that name the pid, for the refusal's message. */
    private static String claims(HostSnapshot snapshot, int pid) {
        List<HostVm> others = snapshot.allWithPid(pid).stream().filter(vm -> vm.controlArea().isPresent()).toList();
        return others.isEmpty() ? "" : " (the control area in " + others.get(0).ref().orElseThrow()
                + " that names it belongs to uid " + others.get(0).controlArea().get().ownerUid() + ")";
    }

    private static HostVm refuse(String message) {
        throw CliError.refused(message);
    }

    private static CliError gone(HostVm vm) {
        return CliError.refused("VM pid " + vm.pid() + " (" + vm.ref().map(Object::toString).orElse("hotspot")
                + ") has gone");
    }
}
