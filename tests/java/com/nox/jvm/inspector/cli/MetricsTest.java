package com.nox.jvm.inspector.cli;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.nox.jvm.inspector.cluster.ClusterEntry;
import com.nox.jvm.inspector.cluster.ClusterType;
import com.nox.jvm.inspector.cluster.DebuggingState;
import com.nox.jvm.inspector.cluster.HostPass;
import com.nox.jvm.inspector.cluster.VmDebugInfo;
import com.nox.jvm.inspector.cluster.VmInspector.Vm;
import com.nox.jvm.inspector.cluster.VmMemoryInfo;
import com.nox.jvm.inspector.cluster.VmRef;
import com.nox.jvm.inspector.cluster.VmStartInfo;
import com.nox.jvm.inspector.cluster.VmTimeInfo;
import com.nox.jvm.inspector.hotspot.GcCollector;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;

import java.util.List;
import java.util.Optional;

import org.junit.jupiter.api.Test;

/** The exposition of a pass built by hand: formats, escaping, figures a VM does not publish. */
class MetricsTest {

    private static VmMemoryInfo memory(long heap, long gcs) {
        return new VmMemoryInfo(0, heap, 1, 2, 0, 0, 0, 0, 0, 0, gcs, 1, 30, 20, 10, 0, 0, 0, 0, 0, 0, 4, 5, 0, 600, 0);
    }

    private static HostPass pass() {
        VmStartInfo start = new VmStartInfo("v\n1", "/", "", "", "", "", "", "a\"b\\c", false, true);
        HostPass.VmFigures good = new HostPass.VmFigures(new Vm(new VmRef(ClusterType.INSTANCE, 7, 1), 4242, 9),
                1700000000L, Optional.of(start), Optional.of(new VmTimeInfo(300, 100, 200, 5)),
                Optional.of(memory(1024, 3)), Optional.of(new VmDebugInfo(true, 1, 2, DebuggingState.STARTING, 3,
                8000, "", false)));
        // Publishes no times, a heap size of -1 and has no memory or debugging record at all.
        HostPass.VmFigures sparse = new HostPass.VmFigures(new Vm(new VmRef(ClusterType.PROCESS, 99, 0), 99, 1), 0,
                Optional.empty(), Optional.of(new VmTimeInfo(-2, -1, -1, -1)), Optional.empty(), Optional.empty());
        return new HostPass(List.of(
                new HostPass.Cluster(new ClusterEntry(true, ClusterType.INSTANCE, 2, 7), 0x60023, 2, List.of(good)),
                new HostPass.Cluster(new ClusterEntry(true, ClusterType.PROCESS, 1, 99), 0x60023, 1, List.of(sparse))),
                1_500_000);
    }

    @Test
    void prometheusTextFormat() {
        String text = Metrics.render(pass(), Metrics.Format.PROMETHEUS);
        String good = "{cluster_type=\"instance\",cluster_id=\"7\",slot=\"1\",pid=\"4242\"";
        assertTrue(text.contains("nox_vm_up" + good + "} 1\n"), text);
        assertTrue(text.contains("nox_vm_info" + good + ",vm_id=\"9\",vm_version=\"v\\n1\",main_class=\"a\\\"b\\\\c\"} 1\n"),
                "line feed, quote and backslash escaped: " + text);
        assertTrue(text.contains("jvm_memory_committed_bytes" + good + ",area=\"heap\"} 1024\n"));
        assertTrue(text.contains("nox_vm_gc_collections_total" + good + "} 3\n"));
        assertTrue(text.contains("nox_vm_process_cpu_time_vm_units_total" + good + "} 300\n"));
        assertTrue(text.contains("nox_vm_debugging_state" + good + ",state=\"starting\"} 1\n"));
        assertTrue(text.contains("nox_vm_debugging_state" + good + ",state=\"not-active\"} 0\n"));
        assertTrue(text.contains("nox_vm_debug_port" + good + "} 8000\n"));
        assertTrue(text.contains("process_start_time_seconds" + good + "} 1700000000\n"));
        assertTrue(text.contains("nox_host_vms 2\n"));
        assertTrue(text.contains("nox_host_clusters{cluster_type=\"instance\"} 1\n"));
        assertTrue(text.contains("nox_host_pass_duration_seconds 0.0015\n"));
        assertTrue(text.contains("# TYPE nox_vm_gc_collections_total counter\n"));
        assertFalse(text.contains("# EOF"));

        String sparse = "pid=\"99\"";
        assertTrue(text.contains("nox_vm_up{cluster_type=\"process\",cluster_id=\"99\",slot=\"0\"," + sparse + "} 1\n"));
        assertTrue(text.contains("vm_version=\"\",main_class=\"\"} 1\n"), "info without a start record");
        for (String family : List.of("jvm_memory_committed_bytes", "nox_vm_process_cpu_time_vm_units_total",
                "process_start_time_seconds", "nox_vm_debugging_state", "nox_vm_gc_collections_total")) {
            assertNull(sampleOf(text, family, sparse), family + " of a VM that does not publish it");
        }
    }

