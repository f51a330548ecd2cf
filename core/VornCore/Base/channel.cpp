#include "VornCore/Base/channel.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <span>
#include <string_view>

#include "Platform/last_error.h"
#include "Policy/message.h"
#include "VornCore/Base/clock.h"
#include "VornCore/Base/flood_rule.h"
#include "VornCore/Base/ipc.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/message_queue.h"
#include "VornCore/Base/process_info.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"
#include "windows/unique_handle.h"

namespace VornCore {
namespace {

using vorn::policy::kMinMessageSize;
using vorn::policy::kTipMagic;
using vorn::policy::MessageOrigin;
using vorn::policy::TIPHeader;
using vorn::windows::UniqueHandle;

constexpr std::int32_t kQueueNodes = 1'000;
constexpr std::size_t kPortNameUnits = 259;     // longest local port name, without terminator
constexpr std::size_t kCommandLineUnits = 511;  // of the command line, in the process start message
constexpr DWORD kExitStoppedThread = 19920308;
constexpr DWORD kStopPatience = 1'000;  // milliseconds for each of the three threads
constexpr UINT kExitHostGone = 19960116;

std::atomic<bool> gs_initialised = false;
std::atomic<bool> gs_terminate_on_disconnect = false;
std::atomic<channel::PathConverter> gs_path_converter = nullptr;
MessageQueue gs_rqGameToHost, gs_rqHostToGame;
FloodRule gs_flood;

// One of the three threads. With the option kOnDemand it is made when there is something for it to do, which
// spares most short processes all of them.
class Worker {
 public:
  explicit constexpr Worker(LPTHREAD_START_ROUTINE routine) : routine_(routine) {}

  // Starts the thread unless it was started before. Any thread. False when there can be none now.
  bool Start() {
    if (started_.load(std::memory_order_relaxed) || started_.exchange(true)) return true;
    const platform::LastErrorKeeper last_error;
    thread_.reset(CreateThread(nullptr, 0, routine_, nullptr, 0, nullptr));
    if (!thread_) started_.store(false);
    return bool(thread_);
  }
  void WaitForEnd(DWORD patience_ms) const {
    if (thread_) WaitForSingleObject(thread_.get(), patience_ms);
  }
  void End() {
    if (thread_) TerminateThread(thread_.get(), kExitStoppedThread);
    thread_.reset();
    started_.store(false);
  }

