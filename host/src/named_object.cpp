#include "vorn/named_object.h"

#include <array>
#include <system_error>

#include "vorn/text.h"
#include "windows/unique_handle.h"
#include "windows/user_only_security.h"

namespace vorn::host {

namespace {

// The directory in which Win32 puts this process's named objects differs between sessions and containers: an
// object made there tells.
std::wstring FindDirectory() {
  const std::wstring name = RandomName(L"vorn_probe");
  windows::UserOnlySecurity security;
  windows::UniqueHandle probe(CreateEventW(security.attributes(), FALSE, FALSE, name.c_str()));
  if (!probe)
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "named objects");
  alignas(nt::ObjectNameInformation) std::array<unsigned char, 2048> buffer;
  ULONG bytes = 0;
  const NTSTATUS status =
      NtQueryObject(probe.get(), nt::kObjectNameInformation, buffer.data(), buffer.size(), &bytes);
  if (!nt::Success(status)) {
    throw std::system_error(static_cast<int>(RtlNtStatusToDosErrorNoTeb(status)), std::system_category(),
                            "named objects");
  }
  const UNICODE_STRING& full = reinterpret_cast<nt::ObjectNameInformation*>(buffer.data())->Name;
  return {full.Buffer, full.Length / sizeof(wchar_t) - name.size()};
}

}  // namespace

std::wstring NamedObjectPath(std::wstring_view short_name) {
  static const std::wstring directory = FindDirectory();  // ends in a backslash
  return directory + std::wstring(short_name);
}

}  // namespace vorn::host
