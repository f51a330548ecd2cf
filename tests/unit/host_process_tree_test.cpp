#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "host/cli/process_tree.h"

namespace vorn::cli {
namespace {

TEST(HostProcessTree, AProcessIdThatIsUsedAgainNamesAnotherProcess) {
  ProcessTree tree;
  const std::pair<std::uint32_t, std::uint32_t> started[] = {{10, 1}, {20, 10}, {10, 20}};
  for (const auto& [pid, parent] : started) tree.Started(pid, parent, "a\x1b.exe");
  for (const auto& [pid, parent] : started) tree.AddFromJob(pid, parent, "a.exe", ProcessRole::kProgram);
  tree.AddFromJob(20, 10, "silent.exe", ProcessRole::kProgram);
  tree.AddFromJob(30, 20, "rundll32.exe", ProcessRole::kInjectionHelper);
  EXPECT_EQ(tree.unconfined(), 1u);
  EXPECT_EQ(tree.Lines(),
            (std::vector<std::string>{"a\\x1b.exe (10)  confined", "  a\\x1b.exe (20)  confined",
                                      "    a\\x1b.exe (10)  confined",
                                      "      silent.exe (20)  NOT CONFINED (never reported)",
                                      "        rundll32.exe (30)  injection helper of vorn"}));
}

}  // namespace
}  // namespace vorn::cli
