#include "vorn/text.h"

#include <fmt/xchar.h>

#include <memory>
#include <random>

#include "Platform/nt.h"

namespace vorn::host {

std::string ToUtf8(std::wstring_view text) {
  const int units = static_cast<int>(text.size());
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), units, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(bytes), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), units, result.data(), bytes, nullptr, nullptr);
  return result;
}

std::wstring ToWide(std::string_view text) {
  const int bytes = static_cast<int>(text.size());
  const int units = MultiByteToWideChar(CP_UTF8, 0, text.data(), bytes, nullptr, 0);
  std::wstring result(static_cast<std::size_t>(units), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), bytes, result.data(), units);
  return result;
}

std::string Win32ErrorText(std::uint32_t error) {
  wchar_t* text = nullptr;
  const DWORD units = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
      error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  const std::unique_ptr<wchar_t, decltype(&LocalFree)> owner(text, &LocalFree);
  std::wstring_view sentence(text ? text : L"", units);
  const auto end = sentence.find_last_not_of(L".\r\n ");
  if (end == sentence.npos) return fmt::format("error {}", error);
  return ToUtf8(sentence.substr(0, end + 1));
}

std::wstring RandomName(std::wstring_view prefix) {
  std::random_device random;  // the system's generator
  return fmt::format(L"{}_{}_{:08x}{:08x}{:08x}{:08x}", prefix, GetCurrentProcessId(), random(), random(),
                     random(), random());
}

}  // namespace vorn::host
