// The parser of performance-data blocks: synthetic blocks in both byte orders with chosen
// defects, and real files of sleeping JDK 17 VMs (the fuzz seeds). Then the figures computed
// from a block.
#include "hotspotFigures.h"
#include "perfDataBlock.h"
#include "perfDataBuffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using J2SE::PerfCounter;
using J2SE::PerfDataBuffer;
using J2SE::PerfDataCursor;
using noxtest::PerfDataBlock;

namespace {

typedef std::vector<unsigned char> Bytes;

std::vector<std::string> names_of(const Bytes& bytes) {
    PerfDataBuffer block(bytes.data(), bytes.size());
    std::vector<std::string> names;
    PerfDataCursor cursor;
    PerfCounter c;
    while (block.next(&cursor, &c)) names.emplace_back(c.name, c.name_length);
    return names;
}

std::string text_of(const unsigned char* bytes, size_t length) {
    return std::string(reinterpret_cast<const char*>(bytes), length);
}

std::string text_of(const PerfText_CL& t) {
    return text_of(t.bytes, t.length);
}

PerfDataBlock three_counters(bool little_endian) {
    PerfDataBlock b(little_endian);
    b.add_long("sun.os.hrt.frequency", 1000000000, 6, 1)
        .add_string("sun.rt.javaCommand", "demo.Main --port 80")
        .add_long("java.threads.live", -7, 1, 3);
    return b;
}

// The figures of a block; their texts point into `bytes`, which the caller keeps.
HotSpotFigures_CL figures_of(const PerfDataBlock& b, Bytes* bytes) {
    *bytes = b.bytes();
    HotSpotFigures_CL f;
    read_hotspot_figures(PerfDataBuffer(bytes->data(), bytes->size()), &f);
    return f;
}

}  // namespace

TEST(PerfDataBuffer, ReadsBothByteOrdersAndRefusesBadPrologues) {
    for (bool little : {true, false}) {
        PerfDataBlock b = three_counters(little);
        const Bytes padded = b.bytes(4096), good = b.bytes();
        PerfDataBuffer block(padded.data(), padded.size());
        ASSERT_TRUE(block.is_valid()) << little;
        EXPECT_TRUE(block.is_accessible());
        EXPECT_TRUE(block.holds_used());
        EXPECT_EQ(little, block.little_endian());
        EXPECT_EQ(2, block.major_version());
        EXPECT_EQ(3, block.entry_count());
        PerfCounter c;
        ASSERT_TRUE(block.find("sun.os.hrt.frequency", &c));
        EXPECT_TRUE(c.is_long());
        EXPECT_EQ((std::vector<int64_t>{1000000000, 6, 1}), (std::vector<int64_t>{c.long_value, c.units, c.variability}));
        ASSERT_TRUE(block.find("sun.rt.javaCommand", &c));
        EXPECT_TRUE(c.is_bytes());
        EXPECT_EQ("demo.Main --port 80", text_of(c.bytes, c.bytes_length));
        ASSERT_TRUE(block.find("java.threads.live", &c));
        EXPECT_EQ((std::vector<int64_t>{-7, 3}), (std::vector<int64_t>{c.long_value, c.variability}));
        EXPECT_FALSE(block.find("java.threads", &c));  // a prefix is not the name
        Bytes closed = three_counters(little).accessible(false).bytes();
        EXPECT_FALSE(PerfDataBuffer(closed.data(), closed.size()).is_accessible());
        EXPECT_TRUE(PerfDataBuffer(closed.data(), closed.size()).is_valid());

        // Spoiled prologue bytes (magic, byte order, version) and fields: refused, or a walk
        // bounded by what the block really holds.
        struct Spoil {
            size_t at;
            int32_t value;
            bool whole_int;
            bool valid;
            size_t names;
        } spoils[] = {
            {0, 0xCB, false, false, 0}, {3, 0x00, false, false, 0}, {4, 2, false, false, 0},
            {5, 1, false, false, 0},    {5, 3, false, false, 0},
            {8, 0x7fffffff, true, true, 3},                            // used beyond the copy
            {8, -5, true, false, 0},
            {24, static_cast<int32_t>(good.size()) + 8, true, false, 0},  // first entry beyond used
            {24, 8, true, false, 0},                                   // first entry in the prologue
            {28, -1, true, false, 0},
            {28, 1, true, true, 1},                                    // the count bounds the walk
            {28, 1000000, true, true, 3},                              // ... and the used size too
        };
        for (const Spoil& s : spoils) {
            Bytes bytes = good;
            if (s.whole_int) {
                b.put_int(bytes, s.at, s.value);
            } else {
                bytes[s.at] = static_cast<unsigned char>(s.value);
            }
            PerfDataBuffer spoiled(bytes.data(), bytes.size());
            EXPECT_EQ(s.valid, spoiled.is_valid()) << "at " << s.at << " " << s.value;
            EXPECT_EQ(s.names, names_of(bytes).size()) << "at " << s.at << " " << s.value;
            // Only a used size beyond the copy leaves a valid block that does not hold it.
            EXPECT_EQ(!(s.at == 8 && s.valid), spoiled.holds_used() || !s.valid) << s.at;
        }
    }
    Bytes good = three_counters(true).bytes();
    EXPECT_FALSE(PerfDataBuffer(good.data(), 31).is_valid());
    EXPECT_FALSE(PerfDataBuffer(nullptr, 0).is_valid());
}

