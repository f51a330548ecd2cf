// What an injected DLL and the program it was injected into tell the injection test: one record per process,
// in a section that the test creates before the process runs. Every field is written by the process's first
// thread.
#pragma once

#include <windows.h>

struct InjectionRecord {
  // Who ran, in order: an injected DLL's attach (first letter of its file name), the program's TLS callback
  // ('T'), its main ('M').
  char order[16];
  LONG events;

  // Of the DLL that attached first.
  BOOL restored;        // DetourRestoreAfterWith
  BOOL restored_again;  // the same, called once more
  BOOL header_is_the_files;
  DWORD header_protection;
};

inline void InjectionRecordName(DWORD pid, wchar_t (&name)[32]) {
  static constexpr wchar_t kPrefix[] = L"injection-record-";
  int n = 0;
  for (; kPrefix[n]; ++n) name[n] = kPrefix[n];
  for (int shift = 28; shift >= 0; shift -= 4) name[n++] = L"0123456789abcdef"[pid >> shift & 15];
  name[n] = 0;
}

// The calling process's record; null when nobody asks for one.
inline InjectionRecord* OpenInjectionRecord() {
  wchar_t name[32];
  InjectionRecordName(GetCurrentProcessId(), name);
  HANDLE section = OpenFileMappingW(FILE_MAP_WRITE, FALSE, name);
  if (!section) return nullptr;
  return static_cast<InjectionRecord*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, sizeof(InjectionRecord)));
}

inline void RecordInjectionEvent(InjectionRecord* record, char who) {
  if (record && record->events < LONG{sizeof(record->order)} - 1) record->order[record->events++] = who;
}
