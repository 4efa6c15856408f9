package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.nox.jvm.inspector.testing.HeadlessChromium;
import com.nox.jvm.inspector.testing.JdkVm;
import com.nox.jvm.inspector.testing.Spawned;
import com.nox.jvm.inspector.testing.Vmsim;

import java.nio.file.Files;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.stream.Collectors;

import org.junit.jupiter.api.Test;

/**
 * The page of noxinspect serve in headless Chromium, with 20 VMs: every VM the test started has a
 * card whose charts draw points, the points and the picture change as the page polls, and the
 * page asked nothing of anyone but serve.
 */
class PageBrowserTest {
    /** Per card: pid, then per chart line its class and point count, e.g. "123 used:4 cpu:3 ...". */
    private static final String CARDS = "[...document.querySelectorAll('section.card')].map(c => c.dataset.pid + ' '"
            + " + [...c.querySelectorAll('polyline')].map(l => l.dataset.series + ':'"
            + " + (l.getAttribute('points') || '').split(' ').filter(Boolean).length).join(' ')).join('\\n')";
    private static final String POINTS = "[...document.querySelectorAll('polyline')].map(l => l.getAttribute('points')).join('|')";

    private static Map<String, String> cards(HeadlessChromium chromium) throws Exception {
        String text = chromium.evaluate(CARDS);
        return Arrays.stream(text.split("\n")).filter(l -> !l.isEmpty())
                .collect(Collectors.toMap(l -> l.split(" ")[0], l -> l, (x, y) -> x + "\n" + y));
    }

    /** The number of points of one line of a card ("123 used:4 cpu:3 ..."); 0 when it has none. */
    private static int points(String card, String series) {
        for (String token : card.split(" ")) {
            if (token.startsWith(series + ":")) {
                return Integer.parseInt(token.substring(series.length() + 1));
            }
        }
        return 0;
    }

    /** Waits until every pid has a card whose CPU line has points (CPU needs two passes: a share is a difference). */
    private static Map<String, String> awaitCards(HeadlessChromium chromium, List<Integer> pids) throws Exception {
        long deadline = System.nanoTime() + 40_000_000_000L;
        Map<String, String> cards = Map.of();
        while (System.nanoTime() < deadline) {
            cards = cards(chromium);
            boolean all = true;
            for (int pid : pids) {
                String card = cards.get(Integer.toString(pid));
                all &= card != null && points(card, "cpu") >= 1 && points(card, "committed") >= 2;
            }
            if (all) {
                return cards;
            }
            Thread.sleep(250);
        }
        throw new AssertionError("the page did not chart every VM of the test " + pids + ": " + cards);
    }

    @Test
    void pageChartsEveryVmFromServeAlone() throws Exception {
        assumeTrue(Files.isExecutable(HeadlessChromium.CHROMIUM),
                "chromium is not installed (Debian package chromium): skipped");
        try (JdkVm serial = new JdkVm("-XX:+UseSerialGC");
             JdkVm g1 = new JdkVm("-XX:+UseG1GC");
             // 18 simulated VMs (this test's instance cluster 71): 20 VMs on the page in all.
             Vmsim simulated = new Vmsim("--type", "instance", "--id", "71", "--slots", "18");
             Spawned serve = Launcher.start("serve", "--port", "0");
             HeadlessChromium chromium = new HeadlessChromium()) {
            String url = Launcher.metricsUrl(serve);
            String origin = url.substring(0, url.indexOf("/metrics"));
            serial.awaitListed();
            g1.awaitListed();
            List<Integer> pids = new ArrayList<>(List.of(serial.pid(), g1.pid()));
            Arrays.stream(simulated.slotPids()).forEach(pids::add);
            assertEquals(20, pids.stream().distinct().count(), pids.toString());

            chromium.navigate(origin + "/");
            Map<String, String> first = awaitCards(chromium, pids);
            String pointsBefore = chromium.evaluate(POINTS);
            byte[] before = chromium.screenshot();
            // Two more polls (one every 2 s).
            Thread.sleep(4500);
            Map<String, String> later = cards(chromium);
            String pointsAfter = chromium.evaluate(POINTS);
            byte[] after = chromium.screenshot();

            assertFalse(pointsBefore.equals(pointsAfter), "the charts did not move: " + first + "\n" + later);
            assertFalse(Arrays.equals(before, after), "two screenshots 4.5 s apart are the same picture");
            for (int pid : pids) {
                assertTrue(later.containsKey(Integer.toString(pid)), "no card for " + pid + ": " + later);
            }
            List<String> requests = chromium.requests();
            assertTrue(requests.contains(origin + "/page.js") && requests.contains(origin + "/page.css"), requests.toString());
            assertTrue(requests.stream().anyMatch(r -> r.startsWith(origin + "/api/vms")), requests.toString());
            for (String request : requests) {
                assertTrue(request.startsWith(origin + "/") || request.startsWith("data:"),
                        "a request outside serve: " + request + " (all: " + requests + ")");
            }
        }
    }
}
