package com.nox.jvm.inspector.cli;

import com.nox.jvm.inspector.host.Heap;
import com.nox.jvm.inspector.host.HostVm;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.RecordComponent;
import java.util.ArrayList;
import java.util.List;

/** The JSON shape of one VM, the same in list, info, watch and the answers to requests. */
final class VmDocs {
    private VmDocs() {
    }

    /**
     * The VM's identity and the facts its sources merge into: where it is (cluster, type, id,
     * slot; null for a VM known only by its performance data), its process (pid, start, uptime,
     * owner), the owner of its control area (another than the process's when another user's
     * control area names the process), its sources, version, main class and heap.
     */
    static Doc vm(HostVm vm, long nowSeconds) {
        long uptime = vm.uptimeSeconds(nowSeconds);
        return new Doc().put("cluster", vm.clusterName()).put("clusterType", vm.clusterType())
                .put("clusterId", vm.clusterId()).put("slot", vm.slot()).put("pid", vm.pid()).put("vmId", vm.vmId())
                .put("startTime", vm.startTime() > 0 ? vm.startTime() : null)
                .put("uptimeSeconds", uptime >= 0 ? uptime : null)
                .put("user", vm.user().isEmpty() ? null : vm.user()).put("uid", vm.uid() >= 0 ? vm.uid() : null)
                .put("controlAreaUid", vm.controlArea().map(c -> c.ownerUid() >= 0 ? c.ownerUid() : null).orElse(null))
                .put("sources", vm.sources()).put("version", vm.version()).put("mainClass", vm.mainClass())
                .put("heap", heap(vm.heap()));
    }

    static Doc heap(Heap heap) {
        return new Doc().put("used", known(heap.used())).put("committed", known(heap.committed()))
                .put("max", known(heap.max()));
    }

    private static Long known(long bytes) {
        return bytes < 0 ? null : bytes;
    }

    /**
     * A record as a Doc, one JSON member per component under the component's name (null for no
     * record); enums by name, lists of records as lists. So the JSON follows the record classes as
     * they are, which document the layouts.
     */
    static Doc record(Record record) {
        if (record == null) {
            return null;
        }
        Doc doc = new Doc();
        for (RecordComponent component : record.getClass().getRecordComponents()) {
            doc.put(component.getName(), jsonValue(read(record, component)));
        }
        return doc;
    }

    private static Object jsonValue(Object value) {
        if (value instanceof Enum<?> e) {
            return e.name();
        }
        if (value instanceof Record r) {
            return record(r);
        }
        if (value instanceof Character c) {
            return c.toString();
        }
        if (value instanceof List<?> list) {
            List<Object> items = new ArrayList<>();
            list.forEach(item -> items.add(jsonValue(item)));
            return items;
        }
        return value;
    }

    private static Object read(Record record, RecordComponent component) {
        try {
            return component.getAccessor().invoke(record);
        } catch (IllegalAccessException | InvocationTargetException e) {
            throw new IllegalStateException("cannot read " + component.getName(), e);
        }
    }
}
