// Memory manager tests: header layout, resizing, counters, failures, the shutdown
// report read back from a real log file in a fresh temporary directory, and the helpers.
#include <climits>
#include <cstdio>
#include <cstring>

#include "engine/thread.h"
#include "engine_test_env.h"

namespace {

// The 32 bytes in front of a block: u32 flags, u32 size, 16 tag bytes, u32 next, u32 prev.
struct raw_header {
    uint32_t flags, size;
    char tag[16];
    uint32_t next, prev;
};
static_assert(sizeof(raw_header) == 32);

raw_header header_at(const void* block) {
    raw_header h;
    std::memcpy(&h, static_cast<const char*>(block) - 32, sizeof h);
    return h;
}

class MemTest : public MemLogFixture {};

TEST_F(MemTest, HeaderHoldsFlagsSizeCutTagAndLinks) {
    void* a = mem_new(MEM_STORAGE, 10, "a_tag_longer_than_fifteen");
    void* b = mem_new(MEM_STORAGE, 20, "exactly15_chars");
    void* c = mem_new(3, 30, "c");
    raw_header ha = header_at(a), hb = header_at(b), hc = header_at(c);
    EXPECT_EQ(ha.flags, 123457u);
    EXPECT_EQ(hc.flags, 123459u);
    EXPECT_EQ(ha.size, 10u);
    EXPECT_EQ(std::string(ha.tag, 16), std::string("a_tag_longer_th\0", 16));
    EXPECT_EQ(std::string(hb.tag), "exactly15_chars");
    EXPECT_EQ(hb.tag[15], 0);
    // Three blocks of one list: the ends are open, the middle is linked both ways.
    EXPECT_EQ(ha.prev, 0u);
    EXPECT_EQ(hc.next, 0u);
    EXPECT_NE(ha.next, 0u);
    EXPECT_EQ(ha.next, hc.prev);
    EXPECT_NE(hb.prev, hb.next);
    EXPECT_EQ(mem_get_size(b), 20u);
}

TEST_F(MemTest, ResizeSameSizeGrowAndShrink) {
    char* p = static_cast<char*>(mem_new_dynamic(16, "grow"));
    std::memset(p, 0xAB, 16);
    mem_stats before = mem_get_stats();
    EXPECT_EQ(mem_resize(p, 16), p);
    mem_stats same = mem_get_stats();
    EXPECT_EQ(same.dynamic_in_use, before.dynamic_in_use);
    EXPECT_EQ(same.max_dynamic_used, before.max_dynamic_used);

    p = static_cast<char*>(mem_resize(p, 4096));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 16; i++) ASSERT_EQ(static_cast<unsigned char>(p[i]), 0xABu) << i;
    for (int i = 16; i < 4096; i++) ASSERT_EQ(p[i], 0) << i;
    EXPECT_EQ(mem_get_stats().dynamic_in_use, 4096);

    p[3] = 7;
    p = static_cast<char*>(mem_resize(p, 5));
    EXPECT_EQ(mem_get_size(p), 5u);
    EXPECT_EQ(p[3], 7);
    EXPECT_EQ(static_cast<unsigned char>(p[4]), 0xABu);
    EXPECT_EQ(mem_get_stats().dynamic_in_use, 5);
    EXPECT_EQ(mem_get_stats().max_dynamic_used, 4096);
    mem_free(p);
}

TEST_F(MemTest, ListOrderSurvivesMovingResizesAndFrees) {
    void* b[6];
    char tag[8];
    for (int i = 0; i < 6; i++) {
        std::snprintf(tag, sizeof tag, "blk%d", i);
        b[i] = mem_new_dynamic(8, tag);
    }
    bool moved = false;
    for (int round = 1; round <= 50; round++) {
        for (int i = 0; i < 6; i++) {
            void* p = mem_resize(b[i], 8 + round * 64 + i);
            moved = moved || p != b[i];
            b[i] = p;
        }
    }
    EXPECT_TRUE(moved);
    mem_free(b[0]);  // head
    mem_free(b[5]);  // tail
    mem_free(b[3]);  // middle
    b[2] = mem_resize(b[2], 3);
    mem_new_dynamic(5, "late");  // must land after blk4

    EXPECT_TRUE(mem_free_all());
    EXPECT_EQ(log_text(),
              "MEMORY CLEANUP (DYNAMIC)\nFREE 3209 blk1\nFREE 3 blk2\nFREE 3212 blk4\nFREE 5 late\n"
              "Max dynamic memory used: 19263\nMax storage memory used: 0\n6429 0\n");
    EXPECT_EQ(mem_get_stats().dynamic_in_use, 6429);  // the report does not lower the counters
}

