// This very process confined on its network: a real section, real hooks in the real modules, and no host. And
// peers that the library does not know, as another process's sockets would be.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Net/net_mgr.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/thread_state.h"
#include "tests/net_rules.h"
#include "tests/sockets.h"
#include "vorn/section.h"

namespace VornCore::test {

using vorn::test::Address;
using vorn::test::AddressRule;
using vorn::test::DefaultRule;
using vorn::test::Local;
using vorn::test::Local6;
using vorn::test::Socket;

// From here on these rules hold.
inline void SetNetRules(std::vector<vorn::host::NetRule> rules, std::uint32_t flags = 0x0F) {
  static std::optional<vorn::host::SharedSection> section;
  vorn::host::SectionContents contents;
  contents.net_rules = std::move(rules);
  contents.flags = flags;
  section.emplace(contents);
  ASSERT_EQ(OpenSharedData(section->name().c_str()), 0u);
  ASSERT_EQ(InitThreadState(), 0u);
}

// ---- Sockets ----

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
