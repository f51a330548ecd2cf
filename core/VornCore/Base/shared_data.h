// The host's configuration section: opened once at start, then only read.
//
// The accessors read the mapped section on every call and copy nothing. Strings are UTF-16 and counted in
// bytes (without terminator); an offset or length that leaves the mapping reads as absent, and a rule with
// such a field as a rule without it. Without a mapped section everything is absent, 0 or false. Any thread,
// no lock.
#pragma once

#include <cstdint>

#include "Policy/section_view.h"
#include "windows/nt.h"

namespace VornCore {

// Opens and maps the section with this full NT object name. 0, 87 (no name), 1638 (wrong magic or version) or
// the Win32 form of the NTSTATUS.
[[nodiscard]] DWORD OpenSharedData(const wchar_t* name) noexcept;

const wchar_t* GetSectionName() noexcept;                // as it was opened; empty when it was too long
const void* GetSharedView() noexcept;                    // base of the mapping, or null
const vorn::policy::SectionView& GetSection() noexcept;  // the decision kernel's view of it

const wchar_t* GetLogDirectory(std::uint32_t* bytes = nullptr) noexcept;
const wchar_t* GetDumpDirectory(std::uint32_t* bytes = nullptr) noexcept;
const wchar_t* GetServerPortName(std::uint32_t* bytes = nullptr) noexcept;
const wchar_t* GetCreateProcessEventPrefix(std::uint32_t* bytes = nullptr) noexcept;
// The four library paths are terminated in the section (one that is not reads as absent).
const wchar_t* GetBizDllPathX64(std::uint32_t* bytes = nullptr) noexcept;
const wchar_t* GetBizDllPathX86(std::uint32_t* bytes = nullptr) noexcept;
const wchar_t* GetIPC64FullPath(std::uint32_t* bytes = nullptr) noexcept;
const wchar_t* GetIPC32FullPath(std::uint32_t* bytes = nullptr) noexcept;

std::uint32_t GetLogLevelMask() noexcept;
bool IsDebugLogEnabled() noexcept;
bool IsFileCreateCheckOff() noexcept;
bool IsNetCheckOff() noexcept;

// How many rules there are; of a count that leaves the mapping, the rules that lie inside.
std::uint32_t GetFileRuleCount() noexcept;
// Path of rule index (counted, not terminated), or null; the out values are written for every valid index.
const wchar_t* GetFileRule(std::uint32_t index, std::uint32_t* path_bytes, std::uint32_t* access,
                           std::uint32_t* hash) noexcept;
std::uint32_t GetNetRuleCount() noexcept;
bool HasNetRules() noexcept;  // whether the host counts any, inside the mapping or not

}  // namespace VornCore
