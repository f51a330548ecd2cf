#include "process_tree.h"

#include <fmt/format.h>

#include <algorithm>

#include "vorn/event.h"

namespace vorn::cli {
namespace {

std::string Line(const ProcessNode& node, std::size_t depth) {
  const std::string state = node.confined         ? "confined"
                            : node.failed         ? fmt::format("NOT CONFINED (error {})", node.code)
                            : node.exited_at_once ? fmt::format("exited at once (code {:#x})", node.code)
                            : node.role == ProcessRole::kConsoleHost     ? "console host of the system"
                            : node.role == ProcessRole::kInjectionHelper ? "injection helper of vorn"
                            : node.injected ? "confined, ended before it reported"
                                            : "NOT CONFINED (never reported)";
  return fmt::format("{:{}}{} ({})  {}", "", depth * 2, node.name.empty() ? "?" : host::Printable(node.name),
                     node.pid, state);
}

}  // namespace

ProcessNode& ProcessTree::Node(std::uint32_t pid, std::uint32_t parent) {
  // Searched from the end: a process id that is used again names the newest process.
  const auto found =
      std::find_if(nodes_.rbegin(), nodes_.rend(), [&](const ProcessNode& n) { return n.pid == pid; });
  if (found != nodes_.rend()) return *found;
  nodes_.emplace_back(pid, parent);
  return nodes_.back();
}

void ProcessTree::Started(std::uint32_t pid, std::uint32_t parent, std::string name) {
  ProcessNode* node = &Node(pid, parent);
  if (node->confined) {  // an id that is used again
    nodes_.emplace_back(pid, parent);
    node = &nodes_.back();
  }
  node->confined = true;
  node->name = std::move(name);
}

void ProcessTree::Injected(std::uint32_t parent, std::uint32_t pid, std::string name) {
  ProcessNode& node = Node(pid, parent);
  node.injected = true;
  if (node.name.empty()) node.name = std::move(name);
}

void ProcessTree::NotInjected(std::uint32_t parent, std::uint32_t pid, std::string name,
                              std::uint32_t error) {
  ProcessNode& node = Node(pid, parent);
  if (node.name.empty()) node.name = std::move(name);
  node.failed = true;
  node.code = error;
}

void ProcessTree::ExitedAtOnce(std::uint32_t parent, std::uint32_t pid, std::uint32_t exit_code) {
  ProcessNode& node = Node(pid, parent);
  node.exited_at_once = true;
  node.code = exit_code;
}

void ProcessTree::AddFromJob(std::uint32_t pid, std::uint32_t parent, std::string name, ProcessRole role) {
  // If the id was reused, pick the n-th node with this id.
  std::size_t before = ran_[pid]++;
  auto node =
      std::ranges::find_if(nodes_, [&](const ProcessNode& n) { return n.pid == pid && before-- == 0; });
  if (node == nodes_.end()) node = nodes_.emplace(node, pid, parent);
  node->role = role;
  if (node->name.empty()) node->name = std::move(name);
}

std::size_t ProcessTree::unconfined() const {
  return static_cast<std::size_t>(std::ranges::count_if(nodes_, [](const ProcessNode& n) {
    return !n.confined && !n.injected && !n.exited_at_once && n.role == ProcessRole::kProgram;
  }));
}

const ProcessNode* ProcessTree::Find(std::uint32_t pid) const {
  const auto found =
      std::find_if(nodes_.rbegin(), nodes_.rend(), [&](const ProcessNode& n) { return n.pid == pid; });
  return found == nodes_.rend() ? nullptr : &*found;
}

std::vector<std::string> ProcessTree::Lines() const {
  std::unordered_map<std::uint32_t, std::vector<std::size_t>> with_id;
  for (std::size_t i = 0; i < nodes_.size(); ++i) with_id[nodes_[i].pid].push_back(i);
  std::vector<std::size_t> roots;
  std::vector<std::vector<std::size_t>> children(nodes_.size());
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    const auto parents = with_id.find(nodes_[i].parent);
    if (parents == with_id.end() || nodes_[i].parent == nodes_[i].pid) {
      roots.push_back(i);
      continue;
    }
    // The last before it; a parent may also speak after its child.
    const auto later = std::ranges::upper_bound(parents->second, i);
    children[later == parents->second.begin() ? *later : *(later - 1)].push_back(i);
  }

  std::vector<std::string> lines;
  std::vector<bool> shown(nodes_.size());
  const auto show = [&](const auto& self, std::size_t i, std::size_t depth) -> void {
    constexpr std::size_t kDeepest = 64;
    if (shown[i] || depth > kDeepest) return;
    shown[i] = true;
    lines.push_back(Line(nodes_[i], depth));
    for (const std::size_t child : children[i]) self(self, child, depth + 1);
  };
  for (const std::size_t root : roots) show(show, root, 0);
  // What lies too deep, or in a circle of processes that claim each other as parents.
  for (std::size_t i = 0; i < nodes_.size(); ++i) show(show, i, 0);
  return lines;
}

}  // namespace vorn::cli
