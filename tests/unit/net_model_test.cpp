// The rule model: verdicts, own servers, server sockets, and what a check costs in Winsock calls.
#include "Net/socket_acl_model.h"

#include <map>

#include "net_confinement.h"

namespace VornCore::test {
namespace {

using net_helper::SocketAddress;

SocketAddress At(const Address& address) {
  SocketAddress copy{};
  memcpy(copy.bytes, &address, static_cast<std::size_t>(address.length()));
  return copy;
}

// getsockname, stood in for: counts its calls and knows where each socket is bound.
struct SocketNames {
  static inline std::map<SOCKET, Address> bound;
  static inline int calls;

  SocketNames() : original(platform::Winsock().getsockname) {
    bound.clear();
    calls = 0;
    platform::Winsock().getsockname = &Get;
  }
  ~SocketNames() { platform::Winsock().getsockname = original; }
  static int WSAAPI Get(SOCKET s, sockaddr* name, int* length) {
    ++calls;
    const auto found = bound.find(s);
    if (found == bound.end()) return -1;
    memcpy(name, &found->second, static_cast<std::size_t>(found->second.length()));
    *length = found->second.length();
    return 0;
  }
  decltype(&::getsockname) original;
};

class SocketModel : public ::testing::Test {
 protected:
  void SetUp() override { SetNetRules({DefaultRule(0)}); }

  std::uint32_t Check(const Address& to, std::uint32_t protocol, const wchar_t* domain = nullptr) {
    return model.CheckSocketACL(domain, &to.any, static_cast<std::uint32_t>(to.length()), protocol).verdict;
  }

  SocketNames names;
  SocketACLModel model;
};

TEST_F(SocketModel, SocketBoundByASendIsFoundByTheNextCheck) {
  model.AddSocket(kProtocolUdp, AF_INET, 10);
  model.AddSendCount(10, 1);
  EXPECT_EQ(Check(Local(9, 9), kProtocolUdp), 0u);  // the check of the send itself: not bound yet
  SocketNames::bound[10] = Local(1, 5555);          // what the real send does
  EXPECT_EQ(Check(Local(1, 5555), kProtocolUdp), 1u);
}

TEST_F(SocketModel, WinsockCallsOfACheckDoNotGrowWithTheSockets) {
  for (SOCKET s = 1; s <= 1000; ++s) {
    model.AddSocket(kProtocolUdp, AF_INET, s);
    model.SetBoundAddress(s, At(Local(1, static_cast<std::uint16_t>(s))));
  }
  (void)Check(Local(9, 9), kProtocolUdp);
  SocketNames::calls = 0;
  for (int i = 0; i < 100; ++i) (void)Check(Local(9, 9), kProtocolUdp);
  EXPECT_EQ(SocketNames::calls, 0) << "no socket is unbound";

  // Sockets that nobody uses are looked at when they are new, and then left alone.
  for (SOCKET s = 2001; s <= 3000; ++s) model.AddSocket(kProtocolUdp, AF_INET, s);
  (void)Check(Local(9, 9), kProtocolUdp);
  (void)Check(Local(9, 9), kProtocolUdp);
  SocketNames::calls = 0;
  for (int i = 0; i < 100; ++i) (void)Check(Local(9, 9), kProtocolUdp);
  EXPECT_EQ(SocketNames::calls, 0);
  (void)Check(Local(9, 9), kProtocolTcp);
  model.AddSendCount(2001, 1);
  (void)Check(Local(9, 9), kProtocolTcp);
  EXPECT_EQ(SocketNames::calls, 0) << "another protocol's sockets";
  (void)Check(Local(9, 9), kProtocolUdp);
  EXPECT_EQ(SocketNames::calls, 1);
}

}  // namespace
}  // namespace VornCore::test
