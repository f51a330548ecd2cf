// A program with imports and a TLS callback that records when each part of it runs; ends with 42.
#include <windows.h>

#include "tests/probes/injection_record.h"

namespace {

InjectionRecord* g_record;

void NTAPI OnTls(PVOID, DWORD reason, PVOID) {
  if (reason != DLL_PROCESS_ATTACH) return;
  g_record = OpenInjectionRecord();
  RecordInjectionEvent(g_record, 'T');
}

}  // namespace

extern "C" {
// The runtime's TLS directory covers every pointer between .CRT$XLA and .CRT$XLZ.
__attribute__((section(".CRT$XLB"), used)) PIMAGE_TLS_CALLBACK injection_probe_tls = OnTls;
}

int main() {
  RecordInjectionEvent(g_record, 'M');
  return 42;
}