TEST_F(MemTest, CountsKindsZeroAndOneOnly) {
    void* d = mem_new(MEM_DYNAMIC, 100, "d");
    void* s = mem_new(MEM_STORAGE, 50, "s");
    mem_new(2, 7, "k2");
    mem_new(3, 9, "k3");
    d = mem_resize(d, 300);
    d = mem_resize(d, 10);
    mem_stats st = mem_get_stats();
    EXPECT_EQ(st.dynamic_in_use, 10);
    EXPECT_EQ(st.storage_in_use, 50);
    EXPECT_EQ(st.max_dynamic_used, 300);
    EXPECT_EQ(st.allocations, 4u);
    mem_free(d);
    mem_free(s);

    EXPECT_FALSE(mem_free_all());  // kinds 2 and 3 are listed but not counted as leaks
    EXPECT_EQ(log_text(),
              "MEMORY CLEANUP (STORAGE)\nFREE 7 k2\nFREE 9 k3\n"
              "Max dynamic memory used: 300\nMax storage memory used: 50\n0 0\n");
}

TEST_F(MemTest, ReportWithoutLeaksHasOnlyStatistics) {
    mem_free(mem_new(MEM_STORAGE, 64, "img"));
    mem_free(mem_strdup("abc"));
    mem_free(nullptr);
    EXPECT_EQ(mem_get_size(nullptr), 0u);
    EXPECT_FALSE(mem_free_all());
    EXPECT_EQ(log_text(), "Max dynamic memory used: 4\nMax storage memory used: 64\n0 0\n");
}

TEST_F(MemTest, StorageLeakAloneIsALeak) {
    // The only dynamic blocks here are the log printer's: the file layer's record and name
    // for the log file, held while a message is written.
    v3_close(v3_open(TARVIK_LOG_FILE, "ab"));
    std::string log_peak = std::to_string(mem_get_stats().max_dynamic_used);
    EXPECT_EQ(mem_get_stats().dynamic_in_use, 0);
    mem_new(MEM_STORAGE, 64, "img");
    EXPECT_TRUE(mem_free_all());
    EXPECT_EQ(log_text(),
              "MEMORY CLEANUP (STORAGE)\nFREE 64 img\n"
              "Max dynamic memory used: " + log_peak + "\nMax storage memory used: 64\n0 64\n");
}

TEST_F(MemTest, FailedAllocationsKeepFirstErrorAndOldBlock) {
    EXPECT_EQ(mem_new(MEM_DYNAMIC, UINT32_MAX - 31, "too_big"), nullptr);
    EXPECT_EQ(mem_resize(nullptr, SIZE_MAX), nullptr);
    char* p = static_cast<char*>(mem_new_dynamic(4, "kept"));
    std::memcpy(p, "abc", 4);
    EXPECT_EQ(mem_resize(p, SIZE_MAX), nullptr);
    EXPECT_STREQ(p, "abc");
    EXPECT_EQ(mem_get_size(p), 4u);

    mem_stats st = mem_get_stats();
    EXPECT_EQ(st.error_size, 4294967264);
    EXPECT_EQ(st.allocations, 3u + 3 * 2);  // each message costs the log printer a file record and its name
    EXPECT_EQ(st.dynamic_in_use, 4);
    EXPECT_EQ(log_text(),
              "MEM ALLOC ERROR 4294967264 too_big\nMEM ALLOC ERROR 18446744073709551615 mem_resize\n"
              "MEM ALLOC ERROR 18446744073709551615 kept\n");
    mem_free(p);
}

