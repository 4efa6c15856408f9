package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.testing.Spawned;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/**
 * Runs tools/noxinspect as a user would, in its own process, against the build folder under
 * test (system properties nox.launcher and nox.build.dir), and keeps what it printed.
 */
final class Launcher {
    /** What one run of the launcher gave. */
    record Result(int exitCode, String out, String err) {
        @Override
        public String toString() {
            return "exit " + exitCode + "\n--- stdout\n" + out + "--- stderr\n" + err;
        }
    }

    private Launcher() {
    }

    static Result run(String... args) throws IOException, InterruptedException {
        return runWith(Map.of("NOX_BUILD_DIR", buildDir()), args);
    }

    static Result runWith(Map<String, String> environment, String... args) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>();
        command.add(System.getProperty("nox.launcher", "tools/noxinspect"));
        command.addAll(Arrays.asList(args));
        return exec(command, environment, null);
    }

    static String buildDir() {
        return System.getProperty("nox.build.dir", "build/release");
    }

    /** Starts a command that runs until it is ended (serve, watch, top), as a user would start it. */
    static Spawned start(String... args) throws IOException {
        List<String> command = new ArrayList<>(List.of(System.getProperty("nox.launcher", "tools/noxinspect")));
        command.addAll(Arrays.asList(args));
        ProcessBuilder builder = new ProcessBuilder(command);
        builder.environment().put("NOX_BUILD_DIR", buildDir());
        return new Spawned(builder);
    }

    /** The URL of the metrics that a started {@code serve} prints, once it listens. */
    static String metricsUrl(Spawned serve) throws InterruptedException {
        String line = serve.await("http://", 20);
        return line.substring(line.indexOf("http://")).trim();
    }

    /** Each element of the JSON array {@code array} whose pid is {@code pid}, its members without the prefix. */
    static List<Map<String, String>> entries(Map<String, String> flat, String array, long pid) {
        List<Map<String, String>> found = new ArrayList<>();
        for (int i = 0; flat.containsKey(array + "." + i + ".pid"); i++) {
            if (flat.get(array + "." + i + ".pid").equals(Long.toString(pid))) {
                found.add(members(flat, array + "." + i + "."));
            }
        }
        return found;
    }

    /** The one VM of a flattened list with this pid; fails when there is none or more than one. */
    static Map<String, String> vm(Map<String, String> flat, long pid) {
        List<Map<String, String>> found = entries(flat, "vms", pid);
        if (found.size() != 1) {
            throw new AssertionError(found.size() + " VMs with pid " + pid + " in " + flat);
        }
        return found.get(0);
    }

    /** The members under {@code prefix}, without it. */
    static Map<String, String> members(Map<String, String> flat, String prefix) {
        Map<String, String> inner = new LinkedHashMap<>();
        flat.forEach((k, v) -> {
            if (k.startsWith(prefix)) {
                inner.put(k.substring(prefix.length()), v);
            }
        });
        return inner;
    }

    /** The whitespace-separated cells of the table row whose third cell is this pid; null when none. */
    static String[] row(String out, long pid) {
        for (String line : out.split("\n")) {
            String[] cells = line.trim().split("\\s+");
            if (cells.length >= 3 && cells[2].equals(Long.toString(pid))) {
                return cells;
            }
        }
        return null;
    }

    /** Runs the command with --json and flattens its output; fails unless it ends with status 0. */
    static Map<String, String> json(String... args) throws IOException, InterruptedException {
        List<String> all = new ArrayList<>(List.of("--json"));
        all.addAll(Arrays.asList(args));
        Result r = run(all.toArray(String[]::new));
        if (r.exitCode() != 0) {
            throw new AssertionError(all + "\n" + r);
        }
        return flatJson(r.out());
    }

    /** A string as flatJson gives it (ASCII text: only quotes and backslashes are escaped). */
    static String q(String text) {
        return "\"" + text.replace("\\", "\\\\").replace("\"", "\\\"") + "\"";
    }

    /**
     * Parses a JSON text with Python's json module (an independent parser) and flattens it into
     * path=value pairs: {@code vms.0.pid} -> {@code 1234}; leaves as JSON (strings quoted,
     * null, true, false). Fails the caller when the text is not valid JSON.
     */
    static Map<String, String> flatJson(String json) throws IOException, InterruptedException {
        String script = String.join("\n",
                "import json, sys",
                "def walk(path, v):",
                "    if isinstance(v, dict):",
                "        if not v: print(path + '={}')",
                "        for k, x in v.items(): walk(path + '.' + k if path else k, x)",
                "    elif isinstance(v, list):",
                "        if not v: print(path + '=[]')",
                "        for i, x in enumerate(v): walk(path + '.' + str(i), x)",
                "    else:",
                "        print(path + '=' + json.dumps(v))",
                "walk('', json.loads(sys.stdin.read()))");
        Result r = exec(List.of("python3", "-c", script), Map.of(), json);
        if (r.exitCode() != 0) {
            throw new AssertionError("not valid JSON: " + r.err() + "\n" + json);
        }
        Map<String, String> flat = new LinkedHashMap<>();
        for (String line : r.out().split("\n")) {
            if (!line.isEmpty()) {
                int eq = line.indexOf('=');
                flat.put(line.substring(0, eq), line.substring(eq + 1));
            }
        }
        return flat;
    }

    static Result exec(List<String> command, Map<String, String> environment, String input)
            throws IOException, InterruptedException {
        Path out = Files.createTempFile("noxinspect-test", ".out");
        Path err = Files.createTempFile("noxinspect-test", ".err");
        Path in = Files.createTempFile("noxinspect-test", ".in");
        try {
            Files.writeString(in, input == null ? "" : input, StandardCharsets.UTF_8);
            ProcessBuilder builder = new ProcessBuilder(command).redirectOutput(out.toFile())
                    .redirectError(err.toFile()).redirectInput(in.toFile());
            builder.environment().putAll(environment);
            Process process = builder.start();
            if (!process.waitFor(120, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                throw new AssertionError("did not end within 120 s: " + command);
            }
            return new Result(process.exitValue(), Files.readString(out, StandardCharsets.UTF_8),
                    Files.readString(err, StandardCharsets.UTF_8));
        } finally {
            Files.deleteIfExists(out);
            Files.deleteIfExists(err);
            Files.deleteIfExists(in);
        }
    }
}
