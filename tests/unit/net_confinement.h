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
#include "tests/net_rules.h"
#include "tests/sockets.h"
#include "vorn/event.h"
#include "vorn/message_server.h"
#include "vorn/section.h"
#include "vorn/text.h"

namespace VornCore::test {

using vorn::test::Address;
using vorn::test::AddressRule;
using vorn::test::DefaultRule;
using vorn::test::DomainRule;
using vorn::test::Local;
using vorn::test::Local6;
using vorn::test::Socket;

// What arrived at the host.
class HostMessages {
 public:
  HostMessages()
      : server_(vorn::host::RandomName(L"vorn_net"),
                {.on_message = [this](const vorn::host::Peer& peer, std::span<const std::byte> message) {
                  Take(vorn::host::DecodeEvent(message, peer.pid));
                }}) {}

  const std::wstring& port() const { return server_.port_name(); }

  void Forget() {
    std::lock_guard lock(mutex_);
    audits_.clear();
  }

  // The lines of the audits that have arrived when there are at least count of them, or after three seconds.
  std::vector<std::string> Audits(std::size_t count) {
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
  void Take(const vorn::host::Event& event) {
    std::lock_guard lock(mutex_);
    if (std::holds_alternative<vorn::host::NetEvent>(event.body))
      audits_.push_back(vorn::host::EventLine(event));
    if (const auto* sample = std::get_if<vorn::host::SampleEvent>(&event.body)) {
      if (sample->subtype == 3) marker_ = sample->first;
    }
    arrived_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> audits_;
  std::uint64_t marker_ = 0;
  vorn::host::MessageServer server_;
};

// Process-wide, made by the first test: the library cannot be taken out again.
class NetConfinement {
 public:
  static NetConfinement& Get() {
    static auto* confinement = new NetConfinement;
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
  NetConfinement() {
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

inline Address Mapped(std::uint8_t last, std::uint16_t port) {  // ::ffff:127.0.0.last
  Address address = Local6(port);
  std::uint8_t* bytes = address.v6.sin6_addr.s6_addr;
  bytes[10] = bytes[11] = 0xFF;
  bytes[12] = 127;
  bytes[15] = last;
  return address;
}

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
    EXPECT_NE(address.port(), 0) << WSAGetLastError();
    if (type == SOCK_STREAM) listen(*this, 50);
    SetReceiveTimeout(3000);
    GetThreadState()->bInNetCall = 0;
  }

  void SendTo(const Address& to, const std::string& text) {
    EXPECT_EQ(sendto(*this, text.data(), static_cast<int>(text.size()), 0, &to.any, to.length()),
              static_cast<int>(text.size()))
        << WSAGetLastError();
  }
  // The next datagram, or "" when none comes in time.
  std::string Receive(DWORD timeout = 3000) {
    SetReceiveTimeout(timeout);
    char buffer[1500];
    const int got = ::recv(*this, buffer, sizeof buffer, 0);
    return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
  }

  const Address address;
};

}  // namespace VornCore::test
