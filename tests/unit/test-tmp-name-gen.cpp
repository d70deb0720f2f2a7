#include <gtest/gtest.h>

#include <string>

#include "log/tmp-name-gen.h"

// Pins the engine to a known state, as a fresh process would have it before reseeding.
struct TmpNameGenTestAccess {
    static void Seed(uint64_t state) { TmpNameGen::getInstance().engine.seed(state); }
};

// The same seed gives the same names; seed 411174057 also throws its first draw away. A path is
// the folder, "/" and a name, with nothing normalised.
TEST(TmpNameGen, NamesOfKnownSeedsAndPaths) {
    for (auto [seed, names] : {std::make_pair(1, "08Mtye3H HXoxR23x G0o4qHBX "),
                               std::make_pair(411174057, "_QvsZJO5 44-BYov6 tE-SoKkh ")}) {
        TmpNameGenTestAccess::Seed(seed);
        std::string got;
        for (int i = 0; i < 3; ++i)
            got += TmpNameGen::getInstance().getTmpName() + " ";
        EXPECT_EQ(names, got);
    }
    TmpNameGenTestAccess::Seed(1);
    EXPECT_EQ("/tmp//08Mtye3H", TmpNameGen::getInstance().getTmpPath("/tmp/"));
    EXPECT_EQ("/HXoxR23x", TmpNameGen::getInstance().getTmpPath(""));
}
