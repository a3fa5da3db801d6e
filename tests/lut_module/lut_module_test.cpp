// Tests of kelvane_qor_LUT, called directly.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "modules/LUT/kelvane_qor_LUT.h"

#if KV_TEST_ALLOCATOR
#include "tests/common/failing_allocator.h"
#endif

namespace {

// Owns one table for the length of a test.
struct destroy_LUT {
    void operator()(void* handle) const { kv_destroy_LUT(handle); }
};
using table = std::unique_ptr<void, destroy_LUT>;

table make_table(int32_t count, int32_t avx2_flag = 0) {
    return table(kv_create_LUT_test(count, avx2_flag));
}

// Each count's edge (1 entry, exact 64-byte lines, a line plus one, the full 16-bit range): the
// table is aligned, zero up to its last whole line (fresh memory is not zero under the test
// allocator), and the same on every look-up.
TEST(LUTCreation, TableIsAlignedAndZeroFilled) {
    for (const int32_t count : {1, 15, 16, 17, 4097, 65536}) {
        for (const int32_t avx2_flag : {0, 1}) {
            SCOPED_TRACE(std::to_string(count) + " entries, flag " + std::to_string(avx2_flag));
            const table t = make_table(count, avx2_flag);
            uint32_t* entries = kv_get_LUT_data(t.get());
            ASSERT_NE(entries, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(entries) % 64, 0u);
            for (int32_t i = 0; i < (count + 15) / 16 * 16; ++i) ASSERT_EQ(entries[i], 0u) << i;
            EXPECT_EQ(kv_get_LUT_data(t.get()), entries);
        }
    }
}

// Counts outside 1 to 65,536, handles that are not live tables and missing buffers: each entry
// point refuses without touching memory.
TEST(LUTRefusals, BadCountsHandlesAndBuffersWriteNothing) {
    for (const int32_t count : {0, -1, INT32_MIN, 65537, INT32_MAX}) {
        EXPECT_EQ(kv_create_LUT_test(count, count & 1), nullptr) << "count " << count;
    }
    const table live = make_table(16);  // made first: a later table could take the stale address
    void* stale = kv_create_LUT_test(64, 0);
    ASSERT_EQ(kv_destroy_LUT(stale), 0);
    alignas(64) unsigned char foreign[128] = {};
    uint16_t source[2] = {1, 2};
    uint16_t destination[2] = {0xAAAA, 0xAAAA};
    for (void* handle : {static_cast<void*>(nullptr), stale, static_cast<void*>(foreign)}) {
        EXPECT_EQ(kv_get_LUT_data(handle), nullptr);
        EXPECT_EQ(kv_destroy_LUT(handle), KV_LUT_BAD_ARGUMENT);
        EXPECT_EQ(kv_LUT_transform_16(handle, source, destination, 2), KV_LUT_BAD_ARGUMENT);
    }
    EXPECT_EQ(kv_LUT_transform_16(live.get(), nullptr, destination, 2), KV_LUT_BAD_ARGUMENT);
    EXPECT_EQ(kv_LUT_transform_16(live.get(), source, nullptr, 2), KV_LUT_BAD_ARGUMENT);
    EXPECT_EQ(kv_LUT_transform_16(live.get(), source, destination, -1), KV_LUT_BAD_ARGUMENT);
    EXPECT_EQ(destination[0], 0xAAAA);
    EXPECT_EQ(destination[1], 0xAAAA);
    EXPECT_EQ(kv_LUT_transform_16(live.get(), nullptr, nullptr, 0), 0);  // nothing to touch
}

// Entry i holds a high half that must be dropped and (i * 3 + 1) in its low half; values past the
// table read its last entry. Each case runs into a fresh buffer and in place.
TEST(LUTTransform16, MapsThroughTheLowHalfOfEntries) {
    struct transform_case {
        int32_t entry_count;
        std::vector<uint16_t> source, expected;
    };
    const transform_case cases[] = {
        {65536, {0, 1, 2, 1000, 21845, 65535}, {1, 4, 7, 3001, 0, 65534}},
        {1, {0, 1, 65535}, {1, 1, 1}},
        {256, {255, 256, 300, 65535, 3}, {766, 766, 766, 766, 10}},
    };
    for (const transform_case& c : cases) {
        SCOPED_TRACE(std::to_string(c.entry_count) + " entries");
        const table t = make_table(c.entry_count);
        uint32_t* entries = kv_get_LUT_data(t.get());
        for (int32_t i = 0; i < c.entry_count; ++i)
            entries[i] = 0xABCD0000u | uint16_t(i * 3u + 1u);
        const int32_t n = int32_t(c.source.size());
        std::vector<uint16_t> destination(c.source.size() + 1, 0x5555);  // a sentinel at the end
        ASSERT_EQ(kv_LUT_transform_16(t.get(), c.source.data(), destination.data(), n), 0);
        EXPECT_EQ(std::vector<uint16_t>(destination.begin(), destination.end() - 1), c.expected);
        EXPECT_EQ(destination.back(), 0x5555);
        std::vector<uint16_t> in_place = c.source;
        ASSERT_EQ(kv_LUT_transform_16(t.get(), in_place.data(), in_place.data(), n), 0);
        EXPECT_EQ(in_place, c.expected);
    }
}

// The library initialises on every load and terminates once, and may create after terminating.
TEST(LUTLifecycle, UnbalancedInitialiseAndTerminateKeepTablesWorking) {
    EXPECT_EQ(kv_LUT_module_terminate(), 0);  // before any initialise
    const table before = make_table(32);
    kv_get_LUT_data(before.get())[31] = 123;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(kv_LUT_module_initialize(), 0);
    void* between = kv_create_LUT_test(32, 0);
    EXPECT_EQ(kv_LUT_module_terminate(), 0);
    EXPECT_EQ(kv_get_LUT_data(before.get())[31], 123u);  // live tables outlive a terminate
    const table after = make_table(32);
    ASSERT_NE(kv_get_LUT_data(after.get()), nullptr);
    EXPECT_EQ(kv_get_LUT_data(after.get())[31], 0u);
    EXPECT_EQ(kv_LUT_module_terminate(), 0);
    EXPECT_EQ(kv_destroy_LUT(between), 0);
}

// Threads create, mark, check and destroy tables four at a time: the registry of live tables is
// shared, so every table must be its own memory and no destroy may take another thread's table.
TEST(LUTConcurrency, ManyThreadsCreateAndDestroyTables) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 8; ++t) {
        threads.emplace_back([t, &failures] {
            for (uint32_t r = 0; r < 50; ++r) {
                table held[4];
                for (uint32_t i = 0; i < 4; ++i) {
                    held[i] = make_table(int32_t(1 + (r * 37 + t * 11 + i) % 600), int32_t(i & 1));
                    uint32_t* entries = kv_get_LUT_data(held[i].get());
                    if (entries != nullptr) entries[0] = t << 24 | r << 8 | i;
                }
                for (uint32_t i = 0; i < 4; ++i) {
                    const uint32_t* entries = kv_get_LUT_data(held[i].get());
                    if (entries == nullptr || entries[0] != (t << 24 | r << 8 | i) ||
                        kv_destroy_LUT(held[i].release()) != 0) {
                        ++failures;
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
}

#if KV_TEST_ALLOCATOR
// Out of memory at each allocation in turn: creation must throw std::bad_alloc and keep nothing
// (the leak checker of the sanitizer build sees anything kept), until it succeeds.
TEST(LUTOutOfMemory, CreationThrowsBadAllocAndKeepsNothing) {
    int failures = 0;
    for (int successes = 0; successes < 8; ++successes) {
        table t;
        kv::testing::fail_allocation(successes);
        try {
            t.reset(kv_create_LUT_test(1000, 0));
        } catch (const std::bad_alloc&) {
            ++failures;
        }
        kv::testing::stop_failing_allocations();
        if (t != nullptr) {
            EXPECT_EQ(kv_get_LUT_data(t.get())[999], 0u);
            EXPECT_EQ(kv_destroy_LUT(t.release()), 0);
            break;
        }
    }
    EXPECT_GE(failures, 2) << "both the table and its registration should have been failed";
}
#endif

}  // namespace
