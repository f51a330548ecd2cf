// This very process confined on its network: a real section, the real channel to a real message server of its
// own, real hooks in the real modules. And peers that the library does not know, as another process's sockets
// would be.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Net/net_mgr.h"
#include "Policy/message.h"
#include "VornCore/Base/channel.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/thread_state.h"
#include "build_paths.h"
#include "vorn/message_server.h"
#include "vorn/section.h"
#include "vorn/text.h"

namespace VornCore::test {

struct Audit {
  std::uint32_t type, error, verdict, protocol, destination_port, source_port;
  std::string destination, source, domain;
};

// What arrived at the host.
class HostMessages {
 public:
  HostMessages() : server_(vorn::host::RandomName(L"vorn_net"), Handlers()) {}

  const std::wstring& port() const { return server_.port_name(); }

  void Forget() {
    std::lock_guard lock(mutex_);
    audits_.clear();
  }

  // The audits that have arrived when there are at least count of them, or after three seconds.
  std::vector<Audit> Audits(std::size_t count) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, std::chrono::seconds(3), [&] { return audits_.size() >= count; });
    return audits_;
  }

  // Waits until everything that was sent before has arrived: the queue keeps the order.
  void CatchUp() {
    static std::uint64_t last_marker = 0xCA7C4000;
    const std::uint64_t marker = ++last_marker;
    std::unique_lock lock(mutex_);
    for (int tries = 0; tries < 50 && marker_ != marker; ++tries) {
      EncodeAndSend(vorn::policy::Sample{.subtype = 3, .first = marker});  // dropped when the queue is full
      arrived_.wait_for(lock, std::chrono::milliseconds(100), [&] { return marker_ == marker; });
    }
    EXPECT_EQ(marker_, marker);
  }

 private:
  vorn::host::MessageHandlers Handlers() {
    vorn::host::MessageHandlers handlers;
    handlers.on_message = [this](const vorn::host::Peer&, std::span<const std::byte> message) {
      Take(message);
    };
    return handlers;
  }

  void Take(std::span<const std::byte> message) {
    const auto decoded = vorn::policy::DecodeMessage(message);
    std::lock_guard lock(mutex_);
    if (const auto* audit = std::get_if<vorn::policy::NetAudit>(&decoded.body))
      audits_.push_back({audit->type, audit->error, audit->verdict, audit->protocol, audit->destination_port,
                         audit->source_port, std::string(audit->destination), std::string(audit->source),
                         std::string(audit->domain)});
    if (const auto* sample = std::get_if<vorn::policy::Sample>(&decoded.body)) {
      if (sample->subtype == 3) marker_ = sample->first;
    }
    arrived_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Audit> audits_;
  std::uint64_t marker_ = 0;
  vorn::host::MessageServer server_;
};

inline vorn::host::NetRule AddressRule(std::uint32_t verdict, std::vector<std::uint8_t> address,
                                       std::vector<std::uint16_t> ports = {}) {
  const auto prefix = static_cast<std::uint32_t>(address.size() * 8);
  return {.verdict = verdict,
          .kind = vorn::policy::NetRuleKind::kAddress,
          .address = std::move(address),
          .prefix = prefix,
          .ports = std::move(ports),
          .domain = {}};
}
inline vorn::host::NetRule DomainRule(std::uint32_t verdict, std::wstring domain,
                                      std::vector<std::uint16_t> ports = {}) {
  return {.verdict = verdict,
          .kind = vorn::policy::NetRuleKind::kDomain,
          .address = {},
          .prefix = 0,
          .ports = std::move(ports),
          .domain = std::move(domain)};
}
inline vorn::host::NetRule DefaultRule(std::uint32_t verdict) {
  return {.verdict = verdict,
          .kind = vorn::policy::NetRuleKind::kDefault,
          .address = {},
          .prefix = 0,
          .ports = {},
          .domain = {}};
}

// Process-wide, made by the first test: the library cannot be taken out again.
class Confinement {
 public:
  static Confinement& Get() {
    static auto* confinement = new Confinement;
    return *confinement;
  }

  HostMessages& host() { return host_; }

