// One walk over a VM's counters, each recognised name stored in its figure. Heap sizes add up
// the generations: used from their spaces, committed and maximum from the generations; the pools
// are the spaces themselves.
#include "hotspotFigures.h"

#include <cstdint>
#include <cstring>

using J2SE::PerfCounter;
using J2SE::PerfDataBuffer;
using J2SE::PerfDataCursor;

namespace {

const int64_t UNKNOWN = -1;
const char GENERATION_PREFIX[] = "sun.gc.generation.";
const char COLLECTOR_PREFIX[] = "sun.gc.collector.";

struct Space {
    int64_t used;
    int64_t capacity;
    int64_t max_capacity;
};

struct Generations {
    int64_t capacity[HotSpotFigures_CL::MAX_GENERATIONS];
    int64_t max_capacity[HotSpotFigures_CL::MAX_GENERATIONS];
    Space spaces[HotSpotFigures_CL::MAX_GENERATIONS][HotSpotFigures_CL::MAX_SPACES];
};

bool starts_with(const PerfCounter& c, const char* prefix, size_t prefix_length) {
    return c.name_length >= prefix_length && memcmp(c.name, prefix, prefix_length) == 0;
}

// Reads a small index ("0".."99") at `*p`, followed by a dot or the end; advances past it.
bool read_index(const char** p, const char* end, int* index) {
    const char* q = *p;
    int value = 0;
    int digits = 0;
    while (q < end && *q >= '0' && *q <= '9' && digits < 2) {
        value = value * 10 + (*q - '0');
        q++;
        digits++;
    }
    if (digits == 0 || (q < end && *q != '.')) return false;
    *index = value;
    *p = q < end ? q + 1 : q;
    return true;
}

bool rest_is(const char* p, const char* end, const char* word) {
    size_t length = strlen(word);
    return static_cast<size_t>(end - p) == length && memcmp(p, word, length) == 0;
}

// Adds a published figure to a sum (negative: not published). The figures come from a file
// anyone with the VM's user id may write, so the sum stops at INT64_MAX instead of overflowing.
void add(int64_t* sum, int64_t value) {
    if (value < 0) return;
    if (*sum < 0) {
        *sum = value;
    } else {
        *sum = value > INT64_MAX - *sum ? INT64_MAX : *sum + value;
    }
}

// sun.gc.generation.<g>.space.<s>.used, .capacity, .maxCapacity (p is past "space.")
void take_space(const char* p, const char* end, int64_t value, Space* spaces) {
    int s = 0;
    if (!read_index(&p, end, &s) || s >= HotSpotFigures_CL::MAX_SPACES) return;
    if (rest_is(p, end, "used")) {
        spaces[s].used = value;
    } else if (rest_is(p, end, "capacity")) {
        spaces[s].capacity = value;
    } else if (rest_is(p, end, "maxCapacity")) {
        spaces[s].max_capacity = value;
    }
}

// sun.gc.generation.<g>.capacity, .maxCapacity, and .space.<s>.*
void take_generation(const PerfCounter& c, Generations* generations) {
    if (!c.is_long()) return;
    const char* p = c.name + sizeof GENERATION_PREFIX - 1;
    const char* end = c.name + c.name_length;
    int g = 0;
    if (!read_index(&p, end, &g) || g >= HotSpotFigures_CL::MAX_GENERATIONS) return;
    if (rest_is(p, end, "capacity")) {
        generations->capacity[g] = c.long_value;
    } else if (rest_is(p, end, "maxCapacity")) {
        generations->max_capacity[g] = c.long_value;
    } else if (static_cast<size_t>(end - p) > 6 && memcmp(p, "space.", 6) == 0) {
        take_space(p + 6, end, c.long_value, generations->spaces[g]);
    }
}

// sun.gc.collector.<n>.name, .invocations, .time, .lastEntryTime, .lastExitTime
void take_collector(const PerfCounter& c, HotSpotFigures_CL* f) {
    const char* p = c.name + sizeof COLLECTOR_PREFIX - 1;
    const char* end = c.name + c.name_length;
    int n = 0;
    if (!read_index(&p, end, &n) || n >= HotSpotFigures_CL::MAX_COLLECTORS) return;
    HotSpotCollector_CL& collector = f->collectors[n];
    if (rest_is(p, end, "name") && c.is_bytes()) {
        collector.name = PerfText_CL{c.bytes, c.bytes_length};
    } else if (!c.is_long()) {
        return;
    } else if (rest_is(p, end, "invocations")) {
        collector.invocations = c.long_value;
    } else if (rest_is(p, end, "time")) {
        collector.time_ticks = c.long_value;
    } else if (rest_is(p, end, "lastEntryTime")) {
        collector.last_entry_ticks = c.long_value;
    } else if (rest_is(p, end, "lastExitTime")) {
        collector.last_exit_ticks = c.long_value;
    } else {
        return;
    }
    if (n + 1 > f->collector_count) f->collector_count = n + 1;
}

struct TextName {
    const char* name;
    PerfText_CL HotSpotFigures_CL::*field;
};

struct LongName {
    const char* name;
    int64_t HotSpotFigures_CL::*field;
};

const TextName TEXTS[] = {
    {"sun.rt.javaCommand", &HotSpotFigures_CL::java_command},
    {"java.property.java.vm.name", &HotSpotFigures_CL::vm_name},
    {"java.property.java.vm.version", &HotSpotFigures_CL::vm_version},
    {"java.property.java.vm.vendor", &HotSpotFigures_CL::vm_vendor},
    {"java.rt.vmArgs", &HotSpotFigures_CL::vm_arguments},
    {"java.rt.vmFlags", &HotSpotFigures_CL::vm_flags},
    {"sun.gc.policy.name", &HotSpotFigures_CL::gc_policy},
};

const LongName LONGS[] = {
    {"sun.rt.createVmBeginTime", &HotSpotFigures_CL::begin_millis},
    {"sun.rt.vmInitDoneTime", &HotSpotFigures_CL::init_done_millis},
    {"sun.os.hrt.frequency", &HotSpotFigures_CL::tick_frequency},
    {"sun.os.hrt.ticks", &HotSpotFigures_CL::uptime_ticks},
    {"sun.gc.metaspace.used", &HotSpotFigures_CL::metaspace_used},
    {"sun.gc.metaspace.capacity", &HotSpotFigures_CL::metaspace_committed},
    {"sun.gc.metaspace.maxCapacity", &HotSpotFigures_CL::metaspace_max},
    {"sun.gc.compressedclassspace.used", &HotSpotFigures_CL::class_space_used},
    {"sun.gc.compressedclassspace.capacity", &HotSpotFigures_CL::class_space_committed},
    {"sun.gc.compressedclassspace.maxCapacity", &HotSpotFigures_CL::class_space_max},
    {"java.cls.loadedClasses", &HotSpotFigures_CL::classes_loaded},
    {"java.cls.unloadedClasses", &HotSpotFigures_CL::classes_unloaded},
    {"java.cls.sharedLoadedClasses", &HotSpotFigures_CL::shared_classes_loaded},
    {"java.cls.sharedUnloadedClasses", &HotSpotFigures_CL::shared_classes_unloaded},
    {"java.threads.live", &HotSpotFigures_CL::threads_live},
    {"java.threads.livePeak", &HotSpotFigures_CL::threads_peak},
    {"java.threads.daemon", &HotSpotFigures_CL::threads_daemon},
    {"java.threads.started", &HotSpotFigures_CL::threads_started},
};

void take_named(const PerfCounter& c, HotSpotFigures_CL* f) {
    if (c.is_bytes()) {
        for (const TextName& t : TEXTS) {
            if (c.name_is(t.name)) {
                f->*(t.field) = PerfText_CL{c.bytes, c.bytes_length};
                return;
            }
        }
        return;
    }
    for (const LongName& l : LONGS) {
        if (c.name_is(l.name)) {
            f->*(l.field) = c.long_value;
            return;
        }
    }
}

bool text_is(const PerfText_CL& text, const char* word) {
    size_t length = strlen(word);
    return text.length == length && memcmp(text.bytes, word, length) == 0;
}

void clear(HotSpotFigures_CL* f, Generations* g) {
    const PerfText_CL none = {nullptr, 0};
    for (const TextName& t : TEXTS) f->*(t.field) = none;
    for (const LongName& l : LONGS) f->*(l.field) = UNKNOWN;
    f->heap_used = f->heap_committed = f->heap_max = UNKNOWN;
    f->collector_count = 0;
    for (HotSpotCollector_CL& c : f->collectors) {
        c.name = none;
        c.invocations = c.time_ticks = c.last_entry_ticks = c.last_exit_ticks = UNKNOWN;
    }
    for (HotSpotPool_CL& pool : f->pools) pool.used = pool.committed = pool.max = UNKNOWN;
    for (int i = 0; i < HotSpotFigures_CL::MAX_GENERATIONS; i++) {
        g->capacity[i] = g->max_capacity[i] = UNKNOWN;
        for (Space& space : g->spaces[i]) space.used = space.capacity = space.max_capacity = UNKNOWN;
    }
}

// G1 adds the object alignment (8 bytes unless -XX:ObjectAlignmentInBytes says up to 256) to
// every size it publishes, once per space, so that jstat never divides by a zero capacity: a
// young generation of 13 MiB reads 13 MiB + 24 and committed could read above the maximum. Its
// sizes are whole regions (1 MiB at least), so each rounded down to a whole KiB is the true one.
int64_t without_padding(int64_t bytes) {
    return bytes < 0 ? bytes : bytes & ~static_cast<int64_t>(1023);
}

void remove_g1_padding(Generations* g) {
    for (int i = 0; i < HotSpotFigures_CL::MAX_GENERATIONS; i++) {
        g->capacity[i] = without_padding(g->capacity[i]);
        g->max_capacity[i] = without_padding(g->max_capacity[i]);
        for (Space& space : g->spaces[i]) {
            space.capacity = without_padding(space.capacity);
            space.max_capacity = without_padding(space.max_capacity);
        }
    }
}

// A pool of several spaces of which one is in use at a time (the survivors): their use added
// up, the largest capacity and maximum.
void add_space(HotSpotPool_CL* pool, const Space& space) {
    add(&pool->used, space.used);
    if (space.capacity > pool->committed) pool->committed = space.capacity;
    if (space.max_capacity > pool->max) pool->max = space.max_capacity;
}

void take_pools(const Generations& g, HotSpotFigures_CL* f) {
    add_space(&f->pools[POOL_EDEN], g.spaces[0][0]);
    add_space(&f->pools[POOL_SURVIVOR], g.spaces[0][1]);
    add_space(&f->pools[POOL_SURVIVOR], g.spaces[0][2]);
    add_space(&f->pools[POOL_OLD], g.spaces[1][0]);
    f->pools[POOL_METASPACE] = HotSpotPool_CL{f->metaspace_used, f->metaspace_committed, f->metaspace_max};
    f->pools[POOL_CLASS_SPACE] = HotSpotPool_CL{f->class_space_used, f->class_space_committed, f->class_space_max};
}

void add_generations(const Generations& generations, bool shared_maximum, HotSpotFigures_CL* f) {
    for (int g = 0; g < HotSpotFigures_CL::MAX_GENERATIONS; g++) {
        for (const Space& space : generations.spaces[g]) add(&f->heap_used, space.used);
        add(&f->heap_committed, generations.capacity[g]);
        if (shared_maximum) {
            if (generations.max_capacity[g] > f->heap_max) f->heap_max = generations.max_capacity[g];
        } else {
            add(&f->heap_max, generations.max_capacity[g]);
        }
    }
}

}  // namespace

