// The parser of performance-data blocks: synthetic blocks with chosen defects, and real files
// of sleeping JDK 17 VMs (the fuzz seeds). Then the figures computed from a block.
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

std::vector<std::string> names_of(const std::vector<unsigned char>& bytes) {
    PerfDataBuffer block(bytes.data(), bytes.size());
    std::vector<std::string> names;
    PerfDataCursor cursor;
    PerfCounter c;
    while (block.next(&cursor, &c)) names.emplace_back(c.name, c.name_length);
    return names;
}

std::string text_of(const PerfCounter& c) {
    return std::string(reinterpret_cast<const char*>(c.bytes), c.bytes_length);
}

std::string text_of(const PerfText_CL& t) {
    return std::string(reinterpret_cast<const char*>(t.bytes), t.length);
}

PerfDataBlock three_counters(bool little_endian = true) {
    PerfDataBlock b(little_endian);
    b.add_long("sun.os.hrt.frequency", 1000000000, 6, 1)
        .add_string("sun.rt.javaCommand", "demo.Main --port 80")
        .add_long("java.threads.live", -7, 1, 3);
    return b;
}

}  // namespace

TEST(PerfDataBuffer, ReadsLongsAndStringsOfASyntheticBlock) {
    std::vector<unsigned char> bytes = three_counters().bytes(4096);
    PerfDataBuffer block(bytes.data(), bytes.size());
    ASSERT_TRUE(block.is_valid());
    EXPECT_TRUE(block.is_accessible());
    EXPECT_TRUE(block.little_endian());
    EXPECT_EQ(2, block.major_version());
    EXPECT_EQ(3, block.entry_count());
    PerfCounter c;
    ASSERT_TRUE(block.find("sun.os.hrt.frequency", &c));
    EXPECT_TRUE(c.is_long());
    EXPECT_EQ(1000000000, c.long_value);
    EXPECT_EQ(6, c.units);
    EXPECT_EQ(1, c.variability);
    ASSERT_TRUE(block.find("sun.rt.javaCommand", &c));
    EXPECT_TRUE(c.is_bytes());
    EXPECT_EQ("demo.Main --port 80", text_of(c));
    ASSERT_TRUE(block.find("java.threads.live", &c));
    EXPECT_EQ(-7, c.long_value);
    EXPECT_FALSE(block.find("java.threads", &c));  // a prefix is not the name
    EXPECT_FALSE(block.find("nothing.here", &c));
}

TEST(PerfDataBuffer, ReadsBigEndianBlocks) {
    std::vector<unsigned char> bytes = three_counters(false).bytes();
    PerfDataBuffer block(bytes.data(), bytes.size());
    ASSERT_TRUE(block.is_valid());
    EXPECT_FALSE(block.little_endian());
    PerfCounter c;
    ASSERT_TRUE(block.find("sun.os.hrt.frequency", &c));
    EXPECT_EQ(1000000000, c.long_value);
    ASSERT_TRUE(block.find("java.threads.live", &c));
    EXPECT_EQ(-7, c.long_value);
}

TEST(PerfDataBuffer, RefusesAWrongMagicByteOrderOrVersion) {
    const std::vector<unsigned char> good = three_counters().bytes();
    struct Spoil {
        size_t at;
        unsigned char value;
    } spoils[] = {{0, 0xCB}, {3, 0x00}, {4, 2}, {5, 1}, {5, 3}};
    for (const Spoil& s : spoils) {
        std::vector<unsigned char> bytes = good;
        bytes[s.at] = s.value;
        EXPECT_FALSE(PerfDataBuffer(bytes.data(), bytes.size()).is_valid()) << "byte " << s.at;
    }
    EXPECT_FALSE(PerfDataBuffer(good.data(), 31).is_valid());
    EXPECT_FALSE(PerfDataBuffer(nullptr, 0).is_valid());
}

TEST(PerfDataBuffer, NotAccessibleUntilTheVmSaysSo) {
    std::vector<unsigned char> bytes = three_counters().accessible(false).bytes();
    PerfDataBuffer block(bytes.data(), bytes.size());
    EXPECT_TRUE(block.is_valid());
    EXPECT_FALSE(block.is_accessible());
}

