// Tests of kelvane_qor_LUT: loaded by file name as the library does, and called directly.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "modules/LUT/kelvane_qor_LUT.h"
#include "tests/module_support/loaded_module.h"

#if KV_TEST_ALLOCATOR
#include "tests/common/failing_allocator.h"
#endif

namespace {

const std::string module_file = std::string("kelvane_qor_LUT") + kv::test::module_suffix;

// Entries the module promises to clear and keep inside the table: whole 64-byte lines.
int32_t padded_count(int32_t count) {
    return (count + 15) / 16 * 16;
}

// Owns one table for the length of a test.
struct table {
    void* handle;
    explicit table(int32_t count, int32_t avx2_flag = 0)
        : handle(kv_create_LUT_test(count, avx2_flag)) {}
    ~table() {
        if (handle != nullptr) kv_destroy_LUT(handle);
    }
    table(const table&) = delete;
    table& operator=(const table&) = delete;
    uint32_t* data() const { return kv_get_LUT_data(handle); }
};

TEST(LUTModuleLoading, ExportsExactlyTheSixEntryPoints) {
    kv::test::loaded_module module(module_file);
    ASSERT_TRUE(module.loaded()) << module_file << " not found by name";
    const std::set<std::string> expected = {"kv_LUT_module_initialize", "kv_create_LUT_test",
                                            "kv_LUT_transform_16",      "kv_get_LUT_data",
                                            "kv_destroy_LUT",           "kv_LUT_module_terminate"};
    EXPECT_EQ(module.exported_names(), expected);
}

// Every count the library can ask for has its own edge: 1 entry (depth 0), exact lines, a line
// plus one, the full 16-bit range.
class LUTCreation : public testing::TestWithParam<std::tuple<int32_t, int32_t>> {};

TEST_P(LUTCreation, TableIsAlignedZeroFilledWritableAndStable) {
    const auto [count, avx2_flag] = GetParam();
    table t(count, avx2_flag);
    ASSERT_NE(t.handle, nullptr);
    uint32_t* entries = t.data();
    ASSERT_NE(entries, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(entries) % 64, 0u);
    for (int32_t i = 0; i < padded_count(count); ++i) ASSERT_EQ(entries[i], 0u) << "entry " << i;
    for (int32_t i = 0; i < count; ++i) entries[i] = 0x9E3779B9u * static_cast<uint32_t>(i + 1);
    EXPECT_EQ(t.data(), entries);
    for (int32_t i = 0; i < count; ++i) {
        ASSERT_EQ(entries[i], 0x9E3779B9u * static_cast<uint32_t>(i + 1)) << "entry " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Counts, LUTCreation,
                         testing::Combine(testing::Values(1, 2, 15, 16, 17, 255, 256, 1024, 4097,
                                                          65535, 65536),
                                          testing::Values(0, 1)));

// Counts outside 1 to 65,536, handles that are not live tables and missing buffers: each entry
// point refuses without touching memory.
TEST(LUTRefusals, BadCountsHandlesAndBuffersWriteNothing) {
    for (const int32_t count : {0, -1, -65536, INT32_MIN, 65537, 131072, INT32_MAX}) {
        for (const int32_t avx2_flag : {0, 1})
            EXPECT_EQ(kv_create_LUT_test(count, avx2_flag), nullptr) << "count " << count;
    }
    table live(16);  // made first: a table made after the stale one could take its address
    void* stale = kv_create_LUT_test(64, 0);
    ASSERT_NE(stale, nullptr);
    ASSERT_EQ(kv_destroy_LUT(stale), 0);
    alignas(64) unsigned char foreign[128] = {};
    uint16_t source[2] = {1, 2};
    uint16_t destination[2] = {0xAAAA, 0xAAAA};
    for (void* handle : {static_cast<void*>(nullptr), stale, static_cast<void*>(foreign)}) {
        EXPECT_EQ(kv_get_LUT_data(handle), nullptr);
        EXPECT_EQ(kv_destroy_LUT(handle), KV_LUT_BAD_ARGUMENT);
        EXPECT_EQ(kv_LUT_transform_16(handle, source, destination, 2), KV_LUT_BAD_ARGUMENT);
    }
    EXPECT_EQ(kv_LUT_transform_16(live.handle, nullptr, destination, 2), KV_LUT_BAD_ARGUMENT);
    EXPECT_EQ(kv_LUT_transform_16(live.handle, source, nullptr, 2), KV_LUT_BAD_ARGUMENT);
    for (const int32_t count : {-1, INT32_MIN}) {
        EXPECT_EQ(kv_LUT_transform_16(live.handle, source, destination, count),
                  KV_LUT_BAD_ARGUMENT);
    }
    EXPECT_EQ(destination[0], 0xAAAA);
    EXPECT_EQ(destination[1], 0xAAAA);
    EXPECT_EQ(kv_LUT_transform_16(live.handle, nullptr, nullptr, 0), 0);  // nothing to touch
}

struct transform_case {
    const char* name;
    int32_t entry_count;
    std::vector<uint16_t> source;
    std::vector<uint16_t> expected;
};

// Entry i of the table holds a high half that must be dropped and (i * 3 + 1) in its low half.
uint32_t test_entry(int32_t i) {
    return 0xABCD0000u | static_cast<uint16_t>(static_cast<uint32_t>(i) * 3u + 1u);
}

void PrintTo(const transform_case& c, std::ostream* os) {
    *os << c.name;
}

class LUTTransform16 : public testing::TestWithParam<transform_case> {};

TEST_P(LUTTransform16, MapsThroughLowHalfOfEntries) {
    const transform_case& c = GetParam();
    table t(c.entry_count);
    for (int32_t i = 0; i < c.entry_count; ++i) t.data()[i] = test_entry(i);
    const int32_t n = static_cast<int32_t>(c.source.size());

    std::vector<uint16_t> destination(c.source.size() + 1, 0x5555);  // one sentinel past the end
    ASSERT_EQ(kv_LUT_transform_16(t.handle, c.source.data(), destination.data(), n), 0);
    EXPECT_EQ(std::vector<uint16_t>(destination.begin(), destination.end() - 1), c.expected);
    EXPECT_EQ(destination.back(), 0x5555);

    std::vector<uint16_t> in_place = c.source;
    ASSERT_EQ(kv_LUT_transform_16(t.handle, in_place.data(), in_place.data(), n), 0);
    EXPECT_EQ(in_place, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LUTTransform16,
    testing::Values(
        transform_case{
            "FullRange", 65536, {0, 1, 2, 1000, 21845, 65535}, {1, 4, 7, 3001, 0, 65534}},
        transform_case{"SingleEntry", 1, {0, 1, 65535}, {1, 1, 1}},
        transform_case{
            "BeyondTheTableReadsTheLastEntry", 256, {255, 256, 300, 65535}, {766, 766, 766, 766}},
        transform_case{"Empty", 16, {}, {}},
        transform_case{"RepeatedValues", 16, {3, 3, 0, 3}, {10, 10, 1, 10}}),
    [](const testing::TestParamInfo<transform_case>& info) { return info.param.name; });

// The library initialises on every load and terminates once, and may create after terminating.
TEST(LUTLifecycle, UnbalancedInitialiseAndTerminateKeepTablesWorking) {
    EXPECT_EQ(kv_LUT_module_terminate(), 0);  // before any initialise
    table before(32);
    ASSERT_NE(before.handle, nullptr);
    before.data()[31] = 123;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(kv_LUT_module_initialize(), 0);
    table between(32);
    EXPECT_EQ(kv_LUT_module_terminate(), 0);
    EXPECT_EQ(before.data()[31], 123u);  // live tables outlive a terminate
    ASSERT_NE(between.data(), nullptr);
    table after(32);
    ASSERT_NE(after.handle, nullptr);
    EXPECT_EQ(after.data()[31], 0u);
    EXPECT_EQ(kv_LUT_module_terminate(), 0);
    EXPECT_EQ(kv_destroy_LUT(between.handle), 0);
    between.handle = nullptr;
}

// Threads create, fill, check and destroy tables with overlapping lifetimes: every table must be
// its own memory, and no destroy may take another thread's table.
TEST(LUTConcurrency, ManyThreadsCreateAndDestroyTables) {
    constexpr int thread_count = 8;
    constexpr int rounds = 200;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < thread_count; ++t) {
        threads.emplace_back([t, &failures] {
            std::vector<std::pair<void*, uint32_t>> held;  // handle and the pattern written
            // A table must still hold its pattern when it is destroyed.
            const auto release = [&failures](const std::pair<void*, uint32_t>& h) {
                if (kv_get_LUT_data(h.first)[0] != h.second || kv_destroy_LUT(h.first) != 0) {
                    ++failures;
                }
            };
            for (int r = 0; r < rounds; ++r) {
                const int32_t count = 1 + (r * 37 + t * 11) % 600;
                void* handle = kv_create_LUT_test(count, r & 1);
                uint32_t* entries = kv_get_LUT_data(handle);
                if (handle == nullptr || entries == nullptr) {
                    ++failures;
                    continue;
                }
                const uint32_t pattern =
                    (static_cast<uint32_t>(t) << 24) | static_cast<uint32_t>(r);
                std::fill(entries, entries + count, pattern);
                held.emplace_back(handle, pattern);
                if (held.size() > 4) {  // keep a few alive while others come and go
                    release(held.front());
                    held.erase(held.begin());
                }
            }
            for (const auto& h : held) release(h);
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
        void* handle = nullptr;
        kv::testing::fail_allocation(successes);
        try {
            handle = kv_create_LUT_test(1000, 0);
        } catch (const std::bad_alloc&) {
            ++failures;
        }
        kv::testing::stop_failing_allocations();
        if (handle != nullptr) {
            EXPECT_EQ(kv_get_LUT_data(handle)[999], 0u);
            EXPECT_EQ(kv_destroy_LUT(handle), 0);
            break;
        }
    }
    EXPECT_GE(failures, 2) << "both the table and its registration should have been failed";
}
#endif

}  // namespace
