package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.attach.AttachClient;
import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;
import com.nox.jvm.inspector.host.HostVm;

import java.io.IOException;
import java.io.PrintStream;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.net.URISyntaxException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermission;
import java.util.List;
import java.util.Optional;
import java.util.Set;

/**
 * {@code noxinspect attach PID [OPTIONS]}: loads nox-agent.jar into a running VM through the
 * library's own attach client (no jdk.attach module needed, so a JRE will do), so that a stock VM
 * publishes its control area, and waits until it does. Everything that would make the load fail
 * inside the VM, and print there, is checked first: the agent's options (by the agent's own
 * parser, run here), and that the VM can see and read the jar. The attach client itself refuses a
 * process that is not a VM of the caller (root may attach to any user's VM) without signalling it.
 */
final class Attach {
    /** How long the VM may take after the load until it publishes its control area. */
    static final long PUBLISH_WAIT_MILLIS = 5000;

    private final PrintStream out;
    private final boolean json;
    private final int pid;
    private final String options;

    private Attach(PrintStream out, boolean json, int pid, String options) {
        this.out = out;
        this.json = json;
        this.pid = pid;
        this.options = options;
    }

    /** Checks the command line ({@code PID [OPTIONS]}) before anything is done. */
    static Runnable parse(List<String> args, boolean json, PrintStream out) {
        if (args.isEmpty() || args.size() > 2) {
            throw CliError.usage("attach takes a pid and optionally the agent's options, e.g. refresh=500,tag=web");
        }
        int pid = Target.number(args.get(0), "pid");
        if (pid <= 0) {
            throw CliError.usage("a pid is a positive number, not " + args.get(0));
        }
        String options = args.size() == 2 ? args.get(1) : "";
        checkOptions(agentJar(), options);
        return new Attach(out, json, pid, options)::run;
    }

    /** The VM of the process with a control area of its own: one that publishes already. */
    private Optional<HostVm> publishing(HostSnapshot snapshot) {
        return snapshot.byPid(pid).filter(HostVm::controlAreaIsOwn);
    }

    private void run() {
        Host host = new Host();
        HostSnapshot seen = host.snapshot();
        Optional<HostVm> already = publishing(seen);
        if (already.isPresent()) {
            report(already.get(), false);
            return;
        }
        Path jar = agentJar();
        checkVisible(jar);
        try {
            AttachClient.loadAgent(pid, jar, options, AttachClient.DEFAULT_TIMEOUT);
        } catch (IOException e) {
            throw CliError.refused(e.getMessage());
        }
        long deadline = System.nanoTime() + PUBLISH_WAIT_MILLIS * 1_000_000;
        while (System.nanoTime() - deadline < 0) {
            seen = host.withControlAreas(seen);
            Optional<HostVm> vm = publishing(seen);
            if (vm.isPresent()) {
                report(vm.get(), true);
                return;
            }
            sleep();
        }
        throw CliError.refused("the agent was loaded into VM pid " + pid + " but it published no control area within "
                + PUBLISH_WAIT_MILLIS / 1000 + " s (its standard error says why)");
    }

    /**
     * Runs the agent's own option parser on {@code options}: a bad option is named here, before
     * anything reaches the VM (a dynamic load that fails prints a stack trace into the VM's
     * standard error).
     */
    static void checkOptions(Path jar, String options) {
        try (URLClassLoader loader = new URLClassLoader(new URL[] {jar.toUri().toURL()}, null)) {
            Method parse = Class.forName("com.nox.jvm.agent.AgentOptions", true, loader)
                    .getDeclaredMethod("parse", String.class);
            parse.setAccessible(true);
            parse.invoke(null, options);
        } catch (InvocationTargetException e) {
            if (e.getCause() instanceof IllegalArgumentException bad) {
                throw CliError.usage(bad.getMessage());
            }
            throw CliError.broken("the agent's option parser failed: " + e.getCause());
        } catch (IOException | ReflectiveOperationException | RuntimeException e) {
            throw CliError.broken("cannot check the agent's options with " + jar + ": " + e);
        }
    }

    /**
     * The VM can open the jar: it lives in our mount namespace (a VM in a container sees
     * another file tree) and, for root loading into another user's VM, every folder on the way
     * lets others through and the jar lets others read it.
     */
    private void checkVisible(Path jar) {
        Path proc = Path.of("/proc", Integer.toString(pid));
        try {
            if (!Files.readSymbolicLink(proc.resolve("ns/mnt")).equals(Files.readSymbolicLink(Path.of("/proc/self/ns/mnt")))) {
                throw CliError.refused("VM pid " + pid + " runs in another mount namespace (a container): it cannot see "
                        + jar + ", and its control area would be in its own /tmp; not attached");
            }
            Object vmUser = Files.getAttribute(proc, "unix:uid", LinkOption.NOFOLLOW_LINKS);
            Object self = Files.getAttribute(Path.of("/proc/self/"), "unix:uid");
            if (vmUser.equals(self)) {
                return;
            }
            for (Path p = jar; p != null; p = p.getParent()) {
                Set<PosixFilePermission> mode = Files.getPosixFilePermissions(p);
                boolean open = p.equals(jar) ? mode.contains(PosixFilePermission.OTHERS_READ)
                        : mode.contains(PosixFilePermission.OTHERS_EXECUTE);
                if (!open && !vmUser.equals(Files.getAttribute(p, "unix:uid"))) {
                    throw CliError.refused("the VM's user (user id " + vmUser + ") cannot read " + jar + " (" + p
                            + " is closed to it); set -Dnox.agent.jar to a copy it can read");
                }
            }
        } catch (IOException e) {
            throw CliError.refused("no process with pid " + pid + " (or it cannot be inspected: " + e.getMessage() + ")");
        }
    }

    /** nox-agent.jar: -Dnox.agent.jar, else the file beside the inspector's own jar. */
    static Path agentJar() {
        String given = System.getProperty("nox.agent.jar");
        Path jar;
        if (given != null && !given.isEmpty()) {
            jar = Path.of(given);
        } else {
            try {
                Path own = Path.of(Attach.class.getProtectionDomain().getCodeSource().getLocation().toURI());
                jar = own.resolveSibling("nox-agent.jar");
            } catch (URISyntaxException | RuntimeException e) {
                throw CliError.broken("cannot tell where nox-agent.jar is; set -Dnox.agent.jar");
            }
        }
        if (!Files.isRegularFile(jar)) {
            throw CliError.broken("no agent at " + jar + " (build the project, or set -Dnox.agent.jar)");
        }
        return jar.toAbsolutePath();
    }

    private void report(HostVm vm, boolean attached) {
        String where = vm.clusterName() + ":" + vm.slot();
        Doc answer = new Doc().put("pid", vm.pid()).put("attached", attached).put("publishing", true)
                .put("cluster", vm.clusterName()).put("slot", vm.slot());
        new Output(out, json).textOr(answer, List.of(attached
                ? "VM pid " + vm.pid() + " now publishes its control area (" + where + ")."
                : "VM pid " + vm.pid() + " already publishes its control area (" + where + "); nothing loaded."));
    }

    private static void sleep() {
        try {
            Thread.sleep(50);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw CliError.refused("interrupted while waiting for the VM");
        }
    }
}
