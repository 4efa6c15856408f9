package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.cluster.VmTimeInfo;

import java.util.OptionalDouble;

/**
 * The unit of a control area's times. The control area does not say it; nox-agent.jar writes
 * milliseconds. A VM's times are taken as milliseconds only when its process CPU time (system plus
 * user), read as milliseconds, agrees with what the kernel counts for the process: within a factor
 * of two (the agent refreshes once a second), while the other units a writer might choose
 * (microseconds, nanoseconds, ticks) are a thousand times off. A VM that has used too little CPU
 * to tell, or whose times disagree, keeps its times unconverted.
 */
public final class ControlAreaUnits {
    /** Below this much CPU time the comparison tells nothing. */
    static final double LEAST_SECONDS = 0.1;

    private ControlAreaUnits() {
    }

    /**
     * Seconds per unit of the VM's control-area times (0.001), or empty when the unit cannot be
     * told, given the CPU seconds of the VM's process as the kernel counts them (negative: unknown).
     */
    public static OptionalDouble secondsPerUnit(HostVm vm, double kernel) {
        OptionalDouble none = OptionalDouble.empty();
        VmTimeInfo time = vm.controlArea().flatMap(c -> c.figures().time()).filter(VmTimeInfo::available)
                .orElse(null);
        if (time == null || !vm.controlAreaIsOwn()) {
            return none;
        }
        double own = (time.systemTime() + time.userTime()) / 1000.0;
        return kernel >= LEAST_SECONDS && own > 0 && own <= 2 * kernel && kernel <= 2 * own
                ? OptionalDouble.of(0.001) : none;
    }
}
