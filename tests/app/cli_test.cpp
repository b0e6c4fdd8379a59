#include <gtest/gtest.h>

#include "app/cli.h"
#include "app/state.h"

namespace {

// argv as the parsers see it: argv[0] is the program.
struct Args {
    std::vector<std::string> store;
    std::vector<char*> ptrs;
    explicit Args(std::initializer_list<const char*> list) {
        store.emplace_back("varoft");
        for (const char* a : list) store.emplace_back(a);
        for (auto& s : store) ptrs.push_back(s.data());
        ptrs.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(store.size()); }
    char** argv() { return ptrs.data(); }
};

TEST(TransferGrammar, PutTakesAnOptionalRemoteName) {
    Args a{"-put", "a.txt", "-v"};
    std::optional<std::string> display;
    std::int32_t verbosity = 0;
    ASSERT_TRUE(parseTransferOptions(a.argc(), a.argv(), &display, &verbosity));
    EXPECT_EQ(RunMode, RunModePut);
    EXPECT_EQ(LocalPath, "a.txt");
    EXPECT_EQ(RemotePath, "?");
    EXPECT_EQ(verbosity, 2);
}

}  // namespace
