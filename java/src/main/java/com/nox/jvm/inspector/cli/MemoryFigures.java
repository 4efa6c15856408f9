package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.HostVm;
import com.nox.jvm.inspector.hotspot.HotSpotFigures;
import com.nox.jvm.inspector.hotspot.HotSpotPool;
import com.nox.jvm.inspector.hotspot.MxBeanNames;

import java.util.ArrayList;
import java.util.List;
import java.util.function.ToLongFunction;

/**
 * The memory of a VM as the jvm_memory families show it: the areas heap (the model's merged heap)
 * and nonheap (the metaspace, class space included: the code cache is not in the performance
 * data), and the pools under the names of the VM's MemoryPoolMXBeans.
 *
 * <p>A VM publishes some figures only at its collections: a G1 VM's heap in use and every VM's
 * metaspace read 0 until then. A running VM always uses some heap and some metaspace, so a 0 there
 * means "not published yet", not "empty": such a figure (and a committed size that reads 0 with
 * it) has no sample, and {@code nox_vm_memory_unpublished} says so for its area or pool.
 */
final class MemoryFigures {
    /** One area (pool "") or pool of an area, and its figures; -1 where there is no sample. */
    record Figure(String area, String pool, long used, long committed, long max, boolean unpublished) {
        /** The labels of its jvm_memory samples: its pool's name, or for an area the area's. */
        String[] labels() {
            return pool.isEmpty() ? new String[] {"area", area} : new String[] {"pool", pool};
        }
    }

    private MemoryFigures() {
    }

    static List<Metrics.Sample> areas(HostVm vm, ToLongFunction<Figure> figure) {
        return samples(areas(vm), figure);
    }

    static List<Metrics.Sample> pools(HostVm vm, ToLongFunction<Figure> figure) {
        return samples(pools(vm), figure);
    }

    /** A marker per area and pool whose use is not published yet. */
    static List<Metrics.Sample> unpublished(HostVm vm) {
        List<Metrics.Sample> samples = new ArrayList<>();
        List<Figure> all = new ArrayList<>(areas(vm));
        all.addAll(pools(vm));
        for (Figure f : all) {
            if (f.unpublished()) {
                samples.add(new Metrics.Sample(List.of("area", f.area(), "pool", f.pool()), "1"));
            }
        }
        return samples;
    }

    static List<Figure> areas(HostVm vm) {
        List<Figure> areas = new ArrayList<>();
        boolean heapUnpublished = vm.hotspot().map(MemoryFigures::heapUnpublished).orElse(false);
        areas.add(new Figure("heap", "", heapUnpublished ? -1 : vm.heap().used(), vm.heap().committed(),
                vm.heap().max(), heapUnpublished));
        vm.hotspot().ifPresent(f -> areas.add(figure("", f.pool(HotSpotPool.Kind.METASPACE), false)));
        return areas;
    }

    static List<Figure> pools(HostVm vm) {
        List<Figure> pools = new ArrayList<>();
        vm.hotspot().ifPresent(f -> {
            for (HotSpotPool pool : f.pools()) {
                String name = MxBeanNames.pool(f, pool.kind());
                if (name != null) {
                    pools.add(figure(name, pool, pool.kind().heap() && heapUnpublished(f)));
                }
            }
        });
        return pools;
    }

    /** A G1 (or Z) VM before its first collection publishes no heap in use: all its spaces read 0. */
    private static boolean heapUnpublished(HotSpotFigures f) {
        return f.heapUsed() == 0;
    }

    /** A heap pool of a VM whose heap is not published, or a metaspace pool that reads 0, is not published. */
    private static Figure figure(String name, HotSpotPool pool, boolean heapUnpublished) {
        boolean unpublished = heapUnpublished || (!pool.kind().heap() && pool.used() == 0);
        long committed = unpublished && pool.committed() == 0 ? -1 : pool.committed();
        return new Figure(pool.kind().heap() ? "heap" : "nonheap", name, unpublished ? -1 : pool.used(), committed,
                pool.max(), unpublished);
    }

    private static List<Metrics.Sample> samples(List<Figure> figures, ToLongFunction<Figure> figure) {
        List<Metrics.Sample> samples = new ArrayList<>();
        for (Figure f : figures) {
            samples.addAll(Metrics.bytes(figure.applyAsLong(f), f.labels()));
        }
        return samples;
    }
}
