package com.nox.jvm.inspector.cli;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.util.Map;

/**
 * The page of {@code serve} at {@code /}: every VM of the host with live charts. The page, its
 * script and its styles are served from the inspector's jar, and the answers forbid the browser
 * to load anything from elsewhere (Content-Security-Policy), so the page works on a host without
 * a way out and tells nothing to a third party. The script polls {@code /api/vms}, whose points
 * come from the passes over the host that {@code /metrics} also uses ({@link PageHistory}).
 */
final class Page {
    /** A poll that finds a pass younger than this uses it rather than reading the host again. */
    static final long FRESH_MILLIS = 1000;

    private static final String SECURITY = "default-src 'none'; script-src 'self'; style-src 'self'; "
            + "connect-src 'self'; img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

    /** Path to resource name and content type. */
    private static final Map<String, String[]> ASSETS = Map.of(
            "/", new String[] {"page/index.html", "text/html; charset=utf-8"},
            "/page.js", new String[] {"page/page.js", "text/javascript; charset=utf-8"},
            "/page.css", new String[] {"page/page.css", "text/css; charset=utf-8"});

    private final PageHistory history;
    /** Runs a pass over the host (shared with scrapes) and records it in the history. */
    private final Runnable pass;
    private final Map<String, byte[]> assets;

    Page(PageHistory history, Runnable pass) {
        this.history = history;
        this.pass = pass;
        this.assets = Map.of("/", load("/"), "/page.js", load("/page.js"), "/page.css", load("/page.css"));
    }

    static boolean serves(String path) {
        return ASSETS.containsKey(path) || path.equals("/api/vms");
    }

    /** Answers a GET or HEAD of one of the page's paths. */
    void answer(ServeExchange exchange, String path, String query) throws IOException {
        exchange.getResponseHeaders().set("Content-Security-Policy", SECURITY);
        exchange.getResponseHeaders().set("X-Content-Type-Options", "nosniff");
        exchange.getResponseHeaders().set("Cache-Control", "no-store");
        if (path.equals("/api/vms")) {
            if (System.currentTimeMillis() - history.lastPassMillis() >= FRESH_MILLIS) {
                pass.run();
            }
            reply(exchange, "application/json; charset=utf-8",
                    history.json(since(query)).getBytes(StandardCharsets.UTF_8));
            return;
        }
        reply(exchange, ASSETS.get(path)[1], assets.get(path));
    }

    /** The {@code since} of a query such as "since=1700000000000"; 0 when there is none or it is not a number. */
    static long since(String query) {
        if (query == null) {
            return 0;
        }
        for (String part : query.split("&")) {
            if (part.startsWith("since=") && part.substring(6).matches("[0-9]{1,15}")) {
                return Long.parseLong(part.substring(6));
            }
        }
        return 0;
    }

    private static void reply(ServeExchange exchange, String contentType, byte[] body) throws IOException {
        exchange.getResponseHeaders().set("Content-Type", contentType);
        boolean head = exchange.getRequestMethod().equals("HEAD");
        exchange.sendResponseHeaders(200, head ? -1 : body.length);
        if (!head) {
            try (OutputStream stream = exchange.getResponseBody()) {
                stream.write(body);
            }
        }
    }

    private static byte[] load(String path) {
        String name = ASSETS.get(path)[0];
        try (InputStream in = Page.class.getResourceAsStream(name)) {
            if (in == null) {
                throw new IllegalStateException("the inspector's jar lacks " + name);
            }
            return in.readAllBytes();
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }
}