    private static HotSpotFigures hotspot(int pid, String mainClass) {
        return new HotSpotFigures(pid, 1000, "u", mainClass + " arg", "VM", "17.0.1", "vendor", "", "", "G1", 1_700_000_123_456L,
                0, 1_000_000_000L, 5_000_000_000L, 4096, 8192, 65536, 1, 2, 3, 500, 2, 7, 9, 5, 11,
                List.of(new GcCollector("young", 4, 250_000_000L, 0.25, 0, 0),
                        new GcCollector("full", 1, 1_000_000_000L, 1.0, 0, 0)));
    }

    /**
     * A HotSpot VM that also has a control area is one VM: one series per family, its control-area
     * figures as before and its performance-data figures under the same labels; one without has
     * labels of the same names, cluster id and slot empty. The host counts each VM once.
     */
    @Test
    void hotSpotVmsMergedByPid() {
        String text = Metrics.render(pass(), List.of(hotspot(4242, "merged.Main"), hotspot(555, "alone.Main")),
                Metrics.Format.PROMETHEUS);
        String good = "{cluster_type=\"instance\",cluster_id=\"7\",slot=\"1\",pid=\"4242\"";
        assertEquals(3, count(text, "nox_vm_up{"), "three VMs, one nox_vm_up each: " + text);
        assertEquals(1, count(text, "nox_vm_up" + good), text);
        assertEquals(1, count(text, "nox_vm_info" + good), text);
        assertTrue(text.contains("nox_vm_info" + good + ",vm_id=\"9\",vm_version=\"v\\n1\",main_class=\"a\\\"b\\\\c\"} 1\n"),
                "the control area names a merged VM: " + text);
        assertTrue(text.contains("jvm_memory_committed_bytes" + good + ",area=\"heap\"} 1024\n"), "control area's");
        assertEquals(1, count(text, "jvm_memory_committed_bytes" + good));
        assertEquals(1, count(text, "process_start_time_seconds" + good));
        assertTrue(text.contains("jvm_memory_used_bytes" + good + ",area=\"heap\"} 4096\n"), text);
        assertTrue(text.contains("jvm_memory_max_bytes" + good + ",area=\"heap\"} 65536\n"), text);
        assertTrue(text.contains("nox_vm_gc_collector_seconds_total" + good + ",gc=\"young\"} 0.25\n"), text);
        assertTrue(text.contains("nox_vm_gc_collector_collections_total" + good + ",gc=\"full\"} 1\n"), text);
        assertTrue(text.contains("jvm_classes_loaded_total" + good + "} 500\n"), text);
        assertTrue(text.contains("jvm_threads_current" + good + "} 7\n"), text);

        String alone = "{cluster_type=\"hotspot\",cluster_id=\"\",slot=\"\",pid=\"555\"";
        assertTrue(text.contains("nox_vm_up" + alone + "} 1\n"), text);
        assertTrue(text.contains("nox_vm_info" + alone + ",vm_id=\"\",vm_version=\"17.0.1\",main_class=\"alone.Main\"} 1\n"),
                text);
        assertTrue(text.contains("jvm_memory_committed_bytes" + alone + ",area=\"heap\"} 8192\n"), text);
        assertTrue(text.contains("process_start_time_seconds" + alone + "} 1700000123\n"), text);
        assertTrue(text.contains("jvm_threads_started_total" + alone + "} 11\n"), text);
        assertTrue(text.contains("nox_host_vms 3\n"), text);
        assertTrue(text.contains("nox_host_hotspot_only_vms 1\n"), text);
        assertNull(sampleOf(text, "nox_vm_gc_collections_total", "pid=\"555\""), "no control-area figures");
    }

    private static int count(String text, String part) {
        return text.split(java.util.regex.Pattern.quote(part), -1).length - 1;
    }

    @Test
    void openMetricsFormat() {
        String text = Metrics.render(pass(), Metrics.Format.OPENMETRICS);
        assertTrue(text.endsWith("# EOF\n"));
        assertTrue(text.contains("# TYPE nox_vm_gc_collections counter\n"));
        assertTrue(text.contains("# TYPE nox_vm info\n"));
        assertTrue(text.contains("# TYPE process_start_time_seconds gauge\n# UNIT process_start_time_seconds seconds\n"));
        assertTrue(text.contains("nox_vm_gc_collections_total{cluster_type=\"instance\""));
        assertEquals(1, text.split("# EOF", -1).length - 1);
    }

    @Test
    void formatFollowsTheAcceptHeader() {
        assertEquals(Metrics.Format.PROMETHEUS, Metrics.Format.forAccept(null));
        assertEquals(Metrics.Format.PROMETHEUS, Metrics.Format.forAccept("text/plain;version=0.0.4"));
        assertEquals(Metrics.Format.OPENMETRICS, Metrics.Format.forAccept(
                "application/openmetrics-text;version=1.0.0;q=0.5,text/plain;version=0.0.4;q=0.3"));
    }

    private static String sampleOf(String text, String family, String label) {
        for (String line : text.split("\n")) {
            if (line.startsWith(family + "{") && line.contains(label)) {
                return line;
            }
        }
        return null;
    }
}