TEST(PerfDataBuffer, AnEntryThatDoesNotFitEndsTheWalk) {
    PerfDataBlock b = three_counters(true);
    const Bytes good = b.bytes();
    const size_t first = b.entry_offset(0), second = b.entry_offset(1);
    struct Spoil {
        const char* what;
        size_t field;
        int32_t value;
    } spoils[] = {
        {"entry length beyond the block", 0, 0x7fffff00},
        {"entry length below a header", 0, 8},
        {"negative entry length", 0, -16},
        {"name offset beyond the entry", 4, 4096},
        {"name offset inside the header", 4, 4},
        {"vector length beyond the entry", 8, 1000},
        {"negative vector length", 8, -1},
        {"data offset beyond the entry", 16, 4096},
        {"data offset inside the header", 16, 0},
    };
    for (const Spoil& s : spoils) {
        Bytes bytes = good;
        b.put_int(bytes, second + s.field, s.value);
        EXPECT_EQ(std::vector<std::string>{"sun.os.hrt.frequency"}, names_of(bytes)) << s.what;
    }
    Bytes bytes = good;
    bytes[second + 12] = 'I';  // a type HotSpot never writes
    EXPECT_EQ(1u, names_of(bytes).size());
    // A name that runs to the end of its entry without a terminator.
    bytes = good;
    for (size_t i = first + 20; i < second; i++) bytes[i] = 'x';
    EXPECT_TRUE(names_of(bytes).empty());
    // A long whose 8 bytes do not fit in its entry.
    bytes = good;
    b.put_int(bytes, first + 16, static_cast<int32_t>(second - first - 4));
    EXPECT_TRUE(names_of(bytes).empty());
    // A string whose vector holds "Main" without its NUL ends at its vector.
    PerfDataBlock one;
    one.add_string("sun.rt.javaCommand", "Main");
    bytes = one.bytes();
    one.put_int(bytes, one.entry_offset(0) + 8, 4);
    PerfCounter c;
    ASSERT_TRUE(PerfDataBuffer(bytes.data(), bytes.size()).find("sun.rt.javaCommand", &c));
    EXPECT_EQ("Main", text_of(c.bytes, c.bytes_length));
}

