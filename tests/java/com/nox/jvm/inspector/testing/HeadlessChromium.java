package com.nox.jvm.inspector.testing;

import java.io.IOException;
import java.net.URI;
import java.net.URLDecoder;
import java.net.http.HttpClient;
import java.net.http.WebSocket;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Comparator;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CompletionStage;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/**
 * Debian's chromium, headless, with a fresh profile and no network of its own, driven through the
 * DevTools protocol over a WebSocket (java.net.http). It opens one page; every request the page
 * makes is recorded (Network.requestWillBeSent). Closing ends the browser and removes its profile.
 */
public final class HeadlessChromium implements AutoCloseable {
    public static final Path CHROMIUM = Path.of("/usr/bin/chromium");
    private static final Pattern DEVTOOLS = Pattern.compile("DevTools listening on (ws://\\S+)");
    private static final Pattern REQUEST_URL = Pattern.compile("\"request\":\\{\"url\":\"([^\"]*)\"");

    private final Path profile;
    private final Spawned browser;
    private final WebSocket socket;
    private final AtomicInteger ids = new AtomicInteger();
    private final Map<Integer, CompletableFuture<String>> answers = new ConcurrentHashMap<>();
    private final List<String> requests = new CopyOnWriteArrayList<>();
    private final String sessionId;

    public HeadlessChromium() throws Exception {
        profile = Files.createTempDirectory("nox-chromium-profile");
        browser = new Spawned(new ProcessBuilder(CHROMIUM.toString(), "--headless", "--no-sandbox", "--disable-gpu",
                "--disable-quic", "--no-first-run", "--disable-background-networking", "--disable-component-update",
                "--disable-sync", "--user-data-dir=" + profile, "--remote-debugging-port=0", "--window-size=1280,900",
                "about:blank").redirectErrorStream(true));
        Matcher devtools = DEVTOOLS.matcher(browser.await("DevTools listening on ", 30));
        devtools.find();
        socket = HttpClient.newHttpClient().newWebSocketBuilder()
                .buildAsync(URI.create(devtools.group(1)), new Listener()).get(20, TimeUnit.SECONDS);
        String target = field(call(null, "Target.createTarget", "{\"url\":\"about:blank\"}"), "targetId");
        sessionId = field(call(null, "Target.attachToTarget", "{\"targetId\":\"" + target + "\",\"flatten\":true}"),
                "sessionId");
        call(sessionId, "Network.enable", "{}");
        call(sessionId, "Page.enable", "{}");
    }

    /** Opens {@code url} in the page. */
    public void navigate(String url) throws Exception {
        call(sessionId, "Page.navigate", "{\"url\":\"" + url + "\"}");
    }

    /**
     * The value of a JavaScript expression that yields a string. The expression travels in Base64
     * and its value URI-encoded, so that neither needs JSON escapes.
     */
    public String evaluate(String expression) throws Exception {
        String encoded = Base64.getEncoder().encodeToString(expression.getBytes(StandardCharsets.UTF_8));
        String answer = call(sessionId, "Runtime.evaluate", "{\"expression\":\"encodeURIComponent(eval(atob('"
                + encoded + "')))\",\"returnByValue\":true}");
        return URLDecoder.decode(field(answer, "value"), StandardCharsets.UTF_8);
    }

    /** A PNG of the page as it is drawn now. */
    public byte[] screenshot() throws Exception {
        return Base64.getDecoder().decode(field(call(sessionId, "Page.captureScreenshot", "{}"), "data"));
    }

    /** The URL of every request the page has made so far. */
    public List<String> requests() {
        return new ArrayList<>(requests);
    }

    private String call(String session, String method, String params) throws Exception {
        int id = ids.incrementAndGet();
        CompletableFuture<String> answer = new CompletableFuture<>();
        answers.put(id, answer);
        String message = "{\"id\":" + id + (session == null ? "" : ",\"sessionId\":\"" + session + "\"")
                + ",\"method\":\"" + method + "\",\"params\":" + params + "}";
        socket.sendText(message, true).get(10, TimeUnit.SECONDS);
        String text = answer.get(30, TimeUnit.SECONDS);
        if (text.contains("\"error\":")) {
            throw new IOException(method + ": " + text);
        }
        return text;
    }

    /** The value of the first member named {@code name}, a string without escapes (a screenshot is megabytes). */
    static String field(String json, String name) throws IOException {
        String key = "\"" + name + "\":\"";
        int start = json.indexOf(key);
        if (start < 0) {
            throw new IOException("no " + name + " in " + json);
        }
        return json.substring(start + key.length(), json.indexOf('"', start + key.length()));
    }

    private final class Listener implements WebSocket.Listener {
        private final StringBuilder partial = new StringBuilder();

        @Override
        public CompletionStage<?> onText(WebSocket webSocket, CharSequence data, boolean last) {
            partial.append(data);
            if (last) {
                String message = partial.toString();
                partial.setLength(0);
                Matcher id = Pattern.compile("^\\{\"id\":([0-9]+),").matcher(message);
                if (id.find()) {
                    CompletableFuture<String> answer = answers.remove(Integer.parseInt(id.group(1)));
                    if (answer != null) {
                        answer.complete(message);
                    }
                } else if (message.contains("\"method\":\"Network.requestWillBeSent\"")) {
                    Matcher url = REQUEST_URL.matcher(message);
                    if (url.find()) {
                        requests.add(url.group(1));
                    }
                }
            }
            webSocket.request(1);
            return null;
        }
    }

    @Override
    public void close() throws Exception {
        try {
            socket.abort();
        } finally {
            browser.close();
            try (Stream<Path> files = Files.walk(profile)) {
                files.sorted(Comparator.reverseOrder()).forEach(p -> p.toFile().delete());
            }
        }
    }
}
