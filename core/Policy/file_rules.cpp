#include "Policy/file_rules.h"

#include "Policy/hash_filter.h"
#include "Policy/path_hash.h"
#include "Policy/prefix_hashes.h"
#include "Policy/text.h"

namespace vorn::policy {
namespace {

constexpr std::uint32_t kFirstInvalidAccess = 4;

// The first rule in the table that names the longest prefix of the set that any rule names.
FileRuleMatch FindRule(const SectionView& section, std::span<const FileRuleRecord> rules,
                       std::u16string_view path, const PrefixHashes& prefixes, Letters letters) noexcept {
  FileRuleMatch match;
  std::ptrdiff_t best = PrefixHashes::kNone;
  HashFilter(prefixes.Hashes()).Scan(rules, [&](std::size_t index) noexcept {
    const FileRuleRecord& rule = rules[index];
    const std::ptrdiff_t rank = prefixes.Find(rule.path_hash);
    if (rank <= best) return true;
    const SectionText text = section.PathOf(rule);
    if (!text.Present() || !StartsWithNoCase(path, text.text, letters)) return true;
    best = rank;
    const std::uint32_t access = rule.access;
    match.found = true;
    match.invalid_access = access >= kFirstInvalidAccess;
    match.access = match.invalid_access ? FileACL::kUnknown : static_cast<FileACL>(access);
    match.rule_index = static_cast<std::uint32_t>(index);
    return rank != prefixes.LongestRank();
  });
  return match;
}

}  // namespace

FileRuleMatch CheckFileACL(const SectionView& section, std::u16string_view path) noexcept {
  const auto rules = section.FileRules();
  if (rules.empty() || path.empty()) return {};
  std::u16string_view rest(path.data(), path.size() - (path.back() == u'\\' ? 1 : 0));
  const Letters letters = section.LettersOfPaths();
  for (;;) {
    const PrefixHashes prefixes(rest, letters);
    const FileRuleMatch match = FindRule(section, rules, path, prefixes, letters);
    if (match.found || !prefixes.HasShorter()) return match;
    for (std::size_t i = 0; i < PrefixHashes::kMaxPrefixes; ++i) rest = {rest.data(), rest.rfind(u'\\')};
  }
}

FileRuleMatch CheckConfigPermission(const SectionView& section, std::u16string_view path,
                                    std::size_t length) noexcept {
  const auto rules = section.FileRules();
  if (rules.empty() || length > path.size()) return {};
  const Letters letters = section.LettersOfPaths();
  const PrefixHashes prefixes(HashPathNoCase({path.data(), length}, letters));
  return FindRule(section, rules, path, prefixes, letters);
}

FileRuleMatch FindStricterRuleWithin(const SectionView& section, std::u16string_view path,
                                     FileACL access) noexcept {
  if (!path.empty() && path.back() == u'\\') path.remove_suffix(1);
  const auto rules = section.FileRules();
  const Letters letters = section.LettersOfPaths();
  for (std::size_t i = 0; !path.empty() && i < rules.size(); ++i) {
    const std::uint32_t rule_access = rules[i].access;
    if (rule_access == 0 || rule_access >= static_cast<std::uint32_t>(access)) continue;
    // Volumes and top folders are alike: a rule elsewhere differs where `path` ends.
    const std::u16string_view place = section.PathOf(rules[i]).text;
    if (place.size() < path.size() || (place.size() > path.size() && place[path.size()] != u'\\')) continue;
    if (!StartsWithNoCase(place, path, letters)) continue;
    return {static_cast<FileACL>(rule_access), true, false, static_cast<std::uint32_t>(i)};
  }
  return {};
}

}  // namespace vorn::policy
