// What the managers have in common.
//
//   class CProcMgr : public Manager<CProcMgr>, public INtdllApiListener { … };
//   CProcMgr::GetInstance()->Init();
//
// A manager listens to the functions whose operations it overrides (see api_list.h): its Init registers it,
// its UnInit takes it out.
#pragma once

namespace VornCore {

template <class Derived>
class Manager {
 public:
  // The single instance, made on first use, exactly once, and never destroyed. Any thread.
  static Derived* GetInstance() noexcept {
    static Derived* const instance = new Derived;
    return instance;
  }

 protected:
  Manager() = default;
};

}  // namespace VornCore
