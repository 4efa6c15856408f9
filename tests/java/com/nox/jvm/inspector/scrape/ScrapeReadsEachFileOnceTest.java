package com.nox.jvm.inspector.scrape;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.net.URI;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

import org.junit.jupiter.api.Test;

/**
 * A scrape of `noxinspect serve` over 100 HotSpot VMs reads each performance-data file once: the
 * bytes the serving process reads per scrape (rchar of /proc/<pid>/io) are the files' used parts
 * and little more, where a second copy of each file would double them. The VMs are copies of a
 * real JDK 17 VM's file published under 100 live child processes of this test.
 */
class ScrapeReadsEachFileOnceTest {
    private static final int VMS = 100;
    private static final int SCRAPES = 3;
    private static final Path SOURCE = Path.of(System.getProperty("nox.launcher")).toAbsolutePath().getParent().getParent();
    private static final Path SEED = SOURCE.resolve("fuzz/corpus/perf_data_buffer/g1-sleeping-vm");

    /** The seed with its VM begin time moved to now, so that no live child looks older than its file. */
    private static byte[] vmFile() throws IOException {
        byte[] data = Files.readAllBytes(SEED);
        int name = new String(data, StandardCharsets.ISO_8859_1).indexOf("sun.rt.createVmBeginTime\0");
        assertTrue(name >= 20, "the seed names no begin time");
        ByteBuffer buffer = ByteBuffer.wrap(data).order(ByteOrder.LITTLE_ENDIAN);
        int entry = name - 20;  // the name follows the entry's 20-byte header
        buffer.putLong(entry + buffer.getInt(entry + 16), System.currentTimeMillis());
        return data;
    }

    private static long rchar(long pid) throws IOException {
        for (String line : Files.readAllLines(Path.of("/proc/" + pid + "/io"))) {
            if (line.startsWith("rchar:")) {
                return Long.parseLong(line.substring(6).trim());
            }
        }
        throw new AssertionError("no rchar in /proc/" + pid + "/io");
    }

    private static String scrape(URI uri) throws IOException {
        try (InputStream in = uri.toURL().openStream()) {
            return new String(in.readAllBytes(), StandardCharsets.UTF_8);
        }
    }

    @Test
    void eachFileOfAHundredVmsIsReadOncePerScrape() throws Exception {
        byte[] file = vmFile();
        int used = ByteBuffer.wrap(file).order(ByteOrder.LITTLE_ENDIAN).getInt(8);  // the prologue's used bytes
        Path folder = Path.of("/tmp", "hsperfdata_" + System.getProperty("user.name"));
        Files.createDirectories(folder);
        List<Process> children = new ArrayList<>();
        List<Path> files = new ArrayList<>();
        Process serve = null;
        try {
            for (int i = 0; i < VMS; i++) {
                Process child = new ProcessBuilder("sleep", "600").start();
                children.add(child);
                Path path = folder.resolve(Long.toString(child.pid()));
                files.add(path);
                Files.write(path, file);
            }
            ProcessBuilder builder = new ProcessBuilder(System.getProperty("nox.launcher"), "serve", "--port", "0")
                    .redirectError(ProcessBuilder.Redirect.DISCARD);
            builder.environment().put("NOX_BUILD_DIR", System.getProperty("nox.build.dir"));
            serve = builder.start();
            BufferedReader out = new BufferedReader(new InputStreamReader(serve.getInputStream(), StandardCharsets.UTF_8));
            String line = out.readLine();
            while (line != null && !line.contains("http://")) {
                line = out.readLine();
            }
            assertTrue(line != null, "serve ended without an address");
            URI uri = URI.create(line.substring(line.indexOf("http://")).trim());

            scrape(uri);  // the serving JVM loads its classes and warms up here
            long before = rchar(serve.pid());
            for (int i = 0; i < SCRAPES; i++) {
                // Other tests' VMs may come and go meanwhile: only these VMs are counted on.
                String text = scrape(uri);
                for (Process child : children) {
                    assertTrue(text.contains("pid=\"" + child.pid() + "\""), "VM " + child.pid() + " not scraped");
                }
            }
            double perScrape = (rchar(serve.pid()) - before) / (double) SCRAPES;
            double filesRead = perScrape / ((double) VMS * used);
            String figure = String.format("per scrape %.0f bytes: %.2f times the %d files' used parts", perScrape, filesRead, VMS);
            System.out.println(figure);
            assertTrue(filesRead >= 1.0 && filesRead < 1.5, figure);
        } finally {
            if (serve != null) {
                serve.destroyForcibly().waitFor();
            }
            for (Process child : children) {
                child.destroyForcibly().waitFor();
            }
            for (Path path : files) {
                Files.deleteIfExists(path);
            }
        }
    }
}
