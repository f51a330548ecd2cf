// What the exit code of a process says that ended before the library reported.
#include <fmt/format.h>

#include <span>

#include "Policy/exit_code.h"
#include "VornCore/Hook/api_list_dnsapi.h"
#include "VornCore/Hook/api_list_kernelbase.h"
#include "VornCore/Hook/api_list_ntdll.h"
#include "VornCore/Hook/api_list_ws2_32.h"
#include "vorn/launcher.h"
#include "vorn/text.h"
#include "windows/nt.h"

namespace vorn::host {

namespace {

// The library's composed codes: one bit names the step, the rest is a Win32 error.
struct Step {
  std::uint32_t bit;
  LaunchStage stage;
  const char* text;
};
constexpr Step kSteps[] = {
    {policy::kExitSectionName, LaunchStage::kSectionName, "the library could not read VORN_SHARED_DATA_NAME"},
    {policy::kExitSection, LaunchStage::kSection, "the library could not use the configuration section"},
    {policy::kExitThreadState, LaunchStage::kThreadStorage,
     "the library could not set up its thread storage"},
    {policy::kExitLog, LaunchStage::kLog, "the library could not open its log files"},
};

struct KnownExit {
  std::uint32_t code;
  LaunchStage stage;
  const char* text;
};
constexpr KnownExit kKnownExits[] = {
    {ERROR_DLL_INIT_FAILED, LaunchStage::kManagers,
     "the library could not install its hooks, managers or channel; its log says which"},
    {policy::kExitBadScratch, LaunchStage::kScratch,
     "the library asked for a scratch buffer that does not exist"},
    {policy::kExitScratchTooDeep, LaunchStage::kScratch, "the library nested its scratch buffers too deeply"},
    {policy::kExitScratchUnderflow, LaunchStage::kScratch,
     "the library left more scratch levels than it entered"},
    {static_cast<std::uint32_t>(STATUS_DLL_NOT_FOUND), LaunchStage::kLoad,
     "the loader did not find the library or a DLL of the program"},
    {static_cast<std::uint32_t>(STATUS_INVALID_IMAGE_FORMAT), LaunchStage::kLoad,
     "the loader refused the library or a DLL of the program as not valid for this process"},
    {static_cast<std::uint32_t>(STATUS_ORDINAL_NOT_FOUND), LaunchStage::kLoad,
     "the loader did not find a function of a DLL by its number"},
    {static_cast<std::uint32_t>(STATUS_ENTRYPOINT_NOT_FOUND), LaunchStage::kLoad,
     "the loader did not find a function of a DLL by its name"},
    {static_cast<std::uint32_t>(STATUS_DLL_INIT_FAILED), LaunchStage::kLoad,
     "a DLL of the program failed to initialise"},
};

#define VORN_NAME(fail, result, api, ...) #api,
constexpr const char* kNtdll[] = {VORN_NTDLL_API(VORN_NAME)};
constexpr const char* kKernelBase[] = {VORN_KERNELBASE_API(VORN_NAME)};
constexpr const char* kWs2_32[] = {VORN_WS2_32_API(VORN_NAME)};
constexpr const char* kDnsapi[] = {VORN_DNSAPI_API(VORN_NAME)};
#undef VORN_NAME
constexpr std::span<const char* const> kHooked[] = {kNtdll, kKernelBase, kWs2_32, kDnsapi};

std::string HookText(const policy::HookNotProven& hook) {
  const auto& names = kHooked[static_cast<std::size_t>(hook.module)];
  const char* name = hook.row < names.size() ? names[hook.row] : "a function";
  return fmt::format("the library could not intercept {}: {}", name,
                     hook.error
                         ? Win32ErrorText(hook.error)
                         : "calls of it do not arrive, another product or the program stands in front");
}

// Errors whose own sentence would mislead here.
std::string StepErrorText(LaunchStage stage, std::uint32_t error) {
  if (stage == LaunchStage::kSection && error == ERROR_PRODUCT_VERSION) {
    return "it has the wrong magic number or version";
  }
  if (stage == LaunchStage::kSectionName && error == ERROR_ENVVAR_NOT_FOUND) return "the variable is missing";
  if (stage == LaunchStage::kSectionName && error == ERROR_BAD_ENVIRONMENT) return "its value is too long";
  return Win32ErrorText(error);
}

}  // namespace

LaunchFailure DescribeStartUpExit(std::uint32_t exit_code) {
  for (const KnownExit& known : kKnownExits) {
    if (known.code == exit_code) {
      return {known.stage, exit_code, exit_code, fmt::format("{} (exit code {:#x})", known.text, exit_code)};
    }
  }
  if ((exit_code & policy::kExitHookMask) == policy::kExitHook) {
    const policy::HookNotProven hook = policy::HookOfExitCode(exit_code);
    return {LaunchStage::kHooks, hook.error, exit_code,
            fmt::format("{} (exit code {:#010x})", HookText(hook), exit_code)};
  }
  for (const Step& step : kSteps) {
    if ((exit_code & policy::kExitStepMask) != step.bit) continue;
    const std::uint32_t error = exit_code & ~policy::kExitStepMask;
    return {
        step.stage, error, exit_code,
        fmt::format("{}: {} (exit code {:#010x})", step.text, StepErrorText(step.stage, error), exit_code)};
  }
  return {
      LaunchStage::kExited, exit_code, exit_code,
      fmt::format("the program ended with exit code {0} ({0:#x}) before the library reported", exit_code)};
}

}  // namespace vorn::host
