package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.attach.AttachClient;
import com.nox.jvm.inspector.attach.AttachException;
import com.nox.jvm.inspector.attach.CommandReply;
import com.nox.jvm.inspector.host.Host;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.io.PrintStream;
import java.io.Reader;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;

/**
 * {@code noxinspect jcmd PID COMMAND [ARGS]} and its shortcuts {@code threads}, {@code histo},
 * {@code flags} and {@code props}: a diagnostic command run in a HotSpot VM through its attach
 * listener, its output streamed as {@code jcmd} prints it after its {@code PID:} line. As with
 * jcmd, the words form one command line, lines of it separated by a newline run one after the
 * other (up to one that reads {@code stop}), no command at all is {@code help}, and
 * {@code PerfCounter.print} is read from the VM's performance data, not asked of the VM. A command
 * the VM rejects ends the run with its message and exit code 1. The output is a stream of bytes,
 * not a document, so it is written as it arrives rather than through the output layer: as the VM
 * sent it into a pipe or a file, line by line through {@link Text#printable} onto a terminal, and
 * as one JSON string with {@code --json}.
 */
final class Jcmd implements Runnable {
    /** A command such as a heap dump may run long before the VM answers. */
    static final Duration DEFAULT_TIMEOUT = Duration.ofSeconds(120);

    private final PrintStream out;
    private final boolean json;
    private final int pid;
    private final String commandLine;
    private final Duration timeout;

    private Jcmd(PrintStream out, boolean json, int pid, String commandLine, Duration timeout) {
        this.out = out;
        this.json = json;
        this.pid = pid;
        this.commandLine = commandLine;
        this.timeout = timeout;
    }

    /** {@code name} is jcmd or one of the shortcuts; {@code args} what follows it. */
    static Runnable parse(String name, List<String> args, boolean json, PrintStream out) {
        List<String> rest = new ArrayList<>(args);
        Duration timeout = DEFAULT_TIMEOUT;
        if (!rest.isEmpty() && rest.get(0).equals("--timeout")) {
            if (rest.size() < 2) {
                throw CliError.usage("--timeout takes a number of seconds");
            }
            int seconds = positive(rest.get(1), "time-out");
            timeout = Duration.ofSeconds(seconds);
            rest = rest.subList(2, rest.size());
        }
        if (rest.isEmpty()) {
            throw CliError.usage(name + " takes a pid" + (name.equals("jcmd") ? ", then a diagnostic command" : ""));
        }
        int pid = positive(rest.get(0), "pid");
        List<String> words = new ArrayList<>();
        switch (name) {
            case "threads" -> words.add("Thread.print");
            case "histo" -> words.add("GC.class_histogram");
            case "flags" -> words.addAll(List.of("VM.flags", "-all"));
            case "props" -> words.add("VM.system_properties");
            default -> {
            }
        }
        words.addAll(rest.subList(1, rest.size()));
        String line = words.isEmpty() ? "help" : String.join(" ", words);
        if (json && line.indexOf('\n') >= 0) {
            throw CliError.usage("--json runs one command line, not several");
        }
        if (words.contains("PerfCounter.print")) {
            return () -> CountersCommand.run(new Host(), pid, List.of(), new Output(out, json));
        }
        return new Jcmd(out, json, pid, line, timeout);
    }

    /**
     * A number from 1 to Integer.MAX_VALUE in plain digits. Parsed by hand: this command is over in
     * some 50 ms, a few of which the regular-expression and lambda machinery would add.
     */
    private static int positive(String text, String what) {
        long value = 0;
        for (int i = 0; i < text.length() && value <= Integer.MAX_VALUE; i++) {
            char c = text.charAt(i);
            if (c < '0' || c > '9') {
                throw CliError.usage(what + " must be a positive number, not '" + text + "'");
            }
            value = value * 10 + (c - '0');
        }
        if (text.isEmpty() || value < 1 || value > Integer.MAX_VALUE) {
            throw CliError.usage(what + " must be a positive number, not '" + text + "'");
        }
        return (int) value;
    }

    @Override
    public void run() {
        for (String line : commandLine.split("\n")) {
            if (line.trim().equals("stop")) {
                break;
            }
            runLine(line);
        }
        out.flush();
    }

    private void runLine(String line) {
        try (CommandReply reply = AttachClient.jcmd(pid, line, timeout)) {
            if (!reply.succeeded()) {
                out.flush();
                throw CliError.refused(reply.text().strip());
            }
            long written;
            if (json) {
                written = writeJson(line, reply);
            } else if (System.console() != null) {
                written = printLines(reply.output());
            } else {
                written = copy(reply.output(), out);
            }
            if (written == 0 && !json) {
                out.println("Command executed successfully");
            }
        } catch (AttachException e) {
            throw CliError.refused(e.getMessage());
        } catch (IOException e) {
            throw CliError.refused("VM pid " + pid + ": " + e.getMessage());
        }
    }

    /** Copies the output as it arrives; the number of bytes. */
    private static long copy(InputStream in, OutputStream to) throws IOException {
        byte[] chunk = new byte[32 * 1024];
        long total = 0;
        for (int n = in.read(chunk); n >= 0; n = in.read(chunk)) {
            to.write(chunk, 0, n);
            total += n;
        }
        to.flush();
        return total;
    }

    /**
     * For a terminal: each line through the renderers' escaping (a thread's name could otherwise
     * retitle, clear or rewrite the terminal), its tabs and line breaks kept; the number of lines.
     */
    private long printLines(InputStream in) throws IOException {
        BufferedReader lines = new BufferedReader(new InputStreamReader(in, StandardCharsets.UTF_8));
        long count = 0;
        StringBuilder shown = new StringBuilder();
        for (String line = lines.readLine(); line != null; line = lines.readLine(), count++) {
            shown.setLength(0);
            int start = 0;
            for (int tab = line.indexOf('\t'); tab >= 0; start = tab + 1, tab = line.indexOf('\t', start)) {
                shown.append(Text.printable(line.substring(start, tab))).append('\t');
            }
            out.append(shown).println(Text.printable(line.substring(start)));
        }
        out.flush();
        return count;
    }

    /** One object whose output string is written chunk by chunk as the VM sends it; the characters. */
    private long writeJson(String line, CommandReply reply) throws IOException {
        StringBuilder head = new StringBuilder("{\n  \"pid\": ").append(pid).append(",\n  \"command\": ");
        Json.quote(head, line);
        head.append(",\n  \"status\": ").append(reply.status()).append(",\n  \"output\": \"");
        out.print(head);
        Reader text = new InputStreamReader(reply.output(), StandardCharsets.UTF_8);
        char[] chunk = new char[16 * 1024];
        StringBuilder quoted = new StringBuilder();
        long total = 0;
        for (int n = text.read(chunk); n >= 0; n = text.read(chunk)) {
            quoted.setLength(0);
            Json.quote(quoted, new String(chunk, 0, n));
            out.append(quoted, 1, quoted.length() - 1);
            total += n;
        }
        out.print("\"\n}\n");
        return total;
    }
}
