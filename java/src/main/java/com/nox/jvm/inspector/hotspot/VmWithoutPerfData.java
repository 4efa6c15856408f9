package com.nox.jvm.inspector.hotspot;

import java.util.List;
import java.util.Set;

/**
 * A process that maps HotSpot's libjvm.so but publishes no performance data the caller can read:
 * a VM started with {@code -XX:-UsePerfData} (which {@code jps} cannot see), or one whose file is
 * not there yet or not readable. Only what /proc tells of it is known.
 *
 * @param pid                 the process, as this host numbers it
 * @param namespacePid        the pid it knows itself by (in a container, the container's pid)
 * @param uid                 its owner
 * @param user                the owner's name on this host; empty when the host has none
 * @param processStartSeconds when the process started, seconds since the epoch; 0 when unknown
 * @param arguments           its command line, the launcher first (cut after about 4000 bytes)
 */
public record VmWithoutPerfData(int pid, int namespacePid, int uid, String user, long processStartSeconds,
                                List<String> arguments) {

    /** Launcher options whose value is the next argument. */
    private static final Set<String> OPTIONS_WITH_VALUE = Set.of("-cp", "-classpath", "--class-path", "-p",
            "--module-path", "--upgrade-module-path", "--add-modules", "--limit-modules", "--add-reads",
            "--add-exports", "--add-opens", "--patch-module", "--source");

    public VmWithoutPerfData {
        arguments = List.copyOf(arguments);
    }

    /** The command line as one line, arguments separated by blanks. */
    public String commandLine() {
        return String.join(" ", arguments);
    }

    /**
     * The main class, the jar ({@code -jar}) or the module and class ({@code -m}) as the java
     * launcher reads its arguments; empty when there is none (an argument file, an embedded VM).
     */
    public String mainClass() {
        for (int i = 1; i < arguments.size(); i++) {
            String a = arguments.get(i);
            if ((a.equals("-jar") || a.equals("-m") || a.equals("--module")) && i + 1 < arguments.size()) {
                return arguments.get(i + 1);
            }
            if (a.startsWith("--module=")) {
                return a.substring("--module=".length());
            }
            if (OPTIONS_WITH_VALUE.contains(a)) {
                i++;
            } else if (!a.startsWith("-") && !a.startsWith("@")) {
                return a;
            }
        }
        return "";
    }

    /** Layout: int pid, int namespace pid, int uid, string user, long start, string arguments (NUL-separated). */
    static VmWithoutPerfData read(RecordReader in) {
        int pid = in.readInt();
        int namespacePid = in.readInt();
        int uid = in.readInt();
        String user = in.readString();
        long start = in.readLong();
        String line = in.readString();
        List<String> arguments = line.isEmpty() ? List.of() : List.of(line.split("\0", -1));
        return new VmWithoutPerfData(pid, namespacePid, uid, user, start, arguments);
    }
}
