package com.nox.jvm.inspector.cli;

import com.sun.net.httpserver.Headers;

import java.io.ByteArrayOutputStream;
import java.io.OutputStream;
import java.net.URI;
import java.net.URISyntaxException;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.time.ZoneOffset;
import java.time.ZonedDateTime;
import java.time.format.DateTimeFormatter;
import java.util.List;
import java.util.Map;

/**
 * One HTTP request of {@code serve} and its answer: the request head as it arrived (method,
 * target, headers; a body is never read), and the answer that a handler builds in memory, which
 * {@link HttpFrontEnd} then sends. Every answer closes the connection. The method names are
 * those of the JDK server's exchange.
 */
final class ServeExchange implements AutoCloseable {
    private final String method;
    private final URI uri;
    private final Headers requestHeaders;
    private final Headers responseHeaders = new Headers();
    private final ByteArrayOutputStream body = new ByteArrayOutputStream();
    private int status;
    private boolean withBody;

    private ServeExchange(String method, URI uri, Headers requestHeaders) {
        this.method = method;
        this.uri = uri;
        this.requestHeaders = requestHeaders;
    }

    /**
     * The request whose head (request line and header lines, up to and without the empty line)
     * is {@code head}, read as ISO-8859-1 (the bytes of HTTP/1.1 heads). Lines may end in CRLF
     * or LF. A head that is not an HTTP/1.x request throws IllegalArgumentException.
     */
    static ServeExchange parse(String head) {
        String[] lines = head.split("\r?\n", -1);
        String[] requestLine = lines[0].split(" ", -1);
        if (requestLine.length != 3 || requestLine[0].isEmpty() || !requestLine[2].startsWith("HTTP/1.")) {
            throw new IllegalArgumentException("not an HTTP/1.x request line");
        }
        URI uri;
        try {
            uri = new URI(requestLine[1]);
        } catch (URISyntaxException e) {
            throw new IllegalArgumentException("bad request target");
        }
        Headers headers = new Headers();
        for (int i = 1; i < lines.length; i++) {
            int colon = lines[i].indexOf(':');
            if (colon <= 0) {
                throw new IllegalArgumentException("bad header line");
            }
            headers.add(lines[i].substring(0, colon).trim(), lines[i].substring(colon + 1).trim());
        }
        return new ServeExchange(requestLine[0], uri, headers);
    }

    String getRequestMethod() {
        return method;
    }

    URI getRequestURI() {
        return uri;
    }

    Headers getRequestHeaders() {
        return requestHeaders;
    }

    Headers getResponseHeaders() {
        return responseHeaders;
    }

    /** The status of the answer; {@code length} -1 means an answer without body (as for HEAD). */
    void sendResponseHeaders(int status, long length) {
        this.status = status;
        this.withBody = length >= 0;
    }

    /** Where the answer's body goes; it is sent once the handler is done. */
    OutputStream getResponseBody() {
        return body;
    }

    @Override
    public void close() {
        // The answer is sent by the front end once the handler returns.
    }

    /** The whole answer, ready to send: status line, headers, body. A handler that set no status answers 500. */
    ByteBuffer response() {
        if (status == 0) {
            return plain(500, "no answer\n");
        }
        byte[] content = withBody ? body.toByteArray() : new byte[0];
        return message(status, responseHeaders, withBody ? content.length : -1, content);
    }

    /** A short text answer of the front end itself (400, 431, 500). */
    static ByteBuffer plain(int status, String text) {
        Headers headers = new Headers();
        headers.set("Content-Type", "text/plain; charset=utf-8");
        byte[] content = text.getBytes(StandardCharsets.UTF_8);
        return message(status, headers, content.length, content);
    }

    private static ByteBuffer message(int status, Headers headers, long length, byte[] content) {
        StringBuilder head = new StringBuilder(256);
        head.append("HTTP/1.1 ").append(status).append(' ').append(reason(status)).append("\r\n");
        for (Map.Entry<String, List<String>> header : headers.entrySet()) {
            for (String value : header.getValue()) {
                line(head, header.getKey(), value);
            }
        }
        line(head, "Date", DateTimeFormatter.RFC_1123_DATE_TIME.format(ZonedDateTime.now(ZoneOffset.UTC)));
        if (length >= 0) {
            line(head, "Content-Length", Long.toString(length));
        }
        line(head, "Connection", "close");
        head.append("\r\n");
        byte[] headBytes = head.toString().getBytes(StandardCharsets.ISO_8859_1);
        return ByteBuffer.allocate(headBytes.length + content.length).put(headBytes).put(content).flip();
    }

    private static void line(StringBuilder head, String name, String value) {
        if (name.indexOf('\r') >= 0 || name.indexOf('\n') >= 0 || value.indexOf('\r') >= 0 || value.indexOf('\n') >= 0) {
            throw new IllegalArgumentException("a line break in the header " + name);
        }
        head.append(name).append(": ").append(value).append("\r\n");
    }

    private static String reason(int status) {
        return switch (status) {
            case 200 -> "OK";
            case 400 -> "Bad Request";
            case 404 -> "Not Found";
            case 405 -> "Method Not Allowed";
            case 431 -> "Request Header Fields Too Large";
            case 500 -> "Internal Server Error";
            default -> "";
        };
    }
}
