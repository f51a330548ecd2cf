// What network confinement costs: a datagram under 100 address rules against the plain call, and whether
// checks, name lookups and receive contexts stay independent of how many sockets, names and receives there
// are.
//
// Prints times as ratios within one run, and exact counts of allocations and Winsock calls after warm-up.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Net/dns_cache.h"
#include "Net/net_mgr.h"
#include "Platform/winsock.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/thread_state.h"
#include "bench_clock.h"
#include "vorn/section.h"

namespace {
std::atomic<long long> allocations = 0;
}
// The linker leads every malloc and calloc of this program here.
extern "C" void* __real_malloc(std::size_t bytes);
extern "C" void* __wrap_malloc(std::size_t bytes) {
  ++allocations;
  return __real_malloc(bytes);
}
extern "C" void* __real_calloc(std::size_t count, std::size_t bytes);
extern "C" void* __wrap_calloc(std::size_t count, std::size_t bytes) {
  ++allocations;
  return __real_calloc(count, bytes);
}

namespace {

using namespace VornCore;
using vorn::bench::Keep;
using vorn::bench::SideBySide;

std::atomic<long long> winsock_calls = 0;
decltype(&::getsockname) real_getsockname;
int WSAAPI CountedGetsockname(SOCKET s, sockaddr* name, int* length) {
  ++winsock_calls;
  return real_getsockname(s, name, length);
}

sockaddr_in Ip(std::uint32_t host, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(host);
  address.sin_port = htons(port);
  return address;
}

// 100 address rules, of which the last one matches the loopback address.
vorn::host::SharedSection HundredRules() {
  vorn::host::SectionContents contents;
  contents.log_directory = L"C:\\";
  contents.flags = 0;
  for (std::uint8_t i = 0; i < 100; ++i) {
    vorn::host::NetRule rule;
    rule.verdict = 1;
    rule.kind = vorn::policy::NetRuleKind::kAddress;
    rule.address = {static_cast<std::uint8_t>(28 + i), 0, 0, 0};
    rule.prefix = 8;
    contents.net_rules.push_back(rule);
  }
  return vorn::host::SharedSection(std::move(contents));
}

void BenchSend() {
  const SOCKET sink = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to = Ip(INADDR_LOOPBACK, 0);
  int length = sizeof to;
  bind(sink, reinterpret_cast<sockaddr*>(&to), length);
  getsockname(sink, reinterpret_cast<sockaddr*>(&to), &length);
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
  const auto confined = [&] { sendto(s, "datagram", 8, 0, reinterpret_cast<sockaddr*>(&to), length); };
  const auto plain = [&] {
    Ws2_32::CallOriginalsendto(s, "datagram", 8, 0, reinterpret_cast<sockaddr*>(&to), length);
  };
  const auto [confined_ns, plain_ns] = SideBySide(400, 50, confined, plain);
  allocations = winsock_calls = 0;
  for (int i = 0; i < 1000; ++i) confined();
  std::printf("sendto, 100 address rules: %.0f ns, plain %.0f ns, ratio %.3f\n", confined_ns, plain_ns,
              confined_ns / plain_ns);
  std::printf("  per 1,000 sends: %lld allocations, %lld extra Winsock calls\n", allocations.load(),
              winsock_calls.load());
  closesocket(s);
  closesocket(sink);
}

// A check with so many bound sockets on record.
struct Checks {
  explicit Checks(int sockets) {
    for (int i = 0; i < sockets; ++i) {
      const auto s = static_cast<SOCKET>(0x10000 + i * 4);
      model.AddSocket(kProtocolUdp, AF_INET, s);
      net_helper::SocketAddress at{};
      const sockaddr_in address = Ip(0x0A000000u + static_cast<std::uint32_t>(i), 1000);
      memcpy(at.bytes, &address, sizeof address);
      model.SetBoundAddress(s, at);
      last = s;
    }
    (*this)();
    (*this)();
  }
  void operator()() {
    const sockaddr_in to = Ip(INADDR_LOOPBACK, 9);
    Keep(model.QuerySocket(last, false));
    Keep(model.CheckSocketACL(nullptr, reinterpret_cast<const sockaddr*>(&to), sizeof to, kProtocolUdp)
             .verdict);
  }
  SocketACLModel model;
  SOCKET last = 0;
};

struct Names {
  explicit Names(int addresses) {
    for (int i = 0; i < addresses; ++i) {
      sockaddr_in address = Ip(0x0A000000u + static_cast<std::uint32_t>(i), 0);
      ADDRINFOW info{};
      info.ai_addr = reinterpret_cast<sockaddr*>(&address);
      info.ai_addrlen = sizeof address;
      cache.AddAddrInfo((L"host" + std::to_wstring(i / 2) + L".example.org").c_str(), &info);
    }
    count = static_cast<std::uint32_t>(addresses);
  }
  void operator()() {
    const sockaddr_in address = Ip(0x0A000000u + next++ % count, 443);
    DomainName name;
    cache.FindDomainByAddress(reinterpret_cast<const sockaddr*>(&address), sizeof address, name);
    Keep(name.get());
  }
  DnsCache cache;
  std::uint32_t count, next = 0;
};

struct Receives {
  explicit Receives(int live) : overlapped(static_cast<std::size_t>(live) + 1) {
    for (int i = 0; i < live; ++i) contexts.AcquireContext(&overlapped[static_cast<std::size_t>(i)], 7);
  }
  void operator()() {
    Keep(contexts.AcquireContext(&overlapped.back(), 7));
    Keep(contexts.FindContext(&overlapped.back()));
    contexts.ReleaseContext(&overlapped.back());
  }
  OverlappedContexts contexts;
  std::vector<OVERLAPPED> overlapped;
};

template <class Bench>
void BenchSize(const char* what, int few, int many) {
  Bench small(few), large(many);
  const auto [small_ns, large_ns] = SideBySide(40, 2000, small, large);
  allocations = winsock_calls = 0;
  for (int i = 0; i < 1000; ++i) large();
  std::printf("%s: %d: %.0f ns, %d: %.0f ns, ratio %.2f\n", what, few, small_ns, many, large_ns,
              large_ns / small_ns);
  std::printf("  per 1,000 calls: %lld allocations, %lld Winsock calls\n", allocations.load(),
              winsock_calls.load());
}

}  // namespace

int main() {
  const vorn::host::SharedSection section = HundredRules();
  if (OpenSharedData(section.name().c_str()) || InitThreadState()) return 1;
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data)) return 1;
  real_getsockname = platform::Winsock().getsockname;
  platform::Winsock().getsockname = &CountedGetsockname;
  GetNetMgr().Init();
  CNetMgr::OnWs2_32Loaded(GetModuleHandleW(L"ws2_32.dll"), L"Ws2_32.dll");

  BenchSend();
  BenchSize<Checks>("check among bound sockets", 10, 10'000);
  BenchSize<Names>("name of an address among cached ones", 100, 100'000);
  BenchSize<Receives>("acquire, find and release among live receives", 10, 50'000);
  return 0;
}
