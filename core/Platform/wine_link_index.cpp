#include "Platform/wine_link_index.h"

#include "Policy/path_hash.h"
#include "Policy/text.h"

namespace VornCore::platform::wine {

std::uint32_t& LinkIndex::Chain(Chains& chains, std::uint64_t hash) {
  if (chains.empty()) chains.assign(kChains, kNone);
  return chains[(hash * 0x9E3779B97F4A7C15u >> 32) % kChains];
}

std::vector<LinkIndex::Known> LinkIndex::NamesOf(LONGLONG id) {
  std::vector<Known> known;
  const LockGuard guard(lock_);
  for (std::uint32_t i = Chain(name_chains_, static_cast<std::uint64_t>(id)); i != kNone;
       i = names_[i].before) {
    const Name& name = names_[i];
    if (name.id != id || !IsCurrent(name)) continue;
    const FolderRecord& folder = folders_[name.folder];
    known.push_back({folder.path, i, name.believed ? folder.changed : 0});
    known.back().path.append(1, u'\\').append(text_, name.at, name.units);
  }
  return known;
}

void LinkIndex::Believe(std::uint32_t number, LONGLONG id) {
  const LockGuard guard(lock_);
  if (number < names_.size() && names_[number].id == id && IsCurrent(names_[number]))
    names_[number].believed = true;
}

std::uint32_t LinkIndex::Number(std::u16string_view path, bool in_tree) {
  const LockGuard guard(lock_);
  std::uint32_t& last = Chain(folder_chains_, vorn::policy::HashPathNoCase(path));
  for (std::uint32_t i = last; i != kNone; i = folders_[i].before) {
    FolderRecord& folder = folders_[i];
    if (!vorn::policy::EqualsNoCase(folder.path, path)) continue;
    if (in_tree && !folder.in_tree) {
      folder.in_tree = true;
      folder.changed = 0;  // the folders below it are not known
    }
    return i;
  }
  if (folders_.size() >= kMaxFolders) return kNone;
  FolderRecord& folder = folders_.emplace_back();
  folder.path = path;
  folder.in_tree = in_tree;
  folder.before = last;
  return last = static_cast<std::uint32_t>(folders_.size() - 1);
}

bool LinkIndex::At(std::uint32_t number, Folder& folder) {
  const LockGuard guard(lock_);
  if (number >= folders_.size()) return false;
  folder = folders_[number];
  return true;
}

void LinkIndex::Remember(std::uint32_t number, const FolderListing& listing, LONGLONG changed) {
  const LockGuard guard(lock_);
  std::size_t units = 0;
  for (const FolderListing::File& file : listing.files) units += file.name.size();
  const auto fits = [&] {
    return names_.size() + listing.files.size() <= kMaxNames && text_.size() + units <= kMaxUnits;
  };
  if (!fits() && current_ < names_.size() / 2) Forget();
  FolderRecord& folder = folders_[number];
  ++folder.reading;
  current_ -= folder.names;
  folder.names = 0;
  folder.changed = fits() ? changed : 0;
  if (!fits()) return;
  for (const FolderListing::File& file : listing.files) {
    std::uint32_t& last = Chain(name_chains_, static_cast<std::uint64_t>(file.id));
    names_.push_back({file.id, last, number, folder.reading, static_cast<std::uint32_t>(text_.size()),
                      static_cast<std::uint32_t>(file.name.size())});
    last = static_cast<std::uint32_t>(names_.size() - 1);
    text_ += file.name;
  }
  folder.names = static_cast<std::uint32_t>(listing.files.size());
  current_ += folder.names;
}

// Most of the names are gone: makes room by reading the rest again.
void LinkIndex::Forget() {
  names_.clear();
  text_.clear();
  name_chains_.clear();
  for (FolderRecord& folder : folders_) {
    folder.changed = 0;
    folder.names = 0;
  }
  current_ = 0;
}

}  // namespace VornCore::platform::wine
