// cstring, cvector and StdTraceOutput, including the behaviours callers rely on: the last
// character that replace never looks at, printf cut at 1023 characters, growth to 2n + 1.
#include "cstring.h"
#include "cvector.h"
#include "traceOutput.h"

#include <gtest/gtest.h>

#include <string>

using J2SE::cstring;
using J2SE::cvector;

TEST(CString, EmptyStringsShareTheOneBufferAndFreeNothing) {
    cstring from_null(nullptr);
    cstring from_blank("");
    cstring range_empty("abc", "abc" + 0);
    for (const cstring* s : {&from_null, &from_blank, &range_empty}) {
        EXPECT_EQ(s->c_str(), cstring::EMPTY_STRING);
        EXPECT_EQ(s->length(), 0u);
        EXPECT_TRUE(s->is_empty());
    }
    EXPECT_TRUE(from_null == from_blank);
    from_null.free_cstring();  // must not free the shared buffer
    EXPECT_EQ(from_null.c_str(), cstring::EMPTY_STRING);
    EXPECT_EQ(cstring::EMPTY_STRING[0], '\0');
}

TEST(CString, CopyFromRangeKeepsBytesAndFallsBackToStrlen) {
    const char text[] = "ab\0cd";
    cstring with_nul(text, text + 5);
    EXPECT_EQ(with_nul.length(), 5u);
    EXPECT_EQ(std::string(with_nul.c_str(), 5), std::string(text, 5));

    const char* word = "hello";
    cstring backwards(word + 3, word);  // end before begin: up to the NUL
    EXPECT_STREQ(backwards.c_str(), "lo");

    cstring copy(with_nul);
    EXPECT_NE(copy.c_str(), with_nul.c_str());  // copies never share a buffer
    EXPECT_TRUE(copy == with_nul);
    copy = copy;  // self-assignment keeps the content
    EXPECT_EQ(copy.length(), 5u);
}

TEST(CString, ReplaceNeverLooksAtTheLastCharacter) {
    cstring aaa("aaa");
    EXPECT_STREQ(aaa.replace('a', 'b').c_str(), "bba");
    cstring one("a");
    EXPECT_STREQ(one.replace('a', 'b').c_str(), "a");
    cstring empty;
    EXPECT_STREQ(empty.replace('\0', 'x').c_str(), "");
    EXPECT_EQ(empty.c_str(), cstring::EMPTY_STRING);
}

TEST(CString, PrintfCutsAt1023Characters) {
    std::string long_text(2000, 'z');
    cstring cut = cstring::printf("%s", long_text.c_str());
    EXPECT_EQ(cut.length(), 1023u);
    EXPECT_EQ(std::string(cut.c_str()), long_text.substr(0, 1023));
    EXPECT_EQ(cstring::printf("%s", "").c_str(), cstring::EMPTY_STRING);
    EXPECT_STREQ(cstring::printf("%s: %d", "x", -5).c_str(), "x: -5");
}

TEST(CString, ConcatenationAndEquality) {
    cstring ab("ab");
    cstring abc("abc");
    EXPECT_FALSE(ab == abc);
    EXPECT_TRUE(ab != abc);
    EXPECT_STREQ((ab + abc).c_str(), "ababc");
    EXPECT_EQ((cstring() + cstring()).c_str(), cstring::EMPTY_STRING);
    ab += abc;
    ab += ab;
    EXPECT_STREQ(ab.c_str(), "ababcababc");
    // The concatenation is rebuilt with strlen: it ends at the first NUL.
    const char nul[] = "x\0y";
    cstring with_nul(nul, nul + 3);
    EXPECT_EQ((with_nul + abc).length(), 1u);
}

TEST(CVector, GrowsToTwiceAndOneAndCopiesExactly) {
    cvector<int> v;
    EXPECT_EQ(v.capacity(), 8);
    std::vector<int> capacities;
    for (int i = 0; i < 40; i++) {
        v.push_back(i);
        if (capacities.empty() || capacities.back() != v.capacity()) capacities.push_back(v.capacity());
    }
    EXPECT_EQ(capacities, (std::vector<int>{8, 17, 35, 71}));
    for (int i = 0; i < 40; i++) EXPECT_EQ(v[i], i);

    cvector<int> three;
    for (int i = 0; i < 3; i++) three.push_back(i * 10);
    cvector<int> assigned(50);
    assigned = three;
    EXPECT_EQ(assigned.capacity(), 3);
    assigned.push_back(30);
    EXPECT_EQ(assigned.capacity(), 7);
    EXPECT_EQ(assigned.index_of(30), 3);
    EXPECT_EQ(assigned.last_index_of(99), -1);

    cvector<int> copy(three);
    EXPECT_TRUE(copy.equals(three));
    cvector<int> middle = assigned.sub_vector(1, 3);
    EXPECT_EQ(middle.size(), 2);
    EXPECT_EQ(middle[0], 10);
    EXPECT_EQ(middle[1], 20);
    assigned.pop_back();
    EXPECT_EQ(assigned.back(), 20);
    assigned.clear();
    EXPECT_EQ(assigned.size(), 0);
    EXPECT_EQ(assigned.capacity(), 8);
}

TEST(CVector, ElementsWithOwnedTextSurviveGrowth) {
    cvector<cstring> names;
    for (int i = 0; i < 100; i++) names.push_back(cstring::printf("name-%d", i));
    for (int i = 0; i < 100; i++) EXPECT_STREQ(names[i].c_str(), cstring::printf("name-%d", i).c_str());
}

TEST(StdTraceOutput, PrintsTheBareMessageToTheRightStream) {
    J2SE::StdTraceOutput trace;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    trace.trace_info("info;");
    trace.trace_warning("warning;");
    trace.trace_error("error;");
    fflush(stdout);
    fflush(stderr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "info;warning;");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error;");
}
