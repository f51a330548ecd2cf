#include "process_query.h"

#include <winternl.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace vorn::host {
namespace {

// Offsets of a 32-bit and a 64-bit process: the parameters in the environment block, the command line in
// those.
struct Layout {
  std::size_t pointer_bytes, parameters, command_line;
};
constexpr Layout kX86{4, 0x10, 0x40}, kX64{8, 0x20, 0x70};

class Reader {
 public:
  Reader(HANDLE process, const Layout& layout) : process_(process), layout_(layout) {}

  bool Read(std::uint64_t address, void* to, std::size_t bytes) const {
    if (address == 0 || address > UINTPTR_MAX) return false;
    SIZE_T got = 0;
    return ReadProcessMemory(process_, reinterpret_cast<const void*>(static_cast<std::uintptr_t>(address)),
                             to, bytes, &got) &&
           got == bytes;
  }
  std::uint64_t Pointer(std::uint64_t address) const {
    std::uint64_t value = 0;
    return Read(address, &value, layout_.pointer_bytes) ? value : 0;
  }

  std::wstring CommandLine(std::uint64_t environment_block) const {
    const std::uint64_t parameters = Pointer(environment_block + layout_.parameters);
    std::uint16_t bytes = 0;
    if (!parameters || !Read(parameters + layout_.command_line, &bytes, sizeof bytes)) return {};
    const std::uint64_t text = Pointer(parameters + layout_.command_line + layout_.pointer_bytes);
    std::wstring line(bytes / sizeof(wchar_t), L'\0');
    return Read(text, line.data(), line.size() * sizeof(wchar_t)) ? line : std::wstring();
  }

 private:
  HANDLE process_;
  const Layout& layout_;
};

// The system's own answer, for every bitness; Wine 8 has none.
std::optional<std::wstring> AskForCommandLine(HANDLE process) {
  constexpr auto kCommandLineInformation = static_cast<PROCESSINFOCLASS>(60);
  std::vector<std::byte> answer(sizeof(UNICODE_STRING) + 0x10000);
  ULONG bytes = 0;
  if (NtQueryInformationProcess(process, kCommandLineInformation, answer.data(),
                                static_cast<ULONG>(answer.size()), &bytes) < 0)
    return std::nullopt;
  const auto* text = reinterpret_cast<const UNICODE_STRING*>(answer.data());
  return std::wstring(text->Buffer, text->Length / sizeof(wchar_t));
}

}  // namespace

std::wstring ImageOf(HANDLE process) {
  std::wstring image(32768, L'\0');
  DWORD units = static_cast<DWORD>(image.size());
  image.resize(QueryFullProcessImageNameW(process, 0, image.data(), &units) ? units : 0);
  return image;
}

std::wstring CommandLineOf(HANDLE process) {
  if (auto line = AskForCommandLine(process)) return *line;
  PROCESS_BASIC_INFORMATION basic{};
  if (NtQueryInformationProcess(process, ProcessBasicInformation, &basic, sizeof basic, nullptr) < 0)
    return {};
  const auto block = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(basic.PebBaseAddress));
  // A 64-bit program gets the 64-bit block of a 32-bit process, and the place of the other one by this
  // question. Wine answers with yes alone: there the other one lies a page behind.
  ULONG_PTR block32 = 0;
  if (sizeof(void*) == 8 &&
      NtQueryInformationProcess(process, ProcessWow64Information, &block32, sizeof block32, nullptr) >= 0 &&
      block32)
    return Reader(process, kX86).CommandLine(block32 == 1 ? block + 0x1000 : block32);
  BOOL other = FALSE, own = FALSE;
  IsWow64Process(process, &other);
  IsWow64Process(GetCurrentProcess(), &own);
  const bool x86 = other || (sizeof(void*) == 4 && !own);
  return Reader(process, x86 ? kX86 : kX64).CommandLine(block);
}

}  // namespace vorn::host
