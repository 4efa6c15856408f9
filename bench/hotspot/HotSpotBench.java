import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.HotSpotInspector;
import com.nox.jvm.inspector.hotspot.HotSpotVm;
import com.nox.jvm.inspector.hotspot.PerfCounter;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.Set;
import java.util.regex.Pattern;

import sun.jvmstat.monitor.Monitor;
import sun.jvmstat.monitor.MonitoredHost;
import sun.jvmstat.monitor.MonitoredVm;
import sun.jvmstat.monitor.VmIdentifier;

/**
 * Listing the host's HotSpot VMs and reading the figures of 4 sleeping VMs: our natives, as a
 * listing then one read per VM (listVms0, then getVm0 per VM) and as one host pass
 * (getHostPass0, each file read once), against the JDK's own jvmstat API (MonitoredHost.activeVms,
 * then per VM getMonitoredVm, findByName of the same counters, detach), measured in the same run,
 * in alternating rounds. Prints microseconds per VM for each, and the ratio of each round.
 */
public final class HotSpotBench {
    private static final int VMS = 4;
    private static final int ROUNDS = 7;
    private static final int ITERATIONS = 200;

    /** The counters our figures read, by name or pattern. */
    private static final Pattern FIGURE_COUNTERS = Pattern.compile(
            "sun\\.rt\\.javaCommand|java\\.property\\.java\\.vm\\.(name|version|vendor)|java\\.rt\\.vm(Args|Flags)"
                    + "|sun\\.gc\\.policy\\.name|sun\\.rt\\.(createVmBeginTime|vmInitDoneTime)|sun\\.os\\.hrt\\.(frequency|ticks)"
                    + "|sun\\.gc\\.generation\\.\\d+\\.(capacity|maxCapacity|space\\.\\d+\\.used)"
                    + "|sun\\.gc\\.collector\\.\\d+\\.(name|invocations|time|lastEntryTime|lastExitTime)"
                    + "|sun\\.gc\\.metaspace\\.(used|capacity|maxCapacity)"
                    + "|java\\.cls\\.(loaded|unloaded|sharedLoaded|sharedUnloaded)Classes"
                    + "|java\\.threads\\.(live|livePeak|daemon|started)");

    private HotSpotBench() {
    }

