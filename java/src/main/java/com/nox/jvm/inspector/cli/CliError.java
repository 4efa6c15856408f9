package com.nox.jvm.inspector.cli;

/** A failure that the inspector reports as one message on stderr and its exit code. */
final class CliError extends RuntimeException {
    private static final long serialVersionUID = 1L;

    /** The VM is not there, or it refused or could not take the request. */
    static final int REFUSED = 1;
    /** The command line is wrong; the usage text follows the message. */
    static final int USAGE = 2;
    /** The inspector itself cannot work here (native library missing, unreadable record). */
    static final int BROKEN = 3;

    private final int exitCode;

    private CliError(int exitCode, String message) {
        super(message);
        this.exitCode = exitCode;
    }

    static CliError refused(String message) {
        return new CliError(REFUSED, message);
    }

    static CliError usage(String message) {
        return new CliError(USAGE, message);
    }

    static CliError broken(String message) {
        return new CliError(BROKEN, message);
    }

    /** Not a failure: a command that follows something ends because it ended (exit code 0, the message said). */
    static CliError ended(String message) {
        return new CliError(0, message);
    }

    int exitCode() {
        return exitCode;
    }
}
