// Which name an address belongs to: every name that the process resolved, with the addresses that came back.
// Rules are written in names, socket calls carry addresses; this cache is the bridge. Names are never removed
// while the process lives.
//
//   domains_ ─► DomainEntry "example.org" ─► AddressEntry 192.0.2.10 ─► AddressEntry 2001:db8::10
//           ─► DomainEntry "cdn.test"    ─► AddressEntry 192.0.2.10
//
//   by name      hash of the name           → DomainEntry    (a name is held once, but for alias passes)
//   by pair      domain and address         → AddressEntry   (an address is held once in its domain)
//   by address   family and address bytes   → AddressEntry of the domain that stands first in the list
//
// The list's order decides when several names have an address: the one that was added first wins. The indexes
// give that answer without the walk. IPv4-mapped addresses are kept as IPv4; the all-zero addresses are not
// kept. Any thread; one lock over all operations, under which nothing calls out but address formatting.
#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/heap.h"
#include "Platform/lock.h"
#include "Platform/net_types.h"
#include "VornCore/Base/hash_index.h"
#include "VornCore/Base/list.h"

namespace VornCore {

// A copy of a domain name: in place when it is as short as names on the wire are (253 units), else on the
// heap.
class DomainName {
 public:
  DomainName() = default;
  DomainName(const DomainName&) = delete;
  DomainName& operator=(const DomainName&) = delete;

  const wchar_t* get() const { return text_; }  // terminated; null when there is none
  std::wstring_view view() const { return {text_ ? text_ : L"", length_}; }
  void Assign(std::wstring_view name) noexcept;  // none when memory is short

 private:
  const wchar_t* text_ = nullptr;
  std::size_t length_ = 0;
  platform::HeapString long_;
  wchar_t short_[256];
};

class DnsCache {
 public:
  DnsCache() = default;
  virtual ~DnsCache();
  DnsCache(const DnsCache&) = delete;
  DnsCache& operator=(const DnsCache&) = delete;

  // Fills the cache from the system's resolver cache; the addresses of a canonical name end up under the
  // alias that was asked for. A failure is logged and leaves the cache as it is.
  void LoadSystemCache() noexcept;

  // The first name of this address (readable or not, any family); none when it is unknown.
  void FindDomainByAddress(const sockaddr* address, std::uint32_t length, DomainName& name) noexcept;

  // Answers of the resolver: name is what was asked for. ANSI names are in the process's code page. Null or
  // empty names and null answers add nothing.
  void AddHostent(const char* name, const hostent* answer) noexcept;
  void AddDnsRecords(const char* name, const DNS_RECORD* list) noexcept;
  void AddDnsRecords(const wchar_t* name, const DNS_RECORD* list) noexcept;
  void AddAddrInfo(const wchar_t* name, const ADDRINFOW* list) noexcept;
  void AddAddrInfoEx(const wchar_t* name, const ADDRINFOEXW* list) noexcept;

  void DumpCache() noexcept;

 private:
  struct ByName;
  struct ByPair;
  struct ByAddress;
  struct AddressEntry;
  struct DomainEntry;
  struct HostAddress;

  DomainEntry* FindDomain(std::wstring_view name) const noexcept;
  DomainEntry* FindOrCreateDomain(std::wstring_view name) noexcept;
  bool Rename(DomainEntry* domain, std::wstring_view name) noexcept;
  void Add(DomainEntry* domain, const HostAddress& address) noexcept;
  bool ApplyAliases(const DNS_RECORDW* list) noexcept;
  template <class Info>
  void AddInfoList(const wchar_t* name, const Info* list) noexcept;

  platform::CriticalSection lock_;
  ListHead domains_;
  std::uint64_t next_serial_ = 0;
  HashIndex<DomainEntry, ByName> by_name_;
  HashIndex<AddressEntry, ByPair> by_pair_;
  HashIndex<AddressEntry, ByAddress> by_address_;
};

// The process's cache: made on first use, never destroyed.
DnsCache& GetDnsCache() noexcept;

}  // namespace VornCore
