#include "Net/dns_cache.h"

#include <cstring>
#include <new>

#include "Net/net_helper.h"
#include "Platform/winsock.h"
#include "Policy/net_rules.h"
#include "Policy/path_hash.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Base/clock.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"

namespace VornCore {
namespace {

namespace policy = vorn::policy;

constexpr int kMaxAliasPasses = 64;
constexpr std::uint8_t kZeroHost[16] = {};

std::wstring_view View(const wchar_t* text) { return text ? std::wstring_view(text) : std::wstring_view(); }

std::uint32_t HashName(std::wstring_view name) { return policy::HashPathNoCase(policy::U16(name)); }

bool StartsWith(std::wstring_view text, std::wstring_view prefix) {
  return policy::StartsWithNoCase(policy::U16(text), policy::U16(prefix));
}

HeapString Copy(std::wstring_view name) {
  auto* copy = static_cast<wchar_t*>(malloc((name.size() + 1) * sizeof(wchar_t)));
  if (copy) {
    memcpy(copy, name.data(), name.size() * sizeof(wchar_t));
    copy[name.size()] = 0;
  }
  return HeapString(copy);
}

}  // namespace

// An address without its port, in the form in which the cache keeps it.
struct DnsCache::HostAddress {
  std::uint32_t family = 0;  // 0: nothing to keep
  std::uint8_t bytes[16] = {};

  static HostAddress IPv4(const void* host) {
    HostAddress address;
    if (memcmp(host, kZeroHost, 4) == 0) return address;
    address.family = AF_INET;
    memcpy(address.bytes, host, 4);
    return address;
  }
  static HostAddress IPv6(const void* host) {
    auto* bytes = static_cast<const std::uint8_t*>(host);
    if (vorn::policy::IsMappedIPv4(bytes)) return IPv4(bytes + 12);
    HostAddress address;
    if (memcmp(bytes, kZeroHost, 16) == 0) return address;
    address.family = AF_INET6;
    memcpy(address.bytes, bytes, 16);
    return address;
  }
  static HostAddress Of(const DNS_RECORDW& record) {
    if (record.wType == DNS_TYPE_A) return IPv4(&record.Data.A.IpAddress);
    if (record.wType == DNS_TYPE_AAAA) return IPv6(&record.Data.AAAA.Ip6Address);
    return {};
  }
  static HostAddress Of(const sockaddr* address, std::size_t length) {
    if (!address || length < net_helper::kIPv4Bytes) return {};
    auto* bytes = reinterpret_cast<const std::uint8_t*>(address);
    if (address->sa_family == AF_INET) return IPv4(bytes + 4);
    if (address->sa_family == AF_INET6 && length >= net_helper::kIPv6Bytes) return IPv6(bytes + 8);
    return {};
  }

  bool operator==(const HostAddress&) const = default;
  std::uint64_t Hash() const {
    std::uint64_t halves[2];
    memcpy(halves, bytes, sizeof halves);
    return HashWord(HashWord(halves[0] ^ family) + halves[1]);
  }
};

struct DnsCache::AddressEntry : ListNode, HashNode<ByPair>, HashNode<ByAddress> {
  DomainEntry* domain;
  HostAddress address;
  std::uint64_t last_seen;  // microseconds since 1970 UTC
  char text[net_helper::kAddressTextBytes];

  static std::uint64_t PairHash(const DomainEntry* domain, const HostAddress& address) {
    return address.Hash() ^ HashWord(reinterpret_cast<std::uintptr_t>(domain));
  }
};

struct DnsCache::DomainEntry : ListNode, HashNode<ByName> {
  HeapString name;  // as it was spelled first
  std::size_t length;
  std::uint32_t hash;
  std::uint64_t serial;  // position in the list
  ListHead addresses;

