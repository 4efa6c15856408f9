package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.VmInspector;
import com.nox.jvm.inspector.cluster.VmInspector.Vm;
import com.nox.jvm.inspector.host.Names;
import com.sun.tools.attach.AgentInitializationException;
import com.sun.tools.attach.AgentLoadException;
import com.sun.tools.attach.AttachNotSupportedException;
import com.sun.tools.attach.VirtualMachine;

import java.io.IOException;
import java.io.PrintStream;
import java.net.URISyntaxException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.util.List;
import java.util.Optional;

/**
 * {@code noxinspect attach PID [OPTIONS]}: loads nox-agent.jar into a running VM of the same user
 * through the JDK's attach API, so that a stock VM publishes its control area, and waits until
 * it does. Before anything is sent the process is checked: it must exist, belong to the calling
 * user and have the VM's library mapped, since the attach handshake signals the process (SIGQUIT),
 * which would end a process that is not a Java VM.
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
        return new Attach(out, json, pid, options)::run;
    }

    private void run() {
        VmInspector inspector = new VmInspector();
        Optional<Vm> already = inspector.byPid(pid);
        if (already.isPresent()) {
            report(already.get(), false);
            return;
        }
        checkProcess();
        Path jar = agentJar();
        load(jar);
        long deadline = System.nanoTime() + PUBLISH_WAIT_MILLIS * 1_000_000;
        while (System.nanoTime() - deadline < 0) {
            Optional<Vm> vm = inspector.byPid(pid);
            if (vm.isPresent()) {
                report(vm.get(), true);
                return;
            }
            sleep();
        }
        throw CliError.refused("the agent was loaded into VM pid " + pid + " but it published no control area within "
                + PUBLISH_WAIT_MILLIS / 1000 + " s (its standard error says why)");
    }

    /** The process exists, is ours and runs a Java VM. */
    private void checkProcess() {
        Path proc = Path.of("/proc", Integer.toString(pid));
        Object owner;
        try {
            owner = Files.getAttribute(proc, "unix:uid", LinkOption.NOFOLLOW_LINKS);
        } catch (IOException e) {
            throw CliError.refused("no process with pid " + pid);
        }
        Object self;
        try {
            self = Files.getAttribute(Path.of("/proc/self/"), "unix:uid");
        } catch (IOException e) {
            throw CliError.broken("cannot read /proc/self: " + e.getMessage());
        }
        if (!owner.equals(self)) {
            throw CliError.refused("process " + pid + " belongs to user id " + owner
                    + "; the agent can only be attached to VMs of the same user (" + self + ")");
        }
        String maps;
        try {
            maps = Files.readString(proc.resolve("maps"), StandardCharsets.ISO_8859_1);
        } catch (IOException e) {
            throw CliError.refused("process " + pid + " has gone or cannot be inspected: " + e.getMessage());
        }
        if (!maps.contains("/libjvm.so")) {
            throw CliError.refused("process " + pid + " is not a Java VM (no libjvm.so mapped)");
        }
        // Such a VM would let the attach run into its ten-second time-out; its command line says so at once.
        try {
            String[] words = Files.readString(proc.resolve("cmdline"), StandardCharsets.ISO_8859_1).split("\0");
            if (List.of(words).contains("-XX:+DisableAttachMechanism")) {
                throw CliError.refused("VM pid " + pid + " refused the attach: it was started with "
                        + "-XX:+DisableAttachMechanism");
            }
        } catch (IOException e) {
            throw CliError.refused("process " + pid + " has gone: " + e.getMessage());
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

    private void load(Path jar) {
        VirtualMachine vm;
        try {
            vm = VirtualMachine.attach(Integer.toString(pid));
        } catch (AttachNotSupportedException | IOException e) {
            throw CliError.refused("VM pid " + pid + " refused the attach or has gone: " + e.getMessage());
        }
        try {
            vm.loadAgent(jar.toString(), options);
        } catch (AgentInitializationException e) {
            throw CliError.refused("the agent did not start in VM pid " + pid + ": " + e.getMessage());
        } catch (AgentLoadException | IOException e) {
            throw CliError.refused("VM pid " + pid + " could not load " + jar + ": " + e.getMessage());
        } finally {
            try {
                vm.detach();
            } catch (IOException e) {
                // The connection is gone either way.
            }
        }
    }

    private void report(Vm vm, boolean attached) {
        String where = Names.cluster(vm.ref()) + ":" + vm.ref().slot();
        if (json) {
            out.print(new Json().beginObject().name("pid").value(vm.pid()).name("attached").value(attached)
                    .name("publishing").value(true).name("cluster").value(Names.cluster(vm.ref()))
                    .name("slot").value(vm.ref().slot()).endObject());
        } else if (attached) {
            out.println("VM pid " + vm.pid() + " now publishes its control area (" + where + ").");
        } else {
            out.println("VM pid " + vm.pid() + " already publishes its control area (" + where + "); nothing loaded.");
        }
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
