// What every handler of the network manager holds for its whole run.
//
//   int CNetMgr::send(SOCKET s, …, bool*) {
//     NetHandler handler;
//     …
//     return handler.Real([&] { return Ws2_32::CallOriginalsend(s, …); });
//   }
//
// Winsock and the resolver work on the caller's pointers, and the caller may live on after a fault on a bad
// one. Destructors do not run then, so the real calls are made through Real, which leaves the thread's state
// right: a thread that seemed to be inside a name query for ever would create sockets that nobody checks.
#pragma once

#include <optional>
#include <utility>

#include "Platform/guard.h"
#include "Platform/net_types.h"
#include "VornCore/Base/thread_state.h"

namespace VornCore {

// The failure of a call, as Winsock itself would fail it: result, with the error that WSAGetLastError reads.
template <class Result>
Result Fail(Result result, int winsock_error) noexcept {
  SetLastError(static_cast<DWORD>(winsock_error));
  return result;
}

class [[nodiscard]] NetHandler {
 public:
  bool in_net_call() const { return depth_.in_net_call(); }

  // The real function.
  template <class Call>
  auto Real(Call&& call) {
    return Run(std::forward<Call>(call), [] {});
  }

  // The real function of a name query: sockets that the resolver creates meanwhile are its own affair.
  template <class Call>
  auto RealInNetCall(Call&& call) {
    const bool outer = depth_.in_net_call();
    depth_.set_in_net_call(true);
    return Run(std::forward<Call>(call), [&] { depth_.set_in_net_call(outer); });
  }

 private:
  template <class Call, class Finally>
  auto Run(Call&& call, Finally&& finally) {
    std::optional<decltype(call())> result;
    platform::WithFinally([&] { result.emplace(call()); },
                          [&] {
                            finally();
                            if (!result && depth_.state()) --depth_.state()->hookDepth;
                          });
    return *result;
  }

  HookDepthGuard depth_;
};

}  // namespace VornCore
