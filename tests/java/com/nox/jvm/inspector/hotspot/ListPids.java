package com.nox.jvm.inspector.hotspot;

/** Prints the pids of the HotSpot VMs this user may read ("PIDS 12 34"); run as another user by a test. */
public final class ListPids {
    private ListPids() {
    }

    public static void main(String[] args) {
        StringBuilder line = new StringBuilder("PIDS");
        for (HotSpotVm vm : new HotSpotInspector().vms()) {
            line.append(' ').append(vm.pid());
        }
        System.out.println(line);
    }
}
