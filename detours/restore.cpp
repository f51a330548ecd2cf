// Restoration: a process that was started with an updated import table gets its own back.
#include "detours/code/pe_import_plan.h"
#include "detours/detours.h"
#include "detours/remote_memory.h"

// Runs in the attach of the injected DLL, under the loader lock. By then the loader has resolved every import
// of the program, so nobody reads the table in the block any more; the addresses that it filled in stay
// there, and so does the block.
BOOL WINAPI DetourRestoreAfterWith() {
  using namespace detours;
  const RemoteMemory memory(GetCurrentProcess());
  const uint64_t base = memory.ImageBase();
  if (!base) return FALSE;
  const RemoteImage reader(memory, base);
  pe::Image image;
  pe::BlockHeader block;
  if (pe::ReadImage(reader, &image) != pe::Status::kOk || !pe::FindBlock(reader, image, &block)) return FALSE;
  return reader.WriteFields(image, block.original);
}
