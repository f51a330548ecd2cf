#include "vorn/minidump.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "utf8.h"

namespace vorn::host {
namespace {

constexpr std::uint32_t kSignature = 0x504D444D;  // "MDMP"
constexpr std::uint32_t kVersion = 0xA793;        // in the low 16 bits; above them the writer's own
constexpr std::size_t kHeaderBytes = 32, kEntryBytes = 12;

enum StreamType : std::uint32_t {
  kThreadListStream = 3,
  kModuleListStream = 4,
  kMemoryListStream = 5,
  kExceptionStream = 6,
  kSystemInfoStream = 7,
};

constexpr std::size_t kThreadBytes = 48, kModuleBytes = 108, kMemoryRangeBytes = 16, kExceptionBytes = 168;
constexpr std::uint32_t kMaxParameters = 15;
constexpr std::uint16_t kArchitectureX86 = 0;

// Far above what a process has; a table that claims more is not read.
constexpr std::uint32_t kMaxStreams = 1024, kMaxThreads = 65'536, kMaxModules = 16'384,
                        kMaxMemoryRanges = 1'000'000;
constexpr std::uint32_t kMaxNameBytes = 32'767 * sizeof(char16_t);
constexpr std::uint64_t kMaxNamesBytes = 16 << 20;  // of all modules: names may overlap

// Bytes of the file, in the place where they stand there.
class Block {
 public:
  Block(std::uint64_t offset, std::size_t size) : offset_(offset), bytes_(size) {}

  std::span<std::byte> bytes() { return bytes_; }
  std::size_t size() const { return bytes_.size(); }
  std::uint64_t OffsetOf(std::size_t at) const { return offset_ + at; }
  template <class T>
  T At(std::size_t at) const {
    T value;
    std::memcpy(&value, bytes_.data() + at, sizeof value);
    return value;
  }
  std::uint32_t U32(std::size_t at) const { return At<std::uint32_t>(at); }
  std::uint64_t U64(std::size_t at) const { return At<std::uint64_t>(at); }

 private:
  std::uint64_t offset_;
  std::vector<std::byte> bytes_;
};

struct Stream {
  const char* name;
  std::uint64_t offset;
  std::uint32_t size;
  std::uint64_t entry;  // offset of its entry in the directory
};

// A list stream: the number of its records, and the records.
struct List {
  std::uint32_t count;
  Block records;
};

class Parser {
 public:
  Parser(std::uint64_t size, const ReadBytes& read) : size_(size), read_(read) {}

  Minidump Parse() {
    const Block header = Read(0, kHeaderBytes, "the header");
    if (header.U32(0) != kSignature) Fail(0, "it does not begin with \"MDMP\"");
    if ((header.U32(4) & 0xFFFF) != kVersion) Fail(4, fmt::format("its version is {:#x}", header.U32(4)));
    dump_.time = header.U32(20);
    const std::uint32_t streams = header.U32(8);
    if (streams > kMaxStreams) Fail(8, fmt::format("it claims {} streams", streams));
    const Block directory = Read(header.U32(12), streams * kEntryBytes, "the stream directory", 12);

    // The writer's processor first: it says how wide addresses are.
    if (auto stream = Find(directory, kSystemInfoStream, "the system information")) ReadSystem(*stream);
    if (auto stream = Find(directory, kThreadListStream, "the thread list")) ReadThreads(*stream);
    if (auto stream = Find(directory, kModuleListStream, "the module list")) ReadModules(*stream);
    if (auto stream = Find(directory, kMemoryListStream, "the memory list")) ReadMemory(*stream);
    if (auto stream = Find(directory, kExceptionStream, "the exception")) ReadException(*stream);
    if (auto stream = Find(directory, policy::kDumpUserStream, "the crash stream")) ReadCrash(*stream);
    return std::move(dump_);
  }

 private:
  [[noreturn]] static void Fail(std::uint64_t offset, std::string reason) {
    throw MinidumpError{std::move(reason), offset};
  }

  // field: offset of what names the bytes; their own when nothing does.
  void Check(std::uint64_t offset, std::uint64_t size, const std::string& what,
             std::optional<std::uint64_t> field = {}) const {
    if (offset > size_ || size > size_ - offset)
      Fail(field.value_or(offset),
           fmt::format("{} ({} bytes at {:#x}) ends behind the file ({} bytes)", what, size, offset, size_));
  }

  Block Read(std::uint64_t offset, std::size_t size, const std::string& what,
             std::optional<std::uint64_t> field = {}) const {
    Check(offset, size, what, field);
    Block block(offset, size);
    if (size != 0 && !read_(offset, block.bytes())) Fail(offset, what + " cannot be read");
    return block;
  }

  // The first stream of the type.
  std::optional<Stream> Find(const Block& directory, std::uint32_t type, const char* name) const {
    for (std::size_t at = 0; at < directory.size(); at += kEntryBytes) {
      if (directory.U32(at) != type) continue;
      const Stream stream{name, directory.U32(at + 8), directory.U32(at + 4), directory.OffsetOf(at)};
      Check(stream.offset, stream.size, name, stream.entry + 4);
      return stream;
    }
    return {};
  }

  // The first bytes of a stream that has at least as many.
  Block ReadFixed(const Stream& stream, std::size_t size) const {
    if (stream.size < size)
      Fail(stream.entry + 4, fmt::format("{} has {} bytes instead of {}", stream.name, stream.size, size));
    return Read(stream.offset, size, stream.name);
  }

