#include "File/file_audit.h"

#include "File/file_helper.h"
#include "File/scratch_path.h"
#include "VornCore/Base/channel.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"

namespace VornCore {
namespace {

using vorn::policy::ACLName;
using vorn::policy::DecidingFact;
using vorn::policy::FileACL;
using vorn::policy::SectionOption;

constexpr int kSourceSlot = 0, kDestinationSlot = 1, kSourceTextSlot = 2, kDestinationTextSlot = 3,
              kMessageSlot = 4;
constexpr std::uint32_t kMaxUtf8PerUnit = 3;

// A copy of path as people read it; null for an absent path.
wchar_t* Readable(std::wstring_view path, int slot) {
  if (path.empty()) return nullptr;
  wchar_t* copy = ScratchPath(slot, path.size());
  if (copy) {
    TerminatedCopy(copy, path);
    NtPathToDosPath(copy);
  }
  return copy;
}

std::string_view ToUtf8(ThreadState* state, const wchar_t* path, int slot) {
  if (!path) return {};
  const auto bytes = static_cast<ULONG>(wcslen(path) * sizeof(wchar_t));
  const ULONG room = bytes / sizeof(wchar_t) * kMaxUtf8PerUnit;
  char* text = static_cast<char*>(GetScratchBuffer(state, slot, room));
  ULONG written = 0;
  if (!text || !nt::Success(RtlUnicodeToUTF8N(text, room, &written, path, bytes))) return {};
  return {text, written};
}

}  // namespace

void SendFileAudit(AuditType type, NTSTATUS status, const AuditedFile& source,
                   const AuditedFile& destination) noexcept {
  ThreadState* state = GetThreadState();
  if (!state) return;
  ScratchLevel level(state);
  const wchar_t* source_path = Readable(source.path, kSourceSlot);
  const wchar_t* destination_path = Readable(destination.path, kDestinationSlot);
  const FileACL source_access = source.verdict.access, destination_access = destination.verdict.access;
  const FileVerdict& decided =
      destination.verdict.fact == DecidingFact::kNone ? source.verdict : destination.verdict;
  const vorn::policy::FileAudit audit{.type = type,
                                      .error = RtlNtStatusToDosErrorNoTeb(status),
                                      .source_access = source_access,
                                      .destination_access = destination_access,
                                      .source = ToUtf8(state, source_path, kSourceTextSlot),
                                      .destination = ToUtf8(state, destination_path, kDestinationTextSlot),
                                      .extended = GetSection().Has(SectionOption::kDecisionInAudit),
                                      .rule = decided.rule,
                                      .fact = decided.fact};
  const std::size_t size = EncodedSize(audit);
  if (void* message = GetScratchBuffer(state, kMessageSlot, static_cast<std::uint32_t>(size))) {
    const std::size_t written = Encode(audit, OriginNow(), {static_cast<std::byte*>(message), size});
    if (written) SendToHost(message, static_cast<std::uint32_t>(written));
  }
  if (!IsDebugLogEnabled()) return;
  VORN_LOG_I("Audit Type:[%d:%s], Status:%X Path:[%d:%s -> %s] DstPath:[%d:%s -> %s]", static_cast<int>(type),
             AuditTypeName(type), static_cast<unsigned>(status), static_cast<int>(source_access),
             ACLName(source_access), OrNil(WideToAnsi(source_path)), static_cast<int>(destination_access),
             ACLName(destination_access), OrNil(WideToAnsi(destination_path)));
}

}  // namespace VornCore
