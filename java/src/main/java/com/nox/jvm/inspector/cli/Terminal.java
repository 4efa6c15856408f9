package com.nox.jvm.inspector.cli;

import java.io.IOException;
import java.io.InputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;

/**
 * The terminal that {@code top} draws on: keys read one at a time without echo (stty), the
 * screen drawn in place on the alternate screen, and its size asked of the terminal itself
 * (the cursor-position report after a move to the far corner), so that a resized window is drawn
 * at its new size on the next refresh. Closing puts the terminal back as it was, also when the
 * process is interrupted.
 */
final class Terminal implements AutoCloseable {
    private static final String ESC = "\033[";

    private final PrintStream out;
    private final String saved;
    private final BlockingQueue<Integer> keys = new LinkedBlockingQueue<>();
    private final Thread restorer;
    private volatile int rows;
    private volatile int columns;
    private volatile boolean sized;
    private boolean closed;

    private Terminal(PrintStream out, String saved, int rows, int columns) {
        this.out = out;
        this.saved = saved;
        this.rows = rows;
        this.columns = columns;
        this.restorer = new Thread(this::restore, "noxinspect-top-restore");
    }

    /** Puts the terminal on standard input into key-at-a-time mode; null when that fails. */
    static Terminal open(PrintStream out) {
        String saved = stty("-g");
        if (saved == null || stty("-icanon", "-echo", "min", "1", "time", "0") == null) {
            return null;
        }
        String size = stty("size");
        int rows = 24;
        int columns = 80;
        if (size != null && size.trim().matches("[0-9]+ [0-9]+")) {
            String[] parts = size.trim().split(" ");
            rows = Math.max(1, Integer.parseInt(parts[0]));
            columns = Math.max(1, Integer.parseInt(parts[1]));
        }
        Terminal terminal = new Terminal(out, saved.trim(), rows, columns);
        Runtime.getRuntime().addShutdownHook(terminal.restorer);
        Thread reader = new Thread(terminal::readKeys, "noxinspect-top-keys");
        reader.setDaemon(true);
        reader.start();
        out.print("\033[?1049h" + ESC + "?25l");
        out.flush();
        return terminal;
    }

    int rows() {
        return rows;
    }

    int columns() {
        return columns;
    }

    /** Asks the terminal for its size and waits up to {@code millis} for the answer. */
    void measure(long millis) throws InterruptedException {
        sized = false;
        // Save the cursor, move as far as the screen goes, report where that is, restore.
        out.print("\0337" + ESC + "999;999H" + ESC + "6n" + "\0338");
        out.flush();
        long deadline = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(millis);
        while (!sized && System.nanoTime() < deadline) {
            Thread.sleep(2);
        }
    }

    /** Draws these lines from the top left, each on its own row, and clears what is below them. */
    void draw(java.util.List<String> lines) {
        StringBuilder screen = new StringBuilder(ESC + "H");
        int count = Math.min(lines.size(), rows);
        for (int i = 0; i < count; i++) {
            // Clearing first: a line as wide as the screen leaves the cursor waiting in the last
            // column, where clearing would take its last character.
            screen.append(ESC).append("2K").append(lines.get(i));
            if (i < count - 1) {
                screen.append("\r\n");
            }
        }
        screen.append(ESC).append("J");
        out.print(screen);
        out.flush();
    }

    /** The next key pressed within {@code millis}, or -1. */
    int key(long millis) throws InterruptedException {
        Integer key = keys.poll(Math.max(0, millis), TimeUnit.MILLISECONDS);
        return key == null ? -1 : key;
    }

    @Override
    public void close() {
        if (!closed) {
            closed = true;
            restore();
            try {
                Runtime.getRuntime().removeShutdownHook(restorer);
            } catch (IllegalStateException e) {
                // shutting down already: the hook restores
            }
        }
    }

    private void restore() {
        out.print(ESC + "?25h" + "\033[?1049l");
        out.flush();
        stty(saved.split(" "));
    }

    /** Reads keys; a cursor-position report (ESC [ rows ; columns R) is the size, not a key. */
    private void readKeys() {
        InputStream in = System.in;
        try {
            for (int c = in.read(); c >= 0; c = in.read()) {
                if (c == 0x1b) {
                    readEscape(in);
                } else {
                    keys.add(c);
                }
            }
        } catch (IOException e) {
            // the terminal has gone
        }
        keys.add((int) 'q');
    }

    private void readEscape(InputStream in) throws IOException {
        if (in.read() != '[') {
            return;
        }
        StringBuilder sequence = new StringBuilder();
        for (int c = in.read(); c >= 0 && sequence.length() < 16; c = in.read()) {
            if (c >= 0x40 && c <= 0x7e) {
                if (c == 'R' && sequence.toString().matches("[0-9]{1,4};[0-9]{1,4}")) {
                    String[] parts = sequence.toString().split(";");
                    rows = Math.max(1, Integer.parseInt(parts[0]));
                    columns = Math.max(1, Integer.parseInt(parts[1]));
                    sized = true;
                }
                return;
            }
            sequence.append((char) c);
        }
    }

    /** Runs stty on the terminal (our standard input); its output, or null when it failed. */
    private static String stty(String... args) {
        String[] command = new String[args.length + 1];
        command[0] = "stty";
        System.arraycopy(args, 0, command, 1, args.length);
        try {
            Process p = new ProcessBuilder(command).redirectInput(ProcessBuilder.Redirect.INHERIT)
                    .redirectError(ProcessBuilder.Redirect.DISCARD).start();
            String text = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            return p.waitFor() == 0 ? text : null;
        } catch (IOException e) {
            return null;
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            return null;
        }
    }
}