TEST(PerfDataBuffer, PrologueFieldsOutsideTheBlockAreRefusedOrCut) {
    PerfDataBlock b = three_counters();
    std::vector<unsigned char> bytes = b.bytes();
    EXPECT_TRUE(PerfDataBuffer(bytes.data(), bytes.size()).holds_used());
    b.put_int(bytes, 8, 0x7fffffff);  // used beyond the copy: the walk stops at the copy's end
    EXPECT_EQ(3u, names_of(bytes).size());
    EXPECT_FALSE(PerfDataBuffer(bytes.data(), bytes.size()).holds_used());
    bytes = b.bytes();
    b.put_int(bytes, 24, static_cast<int32_t>(bytes.size()) + 8);  // first entry beyond used
    EXPECT_FALSE(PerfDataBuffer(bytes.data(), bytes.size()).is_valid());
    bytes = b.bytes();
    b.put_int(bytes, 24, 8);  // first entry inside the prologue
    EXPECT_FALSE(PerfDataBuffer(bytes.data(), bytes.size()).is_valid());
    bytes = b.bytes();
    b.put_int(bytes, 28, -1);
    EXPECT_FALSE(PerfDataBuffer(bytes.data(), bytes.size()).is_valid());
    bytes = b.bytes();
    b.put_int(bytes, 8, -5);
    EXPECT_FALSE(PerfDataBuffer(bytes.data(), bytes.size()).is_valid());
}

TEST(PerfDataBuffer, EntryCountBoundsTheWalk) {
    PerfDataBlock b = three_counters();
    std::vector<unsigned char> bytes = b.bytes();
    b.put_int(bytes, 28, 1);
    EXPECT_EQ(std::vector<std::string>{"sun.os.hrt.frequency"}, names_of(bytes));
    b.put_int(bytes, 28, 1000000);  // more than there are: the walk ends at the used size
    EXPECT_EQ(3u, names_of(bytes).size());
}

TEST(PerfDataBuffer, AnEntryThatDoesNotFitEndsTheWalk) {
    PerfDataBlock b = three_counters();
    const std::vector<unsigned char> good = b.bytes();
    size_t second = b.entry_offset(1);
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
        std::vector<unsigned char> bytes = good;
        b.put_int(bytes, second + s.field, s.value);
        EXPECT_EQ(std::vector<std::string>{"sun.os.hrt.frequency"}, names_of(bytes)) << s.what;
    }
    std::vector<unsigned char> bytes = good;
    bytes[second + 12] = 'I';  // a type HotSpot never writes
    EXPECT_EQ(1u, names_of(bytes).size());
    // A name that runs to the end of its entry without a terminator.
    bytes = good;
    size_t first = b.entry_offset(0);
    for (size_t i = first + 20; i < second; i++) bytes[i] = 'x';
    EXPECT_TRUE(names_of(bytes).empty());
    // A long whose 8 bytes do not fit in its entry.
    bytes = good;
    b.put_int(bytes, first + 16, static_cast<int32_t>(second - first - 4));
    EXPECT_TRUE(names_of(bytes).empty());
}

TEST(PerfDataBuffer, AStringWithoutTerminatorEndsAtItsVector) {
    PerfDataBlock b;
    b.add_string("sun.rt.javaCommand", "Main");
    std::vector<unsigned char> bytes = b.bytes();
    size_t entry = b.entry_offset(0);
    b.put_int(bytes, entry + 8, 4);  // the vector holds "Main" without its NUL
    PerfDataBuffer block(bytes.data(), bytes.size());
    PerfCounter c;
    ASSERT_TRUE(block.find("sun.rt.javaCommand", &c));
    EXPECT_EQ("Main", text_of(c));
}

TEST(PerfDataBuffer, ReadsTheFilesOfRealVms) {
    for (const char* collector : {"g1", "serial", "parallel"}) {
        std::vector<unsigned char> bytes = noxtest::real_vm_file(collector);
        PerfDataBuffer block(bytes.data(), bytes.size());
        ASSERT_TRUE(block.is_accessible()) << collector;
        std::vector<std::string> names = names_of(bytes);
        EXPECT_EQ(static_cast<size_t>(block.entry_count()), names.size()) << collector;
        EXPECT_GT(names.size(), 150u) << collector;
        PerfCounter c;
        ASSERT_TRUE(block.find("java.property.java.vm.version", &c));
        EXPECT_EQ(0u, text_of(c).find("17.")) << text_of(c);
        ASSERT_TRUE(block.find("sun.os.hrt.frequency", &c));
        EXPECT_EQ(1000000000, c.long_value);
    }
}

