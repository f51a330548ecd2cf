// What a message's field list is made of.
//
// Each message of message.h has one list, Fields(). Its size, its encoding, its decoding, the host's copy
// with texts of its own and its JSON object all come from that list. Numbers travel in the order of the list,
// and behind them the texts in theirs; so a list can be in the order in which people read it.
#pragma once

#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>

namespace vorn::policy {

// When a field is shown in JSON. kWithTextBefore: unless the text before it in the list is empty.
enum class Show { kAlways, kUnlessEmpty, kWithTextBefore, kNever };
// Whether an empty text is absent from the message or sent as its terminator.
enum class EmptyText { kAbsent, kSent };

enum class FieldKind { kNumber, kText, kExtension, kMarker };

// An integer or an enumeration; sent as its type says, little-endian.
template <class Message, class T>
struct Number {
  static constexpr FieldKind kKind = FieldKind::kNumber;
  using Type = T;
  constexpr Number(const char* json_key, T Message::*of, Show when = Show::kAlways)
      : key(json_key), member(of), show(when) {}
  const char* key;  // in JSON
  T Message::*member;
  Show show;
};

template <class Message, class T>
struct Text {
  static constexpr FieldKind kKind = FieldKind::kText;
  constexpr Text(const char* json_key, T Message::*of, EmptyText if_empty, Show when)
      : key(json_key), member(of), empty(if_empty), show(when) {}
  const char* key;
  T Message::*member;
  EmptyText empty;
  Show show;
};

// A number that only extended messages carry.
template <class Message, class T>
struct Extension {
  static constexpr FieldKind kKind = FieldKind::kExtension;
  using Type = T;
  constexpr Extension(const char* json_key, T Message::*of, Show when)
      : key(json_key), member(of), show(when) {}
  const char* key;
  T Message::*member;
  Show show;
};

// Bytes that always have this value. Checked when `must_match`, otherwise skipped.
template <class T>
struct Marker {
  static constexpr FieldKind kKind = FieldKind::kMarker;
  using Type = T;
  constexpr Marker(T always, bool check) : value(always), must_match(check) {}
  T value;
  bool must_match;
};

// The kind of a field, from decltype of it.
template <class Field>
inline constexpr FieldKind kKindOf = std::remove_cvref_t<Field>::kKind;

// Calls visit(field) for each field of the list.
template <class Message, class Visitor>
constexpr void ForEachField(Visitor&& visit) {
  std::apply([&](const auto&... fields) { (visit(fields), ...); }, Message::Fields());
}

// A message of the same kind whose texts are of another type, such as the host's copy with strings.
template <class To, class From>
To CopyFields(const From& from) {
  To to{};
  const auto copy = [&](const auto& target, const auto& source) {
    if constexpr (kKindOf<decltype(source)> != FieldKind::kMarker)
      to.*target.member = std::remove_cvref_t<decltype(to.*target.member)>(from.*source.member);
  };
  std::apply(
      [&](const auto&... sources) {
        std::apply([&](const auto&... targets) { (copy(targets, sources), ...); }, To::Fields());
      },
      From::Fields());
  if constexpr (requires { from.extended; }) to.extended = from.extended;
  if constexpr (requires { from.subtype; }) to.subtype = from.subtype;
  return to;
}

}  // namespace vorn::policy