// Real files: every entry is walked, the figures are those of the VM that wrote the file, the
// summary agrees with them on what it reads and reads nothing else; and no prefix of a file is
// read beyond its end (a copy of exactly that many bytes: a read past it is an AddressSanitizer
// error).
TEST(PerfDataBuffer, RealFilesTheirFiguresAndEveryPrefixOfOne) {
    struct Expect {
        const char* file;
        const char* command;
        const char* policy;
        int collectors;
    } expects[] = {{"g1", "Sleep arg1", "GarbageFirst", 3},
                   {"serial", "Sleep", "Copy:MSC", 2},
                   {"parallel", "Sleep x y z", "ParScav:MSC", 2}};
    for (const Expect& e : expects) {
        Bytes bytes = noxtest::real_vm_file(e.file);
        PerfDataBuffer block(bytes.data(), bytes.size());
        ASSERT_TRUE(block.is_accessible()) << e.file;
        EXPECT_EQ(static_cast<size_t>(block.entry_count()), names_of(bytes).size()) << e.file;
        EXPECT_GT(block.entry_count(), 150) << e.file;
        HotSpotFigures_CL f, summary;
        read_hotspot_figures(block, &f);
        read_hotspot_summary(block, &summary);
        EXPECT_EQ(e.command, text_of(f.java_command)) << e.file;
        EXPECT_EQ(e.policy, text_of(f.gc_policy)) << e.file;
        EXPECT_EQ(e.collectors, f.collector_count) << e.file;
        EXPECT_EQ("OpenJDK 64-Bit Server VM", text_of(f.vm_name)) << e.file;
        EXPECT_EQ(0u, text_of(f.vm_version).find("17.")) << e.file;
        EXPECT_EQ(1000000000, f.tick_frequency);
        EXPECT_GT(f.begin_millis, 1600000000000LL);
        EXPECT_GE(f.heap_used, 0);
        EXPECT_GT(f.heap_committed, 0);
        EXPECT_GE(f.heap_max, f.heap_committed);
        for (const HotSpotPool_CL& pool : f.pools) EXPECT_LE(pool.committed, pool.max) << e.file;
        EXPECT_GT(f.classes_loaded, 100);
        EXPECT_GE(f.threads_live, 1);
        EXPECT_EQ(text_of(f.java_command), text_of(summary.java_command)) << e.file;
        EXPECT_EQ(text_of(f.vm_version), text_of(summary.vm_version)) << e.file;
        EXPECT_EQ(f.begin_millis, summary.begin_millis) << e.file;
        EXPECT_EQ(-1, summary.heap_used) << e.file;
    }
    Bytes whole = noxtest::real_vm_file("serial");
    PerfDataBuffer full(whole.data(), whole.size());
    for (size_t length = 0; length <= full.used() + 8; length++) {
        Bytes prefix(whole.begin(), whole.begin() + length);
        size_t names = names_of(prefix).size();
        EXPECT_LE(names, static_cast<size_t>(full.entry_count()));
        EXPECT_TRUE(length < full.used() || names == static_cast<size_t>(full.entry_count())) << length;
    }
}

