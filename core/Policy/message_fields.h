// What a message's field list is made of.
//
// Each message of message.h has one list, Fields(). Its size, its encoding, its decoding, the host's copy
// with texts of its own and its JSON object all come from that list. Numbers travel in the order of the list,
// and behind them the texts in theirs; so a list can be in the order in which people read it.
#pragma once

#include <cstdint>
#include <tuple>
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
  const char* key;  // in JSON
  T Message::*member;
  Show show = Show::kAlways;
};
template <class Message, class T>
Number(const char*, T Message::*) -> Number<Message, T>;
template <class Message, class T>
Number(const char*, T Message::*, Show) -> Number<Message, T>;

template <class Message, class T>
struct Text {
  static constexpr FieldKind kKind = FieldKind::kText;
  const char* key;
  T Message::*member;
  EmptyText empty;
  Show show;
};
template <class Message, class T>
Text(const char*, T Message::*, EmptyText, Show) -> Text<Message, T>;

// A number that only extended messages carry.
template <class Message, class T>
struct Extension {
  static constexpr FieldKind kKind = FieldKind::kExtension;
  using Type = T;
  const char* key;
  T Message::*member;
  Show show;
};
template <class Message, class T>
Extension(const char*, T Message::*, Show) -> Extension<Message, T>;

// Bytes that always have this value. Checked when `must_match`, otherwise skipped.
template <class T>
struct Marker {
  static constexpr FieldKind kKind = FieldKind::kMarker;
  using Type = T;
  T value;
  bool must_match;
};
template <class T>
Marker(T, bool) -> Marker<T>;

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
    if constexpr (source.kKind != FieldKind::kMarker)
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
