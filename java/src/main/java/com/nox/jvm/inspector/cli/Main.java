package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.MalformedRecordException;
import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.natives.NativeLibrary;

import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;

/**
 * The command-line inspector: lists the Java VMs on this host, shows what one VM publishes,
 * asks a VM to start or stop debugging or to exit, and lists the monitoring boards. Started by
 * the launcher tools/noxinspect. Exit codes: 0 done, 1 no such VM or request refused, 2 wrong
 * command line, 3 the inspector cannot work (native library not loadable, unreadable record).
 */
public final class Main {
    static final String USAGE = """
            usage: noxinspect [--json] COMMAND
              list [-q] [-m] [-v] [-u USER] [-c TEXT]  the Java VMs on this host (control areas and HotSpot
                                            performance data); -q pids only, -m main's arguments, -v the
                                            VM's arguments, -u one user's VMs, -c main classes with TEXT
              info VM                       start, time, memory and debugging records of one VM
              debug start VM [--suspend N]  ask the VM to start debugging (suspend policy N, default 0)
              debug stop VM                 ask the VM to stop debugging
              exit VM CODE                  ask the VM to exit with CODE (0 to 255)
              boards                        the monitoring boards visible on this host
              serve [--port N] [--bind ADDR] every VM of this host as Prometheus metrics at
                                            http://ADDR:N/metrics and live charts at http://ADDR:N/
                                            (default 127.0.0.1:9471)
              watch                         VMs appearing and vanishing, one line each, until interrupted
              attach PID [OPTIONS]          load nox-agent.jar into a running VM (own, or any as root), so it
                                            publishes a control area (OPTIONS e.g. refresh=500,tag=web)
              counters PID [NAME ...]       a HotSpot VM's performance counters (all, those named, or
                                            those that begin with PREFIX when a NAME is PREFIX*)
              stat [-t] PID [INTERVAL [COUNT]]  a HotSpot VM's collector figures as jstat -gcutil and
                                            -gccause print them, every INTERVAL (ms, or 2s), COUNT times
              top [-d S] [-s KEY] [-u USER] [-c TEXT] [-n N] [-b]  every VM in a live table: CPU, GC,
                                            heap, threads (keys: q quits, c m g t l u p U n sort, r reverses)
              jcmd [--timeout S] PID [COMMAND [ARGS]]  run a diagnostic command in a HotSpot VM, as jcmd does
              threads PID [ARGS]            its thread dump (Thread.print)
              histo PID [ARGS]              its class histogram (GC.class_histogram)
              flags PID                     all its flags with their origins (VM.flags -all)
              props PID                     its system properties (VM.system_properties)
              help                          this text (--version: the inspector's version)
            VM is a pid, or type:id:slot with type process (1) or instance (2), e.g. instance:84:0.
            --json writes the result as JSON on stdout; messages always go to stderr.
            Exit codes: 0 done, 1 no such VM or request refused, 2 wrong command line,
            3 the inspector cannot work here (native library missing, unreadable record).
            """;

    private Main() {
    }

    public static void main(String[] args) {
        PrintStream out = new PrintStream(new FileOutputStream(FileDescriptor.out), false, StandardCharsets.UTF_8);
        PrintStream err = new PrintStream(new FileOutputStream(FileDescriptor.err), true, StandardCharsets.UTF_8);
        int code = run(args, out, err);
        out.flush();
        err.flush();
        System.exit(code);
    }

    /** Runs one command line; returns the exit code. */
    static int run(String[] args, PrintStream out, PrintStream err) {
        boolean json = false;
        boolean help = false;
        List<String> words = new ArrayList<>();
        for (String arg : args) {
            switch (arg) {
                case "--json" -> json = true;
                case "-h", "--help" -> help = true;
                case "--version" -> {
                    out.print(version());
                    return 0;
                }
                default -> words.add(arg);
            }
        }
        if (help || (!words.isEmpty() && words.get(0).equals("help"))) {
            out.print(USAGE);
            return 0;
        }
        try {
            Runnable command = parse(words, json, out);
            loadLibrary();
            command.run();
            return 0;
        } catch (CliError e) {
            // A wrong command line gets one line and where to look, not the whole usage text.
            err.println("noxinspect: " + Text.printable(e.getMessage())
                    + (e.exitCode() == CliError.USAGE ? " (noxinspect help lists the commands)" : ""));
            return e.exitCode();
        } catch (MalformedRecordException e) {
            err.println("noxinspect: a VM published a record the inspector cannot read: "
                    + Text.printable(e.getMessage()));
            return CliError.BROKEN;
        }
    }

    /** The inspector's version (from its jar), the library it would load and the Java that runs it. */
    static String version() {
        String version = Main.class.getPackage().getImplementationVersion();
        String library = System.getProperty("nox.inspector.library");
        return "noxinspect " + (version == null ? "(version unknown: not run from its jar)" : version) + "\n"
                + "library " + (library == null || library.isEmpty() ? "noxjvm_inspector from java.library.path" : library)
                + "\n" + "java " + System.getProperty("java.vm.name") + " " + System.getProperty("java.vm.version")
                + "\n";
    }

