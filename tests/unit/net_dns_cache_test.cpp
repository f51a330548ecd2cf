// The name cache against the answers of a resolver, with the memory layouts of real ones.
#include "Net/dns_cache.h"

#include <random>

#include "Platform/guard.h"
#include "net_confinement.h"
#include "tests/stdcall.h"

namespace VornCore::test {
namespace {

// Even numbers are IPv4 addresses, odd ones IPv6.
Address Host(std::uint32_t number) {
  Address address = number % 2 ? Local6() : Local(0);
  number = htonl(number);
  if (address.any.sa_family == AF_INET)
    address.v4.sin_addr.s_addr = number;
  else
    memcpy(address.v6.sin6_addr.s6_addr, &number, sizeof number);
  return address;
}

std::wstring NameOf(DnsCache& cache, std::uint32_t host) {
  const Address address = Host(host);
  DomainName name;
  cache.FindDomainByAddress(&address.any, static_cast<std::uint32_t>(address.length()), name);
  return std::wstring(name.view());
}

// A record list as the DNS client hands it out.
class Records {
 public:
  Records& Add(const wchar_t* owner, std::uint32_t host) {
    const Address address = Host(host);
    if (host % 2)
      memcpy(&Append(owner, DNS_TYPE_AAAA).Data.AAAA.Ip6Address, &address.v6.sin6_addr, 16);
    else
      Append(owner, DNS_TYPE_A).Data.A.IpAddress = address.v4.sin_addr.s_addr;
    return *this;
  }
  Records& Alias(const wchar_t* owner, const wchar_t* target) {
    Append(owner, DNS_TYPE_CNAME).Data.CNAME.pNameHost = const_cast<PWSTR>(target);
    return *this;
  }
  const DNS_RECORD* list() const { return reinterpret_cast<const DNS_RECORD*>(list_.data()); }

 private:
  DNS_RECORDW& Append(const wchar_t* owner, WORD type) {
    list_.push_back({});
    for (std::size_t i = 1; i < list_.size(); ++i) list_[i - 1].pNext = &list_[i];
    list_.back().pName = const_cast<PWSTR>(owner);
    list_.back().wType = type;
    return list_.back();
  }
  std::vector<DNS_RECORDW> list_;
};

// Loads the cache from these records, in place of the system's resolver cache, which exists on Windows alone.
// False after a fault.
bool Load(DnsCache& cache, const Records& records) {
  static void* list;
  static int freed;
  list = const_cast<DNS_RECORD*>(records.list());
  freed = 0;
  const platform::DnsApi real = platform::Dns();
  platform::Dns() = {
      .loaded = true,
      .DnsGetCacheRecords = vorn::test::Stdcall([](void*, DNS_RECORDW** out) -> DNS_STATUS {
        *out = static_cast<DNS_RECORDW*>(list);
        return 0;
      }),
      .DnsFree = vorn::test::Stdcall([](PVOID records, DNS_FREE_TYPE) { freed += records == list; })};
  const bool whole = platform::Guarded([&] { cache.LoadSystemCache(); });
  platform::Dns() = real;
  EXPECT_EQ(freed, whole);
  return whole;
}

TEST(DnsCache, SystemCacheIsFiledUnderTheRequestedNames) {
  DnsCache cache;
  EXPECT_TRUE(Load(cache, Records()
                              .Add(L"c.test", 30)
                              .Alias(L"a.test", L"b.test")
                              .Alias(L"b.test", L"c.test")
                              .Add(L"six.test", 1)
                              .Add(L"", 32)));
  EXPECT_EQ(NameOf(cache, 30), L"a.test");
  EXPECT_EQ(NameOf(cache, 1), L"six.test");
  EXPECT_EQ(NameOf(cache, 32), L"");
  // No entry is left under the old name: the next address for it makes a new one, behind a.test in the list.
  cache.AddDnsRecords(L"c.test", Records().Add(L"", 30).Add(L"", 34).list());
  EXPECT_EQ(NameOf(cache, 30), L"a.test");
  EXPECT_EQ(NameOf(cache, 34), L"c.test");
}

TEST(DnsCache, AliasLoopsEnd) {
  DnsCache cache;
  EXPECT_TRUE(Load(cache, Records()
                              .Add(L"a.test", 40)
                              .Alias(L"a.test", L"b.test")
                              .Alias(L"b.test", L"a.test")
                              .Alias(L"a.test", L"a.test")));
  EXPECT_NE(NameOf(cache, 40), L"");
}

TEST(DnsCache, AFaultInTheResolversRecordsLeavesTheCacheUsable) {
  DnsCache cache;
  EXPECT_FALSE(Load(cache, Records().Add(L"a.test", 60).Add(reinterpret_cast<const wchar_t*>(16), 62)));
  EXPECT_EQ(NameOf(cache, 60), L"a.test");
}

// A name is the same in other letters, and keeps those that came first.
TEST(DnsCache, AnswersLikeAWalkInListOrder) {
  DnsCache cache;
  std::mt19937 random(11);
  std::vector<std::pair<std::wstring, std::vector<std::uint32_t>>> list;
  for (int step = 0; step < 4000; ++step) {
    const std::wstring name = (random() % 2 ? L"h" : L"H") + std::to_wstring(random() % 200) + L".test";
    const std::uint32_t host = 1 + random() % 300;
    cache.AddDnsRecords(name.c_str(), Records().Add(L"", host).list());
    auto entry =
        std::find_if(list.begin(), list.end(), [&](auto& e) { return e.first.substr(1) == name.substr(1); });
    if (entry == list.end()) entry = list.insert(list.end(), {name, {}});
    entry->second.push_back(host);

    const std::uint32_t asked = 1 + random() % 300;
    std::wstring expected;
    for (auto& [domain, hosts] : list)
      if (expected.empty() && std::find(hosts.begin(), hosts.end(), asked) != hosts.end()) expected = domain;
    ASSERT_EQ(NameOf(cache, asked), expected);
  }
}

}  // namespace
}  // namespace VornCore::test
