// Why a decision came out as it did: the fact that decided, besides the rule.
#pragma once

#include <cstdint>

namespace vorn::policy {

// The rule index of a decision that no rule of the section's table made.
inline constexpr std::uint32_t kNoRule = 0xFFFFFFFF;

// The values are part of the messages: they are never changed or used again, new ones are added at the end.
enum class DecidingFact : std::uint32_t {
  kNone = 0,
  kRule = 1,
  kNoFileRule = 2,
  kStreamFile = 3,
  kOtherName = 4,
  kUnknownName = 5,
  kTemp = 6,
  kRecycleBin = 7,
  kCheckOff = 8,
  kNoFileSystem = 9,
  kUnresolved = 10,
  kOwnServer = 11,
  kNetCheckOff = 12,
  kNoNetRules = 13,
  kAddressRule = 14,
  kDomainRule = 15,
  kDefaultRule = 16,
  kNoMatch = 17,
  kRuleBelow = 18,
  kKept = 19,
  kForeignProgram = 20,
  kSamePlace = 21,
};

// A short phrase, empty for kNone; "unknown" for any value that is not above.
[[nodiscard]] constexpr const char* DecidingFactText(DecidingFact fact) noexcept {
  switch (fact) {
    case DecidingFact::kNone:
      return "";
    case DecidingFact::kRule:
      return "rule";
    case DecidingFact::kNoFileRule:
      return "no rule: read only";
    case DecidingFact::kStreamFile:
      return "the stream's file";
    case DecidingFact::kOtherName:
      return "another name of this file";
    case DecidingFact::kUnknownName:
      return "a name of this file that cannot be found out";
    case DecidingFact::kTemp:
      return "temp folder";
    case DecidingFact::kRecycleBin:
      return "recycle bin";
    case DecidingFact::kCheckOff:
      return "file check off";
    case DecidingFact::kNoFileSystem:
      return "no file system path";
    case DecidingFact::kUnresolved:
      return "cannot be resolved";
    case DecidingFact::kOwnServer:
      return "own server";
    case DecidingFact::kNetCheckOff:
      return "network check off";
    case DecidingFact::kNoNetRules:
      return "no network rules";
    case DecidingFact::kAddressRule:
      return "address rule";
    case DecidingFact::kDomainRule:
      return "name rule";
    case DecidingFact::kDefaultRule:
      return "default rule";
    case DecidingFact::kNoMatch:
      return "no rule matches";
    case DecidingFact::kRuleBelow:
      return "a stricter rule lies below";
    case DecidingFact::kKept:
      return "kept for restore";
    case DecidingFact::kForeignProgram:
      return "no program of Windows: it could not be confined";
    case DecidingFact::kSamePlace:
      return "another way to this place";
  }
  return "unknown";
}

}  // namespace vorn::policy
