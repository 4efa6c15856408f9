package com.nox.jvm.agent;

import java.io.IOException;
import java.lang.instrument.Instrumentation;
import java.lang.management.ManagementFactory;
import java.lang.management.RuntimeMXBean;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.locks.LockSupport;

/**
 * Makes a stock VM visible to the inspector: publishes this process's control area in
 * /tmp/nox_jvm_<euid>_<pid>, keeps its figures fresh, answers the requests raised in it and
 * serves the profiling-server socket. Loaded at start ({@code -javaagent:nox-agent.jar[=options]})
 * or into a running VM through the attach API. All work happens on daemon threads; the VM's own
 * threads are only held up by the shutdown hook that removes the files.
 */
public final class NoxAgent {
    private static final AtomicBoolean STARTED = new AtomicBoolean();

    private final AgentOptions options;
    private final Object lock = new Object();
    private boolean shuttingDown;
    private PublishedArea area;
    private ProfilingServer server;

    private NoxAgent(AgentOptions options) {
        this.options = options;
    }

    /** Entry point of {@code -javaagent}: a bad option is reported and the VM runs on without us. */
    public static void premain(String args, Instrumentation instrumentation) {
        AgentOptions options;
        try {
            options = AgentOptions.parse(args);
        } catch (IllegalArgumentException e) {
            System.err.println("nox-agent: " + e.getMessage() + "; the VM runs without the agent");
            return;
        }
        start(options);
    }

    /** Entry point of a dynamic load; a bad option fails the load, so the attacher learns of it. */
    public static void agentmain(String args, Instrumentation instrumentation) {
        start(AgentOptions.parse(args));
    }

    private static void start(AgentOptions options) {
        if (!STARTED.compareAndSet(false, true)) {
            return;  // loaded a second time: the first agent publishes already
        }
        NoxAgent agent = new NoxAgent(options);
        try {
            Runtime.getRuntime().addShutdownHook(new Thread(agent.new Stop(), "nox-agent-shutdown"));
        } catch (IllegalStateException e) {
            return;  // the VM is already ending
        }
        Thread thread = new Thread(agent.new Run(), "nox-agent");
        thread.setDaemon(true);
        thread.start();
    }

    // Named classes rather than lambdas and method references, and string concatenation compiled
    // without invokedynamic (-XDstringConcat=inline): the method-handle machinery they would
    // start costs a VM some 20 ms of CPU at start-up, more than the agent's own work.
    private final class Run implements Runnable {
        @Override
        public void run() {
            NoxAgent.this.run();
        }
    }

    private final class Stop implements Runnable {
        @Override
        public void run() {
            stop();
        }
    }

    private static final class Exit implements java.util.function.IntConsumer {
        @Override
        public void accept(int code) {
            Runtime.getRuntime().exit(code);
        }
    }

    private static final class Gc implements Runnable {
        @Override
        public void run() {
            System.gc();
        }
    }

    private void run() {
        PublishedArea area;
        MxReadings readings;
        MxReadings.Figures figures = new MxReadings.Figures();
        try (ProcSelf proc = new ProcSelf()) {
            int euid = ProcSelf.userId(1);
            long pid = ProcSelf.pid();
            readings = new MxReadings(proc);
            readings.read(figures);
            synchronized (lock) {
                if (shuttingDown) {
                    return;
                }
                area = PublishedArea.create(TmpFiles.controlArea(euid, pid), euid);
                this.area = area;
                // The server first: a VM that is listed already answers on its socket.
                if (options.server()) {
                    try {
                        server = ProfilingServer.start(TmpFiles.profilingServer(euid, pid), euid);
                    } catch (IOException e) {
                        System.err.println("nox-agent: no profiling server: " + e.getMessage());
                    }
                }
                area.publish(identity((int) pid, options.tag()), figures);
            }
            loop(area, readings, figures);
        } catch (IOException | RuntimeException e) {
            System.err.println("nox-agent: cannot publish the control area: " + e);
            stop();
        }
    }

    /**
     * Looks at the requests every poll interval and refreshes the figures every refresh interval.
     * Nothing that happens to the file ends it: a damaged file is published again at the next
     * look, a file gone from its name is made anew at the next refresh, and a failure is told on
     * standard error (see {@link Notice}) and tried again later.
     */
    private void loop(PublishedArea area, MxReadings readings, MxReadings.Figures figures) {
        RequestWatcher watcher = new RequestWatcher(area, new Exit(), new Gc());
        Notice notice = new Notice(System.err);
        long refresh = TimeUnit.MILLISECONDS.toNanos(options.refreshMillis());
        long poll = TimeUnit.MILLISECONDS.toNanos(options.pollMillis());
        long next = System.nanoTime() + refresh;
        while (!isStopping()) {
            try {
                if (watcher.check() < 0) {
                    area.republish();
                    notice.say(area.path() + " was cut or overwritten; it is published again", System.nanoTime());
                }
                long now = System.nanoTime();
                if (now - next >= 0) {
                    refresh(area, readings, figures);
                    if (area.recreateIfGone()) {
                        notice.say(area.path() + " was removed or replaced; it is published anew", now);
                    }
                    next += refresh;
                    if (now - next >= 0) {
                        next = now + refresh;  // a VM that was stopped does not catch up
                    }
                }
            } catch (IOException | RuntimeException e) {
                if (!isStopping()) {
                    notice.say("cannot publish " + area.path() + " now (" + e + "); trying again", System.nanoTime());
                }
            }
            LockSupport.parkNanos(Math.min(poll, Math.max(0, next - System.nanoTime())));
        }
    }

    private static void refresh(PublishedArea area, MxReadings readings, MxReadings.Figures figures)
            throws IOException {
        try {
            readings.read(figures);
        } catch (RuntimeException e) {
            // An MXBean that fails once (a pool gone, a collector renamed) leaves the last
            // figures in place; the VM stays visible and answers requests.
        }
        area.refresh(figures);
    }

    private boolean isStopping() {
        synchronized (lock) {
            return shuttingDown;
        }
    }

    /** Removes the control-area file and the socket; runs in the shutdown hook. */
    private void stop() {
        synchronized (lock) {
            shuttingDown = true;
            if (server != null) {
                server.close();
                server = null;
            }
            if (area != null) {
                area.close();
                area = null;
            }
        }
    }

    static ControlAreaWriter.Identity identity(int pid, String tag) {
        RuntimeMXBean runtime = ManagementFactory.getRuntimeMXBean();
        String command = System.getProperty("sun.java.command", "");
        return new ControlAreaWriter.Identity(pid, 1,
                runtime.getVmName() + " " + runtime.getVmVersion(),
                String.join(" ", runtime.getInputArguments()),
                VmFlags.nonDefault(),
                command,
                System.getProperty("user.dir", ""),
                tag,
                mainClassOrJar(command));
    }

    /** The first word of the launcher's command: the main class, the jar or module/class. */
    static String mainClassOrJar(String command) {
        String trimmed = command == null ? "" : command.strip();
        int blank = trimmed.indexOf(' ');
        return blank < 0 ? trimmed : trimmed.substring(0, blank);
    }
}
