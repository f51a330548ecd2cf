// The name cache against the answers of a resolver, with the memory layouts of real ones.
#include "Net/dns_cache.h"

#include <deque>
#include <map>
#include <random>

#include "Platform/guard.h"
#include "net_confinement.h"

namespace VornCore::test {
namespace {

Address V4(std::uint32_t host) {
  Address address = Local(0);
  address.v4.sin_addr.s_addr = htonl(host);
  return address;
}
Address V6(std::uint8_t last) {
  Address address = Local6();
  address.v6.sin6_addr.s6_addr[0] = 0x20;
  address.v6.sin6_addr.s6_addr[15] = last;
  return address;
}

std::wstring NameOf(DnsCache& cache, const Address& address) {
  DomainName name;
  cache.FindDomainByAddress(&address.any, static_cast<std::uint32_t>(address.length()), name);
  return std::wstring(name.view());
}

void AddInfo(DnsCache& cache, const wchar_t* name, std::initializer_list<Address> addresses) {
  std::deque<Address> copies(addresses);
  std::deque<ADDRINFOW> list;
  for (Address& address : copies) {
    ADDRINFOW info{};
    info.ai_addr = &address.any;
    info.ai_addrlen = static_cast<std::size_t>(address.length());
    list.push_back(info);
    if (list.size() > 1) list[list.size() - 2].ai_next = &list.back();
  }
  cache.AddAddrInfo(name, list.empty() ? nullptr : &list.front());
}

// A record list as the DNS client hands it out.
class Records {
 public:
  Records& A(const wchar_t* owner, std::uint32_t host) {
    Add(owner, DNS_TYPE_A).Data.A.IpAddress = htonl(host);
    return *this;
  }
  Records& AAAA(const wchar_t* owner, const Address& address) {
    memcpy(&Add(owner, DNS_TYPE_AAAA).Data.AAAA.Ip6Address, &address.v6.sin6_addr, 16);
    return *this;
  }
  Records& CNAME(const wchar_t* owner, const wchar_t* target) {
    Add(owner, DNS_TYPE_CNAME).Data.CNAME.pNameHost = const_cast<PWSTR>(target);
    return *this;
  }
  DNS_RECORDW* list() { return list_.empty() ? nullptr : &list_.front(); }

 private:
  DNS_RECORDW& Add(const wchar_t* owner, WORD type) {
    list_.push_back({});
    list_.back().pName = const_cast<PWSTR>(owner);
    list_.back().wType = type;
    if (list_.size() > 1) list_[list_.size() - 2].pNext = &list_.back();
    return list_.back();
  }
  std::deque<DNS_RECORDW> list_;
};

// The system's resolver cache, which exists on Windows alone, stood in for.
struct ResolverDouble {
  static inline DNS_RECORDW* list;
  static inline int freed;
  static inline DNS_STATUS status;

  explicit ResolverDouble(DNS_RECORDW* records, DNS_STATUS answer = 0) : original(platform::Dns()) {
    list = records;
    freed = 0;
    status = answer;
    platform::Dns() = {.loaded = true, .DnsGetCacheRecords = &Get, .DnsFree = &Free};
  }
  ~ResolverDouble() { platform::Dns() = original; }
  static DNS_STATUS WINAPI Get(void* reserved, DNS_RECORDW** out) {
    EXPECT_EQ(reserved, nullptr);
    EXPECT_EQ(*out, nullptr);
    if (!status) *out = list;
    return status;
  }
  static void WINAPI Free(PVOID records, DNS_FREE_TYPE type) {
    EXPECT_EQ(records, list);
    EXPECT_EQ(type, DnsFreeRecordList);
    ++freed;
  }
  platform::DnsApi original;
};

TEST(DnsCache, NameIsFoundByEachOfItsAddresses) {
  DnsCache cache;
  AddInfo(cache, L"Example.ORG", {V4(0xC000020A), V6(10)});
  EXPECT_EQ(NameOf(cache, V4(0xC000020A)), L"Example.ORG");
  EXPECT_EQ(NameOf(cache, V6(10)), L"Example.ORG");
  EXPECT_EQ(NameOf(cache, V4(0xC000020B)), L"");

  // A later answer for the same name, in other letters and another form, joins the entry.
  char host[4] = {'\xC0', 0, 2, 11};
  char* hosts[] = {host, nullptr};
  hostent answer{};
  answer.h_addrtype = AF_INET;
  answer.h_length = 4;
  answer.h_addr_list = hosts;
  cache.AddHostent("example.org", &answer);
  EXPECT_EQ(NameOf(cache, V4(0xC000020B)), L"Example.ORG");
}

TEST(DnsCache, SystemCacheIsFiledUnderTheRequestedNames) {
  DnsCache cache;
  Records records;
  records.A(L"c.test", 30)
      .CNAME(L"a.test", L"b.test")
      .CNAME(L"b.test", L"c.test")
      .AAAA(L"six.test", V6(1))
      .A(L"", 31);
  ResolverDouble resolver(records.list());
  cache.LoadSystemCache();
  EXPECT_EQ(ResolverDouble::freed, 1);
  EXPECT_EQ(NameOf(cache, V4(30)), L"a.test");
  EXPECT_EQ(NameOf(cache, V6(1)), L"six.test");
  EXPECT_EQ(NameOf(cache, V4(31)), L"");
  // No entry is left under the old name: the next address for it makes a new one, behind a.test in the list.
  AddInfo(cache, L"c.test", {V4(30), V4(32)});
  EXPECT_EQ(NameOf(cache, V4(30)), L"a.test");
  EXPECT_EQ(NameOf(cache, V4(32)), L"c.test");
}

TEST(DnsCache, AliasLoopsEnd) {
  DnsCache cache;
  Records records;
  records.A(L"a.test", 40)
      .CNAME(L"a.test", L"b.test")
      .CNAME(L"b.test", L"a.test")
      .CNAME(L"a.test", L"a.test");
  ResolverDouble resolver(records.list());
  cache.LoadSystemCache();
  EXPECT_NE(NameOf(cache, V4(40)), L"");
}

TEST(DnsCache, AFaultInTheResolversRecordsLeavesTheCacheUsable) {
  DnsCache cache;
  Records records;
  records.A(L"a.test", 60).A(reinterpret_cast<const wchar_t*>(16), 61);
  ResolverDouble resolver(records.list());
  EXPECT_FALSE(platform::Guarded([&] { cache.LoadSystemCache(); }));
  EXPECT_EQ(NameOf(cache, V4(60)), L"a.test");
}

TEST(DnsCache, AnswersLikeAWalkInListOrder) {
  DnsCache cache;
  std::mt19937 random(11);
  std::vector<std::pair<std::wstring, std::vector<std::uint32_t>>> list;
  for (int step = 0; step < 4000; ++step) {
    const std::wstring name = L"host" + std::to_wstring(random() % 200) + L".test";
    const std::uint32_t host = 1 + random() % 300;
    AddInfo(cache, name.c_str(), {V4(host)});
    auto entry = std::find_if(list.begin(), list.end(), [&](auto& e) { return e.first == name; });
    if (entry == list.end()) entry = list.insert(list.end(), {name, {}});
    entry->second.push_back(host);

    const std::uint32_t asked = 1 + random() % 300;
    std::wstring expected;
    for (auto& [domain, hosts] : list)
      if (expected.empty() && std::find(hosts.begin(), hosts.end(), asked) != hosts.end()) expected = domain;
    ASSERT_EQ(NameOf(cache, V4(asked)), expected);
  }
}

}  // namespace
}  // namespace VornCore::test
