// The figures a person asks of a HotSpot VM, gathered from its performance counters in one walk:
// identity (command, VM name, version, vendor, arguments, flags), start and up time, heap and
// metaspace sizes, garbage collections per collector, class and thread counts.
//
// Texts point into the block they were read from and live as long as its copy. A figure the VM
// does not publish stays -1 (numbers) or empty (texts).
#ifndef NOX_NATIVES_HOTSPOT_FIGURES_H
#define NOX_NATIVES_HOTSPOT_FIGURES_H

#include "perfDataBuffer.h"

#include <cstddef>
#include <cstdint>

struct PerfText_CL {
    const unsigned char* bytes;
    size_t length;
};

struct HotSpotCollector_CL {
    PerfText_CL name;
    int64_t invocations;
    int64_t time_ticks;       // total time in ticks of the VM's high-resolution clock
    int64_t last_entry_ticks;
    int64_t last_exit_ticks;
};

// A memory pool's figures in bytes (-1 when the VM does not publish one).
struct HotSpotPool_CL {
    int64_t used;
    int64_t committed;
    int64_t max;
};

// The pools a VM's counters describe: the young generation's eden (space 0) and survivors
// (spaces 1 and 2: one is empty between collections), the old generation's space (the whole
// heap for collectors with one generation), the metaspace (class space included) and the
// compressed class space.
enum HotSpotPoolKind { POOL_EDEN, POOL_SURVIVOR, POOL_OLD, POOL_METASPACE, POOL_CLASS_SPACE, POOL_KINDS };

struct HotSpotFigures_CL {
    // Collectors the figures keep (HotSpot's collectors publish two or three).
    static const int MAX_COLLECTORS = 8;
    // Generations whose sizes are summed (young and old; more would be a VM we do not know).
    static const int MAX_GENERATIONS = 4;
    // Spaces of a generation that are read (eden and two survivors; the old generation has one).
    static const int MAX_SPACES = 3;

    PerfText_CL java_command;   // main class or jar, then the program's arguments
    PerfText_CL vm_name;
    PerfText_CL vm_version;
    PerfText_CL vm_vendor;
    PerfText_CL vm_arguments;
    PerfText_CL vm_flags;
    PerfText_CL gc_policy;
    int64_t begin_millis;       // the VM began, milliseconds since the epoch
    int64_t init_done_millis;   // the VM finished starting, milliseconds since the epoch
    int64_t tick_frequency;     // ticks per second of the clock the times are counted in
    int64_t uptime_ticks;
    int64_t heap_used;
    int64_t heap_committed;
    int64_t heap_max;
    int64_t metaspace_used;
    int64_t metaspace_committed;
    int64_t metaspace_max;
    int64_t class_space_used;
    int64_t class_space_committed;
    int64_t class_space_max;
    int64_t classes_loaded;     // loaded from class files and from the shared archive, as jstat adds them
    int64_t classes_unloaded;
    int64_t shared_classes_loaded;    // the archive's part of the two above
    int64_t shared_classes_unloaded;
    int64_t threads_live;
    int64_t threads_peak;
    int64_t threads_daemon;
    int64_t threads_started;
    int collector_count;
    HotSpotCollector_CL collectors[MAX_COLLECTORS];
    HotSpotPool_CL pools[POOL_KINDS];
};

// Fills `figures` from `block`; figures the block lacks keep their "unknown" values. Sizes are
// the VM's without the padding G1 adds to each (see hotspotFigures.cpp).
void read_hotspot_figures(const J2SE::PerfDataBuffer& block, HotSpotFigures_CL* figures);

// Fills only what a listing shows (java command, VM version, begin time), walking the block only
// until it has found them; every other figure is unknown.
void read_hotspot_summary(const J2SE::PerfDataBuffer& block, HotSpotFigures_CL* figures);

#endif
