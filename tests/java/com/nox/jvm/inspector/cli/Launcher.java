package com.nox.jvm.inspector.cli;

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

    /** True when Python's json module reads {@code json} and finds {@code expected} at {@code path}. */
    static boolean jsonStringAt(String json, String expected, String... path) throws IOException,
            InterruptedException {
        List<String> command = new ArrayList<>(List.of("python3", "-c",
                "import json, sys\nv = json.loads(sys.stdin.read())\nfor k in sys.argv[2:]: v = v[k]\n"
                        + "sys.exit(0 if v == sys.argv[1] else 1)",
                expected));
        command.addAll(Arrays.asList(path));
        return exec(command, Map.of(), json).exitCode() == 0;
    }

    private static Result exec(List<String> command, Map<String, String> environment, String input)
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
