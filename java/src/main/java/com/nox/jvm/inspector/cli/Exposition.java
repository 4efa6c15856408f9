package com.nox.jvm.inspector.cli;

import java.util.Locale;

/**
 * The two exposition formats of {@code /metrics}, each a writer of a family's metadata and of its
 * samples' names: the Prometheus text format 0.0.4 and OpenMetrics 1.0.0. The scraper's
 * {@code Accept} header chooses ({@link #forAccept}); Prometheus asks for OpenMetrics.
 */
enum Exposition {
    /** Families are named as their samples are (counters with _total); no info type, no units. */
    PROMETHEUS("text/plain; version=0.0.4; charset=utf-8") {
        @Override
        void header(StringBuilder out, Metrics.Family family) {
            String name = sampleName(family);
            String type = switch (family.type()) {
                case COUNTER -> "counter";
                case SUMMARY -> "summary";
                case GAUGE, INFO -> "gauge";
            };
            out.append("# HELP ").append(name).append(' ').append(family.help()).append('\n');
            out.append("# TYPE ").append(name).append(' ').append(type).append('\n');
        }

        @Override
        void end(StringBuilder out) {
        }
    },
    /** Families keep their base name, have the info type and a unit; the text ends with # EOF. */
    OPENMETRICS("application/openmetrics-text; version=1.0.0; charset=utf-8") {
        @Override
        void header(StringBuilder out, Metrics.Family family) {
            String type = family.type().name().toLowerCase(Locale.ROOT);
            out.append("# HELP ").append(family.name()).append(' ').append(family.help()).append('\n');
            out.append("# TYPE ").append(family.name()).append(' ').append(type).append('\n');
            if (family.unit() != null) {
                out.append("# UNIT ").append(family.name()).append(' ').append(family.unit()).append('\n');
            }
        }

        @Override
        void end(StringBuilder out) {
            out.append("# EOF\n");
        }
    };

    private final String contentType;

    Exposition(String contentType) {
        this.contentType = contentType;
    }

    /** OpenMetrics when the scraper's Accept header asks for it, else the Prometheus text format. */
    static Exposition forAccept(String accept) {
        return accept != null && accept.toLowerCase(Locale.ROOT).contains("application/openmetrics-text")
                ? OPENMETRICS : PROMETHEUS;
    }

    String contentType() {
        return contentType;
    }

    /** The # HELP, # TYPE (and # UNIT) lines of a family. */
    abstract void header(StringBuilder out, Metrics.Family family);

    /** What follows the last family. */
    abstract void end(StringBuilder out);

    /**
     * The name of a family's samples: counters end in _total, info families in _info, in both
     * formats; a summary's samples add _count and _sum to its name.
     */
    static String sampleName(Metrics.Family family) {
        return switch (family.type()) {
            case COUNTER -> family.name() + "_total";
            case INFO -> family.name() + "_info";
            case GAUGE, SUMMARY -> family.name();
        };
    }
}
