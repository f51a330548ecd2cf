// Programs notice nothing that no rule forbids: generated work with files, done once plain and once confined
// under a policy that permits it, answers the same, step by step, and leaves the same tree.
//
// VORN_SEQUENCES: how many (default 1,000); VORN_SEED: the first. A sequence that differs is made as short as
// it can be before it is shown.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "tests/e2e/confinement.h"
#include "windows/nt.h"

namespace vorn::test {
namespace {

constexpr int kSteps = 14;

unsigned FromEnvironment(const char* name, unsigned otherwise) {
  const char* text = std::getenv(name);
  return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

class Transparency : public testing::Test {
 protected:
  using Lines = std::vector<std::string>;

  // What the probe prints for these sequences.
  Lines Run(bool confined, unsigned first, unsigned count, const std::set<int>& skipped = {}) {
    const TestFolder folder;
    const auto answers = folder.Path("answers.txt");
    std::filesystem::create_directory(folder.Path("work"));
    std::wstring arguments = L"\"" + folder.Path("work").wstring() + L"\" " + std::to_wstring(first) + L" " +
                             std::to_wstring(count) + L" " + std::to_wstring(kSteps) +
                             (KnowsExtendedDeletion() ? L" 1" : L" 0");
    for (const int step : skipped) arguments += L" " + std::to_wstring(step);
    const std::wstring command = Probe("transparency_probe.exe", arguments);
    if (!confined) {
      TestProcess(command, 0, OutputFile(answers).get()).RunToEnd(120'000);
      return ReadLines(answers);
    }
    E2eConfinement host([&](host::SectionContents& section) {
      section.options = host::kRunOptions;
      section.flags = 0;
      section.run = "t";
      section.file_rules = {{policy::FileACL::kReadWrite, host::ToNtPath(folder.path().wstring())}};
      section.keep_places = {policy::KeepFormat::kRecycleBin, {{{}, host::ToNtPath(kept_.path().wstring())}}};
    });
    EXPECT_EQ(host.RunInto(answers, command), 0);
    return ReadLines(answers);
  }

  // Asked for no file. What the library gives to programs where the system has not got it is no difference.
  static bool KnowsExtendedDeletion() {
    IO_STATUS_BLOCK io;
    nt::DispositionInformationEx nothing = {};
    const NTSTATUS status =
        NtSetInformationFile(nullptr, &io, &nothing, sizeof nothing,
                             static_cast<FILE_INFORMATION_CLASS>(nt::kFileDispositionInformationEx));
    return status != STATUS_NOT_IMPLEMENTED && status != STATUS_INVALID_INFO_CLASS;
  }

  // The numbers of the steps that a difference does not need.
  std::set<int> Shrink(unsigned seed) {
    std::set<int> skipped;
    for (int step = kSteps - 1; step >= 0; --step) {
      skipped.insert(step);
      if (Run(false, seed, 1, skipped) == Run(true, seed, 1, skipped)) skipped.erase(step);
    }
    return skipped;
  }

  const TestFolder kept_;
};

TEST_F(Transparency, WorkWithFilesIsTheSame) {
  constexpr unsigned kAtOnce = 500;
  const unsigned count = FromEnvironment("VORN_SEQUENCES", 1000);
  const unsigned first = FromEnvironment("VORN_SEED", std::random_device{}() % 1'000'000);
  for (unsigned begin = first; begin < first + count; begin += kAtOnce) {
    const unsigned some = std::min(kAtOnce, first + count - begin);
    const Lines plain = Run(false, begin, some), confined = Run(true, begin, some);
    ASSERT_GT(plain.size(), some * kSteps);
    if (plain == confined) continue;
    unsigned seed = begin;
    for (std::size_t i = 0; i < plain.size() && i < confined.size() && plain[i] == confined[i]; ++i)
      if (plain[i].starts_with("sequence ")) seed = static_cast<unsigned>(std::stoul(plain[i].substr(9)));
    const std::set<int> skipped = Shrink(seed);
    EXPECT_EQ(Run(false, seed, 1, skipped), Run(true, seed, 1, skipped));
    FAIL() << "sequence " << seed << " differs";
  }
}

}  // namespace
}  // namespace vorn::test