  List ReadList(const Stream& stream, std::size_t record_bytes, std::uint32_t max) const {
    const std::uint32_t count = ReadFixed(stream, 4).U32(0);
    const std::uint64_t bytes = std::uint64_t{count} * record_bytes;
    if (count > max || bytes > stream.size - 4)
      Fail(stream.offset, fmt::format("{} claims {} entries in {} bytes", stream.name, count, stream.size));
    return {count, Read(stream.offset + 4, static_cast<std::size_t>(bytes), stream.name)};
  }

  // Addresses of a 32-bit process are stored with their sign extended.
  std::uint64_t Address(std::uint64_t value) const { return is_x86_ ? value & 0xFFFF'FFFF : value; }

  void ReadSystem(const Stream& stream) {
    is_x86_ = ReadFixed(stream, 2).At<std::uint16_t>(0) == kArchitectureX86;
  }

  void ReadThreads(const Stream& stream) {
    const List list = ReadList(stream, kThreadBytes, kMaxThreads);
    for (std::uint32_t i = 0; i < list.count; ++i)
      dump_.thread_ids.push_back(list.records.U32(i * kThreadBytes));
  }

  void ReadModules(const Stream& stream) {
    const List list = ReadList(stream, kModuleBytes, kMaxModules);
    std::uint64_t names_bytes = 0;
    for (std::uint32_t i = 0; i < list.count; ++i) {
      const std::size_t at = i * kModuleBytes, name_field = at + 20;
      const std::uint32_t name = list.records.U32(name_field);
      const std::uint64_t field = list.records.OffsetOf(name_field);
      const std::string what = fmt::format("the name of module {}", i);
      const std::uint32_t bytes = Read(name, 4, what, field).U32(0);
      names_bytes += bytes;
      if (bytes > kMaxNameBytes || names_bytes > kMaxNamesBytes)
        Fail(name, fmt::format("{} claims {} bytes", what, bytes));
      Block text = Read(std::uint64_t{name} + 4, bytes, what, name);
      std::u16string units(bytes / sizeof(char16_t), u'\0');
      if (!units.empty()) std::memcpy(units.data(), text.bytes().data(), units.size() * sizeof(char16_t));
      dump_.modules.push_back(
          {Address(list.records.U64(at)), list.records.U32(at + 8), Utf8FromUtf16(units)});
    }
  }

  void ReadMemory(const Stream& stream) {
    const List list = ReadList(stream, kMemoryRangeBytes, kMaxMemoryRanges);
    for (std::uint32_t i = 0; i < list.count; ++i) {
      const std::size_t at = i * kMemoryRangeBytes;
      const std::uint32_t bytes = list.records.U32(at + 8);
      Check(list.records.U32(at + 12), bytes, fmt::format("memory range {}", i),
            list.records.OffsetOf(at + 8));
      dump_.memory_bytes += bytes;
    }
    dump_.memory_ranges = list.count;
  }

  void ReadException(const Stream& stream) {
    const Block record = ReadFixed(stream, kExceptionBytes);
    const std::uint32_t parameters = record.U32(32);
    if (parameters > kMaxParameters)
      Fail(record.OffsetOf(32), fmt::format("the exception claims {} parameters", parameters));
    MinidumpException exception{record.U32(0), record.U32(8), record.U32(12), Address(record.U64(24)), {}};
    for (std::uint32_t i = 0; i < parameters; ++i)
      exception.parameters.push_back(Address(record.U64(40 + i * sizeof(std::uint64_t))));
    dump_.exception = std::move(exception);
  }

  void ReadCrash(const Stream& stream) {
    dump_.crash = ReadFixed(stream, sizeof(policy::DumpUserStream)).At<policy::DumpUserStream>(0);
  }

  const std::uint64_t size_;
  const ReadBytes& read_;
  bool is_x86_ = false;
  Minidump dump_;
};

}  // namespace

std::variant<Minidump, MinidumpError> ParseMinidump(std::uint64_t size, const ReadBytes& read) {
  try {
    return Parser(size, read).Parse();
  } catch (const MinidumpError& error) {
    return error;
  }
}

std::variant<Minidump, MinidumpError> ParseMinidump(std::span<const std::byte> bytes) {
  return ParseMinidump(bytes.size(), [&](std::uint64_t offset, std::span<std::byte> out) {
    std::memcpy(out.data(), bytes.data() + offset, out.size());
    return true;
  });
}

const MinidumpModule* ModuleAt(const Minidump& dump, std::uint64_t address) {
  const auto found = std::ranges::find_if(dump.modules, [&](const MinidumpModule& module) {
    return address >= module.base && address - module.base < module.size;
  });
  return found == dump.modules.end() ? nullptr : &*found;
}

std::string ModuleName(const MinidumpModule& module) {
  return module.path.substr(module.path.find_last_of("\\/") + 1);
}

std::string PlaceText(const Minidump& dump, std::uint64_t address) {
  if (const MinidumpModule* module = ModuleAt(dump, address))
    return fmt::format("{}+{:#x}", ModuleName(*module), address - module->base);
  return fmt::format("{:#x} (in no module)", address);
}

std::string FaultText(const MinidumpException& exception) {
  constexpr std::uint32_t kAccessViolation = 0xC0000005, kInPageError = 0xC0000006;
  if ((exception.code != kAccessViolation && exception.code != kInPageError) ||
      exception.parameters.size() < 2)
    return {};
  const std::uint64_t how = exception.parameters[0];
  const char* verb = how == 0 ? "reading" : how == 1 ? "writing" : how == 8 ? "executing" : "accessing";
  return fmt::format("{} {:#x}", verb, exception.parameters[1]);
}

}  // namespace vorn::host
