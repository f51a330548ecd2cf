#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "vorn/minidump.h"

namespace vorn::host {
namespace {

struct NamedException {
  std::uint32_t code;
  std::string_view name;
};

// In the order of their codes.
constexpr NamedException kExceptions[] = {
    {0x20474343, "C++ exception"},
    {0x40000015, "fatal application exit"},
    {0x80000001, "guard page"},
    {0x80000002, "misaligned data"},
    {0x80000003, "breakpoint"},
    {0x80000004, "single step"},
    {0xC0000005, "access violation"},
    {0xC0000006, "page could not be read"},
    {0xC0000008, "invalid handle"},
    {0xC0000017, "out of memory"},
    {0xC000001D, "illegal instruction"},
    {0xC0000025, "exception that cannot be continued"},
    {0xC000008C, "array bounds exceeded"},
    {0xC000008D, "float denormal operand"},
    {0xC000008E, "float divide by zero"},
    {0xC000008F, "float inexact result"},
    {0xC0000090, "float invalid operation"},
    {0xC0000091, "float overflow"},
    {0xC0000092, "float stack check"},
    {0xC0000093, "float underflow"},
    {0xC0000094, "divide by zero"},
    {0xC0000095, "integer overflow"},
    {0xC0000096, "privileged instruction"},
    {0xC00000FD, "stack overflow"},
    {0xC0000194, "possible deadlock"},
    {0xC0000374, "heap corruption"},
    {0xC0000409, "stack buffer overrun"},
    {0xC0000420, "failed assertion"},
    {0xC06D007E, "delay-loaded module not found"},
    {0xC06D007F, "delay-loaded function not found"},
    {0xE0434352, ".NET exception"},
    {0xE06D7363, "C++ exception"},
};

}  // namespace

std::string_view ExceptionName(std::uint32_t code) {
  const auto* found = std::ranges::lower_bound(kExceptions, code, {}, &NamedException::code);
  return found != std::end(kExceptions) && found->code == code ? found->name : std::string_view();
}

std::string ExceptionText(std::uint32_t code, std::string_view fault) {
  const std::string_view name = ExceptionName(code);
  if (name.empty()) return fmt::format("exception {:#010x}", code);
  return fmt::format("exception {:#010x} ({}{}{})", code, name, fault.empty() ? "" : " ", fault);
}

}  // namespace vorn::host