  std::wstring_view view() const { return {name.get(), length}; }
};

void DomainName::Assign(std::wstring_view name) noexcept {
  text_ = nullptr;
  length_ = 0;
  wchar_t* room = short_;
  if (name.size() >= std::size(short_)) {
    long_.reset(static_cast<wchar_t*>(malloc((name.size() + 1) * sizeof(wchar_t))));
    if (!(room = long_.get())) return;
  }
  memcpy(room, name.data(), name.size() * sizeof(wchar_t));
  room[name.size()] = 0;
  text_ = room;
  length_ = name.size();
}

DnsCache& GetDnsCache() noexcept {
  static DnsCache cache;
  return cache;
}

DnsCache::~DnsCache() {
  platform::LockGuard lock(lock_);
  for (ListNode *node = FirstNode(domains_), *next; node; node = next) {
    next = NextNode(node);
    auto* domain = static_cast<DomainEntry*>(node);
    for (ListNode *at = FirstNode(domain->addresses), *next_address; at; at = next_address) {
      next_address = NextNode(at);
      delete static_cast<AddressEntry*>(at);
    }
    delete domain;
  }
}

// ---- Domains ----

// A name is the same when the hash is and its units are, as far as the asked-for name goes. Alias passes can
// leave several entries of a name: the one that stands first in the list is meant.
DnsCache::DomainEntry* DnsCache::FindDomain(std::wstring_view name) const noexcept {
  if (name.empty()) return nullptr;
  const std::uint32_t hash = HashName(name);
  DomainEntry* first = nullptr;
  by_name_.Find(hash, [&](DomainEntry& domain) {
    if (StartsWith(domain.view(), name) && (!first || domain.serial < first->serial)) first = &domain;
    return false;
  });
  return first;
}

DnsCache::DomainEntry* DnsCache::FindOrCreateDomain(std::wstring_view name) noexcept {
  if (name.empty()) return nullptr;
  if (DomainEntry* known = FindDomain(name)) return known;
  HeapString copy = Copy(name);
  auto* domain = copy ? new (std::nothrow) DomainEntry : nullptr;
  if (!domain) return nullptr;
  domain->name = std::move(copy);
  domain->length = name.size();
  domain->hash = HashName(name);
  domain->serial = next_serial_++;
  Append(domains_, domain);
  by_name_.Insert(domain, domain->hash);
  return domain;
}

bool DnsCache::Rename(DomainEntry* domain, std::wstring_view name) noexcept {
  HeapString copy = Copy(name);
  if (!copy) return false;
  by_name_.Remove(domain);
  domain->name = std::move(copy);
  domain->length = name.size();
  domain->hash = HashName(name);
  by_name_.Insert(domain, domain->hash);
  return true;
}

// ---- Addresses ----

void DnsCache::Add(DomainEntry* domain, const HostAddress& address) noexcept {
  if (!domain || !address.family) return;
  const std::uint64_t now = GetPreciseTimeMicros();
  const std::uint64_t pair = AddressEntry::PairHash(domain, address);
  if (AddressEntry* known = by_pair_.Find(
          pair, [&](const AddressEntry& e) { return e.domain == domain && e.address == address; })) {
    known->last_seen = now;
    return;
  }
  auto* entry = new (std::nothrow) AddressEntry;
  if (!entry) return;
  entry->domain = domain;
  entry->address = address;
  entry->last_seen = now;
  memset(entry->text, 0, sizeof entry->text);
  net_helper::inet_ntop(static_cast<int>(address.family), address.bytes, entry->text, sizeof entry->text);
  Append(domain->addresses, entry);
  by_pair_.Insert(entry, pair);

  // Only the entry of the first domain in list order answers for the address.
  AddressEntry* first =
      by_address_.Find(address.Hash(), [&](const AddressEntry& e) { return e.address == address; });
  if (first && first->domain->serial < domain->serial) return;
  if (first) by_address_.Remove(first);
  by_address_.Insert(entry, address.Hash());
}

void DnsCache::FindDomainByAddress(const sockaddr* address, std::uint32_t length, DomainName& name) noexcept {
  net_helper::SocketAddress copy;
  if (!net_helper::ReadAddress(address, length, copy) || !copy.IsInternet()) return;
  HostAddress host{.family = copy.family()};
  memcpy(host.bytes, copy.host(), copy.host_bytes());
  platform::LockGuard lock(lock_);
  const AddressEntry* first =
      by_address_.Find(host.Hash(), [&](const AddressEntry& e) { return e.address == host; });
  if (first) name.Assign(first->domain->view());
}

// ---- Answers ----

void DnsCache::AddHostent(const char* name, const hostent* answer) noexcept {
  if (!answer) return;
  const HeapString wide = AnsiToWide(name);
  platform::LockGuard lock(lock_);
  DomainEntry* domain = FindOrCreateDomain(View(wide.get()));
  if (!domain || answer->h_addrtype != AF_INET || answer->h_length != 4 || !answer->h_addr_list) return;
  for (char** host = answer->h_addr_list; *host; ++host) Add(domain, HostAddress::IPv4(*host));
}

void DnsCache::AddDnsRecords(const char* name, const DNS_RECORD* list) noexcept {
  if (list) AddDnsRecords(AnsiToWide(name).get(), list);
}

void DnsCache::AddDnsRecords(const wchar_t* name, const DNS_RECORD* list) noexcept {
  if (!list) return;
  platform::LockGuard lock(lock_);
  DomainEntry* domain = FindOrCreateDomain(View(name));
  // The address records of the narrow and of the wide form have one layout.
  auto* record = reinterpret_cast<const DNS_RECORDW*>(list);
  for (; domain && record; record = record->pNext) Add(domain, HostAddress::Of(*record));
}

template <class Info>
void DnsCache::AddInfoList(const wchar_t* name, const Info* list) noexcept {
  if (!list) return;
  platform::LockGuard lock(lock_);
  DomainEntry* domain = FindOrCreateDomain(View(name));
  // (mingw-w64 gives the links of the extended form a type of their own)
  for (; domain && list; list = reinterpret_cast<const Info*>(list->ai_next))
    Add(domain, HostAddress::Of(list->ai_addr, list->ai_addrlen));
}

void DnsCache::AddAddrInfo(const wchar_t* name, const ADDRINFOW* list) noexcept { AddInfoList(name, list); }

void DnsCache::AddAddrInfoEx(const wchar_t* name, const ADDRINFOEXW* list) noexcept {
  AddInfoList(name, list);
}

// ---- The system's resolver cache ----

void DnsCache::LoadSystemCache() noexcept {
  const platform::DnsApi& dns = platform::Dns();
  if (!dns.loaded) return VORN_LOG_W("[CachedDns] Call 1");
  if (!dns.DnsGetCacheRecords) return VORN_LOG_W("[CachedDns] Call 2");
  if (!dns.DnsFree) return VORN_LOG_W("[CachedDns] Call 3");
  DNS_RECORDW* list = nullptr;
  if (dns.DnsGetCacheRecords(nullptr, &list) != 0) return VORN_LOG_W("[CachedDns] Call 4");

  // A fault on a record passes through here: the lock is held only over memory of the cache's own.
  for (const DNS_RECORDW* record = list; record; record = record->pNext) {
    const std::wstring_view owner = View(record->pName);
    if (owner.empty() || (record->wType != DNS_TYPE_A && record->wType != DNS_TYPE_AAAA)) continue;
    const HostAddress address = HostAddress::Of(*record);
    platform::LockGuard lock(lock_);
    Add(FindOrCreateDomain(owner), address);
  }
  for (int pass = 0; pass < kMaxAliasPasses && ApplyAliases(list);) ++pass;
  dns.DnsFree(list, DnsFreeRecordList);
  if (IsDebugLogEnabled()) DumpCache();
}

// One pass: entries named like the target of a CNAME record take its owner's name. Whether any name changed.
bool DnsCache::ApplyAliases(const DNS_RECORDW* list) noexcept {
  bool changed = false;
  for (const DNS_RECORDW* record = list; record; record = record->pNext) {
    if (record->wType != DNS_TYPE_CNAME) continue;
    const std::wstring_view owner = View(record->pName), target = View(record->Data.CNAME.pNameHost);
    if (owner.empty() || target.empty() || StartsWith(target, owner)) continue;
    platform::LockGuard lock(lock_);
    if (DomainEntry* domain = FindDomain(target)) changed |= Rename(domain, owner);
  }
  return changed;
}

void DnsCache::DumpCache() noexcept {
  {
    platform::LockGuard lock(lock_);
    for (ListNode* node = FirstNode(domains_); node; node = NextNode(node)) {
      const auto* domain = static_cast<const DomainEntry*>(node);
      const HeapText name = WideToAnsi(domain->name.get());
      for (ListNode* at = FirstNode(domain->addresses); at; at = NextNode(at)) {
        const auto* entry = static_cast<const AddressEntry*>(at);
        VORN_LOG_I("[CachedDns] Domain Name:%s ->(%d) %s", OrNil(name),
                   static_cast<int>(entry->address.family), entry->text);
      }
    }
  }
  VORN_LOG_I("[CachedDns] End");
}

}  // namespace VornCore