    /** Checks the command line completely before anything is asked of a VM. */
    private static Runnable parse(List<String> words, boolean json, PrintStream out) {
        if (words.isEmpty()) {
            throw CliError.usage("no command given");
        }
        String name = words.get(0);
        List<String> rest = words.subList(1, words.size());
        Output output = new Output(out, json);
        Host host = new Host();
        return switch (name) {
            case "list" -> ListCommand.parse(rest, host, output);
            case "boards" -> noArguments(name, rest, () -> BoardsCommand.run(host.boards(), output));
            case "info" -> parseInfo(rest, host, output);
            case "exit" -> parseExit(rest, host, output);
            case "debug" -> parseDebug(rest, host, output);
            case "serve" -> parseServe(rest, out);
            case "watch" -> noArguments(name, rest, () -> new Watch(output).run());
            case "attach" -> Attach.parse(rest, json, out);
            case "jcmd", "threads", "histo", "flags", "props" -> Jcmd.parse(name, rest, json, out);
            case "counters" -> parseCounters(rest, host, output);
            case "stat" -> StatCommand.parse(rest, host, output);
            case "top" -> TopCommand.parse(rest, host, output, out);
            default -> throw CliError.usage("unknown command '" + name + "'");
        };
    }

    private static Runnable noArguments(String command, List<String> rest, Runnable run) {
        expectCount(command, rest, 0);
        return run;
    }

    private static Runnable parseInfo(List<String> rest, Host host, Output output) {
        expectCount("info", rest, 1);
        Target target = Target.parse(rest.get(0));
        return () -> InfoCommand.run(target.find(host.snapshot()).orElseThrow(target::notFound), output);
    }

    private static Runnable parseExit(List<String> rest, Host host, Output output) {
        expectCount("exit", rest, 2);
        Target target = Target.parse(rest.get(0));
        int code = Target.number(rest.get(1), "exit code");
        if (code < 0 || code > 255) {
            throw CliError.usage("exit code must be 0 to 255, not " + code);
        }
        return () -> RequestCommand.exit(host, target, code, output);
    }

    private static Runnable parseCounters(List<String> rest, Host host, Output output) {
        if (rest.isEmpty()) {
            throw CliError.usage("counters takes a pid and optional counter names");
        }
        int pid = Target.number(rest.get(0), "pid");
        if (pid <= 0) {
            throw CliError.usage("a pid is a positive number, not " + rest.get(0));
        }
        List<String> names = List.copyOf(rest.subList(1, rest.size()));
        return () -> CountersCommand.run(host, pid, names, output);
    }

    private static Runnable parseDebug(List<String> rest, Host host, Output output) {
        if (rest.isEmpty() || !(rest.get(0).equals("start") || rest.get(0).equals("stop"))) {
            throw CliError.usage("debug needs start or stop");
        }
        boolean start = rest.get(0).equals("start");
        Integer suspend = null;
        List<String> positional = new ArrayList<>();
        for (int i = 1; i < rest.size(); i++) {
            String word = rest.get(i);
            if (word.equals("--suspend")) {
                if (!start) {
                    throw CliError.usage("--suspend belongs to debug start");
                }
                if (suspend != null || i + 1 >= rest.size()) {
                    throw CliError.usage("--suspend takes one number, once");
                }
                suspend = Target.number(rest.get(++i), "suspend policy");
            } else if (word.startsWith("--")) {
                throw CliError.usage("unknown option " + word);
            } else {
                positional.add(word);
            }
        }
        expectCount("debug " + rest.get(0), positional, 1);
        Target target = Target.parse(positional.get(0));
        int policy = suspend == null ? 0 : suspend;
        return start ? () -> RequestCommand.startDebugging(host, target, policy, output)
                : () -> RequestCommand.stopDebugging(host, target, output);
    }

    private static Runnable parseServe(List<String> rest, PrintStream out) {
        int port = Serve.DEFAULT_PORT;
        String bind = Serve.DEFAULT_BIND;
        for (int i = 0; i < rest.size(); i++) {
            String word = rest.get(i);
            if (!word.equals("--port") && !word.equals("--bind")) {
                throw CliError.usage("serve takes --port N and --bind ADDR, not " + word);
            }
            if (i + 1 >= rest.size()) {
                throw CliError.usage(word + " needs a value");
            }
            String value = rest.get(++i);
            if (word.equals("--port")) {
                port = Target.number(value, "port");
                if (port < 0 || port > 65535) {
                    throw CliError.usage("port must be 0 to 65535, not " + port);
                }
            } else {
                bind = value;
            }
        }
        Serve serve = new Serve(bind, port, out);
        return serve::run;
    }

    private static void expectCount(String command, List<String> args, int count) {
        if (args.size() != count) {
            String need = switch (count) {
                case 0 -> "no arguments";
                case 1 -> "one argument";
                default -> count + " arguments";
            };
            throw CliError.usage(command + " takes " + need + ", got "
                    + (args.isEmpty() ? "none" : String.join(" ", args)));
        }
    }

    private static void loadLibrary() {
        try {
            NativeLibrary.load();
        } catch (UnsatisfiedLinkError e) {
            String path = System.getProperty("nox.inspector.library");
            throw CliError.broken("cannot load the native library " + (path == null || path.isEmpty()
                    ? "noxjvm_inspector from java.library.path" : path) + ": " + e.getMessage());
        }
    }
}
