#include "vorn/text.h"

#include <fmt/xchar.h>

#include <memory>
#include <random>

#include "windows/nt.h"

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

std::string ToAnsi(const std::wstring& text) {
  const bool utf8 = GetACP() == CP_UTF8;  // expresses everything, and does not take the two arguments
  BOOL lossy = FALSE;
  char buffer[MAX_PATH * 3];
  const int bytes = WideCharToMultiByte(CP_ACP, utf8 ? 0 : WC_NO_BEST_FIT_CHARS, text.c_str(), -1, buffer,
                                        sizeof buffer, nullptr, utf8 ? nullptr : &lossy);
  return bytes && !lossy ? buffer : "";
}

std::wstring PathForAnsi(const std::wstring& path) {
  if (!ToAnsi(path).empty()) return path;
  wchar_t shorter[MAX_PATH];
  const DWORD units = GetShortPathNameW(path.c_str(), shorter, MAX_PATH);
  return units && units < MAX_PATH ? shorter : path;
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
  std::string message = ToUtf8(sentence.substr(0, end + 1));
  // What the system leaves for its caller to fill in.
  if (const std::size_t insert = message.find("%1"); insert != message.npos)
    message.replace(insert, 2, "the file");
  return message;
}

std::wstring RandomName(std::wstring_view prefix) {
  std::random_device random;  // the system's generator
  return fmt::format(L"{}_{}_{:08x}{:08x}{:08x}{:08x}", prefix, GetCurrentProcessId(), random(), random(),
                     random(), random());
}

}  // namespace vorn::host
