package com.nox.jvm.agent;

/**
 * The agent's options, given as {@code -javaagent:nox-agent.jar=refresh=500,tag=web} or as the
 * options string of a dynamic load: comma-separated {@code name=value} pairs.
 * <ul>
 * <li>{@code refresh}: milliseconds between two refreshes of the changing figures (default 1000,
 * 10 to 3600000);</li>
 * <li>{@code poll}: milliseconds between two looks at the request flags (default 50, 1 to 100);</li>
 * <li>{@code tag}: the VM tag shown by inspectors (default {@code nox-agent}, at most 63 bytes);</li>
 * <li>{@code server}: {@code false} to leave out the profiling server (default true).</li>
 * </ul>
 */
record AgentOptions(long refreshMillis, long pollMillis, String tag, boolean server) {
    static final long DEFAULT_REFRESH = 1000;
    static final long DEFAULT_POLL = 50;
    static final String DEFAULT_TAG = "nox-agent";

    static AgentOptions parse(String text) {
        long refresh = DEFAULT_REFRESH;
        long poll = DEFAULT_POLL;
        String tag = DEFAULT_TAG;
        boolean server = true;
        if (text != null && !text.isBlank()) {
            for (String pair : text.split(",")) {
                int eq = pair.indexOf('=');
                if (eq <= 0) {
                    throw new IllegalArgumentException("agent option '" + pair + "' is not name=value");
                }
                String name = pair.substring(0, eq).trim();
                String value = pair.substring(eq + 1).trim();
                switch (name) {
                    case "refresh" -> refresh = number(name, value, 10, 3_600_000);
                    case "poll" -> poll = number(name, value, 1, 100);
                    case "tag" -> tag = value;
                    case "server" -> server = bool(name, value);
                    default -> throw new IllegalArgumentException("unknown agent option '" + name
                            + "' (known: refresh, poll, tag, server)");
                }
            }
        }
        return new AgentOptions(refresh, poll, tag, server);
    }

    private static long number(String name, String value, long min, long max) {
        long n;
        try {
            n = Long.parseLong(value);
        } catch (NumberFormatException e) {
            throw new IllegalArgumentException("agent option " + name + " needs a number, not '" + value + "'");
        }
        if (n < min || n > max) {
            throw new IllegalArgumentException("agent option " + name + " must be " + min + " to " + max + ", not " + n);
        }
        return n;
    }

    private static boolean bool(String name, String value) {
        return switch (value) {
            case "true" -> true;
            case "false" -> false;
            default -> throw new IllegalArgumentException("agent option " + name + " is true or false, not '" + value + "'");
        };
    }
}