  // From here on these rules hold.
  void SetRules(std::vector<vorn::host::NetRule> rules, std::uint32_t flags = 0x0F) {
    contents_.net_rules = std::move(rules);
    contents_.flags = flags;
    section_.emplace(contents_);
    ASSERT_EQ(OpenSharedData(section_->name().c_str()), 0u);
    host_.Forget();
  }

 private:
  Confinement() {
    contents_.UseLibrariesIn(vorn::test::ThisProgram().parent_path().wstring());
    contents_.log_directory = vorn::test::ThisProgram().parent_path().wstring();
    contents_.server_port = host_.port();
    SetRules({DefaultRule(1)});  // without rules nothing is ever intercepted
    EXPECT_EQ(InitThreadState(), 0u);
    EXPECT_TRUE(channel::Init(host_.port().c_str(), false));
  }

  HostMessages host_;
  vorn::host::SectionContents contents_;
  std::optional<vorn::host::SharedSection> section_;
};

// ---- Sockets ----

union Address {
  sockaddr any;
  sockaddr_in v4;
  sockaddr_in6 v6;
  int length() const { return any.sa_family == AF_INET ? sizeof v4 : sizeof v6; }
  std::uint16_t port() const { return ntohs(v4.sin_port); }
};

inline Address Local(std::uint8_t last, std::uint16_t port = 0) {  // 127.0.0.last
  Address address{};
  address.v4.sin_family = AF_INET;
  address.v4.sin_port = htons(port);
  address.v4.sin_addr.s_addr = htonl(0x7F000000u + last);
  return address;
}
inline Address Local6(std::uint16_t port = 0) {
  Address address{};
  address.v6.sin6_family = AF_INET6;
  address.v6.sin6_port = htons(port);
  address.v6.sin6_addr.s6_addr[15] = 1;
  return address;
}
inline Address Mapped(std::uint8_t last, std::uint16_t port) {  // ::ffff:127.0.0.last
  Address address = Local6(port);
  std::uint8_t* bytes = address.v6.sin6_addr.s6_addr;
  bytes[10] = bytes[11] = 0xFF;
  bytes[12] = 127;
  bytes[15] = last;
  return address;
}

class Socket {
 public:
  Socket(int family, int type) : handle_(socket(family, type, 0)) {}
  ~Socket() { Close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  operator SOCKET() const { return handle_; }
  HANDLE handle() const { return reinterpret_cast<HANDLE>(handle_); }
  void Close() {
    if (handle_ != INVALID_SOCKET) closesocket(handle_);
    handle_ = INVALID_SOCKET;
  }
  Address Bind(Address to) {
    EXPECT_EQ(bind(handle_, &to.any, to.length()), 0) << WSAGetLastError();
    int length = sizeof to;
    EXPECT_EQ(getsockname(handle_, &to.any, &length), 0);
    return to;
  }

 protected:
  SOCKET handle_;
};

// While this lives, sockets that the thread creates stay unknown to the library, like a resolver's own.
class Unrecorded {
 public:
  Unrecorded() { GetThreadState()->bInNetCall = 1; }
  ~Unrecorded() { GetThreadState()->bInNetCall = 0; }
};

// A bound socket of "another process": the library did not see it created.
class Peer : Unrecorded, public Socket {
 public:
  explicit Peer(Address at, int type = SOCK_DGRAM) : Socket(at.any.sa_family, type), address(Bind(at)) {
    if (type == SOCK_STREAM) listen(handle_, 50);
    const DWORD timeout = 3000;
    setsockopt(handle_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
    GetThreadState()->bInNetCall = 0;
  }

  void SendTo(const Address& to, const std::string& text) {
    EXPECT_EQ(sendto(handle_, text.data(), static_cast<int>(text.size()), 0, &to.any, to.length()),
              static_cast<int>(text.size()))
        << WSAGetLastError();
  }
  // The next datagram, or "" when none comes in time.
  std::string Receive(DWORD timeout = 3000) {
    setsockopt(handle_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
    char buffer[1500];
    const int got = ::recv(handle_, buffer, sizeof buffer, 0);
    return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
  }

  const Address address;
};

}  // namespace VornCore::test
