#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "commands.h"
#include "vorn/environment.h"
#include "vorn/text.h"

namespace vorn::cli {
namespace {

std::optional<std::string> EnvironmentVariable(std::string_view name) {
  const std::wstring value = host::EnvironmentValue(host::ToWide(name).c_str());
  return value.empty() ? std::nullopt : std::optional(host::ToUtf8(value));
}

void PrintTo(std::FILE* stream, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fputc('\n', stream);
  std::fflush(stream);
}

}  // namespace

void PrintLine(const std::string& text) { PrintTo(stdout, text); }
void PrintErrorLine(const std::string& text) { PrintTo(stderr, text); }

std::optional<host::CompiledPolicy> LoadPolicy(const std::string& file) {
  std::ifstream stream(std::filesystem::path(host::ToWide(file)), std::ios::binary);
  if (!stream) {
    PrintErrorLine("vorn: cannot read the policy \"" + file + "\": " + host::Win32ErrorText(GetLastError()));
    return {};
  }
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  const auto print = [&](const std::vector<host::PolicyError>& errors) {
    for (const host::PolicyError& error : errors) PrintErrorLine(host::FormatPolicyError(file, error));
  };
  auto parsed = host::ParsePolicy(text, EnvironmentVariable);
  if (auto* errors = std::get_if<1>(&parsed)) return print(*errors), std::nullopt;
  auto compiled = host::CompiledPolicy::Make(std::get<host::PolicyDocument>(std::move(parsed)));
  if (auto* errors = std::get_if<1>(&compiled)) return print(*errors), std::nullopt;
  return std::get<host::CompiledPolicy>(std::move(compiled));
}

}  // namespace vorn::cli
