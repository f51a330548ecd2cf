#include "File/file_link_helper.h"

#include <cstring>
#include <utility>

#include "File/created_files.h"
#include "File/drive_table.h"
#include "File/scratch_path.h"
#include "Platform/native.h"
#include "Policy/device_path.h"
#include "Policy/file_decision.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"

namespace VornCore {
namespace {

using vorn::policy::kMupPrefix;
using vorn::policy::StartsWithNoCase;
using vorn::policy::U16;

constexpr ULONG kDavProvider = 0x002E0000;  // WNNC_NET_DAV
constexpr std::wstring_view kDavRoot = L"\\davwwwroot";

bool IsDavFile(HANDLE file) {
  FILE_REMOTE_PROTOCOL_INFO info = {};
  return platform::Native().GetFileInformationByHandleEx(file, FileRemoteProtocolInfo, &info, sizeof info) &&
         (info.Protocol & 0xFFFF0000) == kDavProvider;
}

// The device alone: a substituted drive stands for a folder, and names of links are told from the volume's
// root.
std::wstring_view VolumeOf(std::wstring_view device_path) {
  return device_path.substr(0, device_path.find(L'\\', vorn::policy::kDevicePrefix.size()));
}

OwnHandle OpenForAttributes(std::wstring_view path, ULONG options = 0) {
  UNICODE_STRING name = nt::CountedString(path.data(), path.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  IO_STATUS_BLOCK io;
  OwnHandle file;
  (void)Ntdll::CallOriginalNtCreateFile(file.put(), SYNCHRONIZE | FILE_READ_ATTRIBUTES, &attributes, &io,
                                        nullptr, 0, nt::kShareAll, FILE_OPEN,
                                        options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  return file;
}

}  // namespace

FileLinkHelper::~FileLinkHelper() {
  Close();
  for (ListNode *node = FirstNode(names_), *next; node; node = next) {
    next = NextNode(node);
    delete static_cast<LinkNode*>(node);
  }
}

std::wstring_view FileLinkHelper::GetFileSymbolicLink(std::wstring_view path, bool itself) noexcept {
  if (path.empty()) return {};
  std::wstring_view target = ResolveFinalPath(path, true, itself ? FILE_OPEN_REPARSE_POINT : 0);
  if (!target.empty()) {
    if (IsDebugLogEnabled())
      VORN_LOG_I("GetFileSymbolicLink First path:%s target:%s", OrNil(WideToAnsi(path.data())),
                 OrNil(WideToAnsi(target.data())));
    return target;
  }
  // What does not exist is created where its file (of a stream) or its directory really lies.
  const std::size_t stream = vorn::policy::FindStream(U16(path));
  std::size_t tail = stream;
  if (stream != path.npos) target = ResolveFinalPath(path.substr(0, stream), true);
  if (target.empty()) {
    tail = vorn::policy::FindLastComponent(U16(path));
    if (tail == path.npos || tail == path.size()) return {};
    target = ResolveFinalPath(path.substr(0, tail), false);
  }
  if (IsDebugLogEnabled())
    VORN_LOG_I("GetFileSymbolicLink Second path:%s target:%s", OrNil(WideToAnsi(path.data())),
               OrNil(WideToAnsi(target.data())));
  const std::wstring_view rest = path.substr(tail);
  if (target.empty() || target.size() + 1 + rest.size() > kMaxPathUnits) return {};
  auto* buffer = const_cast<wchar_t*>(target.data());
  std::size_t units = target.size();
  if (tail != stream && buffer[units - 1] != L'\\') buffer[units++] = L'\\';
  return TerminatedCopy(buffer, {buffer, units}, rest);
}

std::wstring_view FileLinkHelper::ResolveFinalPath(std::wstring_view path, bool keep_open,
                                                   ULONG options) noexcept {
  OwnHandle file = OpenForAttributes(path, options);
  if (!file) return {};
  std::wstring_view target = FinalPathOf(file.get());
  const std::wstring_view spelled = path.substr(0, path.size() - path.ends_with(L'\\'));
  if (!vorn::policy::EqualsNoCase(U16(target), U16(spelled)) && !IsPathOf(file.get(), target)) target = {};
  if (keep_open && !target.empty()) file_ = std::move(file);
  return target;
}

std::uint32_t FileLinkHelper::LinkCount() noexcept {
  const std::uint32_t count = file_ ? LinkCountOf(file_.get()) : 0;
  return count ? count : 1;
}

void FileLinkHelper::Close() noexcept { file_.reset(); }

std::wstring_view FinalPathOf(HANDLE file) noexcept {
  // One question with room for every answer; the buffer is the thread's and is reused.
  wchar_t* buffer = ScratchPath(0, kMaxPathUnits);
  if (!buffer) return {};
  const DWORD room = kMaxPathUnits;
  const DWORD units = platform::Native().GetFinalPathNameByHandleW(file, buffer, room, VOLUME_NAME_NT);
  if (units == 0 || units >= room) return {};
  const std::wstring_view path(buffer, units);
  return StartsWithNoCase(U16(path), kMupPrefix) && IsDavFile(file) ? InsertDavRoot(path, buffer, room)
                                                                    : path;
}

bool IsPathOf(HANDLE file, std::wstring_view final_path) noexcept {
  if (!platform::Native().paths_can_be_wrong) return true;
  const OwnHandle other = OpenForAttributes(final_path);
  return other && FileIdOf(other.get()) == FileIdOf(file);
}

std::uint32_t LinkCountOf(HANDLE file) noexcept {
  FILE_STANDARD_INFO info;
  if (!platform::Native().GetFileInformationByHandleEx(file, FileStandardInfo, &info, sizeof info)) return 0;
  return info.Directory ? 1 : info.NumberOfLinks;
}

std::wstring_view InsertDavRoot(std::wstring_view path, wchar_t* buffer, std::size_t room) noexcept {
  if (!StartsWithNoCase(U16(path), kMupPrefix)) return path;
  const std::size_t share = path.find(L'\\', kMupPrefix.size());
  if (share == path.npos || path.size() + kDavRoot.size() > room) return path;
  const std::wstring_view rest = path.substr(share);
  const bool has_root =
      StartsWithNoCase(U16(rest), U16(kDavRoot)) && rest.substr(kDavRoot.size()).starts_with(L'\\');
  if (has_root) return path;
  const std::size_t units = path.size() + kDavRoot.size();
  memmove(buffer + share + kDavRoot.size(), buffer + share, (path.size() - share) * sizeof(wchar_t));
  memcpy(buffer + share, kDavRoot.data(), kDavRoot.size() * sizeof(wchar_t));
  buffer[units] = 0;
  return {buffer, units};
}

int FileLinkHelper::GetFileHardLinks(const wchar_t* path, const ListHead** names) noexcept {
  *names = &names_;
  // How a file is shared must not hide its names: it is not opened for its data.
  if (GetSection().Has(vorn::policy::SectionOption::kPlacesFromRules)) return ListNames(path, names);
  // The file is opened under the library's own name: its handler lets the call pass.
  ThreadState* state = GetThreadState();
  const std::uint8_t was_creating = state ? state->bInCreateFile : 0;
  if (state) state->bInCreateFile = 1;
  vorn::windows::UniqueHandle file(
      CreateFileW(path, GENERIC_READ, nt::kShareAll, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  const DWORD error = GetLastError();
  int count = 0;
  if (file) {
    BY_HANDLE_FILE_INFORMATION info;
    if (platform::Native().GetFileInformationByHandle(file.get(), &info) && info.nNumberOfLinks >= 2)
      count = FindOnDrive(path);
    file.reset();
  } else if (IsDebugLogEnabled()) {
    VORN_LOG_I("FileLinkHelper::GetFileHardLinks error:%d path:%s", static_cast<int>(error),
               OrNil(WideToAnsi(path)));
  }
  if (state) state->bInCreateFile = was_creating;
  return count;
}

int FileLinkHelper::ListNames(const wchar_t* path, const ListHead** names) noexcept {
  *names = &names_;
  ThreadState* state = GetThreadState();
  const std::uint8_t was_creating = state ? std::exchange(state->bInCreateFile, 1) : 0;
  const int count = FindOnDrive(path);
  if (state) state->bInCreateFile = was_creating;
  return count;
}

int FileLinkHelper::FindOnDrive(const wchar_t* path) noexcept {
  const DriveRecord* drive = GetDriveForLetter(path[0]);
  return drive ? FindHardLinks(path, VolumeOf(drive->device_path)) : 0;
}

int FileLinkHelper::FindHardLinks(const wchar_t* path, std::wstring_view volume) noexcept {
  if (!path[0] || volume.empty()) return 0;
  const platform::NativeApi& native = platform::Native();
  wchar_t* name = ScratchPath(1, kMaxPathUnits);
  if (!name || !native.FindFirstFileNameW) return 0;
  DWORD units = kMaxPathUnits;
  HANDLE find = native.FindFirstFileNameW(path, 0, &units, name);
  if (find == INVALID_HANDLE_VALUE) return names_.count;
  do {
    if (!AppendLink(path, volume, name)) break;
    units = kMaxPathUnits;
  } while (native.FindNextFileNameW(find, &units, name));
  native.FindClose(find);
  return names_.count;
}

bool FileLinkHelper::AppendLink(const wchar_t* path, std::wstring_view volume,
                                std::wstring_view name) noexcept {
  if (name.starts_with(platform::kOtherVolume)) {
    name.remove_prefix(platform::kOtherVolume.size());
    volume = {};
  }
  auto* text = static_cast<wchar_t*>(malloc((volume.size() + name.size() + 1) * sizeof(wchar_t)));
  auto* link = text ? new LinkNode : nullptr;
  if (!link) {
    free(text);
    return false;
  }
  TerminatedCopy(text, volume, name);
  link->path.reset(text);
  Append(names_, link);
  if (IsDebugLogEnabled())
    VORN_LOG_I("FindHardLinks src:%s target:%s", OrNil(WideToAnsi(path)), OrNil(WideToAnsi(text)));
  return true;
}

}  // namespace VornCore