void read_hotspot_figures(const PerfDataBuffer& block, HotSpotFigures_CL* f) {
    Generations generations;
    clear(f, &generations);
    PerfDataCursor cursor;
    PerfCounter c;
    while (block.next(&cursor, &c)) {
        if (starts_with(c, GENERATION_PREFIX, sizeof GENERATION_PREFIX - 1)) {
            take_generation(c, &generations);
        } else if (starts_with(c, COLLECTOR_PREFIX, sizeof COLLECTOR_PREFIX - 1)) {
            take_collector(c, f);
        } else {
            take_named(c, f);
        }
    }
    add(&f->classes_loaded, f->shared_classes_loaded);
    add(&f->classes_unloaded, f->shared_classes_unloaded);
    // G1 publishes the whole heap's maximum as the maximum of both its young and its old
    // generation: the heap's maximum is the larger one, not their sum.
    bool g1 = text_is(f->gc_policy, "GarbageFirst");
    if (g1) remove_g1_padding(&generations);
    add_generations(generations, g1, f);
    take_pools(generations, f);
}

void read_hotspot_summary(const PerfDataBuffer& block, HotSpotFigures_CL* f) {
    Generations generations;
    clear(f, &generations);
    bool command = false;
    bool version = false;
    bool begin = false;
    PerfDataCursor cursor;
    PerfCounter c;
    while (!(command && version && begin) && block.next(&cursor, &c)) {
        if (c.is_bytes() && c.name_is("sun.rt.javaCommand")) {
            f->java_command = PerfText_CL{c.bytes, c.bytes_length};
            command = true;
        } else if (c.is_bytes() && c.name_is("java.property.java.vm.version")) {
            f->vm_version = PerfText_CL{c.bytes, c.bytes_length};
            version = true;
        } else if (c.is_long() && c.name_is("sun.rt.createVmBeginTime")) {
            f->begin_millis = c.long_value;
            begin = true;
        }
    }
}
