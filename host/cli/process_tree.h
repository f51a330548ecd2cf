// The processes of a run, as the library's messages tell them: who started whom, and who runs without the
// library.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace vorn::cli {

// What a process is that need not introduce itself.
enum class ProcessRole {
  kProgram,          // anything else: it must
  kConsoleHost,      // the system's own, which the system starts for a program that has a console
  kInjectionHelper,  // vorn's own, which gives the library to a child of the other bitness
};

struct ProcessNode {
  ProcessNode(std::uint32_t process, std::uint32_t started_by) : pid(process), parent(started_by) {}

  std::uint32_t pid;
  std::uint32_t parent;
  std::string name;        // base name of the image, UTF-8
  bool confined = false;   // it introduced itself: the library runs in it
  bool injected = false;   // its parent gave it the library, without which it cannot run
  bool failed = false;     // its parent could not give it the library
  std::uint32_t code = 0;  // Win32 error of that failure, or exit code
  bool exited_at_once = false;
  ProcessRole role = ProcessRole::kProgram;
};

class ProcessTree {
 public:
  // The process introduced itself.
  void Started(std::uint32_t pid, std::uint32_t parent, std::string name);
  // What its parent reports: injected, not injected (error), or exited at once (exit code).
  void Injected(std::uint32_t parent, std::uint32_t pid, std::string name);
  void NotInjected(std::uint32_t parent, std::uint32_t pid, std::string name, std::uint32_t error);
  void ExitedAtOnce(std::uint32_t parent, std::uint32_t pid, std::uint32_t exit_code);
  // The system tells that it ran, once for every process in the order of their start, whoever else spoke of
  // it.
  void AddFromJob(std::uint32_t pid, std::uint32_t parent, std::string name, ProcessRole role);

  std::size_t size() const { return nodes_.size(); }
  std::size_t unconfined() const;
  const ProcessNode* Find(std::uint32_t pid) const;
  // One line per process, children indented below their parent, in the order of their start. A process id
  // that was used again names the process that had it last.
  std::vector<std::string> Lines() const;

 private:
  ProcessNode& Node(std::uint32_t pid, std::uint32_t parent);

  std::vector<ProcessNode> nodes_;
  std::unordered_map<std::uint32_t, std::size_t> ran_;  // by process id: how many have run
};

}  // namespace vorn::cli
