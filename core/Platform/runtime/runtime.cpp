// Runtime of the library: what the compiler and the header-only standard library call, without a C runtime.
// Built with -fno-builtin, -fno-lto: the compiler may invent calls to these functions late.
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <new>

#include "windows/nt.h"

extern "C" {
__attribute__((noreturn)) void abort(void) {
  // FAST_FAIL_FATAL_APP_EXIT: ends the process at once, past every handler.
  asm volatile("int $0x29" ::"c"(7));
  __builtin_unreachable();
}
void* malloc(size_t n) { return RtlAllocateHeap(GetProcessHeap(), 0, n ? n : 1); }
void* calloc(size_t a, size_t b) {
  size_t n;
  if (__builtin_mul_overflow(a, b, &n)) return nullptr;
  return RtlAllocateHeap(GetProcessHeap(), HEAP_ZERO_MEMORY, n ? n : 1);
}
void free(void* p) {
  if (p) RtlFreeHeap(GetProcessHeap(), 0, p);
}
void __cxa_pure_virtual() { abort(); }
void __cxa_deleted_virtual() { abort(); }
// Objects of static storage are never destroyed (managers live until the process ends).
int atexit(void (*)()) { return 0; }
int __cxa_atexit(void (*)(void*), void*, void*) { return 0; }
void* __dso_handle = nullptr;

// One-time initialisation of function-local statics. Byte 0: done (read inline by the compiler); byte 1: 0
// free, 1 busy.
int __cxa_guard_acquire(int64_t* g) {
  auto* b = reinterpret_cast<uint8_t*>(g);
  for (;;) {
    if (__atomic_load_n(&b[0], __ATOMIC_ACQUIRE)) return 0;
    uint8_t free_state = 0;
    if (__atomic_compare_exchange_n(&b[1], &free_state, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
      if (!__atomic_load_n(&b[0], __ATOMIC_ACQUIRE)) return 1;
      __atomic_store_n(&b[1], 0, __ATOMIC_RELEASE);
      return 0;
    }
    // The last thread of an ending process: who began the initialisation is gone.
    if (RtlDllShutdownInProgress()) return 1;
    Sleep(0);
  }
}
void __cxa_guard_release(int64_t* g) {
  auto* b = reinterpret_cast<uint8_t*>(g);
  __atomic_store_n(&b[0], 1, __ATOMIC_RELEASE);
  __atomic_store_n(&b[1], 0, __ATOMIC_RELEASE);
}
void __cxa_guard_abort(int64_t* g) {
  __atomic_store_n(reinterpret_cast<uint8_t*>(g) + 1, 0, __ATOMIC_RELEASE);
}

// -fstack-protector-strong (optional)
uintptr_t __stack_chk_guard = static_cast<uintptr_t>(0x9f3b51c7d2e8a604ull);
__attribute__((noreturn)) void __stack_chk_fail() { abort(); }
}

void* operator new(size_t n) {
  void* p = malloc(n);
  if (!p) abort();
  return p;
}
void* operator new[](size_t n) { return operator new(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return malloc(n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return malloc(n); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }
const std::nothrow_t std::nothrow{};

// Out-of-line throw helpers of libstdc++'s headers.
namespace std {
__attribute__((noreturn)) void __throw_bad_alloc() { abort(); }
__attribute__((noreturn)) void __throw_bad_array_new_length() { abort(); }
__attribute__((noreturn)) void __throw_length_error(const char*) { abort(); }
__attribute__((noreturn)) void __throw_logic_error(const char*) { abort(); }
__attribute__((noreturn)) void __throw_out_of_range(const char*) { abort(); }
__attribute__((noreturn)) void __throw_out_of_range_fmt(const char*, ...) { abort(); }
__attribute__((noreturn)) void __throw_bad_function_call() { abort(); }
__attribute__((noreturn)) void __throw_invalid_argument(const char*) { abort(); }
__attribute__((noreturn)) void __glibcxx_assert_fail(const char*, int, const char*, const char*) noexcept {
  abort();
}
}  // namespace std

// ---- entry point ----
typedef void (*Ctor)();
extern "C" Ctor __CTOR_LIST__[];  // -1, constructors, 0; made by the linker
BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID);

static void RunConstructors() {
  size_t n = 0;
  while (__CTOR_LIST__[n + 1]) ++n;
  for (; n; --n) __CTOR_LIST__[n]();  // GNU order: last first
}

extern "C" BOOL WINAPI DllMainCRTStartup(HINSTANCE h, DWORD reason, LPVOID r) {
  if (reason == DLL_PROCESS_ATTACH) {
    __stack_chk_guard ^=
        reinterpret_cast<uintptr_t>(&reason) ^ static_cast<uintptr_t>(__builtin_ia32_rdtsc());
    RunConstructors();
  }
  return DllMain(h, reason, r);
}
