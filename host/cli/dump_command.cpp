#include <fmt/format.h>

#include <algorithm>

#include "commands.h"
#include "vorn/crash_dump.h"
#include "vorn/text.h"

namespace vorn::cli {

int Dump(const std::string& file) {
  const auto contents = host::ReadMinidumpFile(host::ToWide(file));
  if (const auto* problem = std::get_if<std::string>(&contents)) {
    PrintErrorLine(fmt::format("vorn: \"{}\" cannot be read as a minidump: {}", file, *problem));
    return kExitMistake;
  }
  const auto& dump = std::get<host::Minidump>(contents);
  PrintLine("written    " + host::IsoTime(std::uint64_t{dump.time} * 1000));
  if (const auto& e = dump.exception) {
    PrintLine("crash      " + host::ExceptionText(e->code, host::FaultText(*e)));
    PrintLine("at         " + host::Printable(host::PlaceText(dump, e->address)));
    PrintLine(fmt::format("on thread  {}", e->thread_id));
  } else {
    PrintLine("crash      none recorded");
  }
  if (dump.crash && dump.crash->flag)
    PrintLine(fmt::format("           inside Vorn's library (depth {})", dump.crash->flag));
  PrintLine(fmt::format("threads    {}", fmt::join(dump.thread_ids, " ")));
  PrintLine(fmt::format("memory     {} bytes in {} ranges", dump.memory_bytes, dump.memory_ranges));
  PrintLine(fmt::format("modules    {}", dump.modules.size()));
  std::vector<const host::MinidumpModule*> modules;
  for (const host::MinidumpModule& module : dump.modules) modules.push_back(&module);
  std::ranges::sort(modules, {}, &host::MinidumpModule::base);
  for (const auto* module : modules)
    PrintLine(
        fmt::format("  {:#018x}  {:#10x}  {}", module->base, module->size, host::Printable(module->path)));
  return kExitOk;
}

}  // namespace vorn::cli
