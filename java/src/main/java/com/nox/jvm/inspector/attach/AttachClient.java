package com.nox.jvm.inspector.attach;

import com.nox.jvm.inspector.natives.NativeLibrary;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.time.Duration;
import java.util.List;

/**
 * Runs commands in running HotSpot VMs of this host through their attach listener, without the
 * JDK's jdk.attach module: diagnostic commands as {@code jcmd} does, agents loaded as
 * {@code -javaagent} would, and the listener's other commands. VMs in containers (other pid and
 * mount namespaces) are reached by their pid on this host.
 *
 * <p>The caller must be the VM's user (with its group), or root. A process that is not a VM, or
 * that would ignore the attach or die of it, is refused without being signalled; a socket or
 * trigger file that another user placed under the VM's names is refused and never used.
 */
public final class AttachClient {
    /** The JDK's own client waits this long for a VM to start its listener. */
    public static final Duration DEFAULT_TIMEOUT = Duration.ofSeconds(10);

    private AttachClient() {
    }

    /**
     * Sends one command of the attach listener ({@code jcmd}, {@code load}, {@code properties},
     * {@code threaddump}, ...) with up to three arguments and returns the VM's reply once its
     * status has arrived. {@code timeout} bounds each wait: for the listener, for the status,
     * and later for each read of the output.
     */
    public static CommandReply execute(int pid, String command, List<String> arguments, Duration timeout)
            throws AttachException {
        if (arguments.size() > 3) {
            throw new AttachException(AttachException.Reason.BAD_REQUEST, "a command takes at most three arguments");
        }
        NativeLibrary.load();
        byte[][] args = new byte[3][];
        for (int i = 0; i < arguments.size(); i++) {
            args[i] = arguments.get(i) == null ? null : arguments.get(i).getBytes(StandardCharsets.UTF_8);
        }
        int millis = millis(timeout);
        long handle = AttachNatives.open0(pid, command.getBytes(StandardCharsets.UTF_8), args[0], args[1], args[2],
                millis);
        return new CommandReply(pid, command, handle, millis);
    }

    /** Runs one diagnostic command line, as {@code jcmd PID LINE} does (e.g. {@code "Thread.print -l"}). */
    public static CommandReply jcmd(int pid, String commandLine, Duration timeout) throws AttachException {
        return execute(pid, "jcmd", List.of(commandLine), timeout);
    }

    /**
     * Loads the Java agent {@code jar} into the VM, as {@code -javaagent:JAR=OPTIONS} would at
     * start, and returns once its {@code agentmain} has returned. The jar must be where the VM
     * sees it (an absolute path without '=', which ends the jar's name in the request).
     */
    public static void loadAgent(int pid, Path jar, String options, Duration timeout) throws java.io.IOException {
        String path = jar.toString();
        if (!jar.isAbsolute() || path.indexOf('=') >= 0) {
            throw new AttachException(AttachException.Reason.BAD_REQUEST,
                    "the agent jar must be an absolute path without '=': " + path);
        }
        String argument = options == null || options.isEmpty() ? path : path + "=" + options;
        try (CommandReply reply = execute(pid, "load", List.of("instrument", "false", argument), timeout)) {
            String text = reply.text().strip();
            if (!reply.succeeded()) {
                throw failed(pid, "could not load the agent " + path + ": " + text);
            }
            // The VM writes what the agent's start function returned.
            if (!text.startsWith("return code: ")) {
                throw failed(pid, "answered the load of " + path + " with: " + text);
            }
            if (!text.equals("return code: 0")) {
                throw failed(pid, "did not start the agent " + path + " (" + text
                        + "; the VM's standard error says why)");
            }
        }
    }

    private static AttachException failed(int pid, String what) {
        return new AttachException(AttachException.Reason.COMMAND_FAILED, "VM pid " + pid + " " + what);
    }

    private static int millis(Duration timeout) {
        if (timeout.compareTo(Duration.ofMillis(Integer.MAX_VALUE)) > 0) {
            return Integer.MAX_VALUE;
        }
        return (int) Math.max(1, timeout.toMillis());
    }
}
