#include <windows.h>

#include <algorithm>
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

// Empty for an empty one.
std::wstring FullPath(const std::string& file) {
  std::error_code ignored;
  return file.empty() ? std::wstring() : std::filesystem::absolute(host::ToWide(file), ignored).wstring();
}

// One call a line, so that the lines of the confined programs do not come in between. The console's code page
// is left as it is: it is the confined programs' too, and stays when vorn has ended.
void PrintTo(DWORD stream, const std::string& text) {
  HANDLE handle = GetStdHandle(stream);
  const std::string line = text + "\r\n";
  DWORD done = 0;
  if (GetConsoleMode(handle, &done)) {
    const std::wstring wide = host::ToWide(line);
    WriteConsoleW(handle, wide.data(), static_cast<DWORD>(wide.size()), &done, nullptr);
  } else {
    WriteFile(handle, line.data(), static_cast<DWORD>(line.size()), &done, nullptr);
  }
}

}  // namespace

void PrintLine(const std::string& text) { PrintTo(STD_OUTPUT_HANDLE, text); }
void PrintErrorLine(const std::string& text) { PrintTo(STD_ERROR_HANDLE, text); }

std::wstring OwnFolder() {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return std::filesystem::path(path).parent_path().wstring();
}

std::string NotConfined(const host::PolicyDocument& document) {
  const bool files = !document.enforce_files;
  const bool network = document.has_network && !document.enforce_network;
  return files ? network ? "files and the network are" : "files are" : network ? "the network is" : "";
}

std::optional<host::CompiledPolicy> LoadPolicy(const std::string& file, const RunPlaces& run) {
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
  auto document = std::get<host::PolicyDocument>(std::move(parsed));
  auto host_rules = host::FreePlaces(document.temp, run.private_temp);
  std::ranges::move(host::OwnPlaces(document, OwnFolder(), FullPath(file), FullPath(run.events_file)),
                    std::back_inserter(host_rules));
  auto compiled = host::CompiledPolicy::Make(std::move(document), std::move(host_rules));
  if (auto* errors = std::get_if<1>(&compiled)) return print(*errors), std::nullopt;
  return std::get<host::CompiledPolicy>(std::move(compiled));
}

}  // namespace vorn::cli
