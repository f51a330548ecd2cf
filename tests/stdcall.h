// A lambda without captures as a function of the system's calling convention, which differs from the
// compiler's in 32-bit programs:
//
//   AddVectoredExceptionHandler(1, Stdcall([](EXCEPTION_POINTERS* e) -> LONG { … }));
#pragma once

#include <windows.h>

namespace vorn::test {

template <class Lambda, class Result, class... Arguments>
auto StdcallAs(Result (Lambda::*)(Arguments...) const) {
  struct Function {
    static Result WINAPI Call(Arguments... arguments) { return Lambda{}(arguments...); }
  };
  return &Function::Call;
}

template <class Lambda>
auto Stdcall(Lambda) {
  return StdcallAs<Lambda>(&Lambda::operator());
}

}  // namespace vorn::test
