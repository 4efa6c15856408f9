package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmInspector;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.HotSpotInspector;
import com.nox.jvm.inspector.hotspot.HotSpotVm;

import java.io.IOException;
import java.io.OutputStream;
import java.io.PrintStream;
import java.net.BindException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.UnknownHostException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;

/**
 * {@code noxinspect serve}: an HTTP endpoint whose {@code /metrics} holds every VM of this host,
 * read by one pass per scrape: one native pass over the control areas, then the performance data
 * of the HotSpot VMs this user may read. Scrapes that arrive while a pass runs wait for that pass and share
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

    private final VmInspector inspector = new VmInspector();
    private final HotSpotInspector hotspot = new HotSpotInspector();
    private final Object passLock = new Object();
    private CompletableFuture<Scrape> passInFlight;

    /** What one scrape shows: the pass over the control areas and the HotSpot VMs' figures. */
    record Scrape(HostPass pass, List<HotSpotFigures> hotspot) {
    }

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
                    + " (another program may hold the port; choose another with --port)");
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

    private void handle(ServeExchange exchange) throws IOException {
        try (exchange) {
            String method = exchange.getRequestMethod();
            String path = exchange.getRequestURI().getPath();
            if (!method.equals("GET") && !method.equals("HEAD")) {
                exchange.getResponseHeaders().set("Allow", "GET, HEAD");
                reply(exchange, 405, "text/plain; charset=utf-8", "only GET and HEAD\n");
                return;
            }
            if (path.equals("/")) {
                reply(exchange, 200, "text/plain; charset=utf-8",
                        "noxinspect: the Java VMs of this host as metrics at /metrics\n");
                return;
            }
            if (!path.equals("/metrics")) {
                reply(exchange, 404, "text/plain; charset=utf-8", "not found; the metrics are at /metrics\n");
                return;
            }
            Metrics.Format format = Metrics.Format.forAccept(exchange.getRequestHeaders().getFirst("Accept"));
            String body;
            try {
                Scrape scrape = pass();
                body = Metrics.render(scrape.pass(), scrape.hotspot(), format);
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
    Scrape pass() {
        CompletableFuture<Scrape> mine = null;
        CompletableFuture<Scrape> shared;
        synchronized (passLock) {
            if (passInFlight == null) {
                passInFlight = new CompletableFuture<>();
                mine = passInFlight;
            }
            shared = passInFlight;
        }
        if (mine != null) {
            try {
                mine.complete(new Scrape(inspector.host(), hotspotFigures()));
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

    /**
     * The figures of every HotSpot VM whose performance data this user may read. A VM that ends
     * between the listing and the read of its figures is left out, as it would be a moment later.
     */
    private List<HotSpotFigures> hotspotFigures() {
        List<HotSpotFigures> figures = new ArrayList<>();
        for (HotSpotVm vm : hotspot.vms()) {
            hotspot.figures(vm.pid()).ifPresent(figures::add);
        }
        return figures;
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