TEST(HotSpotFigures, SyntheticBlocks) {
    PerfDataBlock serial;
    serial.add_string("sun.gc.policy.name", "Copy:MSC")
        .add_long("sun.os.hrt.frequency", 2500000)  // not every VM counts in nanoseconds
        .add_long("sun.gc.generation.0.capacity", 1000)
        .add_long("sun.gc.generation.0.maxCapacity", 4000)
        .add_long("sun.gc.generation.0.space.0.used", 100)
        .add_long("sun.gc.generation.0.space.1.used", 20)
        .add_long("sun.gc.generation.0.space.2.used", 3)
        .add_long("sun.gc.generation.0.space.0.capacity", 999999)  // a space's capacity is not the heap's
        .add_long("sun.gc.generation.1.capacity", 5000)
        .add_long("sun.gc.generation.1.maxCapacity", 16000)
        .add_long("sun.gc.generation.1.space.0.used", 400)
        .add_string("sun.gc.collector.0.name", "Serial young collection pauses")
        .add_long("sun.gc.collector.0.invocations", 12)
        .add_long("sun.gc.collector.0.time", 3000000)
        .add_string("sun.gc.collector.1.name", "Serial full collection pauses")
        .add_long("sun.gc.collector.1.invocations", 1)
        .add_long("sun.gc.collector.1.time", 500)
        .add_long("java.cls.loadedClasses", 40)
        .add_long("java.cls.sharedLoadedClasses", 360)
        .add_long("java.threads.live", 9)
        .add_string("sun.rt.javaCommand", "app.jar --x");
    Bytes kept;
    HotSpotFigures_CL f = figures_of(serial, &kept);
    // Heap used, committed and max; the tick rate; both collectors; classes (loaded and shared); threads.
    EXPECT_EQ((std::vector<int64_t>{523, 6000, 20000, 2500000, 2, 12, 3000000, 1, -1, 400, 9}),
              (std::vector<int64_t>{f.heap_used, f.heap_committed, f.heap_max, f.tick_frequency, f.collector_count,
                                    f.collectors[0].invocations, f.collectors[0].time_ticks,
                                    f.collectors[1].invocations, f.collectors[1].last_exit_ticks,
                                    f.classes_loaded, f.threads_live}));
    EXPECT_EQ("Serial young collection pauses", text_of(f.collectors[0].name));
    EXPECT_EQ("app.jar --x", text_of(f.java_command));

    // An idle G1 VM with -Xms256m -Xmx256m: G1 adds 8 bytes per space to every size and publishes
    // the heap's maximum as each generation's; committed would be 32 bytes above the maximum.
    const int64_t mib = 1 << 20;
    PerfDataBlock g1;
    g1.add_string("sun.gc.policy.name", "GarbageFirst")
        .add_long("sun.gc.generation.0.capacity", 13 * mib + 24)
        .add_long("sun.gc.generation.0.maxCapacity", 256 * mib + 24)
        .add_long("sun.gc.generation.0.space.0.capacity", 13 * mib + 8)
        .add_long("sun.gc.generation.0.space.0.used", 2 * mib)
        .add_long("sun.gc.generation.0.space.1.capacity", 8)
        .add_long("sun.gc.generation.0.space.2.capacity", 8)
        .add_long("sun.gc.generation.0.space.2.maxCapacity", 256 * mib + 8)
        .add_long("sun.gc.generation.1.capacity", 243 * mib + 8)
        .add_long("sun.gc.generation.1.maxCapacity", 256 * mib + 8)
        .add_long("sun.gc.generation.1.space.0.capacity", 243 * mib + 8)
        .add_long("sun.gc.generation.1.space.0.used", 5 * mib + 77)
        .add_long("sun.gc.compressedclassspace.used", 96880);
    f = figures_of(g1, &kept);
    // The heap; eden, survivor and old as (used,) committed, max; class space and metaspace used.
    EXPECT_EQ((std::vector<int64_t>{7 * mib + 77, 256 * mib, 256 * mib, 2 * mib, 13 * mib, 0, 256 * mib,
                                    5 * mib + 77, 243 * mib, 96880, -1}),
              (std::vector<int64_t>{f.heap_used, f.heap_committed, f.heap_max, f.pools[POOL_EDEN].used,
                                    f.pools[POOL_EDEN].committed, f.pools[POOL_SURVIVOR].committed,
                                    f.pools[POOL_SURVIVOR].max, f.pools[POOL_OLD].used, f.pools[POOL_OLD].committed,
                                    f.pools[POOL_CLASS_SPACE].used, f.pools[POOL_METASPACE].used}));

    // A hostile file's figures whose sum overflows: the sum stops at the largest long.
    const int64_t huge = INT64_MAX - 10;
    PerfDataBlock hostile;
    hostile.add_long("sun.gc.generation.0.space.0.used", huge)
        .add_long("sun.gc.generation.0.space.1.used", huge)
        .add_long("sun.gc.generation.1.capacity", huge)
        .add_long("sun.gc.generation.0.capacity", 20)
        .add_long("java.cls.loadedClasses", huge)
        .add_long("java.cls.sharedLoadedClasses", huge);
    f = figures_of(hostile, &kept);
    EXPECT_EQ((std::vector<int64_t>{INT64_MAX, INT64_MAX, INT64_MAX}),
              (std::vector<int64_t>{f.heap_used, f.heap_committed, f.classes_loaded}));

    // Figures the VM does not publish, or beyond the collectors and generations kept: unknown.
    PerfDataBlock none;
    none.add_long("sun.gc.collector.99.invocations", 5)
        .add_long("sun.gc.generation.7.capacity", 5)
        .add_long("sun.gc.generation.x.capacity", 5);
    f = figures_of(none, &kept);
    for (int64_t unknown : {f.heap_used, f.heap_committed, f.heap_max, f.tick_frequency}) EXPECT_EQ(-1, unknown);
    EXPECT_EQ(0, f.collector_count);
    EXPECT_EQ(0u, f.java_command.length);
    HotSpotFigures_CL summary;
    Bytes empty = PerfDataBlock().bytes();
    read_hotspot_summary(PerfDataBuffer(empty.data(), empty.size()), &summary);
    EXPECT_EQ(0u, summary.java_command.length);
    EXPECT_EQ(-1, summary.begin_millis);
}
