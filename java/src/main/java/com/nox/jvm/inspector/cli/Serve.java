package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.Host;
import com.nox.jvm.inspector.host.HostSnapshot;

import java.io.IOException;
import java.io.OutputStream;
import java.io.PrintStream;
import java.net.BindException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.NetworkInterface;
import java.net.UnknownHostException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;

/**
 * {@code noxinspect serve}: an HTTP endpoint whose {@code /metrics} holds every VM of this host,
 * read into one snapshot of the host model per scrape (one pass over the control areas and one read
 * of the performance data this user may read). Scrapes that arrive while a pass runs wait for that pass and share
 * its result instead of starting their own, so no scrape waits longer than one pass and the host
 * is never read by two passes at once.
 */
final class Serve {
    static final int DEFAULT_PORT = 9471;
    static final String DEFAULT_BIND = "127.0.0.1";
    /**
     * Threads that build answers to complete requests; a scrape spends its time in the pass,
     * which they share. Connections themselves are served by one thread (see HttpFrontEnd).
     */
    private static final int THREADS = 4;

    /** Used by one pass at a time (see {@link #pass}). */
    private final Host host = new Host();
    private final Object passLock = new Object();
    private CompletableFuture<HostSnapshot> passInFlight;
    /** What the page at / charts: a point per VM for every pass. */
    private final PageHistory history = new PageHistory();
    private final Page page = new Page(history, this::pass);

    private final String bind;
    private final int port;
    private final PrintStream out;

    Serve(String bind, int port, PrintStream out) {
        this.bind = bind;
        this.port = port;
        this.out = out;
    }

    /** Serves until the process is interrupted (SIGINT, SIGTERM). */
    void run() {
        HttpFrontEnd server = start();
        CountDownLatch stopped = new CountDownLatch(1);
        Runtime.getRuntime().addShutdownHook(new Thread(() -> {
            server.close();
            stopped.countDown();
        }, "noxinspect-serve-stop"));
        try {
            stopped.await();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }

    /** Binds and starts the server; prints where it listens. */
    HttpFrontEnd start() {
        InetAddress address;
        try {
            address = InetAddress.getByName(bind);
        } catch (UnknownHostException e) {
            throw CliError.usage("--bind: unknown address " + bind);
        }
        HttpFrontEnd server;
        InetSocketAddress bound;
        try {
            server = HttpFrontEnd.start(new InetSocketAddress(address, port), 64, THREADS, this::handle);
            bound = server.address();
        } catch (BindException e) {
            throw CliError.refused("cannot listen on " + bind + " port " + port + ": " + e.getMessage()
                    + " (" + bindHint(address) + ")");
        } catch (IOException e) {
            throw CliError.refused("cannot listen on " + bind + " port " + port + ": " + e.getMessage());
        }
        String host = bound.getAddress().getHostAddress();
        if (host.contains(":")) {
            host = "[" + host + "]";
        }
        out.println("serving the metrics of this host at http://" + host + ":" + bound.getPort() + "/metrics");
        out.flush();
        return server;
    }

    /** Why a bind failed, as far as can be told: an address the host does not have, a low port, or a port taken. */
    private String bindHint(InetAddress address) {
        try {
            if (!address.isAnyLocalAddress() && NetworkInterface.getByInetAddress(address) == null) {
                List<String> own = new ArrayList<>();
                for (NetworkInterface nic : Collections.list(NetworkInterface.getNetworkInterfaces())) {
                    for (InetAddress a : Collections.list(nic.getInetAddresses())) {
                        own.add(a.getHostAddress().replaceFirst("%.*", ""));
                    }
                }
                return "this host has no address " + address.getHostAddress() + "; its addresses are "
                        + String.join(", ", own) + ", and 0.0.0.0 listens on all of them";
            }
        } catch (IOException e) {
            // the host's addresses cannot be listed: say what is likely
        }
        if (port > 0 && port < 1024) {
            return "ports below 1024 are root's; choose another with --port";
        }
        return "another program may hold the port; choose another with --port";
    }

    private void handle(ServeExchange exchange) throws IOException {
        try (exchange) {
            String method = exchange.getRequestMethod();
            String path = exchange.getRequestURI().getPath();
            if (!method.equals("GET") && !method.equals("HEAD")) {
                exchange.getResponseHeaders().set("Allow", "GET, HEAD");
                reply(exchange, 405, "text/plain; charset=utf-8", "only GET and HEAD\n");
                return;
            }
            if (Page.serves(path)) {
                page.answer(exchange, path, exchange.getRequestURI().getRawQuery());
                return;
            }
            if (!path.equals("/metrics")) {
                reply(exchange, 404, "text/plain; charset=utf-8", "not found; the metrics are at /metrics, the page at /\n");
                return;
            }
            Exposition format = Exposition.forAccept(exchange.getRequestHeaders().getFirst("Accept"));
            String body;
            try {
                body = Metrics.render(pass(), format);
            } catch (RuntimeException e) {
                reply(exchange, 500, "text/plain; charset=utf-8", "the pass over the host failed: " + e + "\n");
                return;
            }
            reply(exchange, 200, format.contentType(), body);
        }
    }

    /**
     * A fresh pass, or the one running now: the first scrape runs it, scrapes that arrive
     * meanwhile wait for its end and use its result. The lock is held only to look at and set
     * the pass in flight, never during the pass.
     */
    HostSnapshot pass() {
        CompletableFuture<HostSnapshot> mine = null;
        CompletableFuture<HostSnapshot> shared;
        synchronized (passLock) {
            if (passInFlight == null) {
                passInFlight = new CompletableFuture<>();
                mine = passInFlight;
            }
            shared = passInFlight;
        }
        if (mine != null) {
            try {
                HostSnapshot snapshot = host.snapshot();
                history.record(snapshot);
                mine.complete(snapshot);
            } catch (Throwable t) {
                mine.completeExceptionally(t);
            } finally {
                synchronized (passLock) {
                    passInFlight = null;
                }
            }
        }
        return shared.join();
    }

    private static void reply(ServeExchange exchange, int status, String contentType, String body) throws IOException {
        byte[] bytes = body.getBytes(StandardCharsets.UTF_8);
        exchange.getResponseHeaders().set("Content-Type", contentType);
        boolean head = exchange.getRequestMethod().equals("HEAD");
        exchange.sendResponseHeaders(status, head ? -1 : bytes.length);
        if (!head) {
            try (OutputStream stream = exchange.getResponseBody()) {
                stream.write(bytes);
            }
        }
    }
}
