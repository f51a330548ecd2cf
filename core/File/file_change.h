// What the handlers that open and change files tell each other: one call that sets information, a rename as
// far as it was judged.
#pragma once

#include <string_view>

#include "File/handle_records.h"
#include "VornCore/Hook/own_handle.h"

namespace VornCore {

// The arguments of NtSetInformationFile.
struct SetFileCall {
  HANDLE handle;
  PIO_STATUS_BLOCK io;
  void* information;
  ULONG length;
  ULONG info_class;

  NTSTATUS Real(void* other, ULONG bytes, ULONG other_class) const {
    return Ntdll::CallOriginalNtSetInformationFile(handle, io, other, bytes,
                                                   static_cast<FILE_INFORMATION_CLASS>(other_class));
  }
  NTSTATUS Real() const { return Real(information, length, info_class); }

  bool Deletes() const {
    return info_class == nt::kFileDispositionInformation || info_class == nt::kFileDispositionInformationEx;
  }
  bool Links() const {
    return info_class == nt::kFileLinkInformation || info_class == nt::kFileLinkInformationEx;
  }
  bool Renames() const {
    return info_class == nt::kFileRenameInformation || info_class == nt::kFileRenameInformationEx;
  }
};

// What a disposition asks for. One that is too short asks to keep the file.
struct DispositionRequest {
  bool remove = false;
  bool on_close = false;  // takes a deletion that was asked for at open back, without asking for one
};
DispositionRequest ReadDisposition(const SetFileCall& call);

// A rename or a new hard link, as far as it was judged.
struct Renaming {
  bool replace = false;
  std::wstring_view target = {};  // canonical, in scratch slot 0; empty when it cannot be told
  HandleRecordPtr record = {};    // of the file, if it has one
  FileVerdict file = {};          // of the target: under all names, and of its path alone
  FileVerdict named = {};
  bool at_final_path = false;  // the target leads through no link
  OwnHandle existing = {};     // what is there
};

}  // namespace VornCore