TEST_F(MemTest, StrdupAndZero) {
    char* s = mem_strdup("hello");
    EXPECT_STREQ(s, "hello");
    EXPECT_EQ(std::string(header_at(s).tag), "mem_strdup");
    EXPECT_EQ(mem_get_size(s), 6u);
    EXPECT_EQ(mem_get_size(mem_strdup("")), 1u);
    EXPECT_EQ(mem_get_size(mem_strdup(nullptr)), 1u);
    mem_zero(s);
    EXPECT_EQ(mem_cmp(s, "\0\0\0\0\0\0", 6), 0);
    mem_zero(nullptr);
    EXPECT_EQ(mem_get_stats().allocations, 3u);
}

TEST_F(MemTest, NullSafeHelpers) {
    char buf[16] = "ab";
    EXPECT_EQ(mem_strlen(nullptr), 0u);
    EXPECT_EQ(mem_strlen("abc"), 3u);
    void* ptrs[] = {buf, buf, nullptr, buf};
    EXPECT_EQ(mem_count_pointers(ptrs), 2u);
    EXPECT_EQ(mem_count_pointers(nullptr), 0u);
    EXPECT_EQ(mem_strcmp(nullptr, "a"), 0);
    EXPECT_EQ(mem_strcat(nullptr, "x"), nullptr);
    EXPECT_EQ(mem_strcat(buf, nullptr), nullptr);
    EXPECT_EQ(mem_strcat(buf, "cd"), buf);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(mem_move(buf + 1, buf, 4), buf + 1);
    EXPECT_STREQ(buf, "aabcd");
    EXPECT_EQ(mem_move(nullptr, buf, 4), nullptr);
    EXPECT_EQ(mem_set(nullptr, 1, 4), nullptr);
    EXPECT_EQ(mem_set(buf, 'z', 2), buf);
    EXPECT_STREQ(buf, "zzbcd");
    EXPECT_EQ(mem_cmp("\x80", "\x01", 1), 1);  // bytes compare unsigned
    EXPECT_EQ(mem_cmp("\x01", "\x80", 1), -1);
    EXPECT_EQ(mem_cmp(nullptr, "ab", 2), 0);
}

TEST_F(MemTest, BoundedConcat) {
    char d[6] = "ab";
    EXPECT_EQ(mem_strcat_bounded(d, sizeof d, "cde"), 0);
    EXPECT_STREQ(d, "abcde");
    EXPECT_EQ(mem_strcat_bounded(d, sizeof d, "f"), 1);
    EXPECT_STREQ(d, "abcde");
    char e[6] = "ab";
    EXPECT_EQ(mem_strcat_bounded(e, sizeof e, "cdefgh"), 1);
    EXPECT_STREQ(e, "abcde");
    char full[4] = {'w', 'x', 'y', 'z'};  // no terminator inside the size
    EXPECT_EQ(mem_strcat_bounded(full, sizeof full, "q"), 1);
    EXPECT_EQ(full[3], 0);
    EXPECT_EQ(mem_strcat_bounded(nullptr, 4, "q"), 1);
    EXPECT_EQ(mem_strcat_bounded(e, sizeof e, nullptr), 1);
    EXPECT_EQ(mem_strcat_bounded(e, 0, "q"), 1);
}

void churn(tarvik_thread*, void* arg) {
    void* held[64] = {};
    for (int i = 0; i < 20000; i++) {
        int slot = i % 64;
        held[slot] = mem_resize(held[slot], static_cast<size_t>(i % 97));
        if (i % 3 == 0) {
            mem_free(held[slot]);
            held[slot] = nullptr;
        }
    }
    for (void* p : held) mem_free(p);
}

TEST_F(MemTest, ThreadsAllocatingTogetherLeaveCleanLists) {
    tarvik_thread t[3];
    for (auto& th : t) ASSERT_EQ(tarvik_thread_create(&th, churn, nullptr), 0);
    mem_new_dynamic(11, "main");
    for (auto& th : t) EXPECT_EQ(tarvik_thread_join(&th), 0);
    EXPECT_EQ(mem_get_stats().dynamic_in_use, 11);
    EXPECT_TRUE(mem_free_all());
    EXPECT_NE(log_text().find("MEMORY CLEANUP (DYNAMIC)\nFREE 11 main\nMax dynamic"), std::string::npos);
}

}  // namespace
