// What every handler of the network manager holds for its whole run.
//
//   int CNetMgr::send(SOCKET s, …, bool*) {
//     NetHandler handler;
//     …
//     return handler.Real([&] { return Ws2_32::CallOriginalsend(s, …); });
//   }
//
// The real calls are made through Real or RealInNetCall: a thread that seemed to be inside a name query for
// ever would create sockets that nobody checks.
#pragma once

#include <utility>

#include "Platform/net_types.h"
#include "VornCore/Base/hook_depth_guard.h"

namespace VornCore {

// The failure of a call, as Winsock itself would fail it: result, with the error that WSAGetLastError reads.
template <class Result>
Result Fail(Result result, int winsock_error) noexcept {
  SetLastError(static_cast<DWORD>(winsock_error));
  return result;
}

class [[nodiscard]] NetHandler : public HookDepthGuard {
 public:
  bool in_net_call() const { return state() && state()->bInNetCall; }

  // The real function of a name query: sockets that the resolver creates meanwhile are its own affair.
  template <class Call>
  auto RealInNetCall(Call&& call) const {
    const bool outer = in_net_call();
    if (state()) state()->bInNetCall = 1;
    const auto result = Real(std::forward<Call>(call));
    if (state()) state()->bInNetCall = outer;
    return result;
  }
};

}  // namespace VornCore