TEST(PerfDataBuffer, EveryPrefixOfARealFileIsReadSafely) {
    std::vector<unsigned char> whole = noxtest::real_vm_file("serial");
    PerfDataBuffer full(whole.data(), whole.size());
    size_t used = full.used();
    for (size_t length = 0; length <= used + 8; length++) {
        // A copy of exactly `length` bytes on the heap: a read past it is an AddressSanitizer error.
        std::vector<unsigned char> prefix(whole.begin(), whole.begin() + length);
        std::vector<std::string> names = names_of(prefix);
        EXPECT_LE(names.size(), static_cast<size_t>(full.entry_count()));
        if (length >= used) {
            EXPECT_EQ(static_cast<size_t>(full.entry_count()), names.size());
        }
    }
}

TEST(HotSpotFigures, AddsGenerationsAndKeepsCollectors) {
    PerfDataBlock b;
    b.add_string("sun.gc.policy.name", "Copy:MSC")
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
    std::vector<unsigned char> bytes = b.bytes();
    HotSpotFigures_CL f;
    read_hotspot_figures(PerfDataBuffer(bytes.data(), bytes.size()), &f);
    EXPECT_EQ(523, f.heap_used);
    EXPECT_EQ(6000, f.heap_committed);
    EXPECT_EQ(20000, f.heap_max);
    ASSERT_EQ(2, f.collector_count);
    EXPECT_EQ("Serial young collection pauses", text_of(f.collectors[0].name));
    EXPECT_EQ(12, f.collectors[0].invocations);
    EXPECT_EQ(3000000, f.collectors[0].time_ticks);
    EXPECT_EQ(1, f.collectors[1].invocations);
    EXPECT_EQ(-1, f.collectors[1].last_exit_ticks);
    EXPECT_EQ(400, f.classes_loaded);
    EXPECT_EQ(9, f.threads_live);
    EXPECT_EQ("app.jar --x", text_of(f.java_command));
}

TEST(HotSpotFigures, G1SizesWithoutPaddingAndItsMaximumOnce) {
    // An idle G1 VM with -Xms256m -Xmx256m: G1 adds 8 bytes per space to every size, and publishes
    // the heap's maximum as each generation's. Committed is then 32 bytes above the maximum.
    const int64_t mib = 1 << 20;
    PerfDataBlock b;
    b.add_string("sun.gc.policy.name", "GarbageFirst")
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
    std::vector<unsigned char> bytes = b.bytes();
    HotSpotFigures_CL f;
    read_hotspot_figures(PerfDataBuffer(bytes.data(), bytes.size()), &f);
    EXPECT_EQ(256 * mib, f.heap_committed);
    EXPECT_EQ(256 * mib, f.heap_max);
    EXPECT_EQ(7 * mib + 77, f.heap_used);
    EXPECT_EQ(13 * mib, f.pools[POOL_EDEN].committed);
    EXPECT_EQ(2 * mib, f.pools[POOL_EDEN].used);
    EXPECT_EQ(0, f.pools[POOL_SURVIVOR].committed);
    EXPECT_EQ(256 * mib, f.pools[POOL_SURVIVOR].max);
    EXPECT_EQ(243 * mib, f.pools[POOL_OLD].committed);
    EXPECT_EQ(5 * mib + 77, f.pools[POOL_OLD].used);
    EXPECT_EQ(96880, f.pools[POOL_CLASS_SPACE].used);
    EXPECT_EQ(-1, f.pools[POOL_METASPACE].used);
}

