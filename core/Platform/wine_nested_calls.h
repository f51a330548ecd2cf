// Exports of Windows that are independent of each other, one of which Wine implements by calling the other
// through its patched export. The inner call of such a pair passes through, so that nothing is decided,
// reported or finished twice.
//
//   WSAConnect → connect      GetOverlappedResult → GetOverlappedResultEx      DnsQuery_A → DnsQuery_W →
//   DnsQuery_UTF8             sendto → WSASendTo (Wine 10; Wine 8 has them apart)
//
// The real outer function runs with a mark on its thread that names the inner one. The inner function's thunk
// takes the mark off and goes to the real function; without it, to the dispatcher. Code of the application
// that runs meanwhile (completion routines) finds no mark. An outer function that does not call the inner one
// after all leaves no mark either.
#pragma once

namespace VornCore::platform::wine {

// What CallOriginal of an outer function goes through; original for every other name.
void* MarkNestedCall(const char* name, void* original) noexcept;

// What the patched inner function leads to; dispatcher for every other name.
void* PassNestedCall(const char* name, void* dispatcher) noexcept;

}  // namespace VornCore::platform::wine
