#include <gtest/gtest.h>

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

// Park-Miller steps, values at or above 64 * 33554431 thrown away, index = value / 33554431.
std::vector<std::string> ExpectedNames(uint64_t state, int count) {
    std::vector<std::string> names;
    for (int n = 0; n < count; ++n) {
        std::string name;
        while (name.size() < 8) {
            state = state * 16807 % kModulus;
            if (state - 1 < 64u * 33554431u)
                name += kMap[(state - 1) / 33554431];
        }
        names.push_back(name);
    }
    return names;
}

std::vector<std::string> Draw(int count) {
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
        names.push_back(TmpNameGen::getInstance().getTmpName());
    return names;
}

}  // namespace

TEST(TmpNameGen, DrawsFollowTheRejectionMethod) {
    TmpNameGenTestAccess::Seed(1);
    EXPECT_EQ(TmpNameGen::getInstance().getTmpName()[0], '0');
    // 411174057 steps to 2147483600, above the limit: that draw must be thrown away.
    for (uint64_t seed : {1ull, 42ull, 2147483646ull, 411174057ull}) {
        TmpNameGenTestAccess::Seed(seed);
        EXPECT_EQ(Draw(200), ExpectedNames(seed, 200)) << "seed " << seed;
    }
}

TEST(TmpNameGen, PathsAreJoinedWithoutNormalising) {
    TmpNameGen::getInstance().reseed();
    const std::string path = TmpNameGen::getInstance().getTmpPath("/tmp/");
    EXPECT_EQ(path.substr(0, 6), "/tmp//");
    EXPECT_EQ(path.size(), 14u);
    EXPECT_EQ(path.find_first_not_of(kMap, 6), std::string::npos);
    EXPECT_EQ(TmpNameGen::getInstance().getTmpPath("").size(), 9u);
}

TEST(TmpNameGen, ConcurrentCallersNeverShareEngineSteps) {
    // Each name is a whole block of consecutive draws, whatever the interleaving.
    const uint64_t seed = 987654321;
    TmpNameGenTestAccess::Seed(seed);
    std::vector<std::vector<std::string>> made(4);
    std::vector<std::thread> workers;
    for (auto& names : made)
        workers.emplace_back([&names] { names = Draw(500); });
    for (auto& w : workers)
        w.join();
    std::multiset<std::string> got;
    for (auto& names : made)
        got.insert(names.begin(), names.end());
    std::vector<std::string> expected = ExpectedNames(seed, 2000);
    EXPECT_EQ(got, std::multiset<std::string>(expected.begin(), expected.end()));
}
