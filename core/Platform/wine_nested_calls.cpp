#include "Platform/wine_nested_calls.h"

#include <optional>
#include <string_view>

#include "Platform/guard.h"
#include "Platform/last_error.h"
#include "Platform/net_types.h"

namespace VornCore::platform::wine {
namespace {

// The inner function that the thread's outer call is expected to reach; null outside of such calls.
class ThreadMark {
 public:
  static void* Get() {
    LastErrorKeeper keep;
    return TlsGetValue(Index());
  }
  static void Set(void* inner) {
    LastErrorKeeper keep;
    TlsSetValue(Index(), inner);
  }

 private:
  static DWORD Index() {
    static const DWORD index = TlsAlloc();
    return index;
  }
};

template <int id, class Function>
struct Bridged;

// One function of the chains: as inner, as outer, or both.
template <int id, class Result, class... Args>
struct Bridged<id, Result(WINAPI*)(Args...)> {
  using Function = Result(WINAPI*)(Args...);
  inline static Function real = nullptr;  // the trampoline, or the marking wrapper of a function that is both
  inline static Function dispatcher = nullptr;
  inline static char tag = 0;  // its address names the function

  template <class Inner>
  struct As {
    inline static Function trampoline = nullptr;

    static Result WINAPI Outer(Args... args) {
      std::optional<Result> result;
      ThreadMark::Set(&Inner::tag);
      WithFinally([&] { result = trampoline(args...); }, [] { ThreadMark::Set(nullptr); });
      return *result;
    }
  };

  static Result WINAPI Inner(Args... args) {
    if (ThreadMark::Get() != &tag) return dispatcher(args...);
    ThreadMark::Set(nullptr);
    return real(args...);
  }

  static void* Reached(void* original) {
    real = reinterpret_cast<Function>(original);
    return original;
  }
  template <class InnerFunction>
  static void* Reaching(void* original) {
    As<InnerFunction>::trampoline = reinterpret_cast<Function>(original);
    real = &As<InnerFunction>::Outer;
    return reinterpret_cast<void*>(real);
  }
  static void* Thunk(void* to) {
    dispatcher = reinterpret_cast<Function>(to);
    return reinterpret_cast<void*>(&Inner);
  }
};

using Connect = Bridged<0, decltype(&::connect)>;
using WsaConnect = Bridged<1, decltype(&::WSAConnect)>;
using Result = Bridged<2, decltype(&::GetOverlappedResult)>;
using ResultEx = Bridged<3, decltype(&::GetOverlappedResultEx)>;
using QueryA = Bridged<4, decltype(&::DnsQuery_A)>;
using QueryW = Bridged<5, decltype(&::DnsQuery_W)>;
using QueryUtf8 = Bridged<6, decltype(&::DnsQuery_UTF8)>;
using SendTo = Bridged<7, decltype(&::sendto)>;
using WsaSendTo = Bridged<8, decltype(&::WSASendTo)>;

}  // namespace

void* MarkNestedCall(const char* name, void* original) noexcept {
  const std::string_view api(name);
  if (api == "connect") return Connect::Reached(original);
  if (api == "GetOverlappedResultEx") return ResultEx::Reached(original);
  if (api == "DnsQuery_UTF8") return QueryUtf8::Reached(original);
  if (api == "WSASendTo") return WsaSendTo::Reached(original);
  if (api == "sendto") return SendTo::Reaching<WsaSendTo>(original);
  if (api == "WSAConnect") return WsaConnect::Reaching<Connect>(original);
  if (api == "GetOverlappedResult") return Result::Reaching<ResultEx>(original);
  if (api == "DnsQuery_W") return QueryW::Reaching<QueryUtf8>(original);
  if (api == "DnsQuery_A") return QueryA::Reaching<QueryW>(original);
  return original;
}

void* PassNestedCall(const char* name, void* dispatcher) noexcept {
  const std::string_view api(name);
  if (api == "connect") return Connect::Thunk(dispatcher);
  if (api == "GetOverlappedResultEx") return ResultEx::Thunk(dispatcher);
  if (api == "WSASendTo") return WsaSendTo::Thunk(dispatcher);
  if (api == "DnsQuery_W") return QueryW::Thunk(dispatcher);
  if (api == "DnsQuery_UTF8") return QueryUtf8::Thunk(dispatcher);
  return dispatcher;
}

}  // namespace VornCore::platform::wine
