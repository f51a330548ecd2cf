#include "process_tree.h"

#include <fmt/format.h>

#include <algorithm>

namespace vorn::cli {

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

void ProcessTree::Ran(std::uint32_t pid, std::uint32_t parent, std::string name, bool console_host) {
  ProcessNode& node = Node(pid, parent);
  node.console_host = console_host;
  if (node.name.empty()) node.name = std::move(name);
}

std::size_t ProcessTree::unconfined() const {
  return static_cast<std::size_t>(std::ranges::count_if(nodes_, [](const ProcessNode& n) {
    return !n.confined && !n.injected && !n.exited_at_once && !n.console_host;
  }));
}

const ProcessNode* ProcessTree::Find(std::uint32_t pid) const {
  const auto found =
      std::find_if(nodes_.rbegin(), nodes_.rend(), [&](const ProcessNode& n) { return n.pid == pid; });
  return found == nodes_.rend() ? nullptr : &*found;
}

void ProcessTree::AddLines(std::uint32_t parent, std::size_t depth, std::vector<std::string>& lines) const {
  for (const ProcessNode& node : nodes_) {
    const bool is_root = depth == 0 && !Find(node.parent);
    if (depth == 0 ? !is_root : node.parent != parent || node.pid == parent) continue;
    const std::string state = node.confined         ? "confined"
                              : node.failed         ? fmt::format("NOT CONFINED (error {})", node.code)
                              : node.exited_at_once ? fmt::format("exited at once (code {:#x})", node.code)
                              : node.console_host   ? "console host of the system"
                              : node.injected       ? "confined, ended before it reported"
                                                    : "NOT CONFINED (never reported)";
    lines.push_back(
        fmt::format("{:{}}{} ({})  {}", "", depth * 2, node.name.empty() ? "?" : node.name, node.pid, state));
    if (depth < 64) AddLines(node.pid, depth + 1, lines);
  }
}

std::vector<std::string> ProcessTree::Lines() const {
  std::vector<std::string> lines;
  AddLines(0, 0, lines);
  return lines;
}

}  // namespace vorn::cli
