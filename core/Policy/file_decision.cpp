#include "Policy/file_decision.h"

#include "Policy/device_path.h"
#include "Policy/kept_file.h"
#include "Policy/text.h"

namespace vorn::policy {
namespace {

FileVerdict LookUp(const SectionView& section, std::u16string_view path, FileContext& context) noexcept {
  const FileRuleMatch match = CheckFileACL(section, path);
  context.OnLookup(path, match);
  if (!match.found) return {match.access, DecidingFact::kNoFileRule, kNoRule};
  return {match.access, DecidingFact::kRule, match.rule_index};
}

// A stream is no more open than its file.
FileVerdict DecidePath(const SectionView& section, std::u16string_view path, FileContext& context) noexcept {
  const FileVerdict verdict = LookUp(section, path, context);
  const std::size_t stream = FindStream(path);
  if (stream == kNotFound) return verdict;
  const FileVerdict file = LookUp(section, {path.data(), stream}, context);
  if (file.access >= verdict.access) return verdict;
  return {file.access, DecidingFact::kStreamFile, file.rule};
}

// A place of a local drive that is named in another way is as protected as by its own name.
FileVerdict WeakestPlace(const SectionView& section, std::u16string_view path, FileVerdict verdict,
                         FileContext& context) noexcept {
  const PlaceAlias alias = FindPlaceAlias(path);
  if (!alias.Found()) return verdict;
  const char16_t first = alias.drive ? alias.drive : u'A', last = alias.drive ? alias.drive : u'Z';
  for (char16_t drive = first; drive <= last; ++drive) {
    const std::u16string_view place =
        context.PathOnDrive(drive, {path.data() + alias.rest, path.size() - alias.rest});
    if (place.empty()) continue;
    const FileVerdict own = DecidePath(section, place, context);
    if (own.access < verdict.access) verdict = {own.access, DecidingFact::kSamePlace, own.rule};
  }
  return verdict;
}

// Who reads or writes a volume reads or writes every file on it; a disk or a shadow copy is of any volume.
FileVerdict DecideWhole(const SectionView& section, std::u16string_view path, FileContext& context) noexcept {
  const FileVerdict verdict = LookUp(section, path, context);
  const bool known = StartsWithNoCase(path, kHardDiskVolumePrefix) && !FindPlaceAlias(path).Found();
  const FileRuleMatch stricter = FindStricterRuleWithin(section, known ? path : u"\\device", verdict.access);
  if (!stricter.found) return verdict;
  return {stricter.access, DecidingFact::kRuleBelow, stricter.rule_index};
}

}  // namespace

FileDecision DecideFile(const SectionView& section, const FileFacts& facts, FileContext& context) noexcept {
  const auto same = [](FileVerdict verdict) noexcept { return FileDecision{verdict, verdict}; };
  const bool one_access = section.Has(SectionOption::kOneAccessPerPlace);
  if (one_access && IsVolumeOrDisk(facts.path)) return same(DecideWhole(section, facts.path, context));
  if (facts.path.empty() || !facts.on_file_system)
    return same({FileACL::kUnknown, DecidingFact::kNoFileSystem, kNoRule});
  FileDecision decision;
  const bool in_bin = IsRecycleBinPath(facts.path);
  const bool free_place = in_bin || IsUnder(facts.path, facts.temp_directory);
  if (free_place && !section.Has(SectionOption::kPlacesFromRules)) {
    const auto place = in_bin ? DecidingFact::kRecycleBin : DecidingFact::kTemp;
    decision.file = decision.named = {FileACL::kReadWrite, place, kNoRule};
    decision.in_recycle_bin = in_bin;
    return decision;
  }
  FileVerdict verdict = DecidePath(section, facts.path, context);
  if (one_access) verdict = WeakestPlace(section, facts.path, verdict, context);
  decision.file = decision.named = verdict;
  if (decision.named.access == FileACL::kReadWrite && IsKept(section, facts.path))
    return same({FileACL::kRead, DecidingFact::kKept, kNoRule});
  if (decision.named.access != FileACL::kReadWrite) return decision;
  decision.in_recycle_bin = in_bin;
  const FileVerdict weakest = WeakestName(section, decision.named, context);
  if (weakest.access != FileACL::kReadWrite)
    decision.file = {FileACL::kRead, DecidingFact::kOtherName, weakest.rule};
  return decision;
}

FileVerdict WeakestName(const SectionView& section, FileVerdict start, FileContext& context) noexcept {
  FileVerdict weakest = start;
  std::u16string_view name;
  while (context.NextName(&name)) {
    if (IsKept(section, name)) continue;  // it was given to the file, and protects nothing else
    const FileVerdict verdict = LookUp(section, name, context);
    context.OnName(name, verdict.access);
    if (verdict.access < weakest.access) weakest = verdict;
  }
  return weakest;
}

FileVerdict HeldByRule(const SectionView& section, std::u16string_view path) noexcept {
  if (section.Has(SectionOption::kRulesHoldPlaces)) {
    const FileRuleMatch match = FindStricterRuleWithin(section, path, FileACL::kReadWrite);
    if (match.found) return {match.access, DecidingFact::kRuleBelow, match.rule_index};
  }
  return {FileACL::kReadWrite, DecidingFact::kNone, kNoRule};
}

std::size_t FindStream(std::u16string_view path) noexcept {
  const std::size_t separator = path.rfind(u'\\');
  return path.find(u':', separator == kNotFound ? 0 : separator + 1);
}

}  // namespace vorn::policy
