// The record streams: byte order, string prefixes, the _ok gate and buffer growth, including
// the failure paths (a failed first allocation, a failed growth, an over-long string).
#include "outputStreams.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

// The failed-first-allocation test asks malloc for SIZE_MAX bytes; under AddressSanitizer that
// must return null as it does in glibc, instead of aborting the test.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

std::vector<unsigned char> bytes_of(const ByteArrayOutputStream_CL& buffer) {
    return std::vector<unsigned char>(buffer.data(), buffer.data() + buffer.size());
}

// A buffer whose growth can be made to fail, counting the calls that reach it.
class FailingBuffer : public ByteArrayOutputStream_CL {
public:
    explicit FailingBuffer(size_t capacity) : ByteArrayOutputStream_CL(capacity) {}
    bool fail_growth = false;
    int growths = 0;

protected:
    void* grow_block(void* block, size_t capacity) override {
        growths++;
        return fail_growth ? nullptr : ByteArrayOutputStream_CL::grow_block(block, capacity);
    }
};

}  // namespace

TEST(DataOutputStream, BigEndianIntegersBooleansAndStrings) {
    ByteArrayOutputStream_CL buffer(1024);
    DataOutputStream_CL out(buffer);
    out.writeInt(-1);
    out.writeLong(1);
    out.writeBoolean(true);
    out.writeBoolean(false);
    out.writeInt(0x01020304);
    out.writeLong(INT64_MIN);
    out.writeString(String_CL{"", 0});
    out.writeString(String_CL{"ab\0c", 4});  // bytes as they are, NUL included
    std::vector<unsigned char> expected = {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 1, 2, 3, 4,
                                           0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 'a', 'b', 0, 'c'};
    EXPECT_EQ(bytes_of(buffer), expected);
    EXPECT_TRUE(out.is_ok());
    EXPECT_TRUE(out.flush());
}

TEST(DataOutputStream, StringsUpTo65535BytesAndNoMore) {
    ByteArrayOutputStream_CL buffer(1024);
    DataOutputStream_CL out(buffer);
    std::string longest(65535, 'q');
    out.writeString(String_CL{longest.data(), longest.size()});
    ASSERT_EQ(buffer.size(), 65537u);
    EXPECT_EQ(buffer.data()[0], 0xFF);
    EXPECT_EQ(buffer.data()[1], 0xFF);
    EXPECT_EQ(buffer.data()[65536], 'q');

    std::string too_long(65536, 'q');
    out.writeString(String_CL{too_long.data(), too_long.size()});
    EXPECT_FALSE(out.is_ok());
    EXPECT_EQ(buffer.size(), 65537u);  // nothing of it, not even the prefix
    out.writeInt(7);
    out.writeString(String_CL{"x", 1});
    EXPECT_EQ(out.write("abc", 3), -1);
    EXPECT_EQ(buffer.size(), 65537u);
    EXPECT_TRUE(out.flush());  // flush does not look at the gate

    // A length whose low 32 bits look small is refused as well.
    ByteArrayOutputStream_CL other(16);
    DataOutputStream_CL wrapped(other);
    wrapped.writeString(String_CL{"x", (static_cast<size_t>(1) << 32) + 1});
    EXPECT_FALSE(wrapped.is_ok());
    EXPECT_EQ(other.size(), 0u);
}

TEST(ByteArrayOutputStream, GrowsByDoubling) {
    ByteArrayOutputStream_CL buffer(1024);
    std::vector<char> bytes(5000, 'b');
    EXPECT_EQ(buffer.write(bytes.data(), 1024), 1024);
    EXPECT_EQ(buffer.capacity(), 1024u);
    EXPECT_EQ(buffer.write(bytes.data(), 1), 1);
    EXPECT_EQ(buffer.capacity(), 2048u);

    FailingBuffer jump(1024);
    EXPECT_EQ(jump.write(bytes.data(), 5000), 5000);
    EXPECT_EQ(jump.capacity(), 8192u);  // one reallocation straight to the fitting power of two
    EXPECT_EQ(jump.growths, 1);
    EXPECT_EQ(jump.size(), 5000u);
}

TEST(ByteArrayOutputStream, FailedGrowthKeepsWhatWasWrittenAndClosesTheGate) {
    FailingBuffer buffer(8);
    DataOutputStream_CL out(buffer);
    out.writeLong(0x1122334455667788L);
    buffer.fail_growth = true;
    out.writeInt(5);  // needs growth, which fails
    EXPECT_FALSE(out.is_ok());
    int growths = buffer.growths;
    out.writeBoolean(true);
    EXPECT_EQ(out.write("x", 1), -1);
    EXPECT_EQ(buffer.growths, growths);  // the gate stops writes before they reach the buffer
    EXPECT_EQ(bytes_of(buffer), (std::vector<unsigned char>{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}));
    EXPECT_EQ(buffer.write("x", 1), -1);  // the buffer itself still refuses to grow
}

TEST(ByteArrayOutputStream, FailedFirstAllocationStartsFrom512) {
    ByteArrayOutputStream_CL buffer(SIZE_MAX);
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(buffer.capacity(), 0u);
    DataOutputStream_CL out(buffer);
    out.writeInt(42);
    EXPECT_TRUE(out.is_ok());
    EXPECT_EQ(buffer.capacity(), 512u);
    EXPECT_EQ(bytes_of(buffer), (std::vector<unsigned char>{0, 0, 0, 42}));

    ByteArrayOutputStream_CL big(SIZE_MAX);
    std::vector<char> bytes(1500, 'c');
    EXPECT_EQ(big.write(bytes.data(), 1500), 1500);
    EXPECT_EQ(big.capacity(), 2048u);
}