 private:
  const LPTHREAD_START_ROUTINE routine_;
  std::atomic<bool> started_ = false;
  UniqueHandle thread_;
};

DWORD WINAPI IPCRecvThreadProc(void*);
DWORD WINAPI DispatchMsg(void*);
DWORD WINAPI IPCSendThreadProc(void*);
Worker gs_receiver{IPCRecvThreadProc}, gs_dispatcher{DispatchMsg}, gs_sender{IPCSendThreadProc};

// The text of a block that was converted to UTF-8; empty without one.
std::string_view ViewOf(const HeapText& text) {
  return text ? std::string_view(text.get()) : std::string_view();
}

HeapText ToUtf8(const wchar_t* text, std::size_t units) {
  return WideToUtf8(text, static_cast<std::int32_t>(units * sizeof(wchar_t)));
}

// Called before the channel is open to anybody else: so the start is the first message of the process, and
// there is one. It goes to the transport as it stands: no thread runs yet, and the host, which has just
// greeted this process, takes it.
void SendProcessStart() {
  const wchar_t* image = GetImageBaseName();
  const wchar_t* command = GetCommandLineW();
  const HeapText image_text = image ? ToUtf8(image, std::wcslen(image)) : nullptr;
  if (!image_text) {
    VORN_LOG_E("ws2u8s failed");
    return;
  }
  const HeapText command_text =
      command ? ToUtf8(command, std::min(std::wcslen(command), kCommandLineUnits)) : nullptr;
  const vorn::policy::ProcessStart start{.parent_pid = GetParentProcessId(),
                                         .image_name = ViewOf(image_text),
                                         .command_line = ViewOf(command_text)};
  if (!EncodeInto(start, IpcSend)) VORN_LOG_E("pTIPHeader is NULL");
}

void DispatchMsgToBiz(const void* data, std::uint32_t bytes) {
  if (!data || bytes < kMinMessageSize) {
    VORN_LOG_W("DispatchMsgToBiz: invalid data");
    return;
  }
  // No message of the host asks for anything yet.
  if (static_cast<const TIPHeader*>(data)->magic != kTipMagic) VORN_LOG_W("Not a Tip Message");
}

// ---- Threads ----

DWORD WINAPI IPCRecvThreadProc(void*) {
  VORN_LOG_N("IPCRecvThreadProc thread start");
  IpcRecvLoop();
  VORN_LOG_N("IPCRecvThreadProc thread end");
  return 0;
}

DWORD WINAPI IPCSendThreadProc(void*) {
  VORN_LOG_N("IPCSendThreadProc thread start");
  gs_rqGameToHost.Consume([](const void* data, std::uint32_t bytes) { IpcSend(data, bytes); });
  VORN_LOG_N("IPCSendThreadProc thread end");
  return 0;
}

DWORD WINAPI DispatchMsg(void*) {
  VORN_LOG_N("DispatchMsg thread start");
  gs_rqHostToGame.Consume(DispatchMsgToBiz);
  VORN_LOG_N("DispatchMsg thread end");
  return 0;
}

// Ends the three threads. A thread that is ended in the middle of something takes the locks that it holds
// along, the loader's and the heap's included: so the receive thread gets some time to come back from the
// transport and the others to fall asleep. No time is given to threads that cannot have started yet.
void StopChannelThreads(DWORD patience_ms) {
  IpcStop();
  gs_receiver.WaitForEnd(patience_ms);
  gs_rqGameToHost.WaitForSleepingConsumer(patience_ms);
  gs_rqHostToGame.WaitForSleepingConsumer(patience_ms);
  for (Worker* worker : {&gs_receiver, &gs_sender, &gs_dispatcher}) worker->End();
}

bool StartRecvData() {
  // A host that ends its processes when it goes away must be watched from the start.
  const bool watch = gs_terminate_on_disconnect.load();
  if (GetSection().Has(vorn::policy::SectionOption::kOnDemand)) return !watch || gs_receiver.Start();
  if (gs_receiver.Start() && gs_dispatcher.Start() && gs_sender.Start()) return true;
  StopChannelThreads(0);
  return false;
}

// Something was queued for the host. Who sends can be answered, so it is also listened to from then on.
void StartSending() {
  if (RtlDllShutdownInProgress()) return;  // the queue is sent at the process's end
  gs_sender.Start();
  gs_receiver.Start();
}

// ---- What the transport calls ----

void __stdcall OnRecvData(void*, const void* data, std::uint32_t bytes) {
  if (!gs_initialised.load()) return;
  // A full queue has logged itself; nobody would answer the host.
  (void)gs_rqHostToGame.Push(data, bytes);
  gs_dispatcher.Start();
}

void __stdcall OnIpcError(void*, const char* text) { VORN_LOG_W("%s", text); }

bool __stdcall OnConnectAuth(void*, std::uint32_t pid, std::uint32_t tid, const char* port_name) {
  VORN_LOG_N("connect auth, it's pid:%u, tid:%u, port name:%s", pid, tid, port_name);
  return true;
}

void __stdcall OnDisconnectNotify(void*, std::uint32_t pid, std::uint32_t tid, const char* port_name) {
  VORN_LOG_N("recv disconnect notify, it's pid:%u, tid:%u, port name:%s", pid, tid, port_name);
  if (gs_terminate_on_disconnect.load() && !TerminateProcess(GetCurrentProcess(), kExitHostGone))
    VORN_LOG_E("TerminateProcess failed, error code:%lu", GetLastError());
}

constexpr vorn::ipc::IpcCallbacks kCallbacks{OnRecvData, OnIpcError, OnConnectAuth, OnDisconnectNotify,
                                             nullptr};

// ---- Start ----

// The name of this process's own port: image name, process id and the time, so that it names no other.
bool GetLocalServerPortName(wchar_t (&name)[kPortNameUnits + 1]) {
  const std::uint64_t now = GetPreciseTimeMicros();
  const auto high = static_cast<std::uint32_t>(now >> 32), low = static_cast<std::uint32_t>(now);
  wchar_t pid[33], high_digits[33], low_digits[33];
  std::size_t length = 0;
  for (const wchar_t* piece :
       {GetImageBaseName(), L"_", const_cast<const wchar_t*>(UIntToWide(GetCurrentProcessId(), 10, pid)),
        L"_0x", const_cast<const wchar_t*>(UIntToWide(high, 16, high_digits)),
        const_cast<const wchar_t*>(UIntToWide(low, 16, low_digits))}) {
    const std::size_t units = piece ? std::wcslen(piece) : 0;
    if (units > kPortNameUnits - length) return false;
    std::wmemcpy(name + length, piece, units);
    length += units;
  }
  name[length] = L'\0';
  return true;
}

// The steps of channel::Init; null or the text of the step that failed.
const char* Start(const wchar_t* port) {
  wchar_t local_port[kPortNameUnits + 1];
  if (!GetLocalServerPortName(local_port)) return "GetLocalServerPortName Failed";
  if (!InitIPC(local_port, port, &kCallbacks)) return "Init IPC Failed";
  VORN_LOG_N("Init gs_rqGameToHost: %p", &gs_rqGameToHost);
  if (!gs_rqGameToHost.InitRing(kQueueNodes)) return "Init gs_rqGameToHost Failed";
  VORN_LOG_N("Init gs_rqHostToGame: %p", &gs_rqHostToGame);
  if (!gs_rqHostToGame.InitRing(kQueueNodes)) return "Init gs_rqHostToGame Failed";
  if (!gs_rqGameToHost.InitEvent() || !gs_rqHostToGame.InitEvent()) return "CreateEventW Failed";
  SendProcessStart();
  // The threads may run at once, and what they say must not find the channel closed.
  gs_initialised.store(true);
  if (!StartRecvData()) return "StartRecvData() Failed";
  return nullptr;
}

}  // namespace

MessageOrigin OriginNow() noexcept { return {GetPreciseTimeMicros() / 1'000, GetCurrentProcessId()}; }

void InitTipHeader(void* message, std::uint16_t type, std::uint16_t subtype, std::uint32_t payload_length,
                   std::uint8_t flag) noexcept {
  const MessageOrigin origin = OriginNow();
  *static_cast<TIPHeader*>(message) = {.magic = kTipMagic,
                                       .time_ms = origin.time_ms,
                                       .type = type,
                                       .subtype = subtype,
                                       .flag = flag,
                                       .pid = origin.pid,
                                       .payload_length = payload_length};
}

bool SendToHost(const void* message, std::uint32_t bytes) noexcept {
  if (!gs_initialised.load() || !message || bytes < kMinMessageSize) return false;
  const auto& header = *static_cast<const TIPHeader*>(message);
  if (header.magic != kTipMagic) return false;
  if (gs_flood.Drops(header.type, header.subtype, GetPreciseTimeMicros())) {
    VORN_LOG_I("drop spam msg, pid %d, type %d, subtype %d", static_cast<int>(header.pid), header.type,
               header.subtype);
    return false;
  }
  const bool queued = gs_rqGameToHost.Push(message, bytes);
  if (!queued)
    VORN_LOG_I("drop unlucky msg, pid %d, type %d, subtype %d", static_cast<int>(header.pid), header.type,
               header.subtype);
  StartSending();
  return queued;
}

void SendSample(std::uint64_t first, std::uint64_t second, std::uint32_t third, std::uint16_t subtype,
                const wchar_t* text) noexcept {
  if (GetSection().Has(vorn::policy::SectionOption::kNoSamples)) return;
  HeapText utf8;
  if (const HeapString path = WideDup(text)) {
    if (const auto convert = gs_path_converter.load()) convert(path.get());
    utf8 = ToUtf8(path.get(), std::wcslen(path.get()));
  }
  EncodeAndSend(vorn::policy::Sample{
      .subtype = subtype, .first = first, .second = second, .third = third, .text = ViewOf(utf8)});
}

bool MaySendSample(std::atomic<std::uint64_t>& last_sent, std::uint64_t now) noexcept {
  constexpr std::uint64_t kInterval = 2'000'000;
  std::uint64_t last = last_sent.load();
  return now > last && now - last > kInterval && last_sent.compare_exchange_strong(last, now);
}

namespace channel {

bool Init(const wchar_t* port, bool terminate_on_disconnect) noexcept {
  if (gs_initialised.load()) return true;
  gs_terminate_on_disconnect.store(terminate_on_disconnect);
  const char* failure = Start(port);
  if (!failure) return true;
  VORN_LOG_E("%s", failure);
  gs_initialised.store(false);
  gs_terminate_on_disconnect.store(false);
  return false;
}

bool UnInit() noexcept {
  if (!gs_initialised.load()) return true;
  StopChannelThreads(kStopPatience);
  const bool unloaded = UnInitIPC();
  gs_initialised.store(false);
  gs_terminate_on_disconnect.store(false);
  gs_rqGameToHost.Destroy();
  gs_rqHostToGame.Destroy();
  return unloaded;
}

void FlushAtProcessEnd() noexcept {
  if (!gs_initialised.load()) return;
  if (gs_rqGameToHost.IsAbandoned()) {
    VORN_LOG_W("a thread ended inside Ring Queue %p, its messages are lost", &gs_rqGameToHost);
    return;
  }
  IpcStop();  // from here on, sending does not wait for the host
  if (const std::uint32_t left = gs_rqGameToHost.Drain(IpcSend))
    VORN_LOG_W("the process ended before %u messages were sent", left);
}

void SetPathConverter(PathConverter converter) noexcept { gs_path_converter.store(converter); }

}  // namespace channel
}  // namespace VornCore
