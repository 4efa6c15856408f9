package com.nox.jvm.inspector.cli;

/** Sizes, durations and texts as a person reads them. */
final class Human {
    private static final String[] UNITS = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};

    private Human() {
    }

    /**
     * A byte count in binary units: {@code 512 B}, {@code 256 MiB}, {@code 1.5 GiB} (one decimal,
     * left out when it is zero). Negative counts are not sizes (a VM publishes -1 for a figure it
     * does not know) and are shown as the plain number.
     */
    static String bytes(long count) {
        if (count < 1024) {
            return count < 0 ? Long.toString(count) : count + " B";
        }
        int unit = -1;
        double value = count;
        while (value >= 1024 && unit < UNITS.length - 1) {
            value /= 1024;
            unit++;
        }
        // Round to one decimal first: 1023.96 KiB becomes 1 MiB, not "1024.0 KiB".
        double rounded = Math.round(value * 10) / 10.0;
        if (rounded >= 1024 && unit < UNITS.length - 1) {
            rounded = Math.round(rounded / 1024 * 10) / 10.0;
            unit++;
        }
        String number = rounded == Math.rint(rounded) ? Long.toString((long) rounded)
                : String.format("%.1f", rounded);
        return number + " " + UNITS[unit];
    }

    /** A duration in whole seconds: {@code 3s}, {@code 2m05s}, {@code 1h02m}, {@code 3d04h}. */
    static String duration(long seconds) {
        if (seconds < 0) {
            return "-";
        }
        if (seconds < 60) {
            return seconds + "s";
        }
        // Built by hand: String.format would load the locale data, which costs a short-lived
        // command more than everything else it does.
        if (seconds < 3600) {
            return seconds / 60 + "m" + twoDigits(seconds % 60) + "s";
        }
        if (seconds < 86400) {
            return seconds / 3600 + "h" + twoDigits(seconds % 3600 / 60) + "m";
        }
        return seconds / 86400 + "d" + twoDigits(seconds % 86400 / 3600) + "h";
    }

    private static String twoDigits(long value) {
        return value < 10 ? "0" + value : Long.toString(value);
    }

    /** The first {@code count} bytes (fewer if the array is shorter) as lower-case hex pairs. */
    static String hex(byte[] bytes, int count) {
        StringBuilder sb = new StringBuilder();
        for (int i = 0; i < Math.min(count, bytes.length); i++) {
            if (i > 0) {
                sb.append(' ');
            }
            sb.append(Character.forDigit((bytes[i] >> 4) & 0xf, 16)).append(Character.forDigit(bytes[i] & 0xf, 16));
        }
        return sb.toString();
    }

    /** The bytes as text, as a hex dump shows them: printable ASCII as is, anything else as '.'. */
    static String ascii(byte[] bytes) {
        StringBuilder sb = new StringBuilder(bytes.length);
        for (byte b : bytes) {
            sb.append(b >= 0x20 && b < 0x7f ? (char) b : '.');
        }
        return sb.toString();
    }
}
