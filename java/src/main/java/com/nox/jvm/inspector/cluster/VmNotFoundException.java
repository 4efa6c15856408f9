package com.nox.jvm.inspector.cluster;

/**
 * The VM named by a cluster and slot is not there: the cluster cannot be attached, the slot is
 * empty or out of range, or the VM's process has ended.
 */
public class VmNotFoundException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    public VmNotFoundException(VmRef vm) {
        super("no live VM in " + vm);
    }
}