    public static void main(String[] args) throws Exception {
        List<Process> sleepers = new ArrayList<>();
        try {
            for (int i = 0; i < VMS; i++) {
                Process p = new ProcessBuilder(Path.of(System.getProperty("java.home"), "bin", "java").toString(),
                        "-XX:+UseSerialGC", "-Xmx32m", "-cp", System.getProperty("java.class.path"),
                        "SleepingJdkVm").redirectError(ProcessBuilder.Redirect.INHERIT).start();
                sleepers.add(p);
                String line = new BufferedReader(new InputStreamReader(p.getInputStream(), StandardCharsets.UTF_8))
                        .readLine();
                if (!"READY".equals(line)) {
                    throw new IllegalStateException("a sleeping VM did not start: " + line);
                }
            }
            Set<Integer> pids = new java.util.HashSet<>();
            for (Process p : sleepers) {
                pids.add((int) p.pid());
            }
            HotSpotInspector inspector = new HotSpotInspector();
            long deadline = System.nanoTime() + 10_000_000_000L;
            while (inspector.vms().stream().filter(v -> pids.contains(v.pid())).count() < VMS) {
                if (System.nanoTime() > deadline) {
                    throw new IllegalStateException("the sleeping VMs were not all listed within 10 s");
                }
                Thread.sleep(20);
            }
            List<String> names = new ArrayList<>();
            for (PerfCounter c : inspector.counters(sleepers.get(0).pid() > 0 ? (int) sleepers.get(0).pid() : 0)
                    .orElseThrow()) {
                if (FIGURE_COUNTERS.matcher(c.name()).matches()) {
                    names.add(c.name());
                }
            }
            MonitoredHost host = MonitoredHost.getMonitoredHost("localhost");
            System.out.printf(Locale.ROOT, "%d sleeping VMs (of %d HotSpot VMs on this host), %d counters per VM%n",
                    VMS, inspector.vms().size(), names.size());

            // Warm-up of all three, and a check that the pass sees the same figures.
            for (int i = 0; i < ITERATIONS; i++) {
                if (ours(inspector, pids) != pass(inspector, pids)) {
                    throw new IllegalStateException("the host pass and the reads per VM disagree");
                }
                jvmstat(host, pids, names);
            }
            double[] oursUs = new double[ROUNDS];
            double[] passUs = new double[ROUNDS];
            double[] jdkUs = new double[ROUNDS];
            double[] ratios = new double[ROUNDS];
            double[] passRatios = new double[ROUNDS];
            long sink = 0;
            for (int r = 0; r < ROUNDS; r++) {
                long t0 = System.nanoTime();
                for (int i = 0; i < ITERATIONS; i++) {
                    sink += ours(inspector, pids);
                }
                long t1 = System.nanoTime();
                for (int i = 0; i < ITERATIONS; i++) {
                    sink += pass(inspector, pids);
                }
                long t2 = System.nanoTime();
                for (int i = 0; i < ITERATIONS; i++) {
                    sink += jvmstat(host, pids, names);
                }
                long t3 = System.nanoTime();
                oursUs[r] = (t1 - t0) / 1000.0 / ITERATIONS / VMS;
                passUs[r] = (t2 - t1) / 1000.0 / ITERATIONS / VMS;
                jdkUs[r] = (t3 - t2) / 1000.0 / ITERATIONS / VMS;
                ratios[r] = jdkUs[r] / oursUs[r];
                passRatios[r] = oursUs[r] / passUs[r];
                System.out.printf(Locale.ROOT, "round %d: natives list+figures %.1f us/VM, host pass %.1f us/VM,"
                        + " jvmstat %.1f us/VM%n", r + 1, oursUs[r], passUs[r], jdkUs[r]);
            }
            System.out.printf(Locale.ROOT, "median: natives list+figures %.1f us/VM, host pass %.1f us/VM (%.2fx"
                    + " faster), jvmstat %.1f us/VM (natives list+figures faster %.1fx, rounds %.1fx to %.1fx)"
                    + "  [%d]%n", median(oursUs), median(passUs), median(passRatios), median(jdkUs), median(ratios),
                    Arrays.stream(ratios).min().orElse(0), Arrays.stream(ratios).max().orElse(0), sink & 1);
        } finally {
            for (Process p : sleepers) {
                p.getOutputStream().close();
                p.destroy();
                p.waitFor();
            }
        }
    }

    /** List the host's VMs, then read the figures of the sleeping ones. */
    private static long ours(HotSpotInspector inspector, Set<Integer> pids) {
        long sum = 0;
        for (HotSpotVm vm : inspector.vms()) {
            if (pids.contains(vm.pid())) {
                HotSpotFigures f = inspector.figures(vm.pid()).orElseThrow();
                sum += f.heapMax() + f.collectors().size() + f.javaCommand().length();
            }
        }
        return sum;
    }

    /** The same figures from one host pass. */
    private static long pass(HotSpotInspector inspector, Set<Integer> pids) {
        long sum = 0;
        for (HotSpotFigures f : inspector.snapshot().vms()) {
            if (pids.contains(f.pid())) {
                sum += f.heapMax() + f.collectors().size() + f.javaCommand().length();
            }
        }
        return sum;
    }

    /** The same through jvmstat: list the active VMs, attach each sleeping one, read the counters. */
    private static long jvmstat(MonitoredHost host, Set<Integer> pids, List<String> names) throws Exception {
        long sum = 0;
        for (Integer pid : host.activeVms()) {
            if (!pids.contains(pid)) {
                continue;
            }
            MonitoredVm vm = host.getMonitoredVm(new VmIdentifier("//" + pid));
            try {
                for (String name : names) {
                    Monitor m = vm.findByName(name);
                    if (m != null) {
                        Object v = m.getValue();
                        sum += v instanceof Long l ? l : v.toString().length();
                    }
                }
            } finally {
                host.detach(vm);
            }
        }
        return sum;
    }

    private static double median(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        return sorted[sorted.length / 2];
    }
}
