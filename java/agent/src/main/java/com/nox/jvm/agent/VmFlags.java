package com.nox.jvm.agent;

import java.lang.management.ManagementFactory;
import javax.management.ObjectName;

/**
 * The VM's flags that differ from their defaults (set on the command line or chosen by the VM's
 * ergonomics), as the diagnostic command VM.flags prints them: "-XX:MaxHeapSize=... -XX:+UseG1GC".
 * Read once, on the agent's thread after the control area is published, since the platform
 * MBean server it needs takes tens of milliseconds to start.
 */
final class VmFlags {
    private VmFlags() {
    }

    static String nonDefault() {
        try {
            Object result = ManagementFactory.getPlatformMBeanServer().invoke(
                    new ObjectName("com.sun.management:type=DiagnosticCommand"), "vmFlags",
                    new Object[] {null}, new String[] {String[].class.getName()});
            return result == null ? "" : result.toString().strip().replaceAll("\\s+", " ");
        } catch (Exception | LinkageError e) {
            return "";  // a VM without the diagnostic commands: the field stays empty
        }
    }
}
