#include "VornCore/Base/strings.h"

#include <cstring>
#include <cwchar>
#include <utility>

namespace VornCore {
namespace {

template <class T>
platform::HeapPtr<T> ZeroedBlock(std::size_t bytes) noexcept {
  return platform::HeapPtr<T>(static_cast<T*>(calloc(bytes, 1)));
}

constexpr std::size_t kLongestCounted = 65'534;  // bytes that a UNICODE_STRING can count, in whole units

}  // namespace

HeapText UnicodeStringToAnsi(const UNICODE_STRING* text) noexcept {
  if (!text || !text->Buffer || text->Length == 0) return nullptr;
  const ULONG size = RtlxUnicodeStringToAnsiSize(text);
  if (size == 0 || size > 0xFFFF) return nullptr;
  auto out = ZeroedBlock<char>(size);
  if (!out) return nullptr;
  ANSI_STRING ansi{0, static_cast<USHORT>(size), out.get()};
  if (!nt::Success(RtlUnicodeStringToAnsiString(&ansi, const_cast<UNICODE_STRING*>(text), FALSE)))
    return nullptr;
  out.get()[size - 1] = '\0';
  return out;
}

HeapText WideToAnsi(const wchar_t* text) noexcept {
  if (!text) return nullptr;
  const std::size_t bytes = std::wcslen(text) * sizeof(wchar_t);
  if (bytes > kLongestCounted) return nullptr;
  const UNICODE_STRING counted = nt::CountedString(text, bytes);
  return UnicodeStringToAnsi(&counted);
}

HeapText CountedToAnsi(std::wstring_view text) noexcept {
  const UNICODE_STRING counted = nt::CountedString(text.data(), text.size() * sizeof(wchar_t));
  return UnicodeStringToAnsi(&counted);
}

HeapString AnsiToWide(const char* text) noexcept {
  if (!text) return nullptr;
  const std::size_t length = std::strlen(text);
  const std::size_t size = (length + 1) * sizeof(wchar_t);  // no code page yields more units than bytes
  if (size > kLongestCounted) return nullptr;
  auto out = ZeroedBlock<wchar_t>(size);
  if (!out) return nullptr;
  ANSI_STRING ansi{static_cast<USHORT>(length), static_cast<USHORT>(length + 1), const_cast<char*>(text)};
  UNICODE_STRING wide{0, static_cast<USHORT>(size), out.get()};
  if (!nt::Success(RtlAnsiStringToUnicodeString(&wide, &ansi, FALSE))) return nullptr;
  return out;
}

HeapText WideToUtf8(const wchar_t* text, std::int32_t bytes) noexcept {
  if (!text || bytes <= 0) return nullptr;
  ULONG size = 0;
  if (!nt::Success(RtlUnicodeToUTF8N(nullptr, 0, &size, text, static_cast<ULONG>(bytes)))) return nullptr;
  auto out = ZeroedBlock<char>(std::size_t{size} + 1);
  if (!out) return nullptr;
  if (!nt::Success(RtlUnicodeToUTF8N(out.get(), size, &size, text, static_cast<ULONG>(bytes))))
    return nullptr;
  return out;
}

HeapString WideDup(const wchar_t* text) noexcept {
  if (!text) return nullptr;
  const std::size_t bytes = (std::wcslen(text) + 1) * sizeof(wchar_t);
  HeapString out(static_cast<wchar_t*>(malloc(bytes)));
  if (out) std::memcpy(out.get(), text, bytes);
  return out;
}

platform::HeapPtr<void> CopyBytesZ(const void* bytes, std::size_t count) noexcept {
  if (!bytes || count == 0 || count > PTRDIFF_MAX) return nullptr;
  auto out = ZeroedBlock<void>(((count + 1) | 1) + 1);
  if (out) std::memcpy(out.get(), bytes, count);
  return out;
}

wchar_t* UIntToWide(std::uint32_t value, std::uint32_t base, wchar_t* buffer) noexcept {
  if (!buffer || base < 2 || base > 36) return nullptr;
  wchar_t reversed[32];
  int count = 0;
  do {
    reversed[count++] = L"0123456789abcdefghijklmnopqrstuvwxyz"[value % base];
    value /= base;
  } while (value);
  wchar_t* out = buffer;
  while (count) *out++ = reversed[--count];
  *out = L'\0';
  return buffer;
}

bool WideEndsWith(const wchar_t* text, const wchar_t* suffix, bool ignore_case) noexcept {
  if (!text || !suffix) return false;
  const std::size_t text_length = std::wcslen(text), length = std::wcslen(suffix);
  if (length == 0 || length > text_length) return false;
  const wchar_t* tail = text + (text_length - length);
  return ignore_case ? _wcsnicmp(tail, suffix, length) == 0 : std::wmemcmp(tail, suffix, length) == 0;
}

}  // namespace VornCore
