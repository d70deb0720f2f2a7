#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log/tmp-name-gen.h"

// Pins the generator's engine to a known state, as a fresh process would before reseeding.
struct TmpNameGenTestAccess {
    static void Seed(uint64_t state) {
        TmpNameGen& gen = TmpNameGen::getInstance();
        std::lock_guard<std::mutex> guard(gen.mutex);
        gen.engine.seed(state);
    }
};

namespace {

const std::string kMap = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
constexpr uint64_t kModulus = 2147483647;

// The names a given state must give: Park-Miller steps, values at or above 64 * 33554431
// thrown away, index = value / 33554431.
std::vector<std::string> ExpectedNames(uint64_t state, int count) {
    std::vector<std::string> names;
    for (int n = 0; n < count; ++n) {
        std::string name;
        while (name.size() < 8) {
            state = state * 16807 % kModulus;
            uint64_t r = state - 1;
            if (r >= 64u * 33554431u)
                continue;
            name += kMap[r / 33554431];
        }
        names.push_back(name);
    }
    return names;
}

uint64_t PowMod(uint64_t base, uint64_t exp) {
    uint64_t result = 1;
    for (base %= kModulus; exp; exp >>= 1, base = base * base % kModulus) {
        if (exp & 1)
            result = result * base % kModulus;
    }
    return result;
}

bool IsName(const std::string& name) {
    return name.size() == 8 && name.find_first_not_of(kMap) == std::string::npos;
}

}  // namespace

TEST(TmpNameGen, StateOneGivesZeroFirst) {
    TmpNameGenTestAccess::Seed(1);
    std::string name = TmpNameGen::getInstance().getTmpName();
    EXPECT_EQ(name[0], '0');
    EXPECT_EQ(name, ExpectedNames(1, 1)[0]);
}

TEST(TmpNameGen, DrawsFollowTheRejectionMethod) {
    for (uint64_t seed : {1ull, 42ull, 2147483646ull, 123456789ull}) {
        TmpNameGenTestAccess::Seed(seed);
        std::vector<std::string> names;
        for (int i = 0; i < 200; ++i)
            names.push_back(TmpNameGen::getInstance().getTmpName());
        EXPECT_EQ(names, ExpectedNames(seed, 200)) << "seed " << seed;
    }
    // A state whose next value lies above the limit: that draw must be thrown away.
    const uint64_t inverse = PowMod(16807, kModulus - 2);
    const uint64_t seed = 2147483600ull * inverse % kModulus;
    TmpNameGenTestAccess::Seed(seed);
    std::vector<std::string> expected = ExpectedNames(seed, 3);
    EXPECT_EQ(TmpNameGen::getInstance().getTmpName(), expected[0]);
    EXPECT_EQ(TmpNameGen::getInstance().getTmpName(), expected[1]);
}

TEST(TmpNameGen, NamesUseOnlyTheMapAndReachAllOfIt) {
    TmpNameGen::getInstance().reseed();
    std::set<char> seen;
    for (int i = 0; i < 2000; ++i) {
        std::string name = TmpNameGen::getInstance().getTmpName();
        ASSERT_TRUE(IsName(name)) << name;
        seen.insert(name.begin(), name.end());
    }
    EXPECT_EQ(seen.size(), 64u);
}

TEST(TmpNameGen, PathsAreJoinedWithoutNormalising) {
    TmpNameGen& gen = TmpNameGen::getInstance();
    std::string path = gen.getTmpPath("/tmp");
    ASSERT_EQ(path.size(), 4u + 1 + 8);
    EXPECT_EQ(path.substr(0, 5), "/tmp/");
    EXPECT_TRUE(IsName(path.substr(5)));

    path = gen.getTmpPath("/tmp/");
    EXPECT_EQ(path.substr(0, 6), "/tmp//");
    EXPECT_TRUE(IsName(path.substr(6)));

    path = gen.getTmpPath("");
    EXPECT_EQ(path[0], '/');
    EXPECT_TRUE(IsName(path.substr(1)));
}

TEST(TmpNameGen, ConcurrentCallersNeverShareEngineSteps) {
    // Whatever the interleaving, each name is a whole block of eight consecutive draws, so
    // the names made concurrently are exactly those one caller would get in a row.
    const uint64_t seed = 987654321;
    TmpNameGenTestAccess::Seed(seed);
    const int threads = 4, per_thread = 500;
    std::vector<std::vector<std::string>> made(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&made, t] {
            for (int i = 0; i < per_thread; ++i) {
                made[t].push_back(TmpNameGen::getInstance().getTmpName());
            }
        });
    }
    for (auto& w : workers)
        w.join();

    std::multiset<std::string> got;
    for (auto& names : made)
        got.insert(names.begin(), names.end());
    std::vector<std::string> expected = ExpectedNames(seed, threads * per_thread);
    EXPECT_EQ(got, std::multiset<std::string>(expected.begin(), expected.end()));
}
