// Socket addresses as the decisions see them.
#include "Net/net_helper.h"

#include "net_confinement.h"

namespace VornCore::test {
namespace {

TEST(SockaddrAdapter, PresentsMappedIPv4AsIPv4) {
  const Address mapped = Mapped(9, 443), plain6 = Local6(443), plain4 = Local(9, 443);
  {
    const net_helper::SockaddrAdapter adapter(&mapped.any, sizeof mapped.v6);
    EXPECT_EQ(adapter.Length(), sizeof(sockaddr_in));
    EXPECT_TRUE(net_helper::IsSameSockaddr(adapter.Address(), &plain4.any));
  }
  Address almost = Mapped(9, 443);
  almost.v6.sin6_addr.s6_addr[10] = 0;
  const Address* const unchanged[] = {&plain6, &plain4, &almost};
  for (const Address* address : unchanged) {
    const net_helper::SockaddrAdapter adapter(&address->any, static_cast<std::uint32_t>(address->length()));
    EXPECT_EQ(adapter.Address(), &address->any);
  }
  const net_helper::SockaddrAdapter cut(&mapped.any, 24);
  EXPECT_EQ(cut.Address(), &mapped.any);
  EXPECT_EQ(cut.Length(), 24u);
  auto* nowhere = reinterpret_cast<const sockaddr*>(16);
  const net_helper::SockaddrAdapter unreadable(nowhere, 28);
  EXPECT_EQ(unreadable.Address(), nowhere);
}

TEST(NetHelper, TextsOfAddresses) {
  const Address v4 = Local(1, 8080), v6 = Local6(443);
  Address unix_family = v4;
  unix_family.any.sa_family = 1;
  char text[net_helper::kAddressTextBytes] = {};
  std::uint16_t port = 0;
  EXPECT_EQ(net_helper::SockaddrToText(&v4.any, 16, text, &port), 0);
  EXPECT_STREQ(text, "127.0.0.1");
  EXPECT_EQ(port, 8080);
  EXPECT_EQ(net_helper::SockaddrToText(&v6.any, 28, nullptr, &port), 0);
  EXPECT_EQ(port, 443);
  port = 5;
  for (const auto& [address, length] : {std::pair(&v4.any, 15),
                                        {&v6.any, 27},
                                        {&v4.any, 0},
                                        {&v4.any, -1},
                                        {&unix_family.any, 16},
                                        {static_cast<const sockaddr*>(nullptr), 16},
                                        {reinterpret_cast<const sockaddr*>(16), 16}})
    EXPECT_EQ(net_helper::SockaddrToText(address, length, text, &port), -1);
  EXPECT_EQ(port, 5);
}

}  // namespace
}  // namespace VornCore::test