TEST(HotSpotFigures, SumsOfHugeFiguresStopAtTheLargestLong) {
    // A hostile file may publish figures whose sum overflows; the sum stops at INT64_MAX.
    const int64_t huge = INT64_MAX - 10;
    PerfDataBlock b;
    b.add_long("sun.gc.generation.0.space.0.used", huge)
        .add_long("sun.gc.generation.0.space.1.used", huge)
        .add_long("sun.gc.generation.1.capacity", huge)
        .add_long("sun.gc.generation.0.capacity", 20)
        .add_long("java.cls.loadedClasses", huge)
        .add_long("java.cls.sharedLoadedClasses", huge);
    std::vector<unsigned char> bytes = b.bytes();
    HotSpotFigures_CL f;
    read_hotspot_figures(PerfDataBuffer(bytes.data(), bytes.size()), &f);
    EXPECT_EQ(INT64_MAX, f.heap_used);
    EXPECT_EQ(INT64_MAX, f.heap_committed);
    EXPECT_EQ(INT64_MAX, f.classes_loaded);
}

TEST(HotSpotFigures, FiguresTheVmDoesNotPublishAreUnknown) {
    PerfDataBlock b;
    b.add_long("sun.gc.collector.99.invocations", 5)  // beyond the collectors kept
        .add_long("sun.gc.generation.7.capacity", 5)    // beyond the generations kept
        .add_long("sun.gc.generation.x.capacity", 5);
    std::vector<unsigned char> bytes = b.bytes();
    HotSpotFigures_CL f;
    read_hotspot_figures(PerfDataBuffer(bytes.data(), bytes.size()), &f);
    EXPECT_EQ(-1, f.heap_used);
    EXPECT_EQ(-1, f.heap_committed);
    EXPECT_EQ(-1, f.heap_max);
    EXPECT_EQ(-1, f.tick_frequency);
    EXPECT_EQ(0, f.collector_count);
    EXPECT_EQ(0u, f.java_command.length);
}

TEST(HotSpotFigures, FiguresOfRealVms) {
    struct Expect {
        const char* file;
        const char* command;
        const char* policy;
        int collectors;
    } expects[] = {{"g1", "Sleep arg1", "GarbageFirst", 3},
                   {"serial", "Sleep", "Copy:MSC", 2},
                   {"parallel", "Sleep x y z", "ParScav:MSC", 2}};
    for (const Expect& e : expects) {
        std::vector<unsigned char> bytes = noxtest::real_vm_file(e.file);
        HotSpotFigures_CL f;
        read_hotspot_figures(PerfDataBuffer(bytes.data(), bytes.size()), &f);
        EXPECT_EQ(e.command, text_of(f.java_command)) << e.file;
        EXPECT_EQ(e.policy, text_of(f.gc_policy)) << e.file;
        EXPECT_EQ(e.collectors, f.collector_count) << e.file;
        EXPECT_EQ("OpenJDK 64-Bit Server VM", text_of(f.vm_name)) << e.file;
        EXPECT_EQ(1000000000, f.tick_frequency);
        EXPECT_GT(f.begin_millis, 1600000000000LL);
        EXPECT_GE(f.heap_used, 0);
        EXPECT_GT(f.heap_committed, 0);
        EXPECT_GE(f.heap_max, f.heap_committed);
        for (const HotSpotPool_CL& pool : f.pools) EXPECT_LE(pool.committed, pool.max) << e.file;
        EXPECT_GT(f.classes_loaded, 100);
        EXPECT_GE(f.threads_live, 1);
    }
}

TEST(HotSpotFigures, TheSummaryAgreesWithTheFigures) {
    for (const char* collector : {"g1", "serial", "parallel"}) {
        std::vector<unsigned char> bytes = noxtest::real_vm_file(collector);
        PerfDataBuffer block(bytes.data(), bytes.size());
        HotSpotFigures_CL all;
        HotSpotFigures_CL summary;
        read_hotspot_figures(block, &all);
        read_hotspot_summary(block, &summary);
        EXPECT_EQ(text_of(all.java_command), text_of(summary.java_command)) << collector;
        EXPECT_EQ(text_of(all.vm_version), text_of(summary.vm_version)) << collector;
        EXPECT_EQ(all.begin_millis, summary.begin_millis) << collector;
        EXPECT_EQ(-1, summary.heap_used) << collector;
    }
    PerfDataBlock empty;
    std::vector<unsigned char> bytes = empty.bytes();
    HotSpotFigures_CL summary;
    read_hotspot_summary(PerfDataBuffer(bytes.data(), bytes.size()), &summary);
    EXPECT_EQ(0u, summary.java_command.length);
    EXPECT_EQ(-1, summary.begin_millis);
}
