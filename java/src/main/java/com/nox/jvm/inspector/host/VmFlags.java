package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.attach.AttachClient;
import com.nox.jvm.inspector.attach.CommandReply;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.io.IOException;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The flags of a HotSpot VM that differ from their defaults, each with its origin, as the VM
 * itself tells them ({@code VM.flags -all} through the attach listener, what {@code jinfo
 * -flags} shows), or, when the VM cannot be attached (another user's VM, attach disabled, a VM
 * that does not answer in time), the flags of its command line from its performance data.
 *
 * @param flags  the flags, in the VM's order
 * @param source "attach" or "command line"
 */
public record VmFlags(List<Flag> flags, String source) {
    /** One flag: its name, its value as the VM prints it, and where it was set (command line, ergonomic, ...). */
    public record Flag(String name, String value, String origin) {
    }

    public static final String ATTACH = "attach";
    public static final String COMMAND_LINE = "command line";

    /** How long {@code info} waits for the VM's listener and answer before it falls back. */
    static final Duration TIMEOUT = Duration.ofSeconds(5);

    /** "     bool UseG1GC     = true     {product} {ergonomic}" */
    private static final Pattern ALL_LINE =
            Pattern.compile("^\\s*\\S+\\s+(\\w+)\\s+:?=\\s*(.*?)\\s+\\{[^}]*\\}\\s+\\{([^}]*)\\}\\s*$");
    private static final Pattern ARGUMENT = Pattern.compile("^-XX:(?:([+-])(\\w+)|(\\w+)=(.*))$");

    public VmFlags {
        flags = List.copyOf(flags);
    }

    /** The VM's flags: asked of the VM, else its command line's. */
    public static VmFlags of(HotSpotFigures vm) {
        try (CommandReply reply = AttachClient.jcmd(vm.pid(), "VM.flags -all", TIMEOUT)) {
            if (reply.succeeded()) {
                return new VmFlags(parseAll(reply.text()), ATTACH);
            }
        } catch (IOException | RuntimeException e) {
            // not attachable by this user, or no answer in time: the command line says the rest
        }
        return new VmFlags(parseArguments(vm.vmArguments()), COMMAND_LINE);
    }

    /** The lines of {@code VM.flags -all} whose origin is not "default". */
    static List<Flag> parseAll(String text) {
        List<Flag> flags = new ArrayList<>();
        for (String line : text.split("\n")) {
            Matcher m = ALL_LINE.matcher(line);
            if (m.matches() && !m.group(3).equals("default")) {
                flags.add(new Flag(m.group(1), m.group(2), m.group(3)));
            }
        }
        return flags;
    }

    /** The -XX options of a command line ("-XX:+Name", "-XX:-Name", "-XX:Name=value"). */
    static List<Flag> parseArguments(String arguments) {
        List<Flag> flags = new ArrayList<>();
        for (String word : arguments.strip().split("\\s+")) {
            Matcher m = ARGUMENT.matcher(word);
            if (m.matches()) {
                flags.add(m.group(2) != null ? new Flag(m.group(2), m.group(1).equals("+") ? "true" : "false",
                        COMMAND_LINE) : new Flag(m.group(3), m.group(4), COMMAND_LINE));
            }
        }
        return flags;
    }
}
