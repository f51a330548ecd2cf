// Which file has which names, remembered of the folders that were read: file id -> paths.
//
// Little in it is believed. Who asks opens a name again, until it was seen once to be the file itself and as
// long as its folder has not changed; a folder is read again when its change time is not the one that is
// remembered. Bounded: what does not fit is not remembered. Any thread; no lock is held across a system call.
//
// Paths are drive-letter NT paths (\??\C:\a) without a backslash at the end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/lock.h"

namespace VornCore::platform::wine {

// What a folder holds.
struct FolderListing {
  struct File {
    LONGLONG id;
    std::u16string name;
  };
  std::vector<File> files;
  std::vector<std::u16string> folders;
};

class LinkIndex {
 public:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  // A name that is remembered for a file.
  struct Known {
    std::u16string path;
    std::uint32_t number;
    LONGLONG believed_while;  // its folder has this change time; 0: not believed
  };
  std::vector<Known> NamesOf(LONGLONG id);
  // That name of the file with this id is one, and no link to one.
  void Believe(std::uint32_t number, LONGLONG id);

  // The number of a folder; numbers count up from 0. in_tree: the folders below it are followed, too. kNone
  // when there are too many.
  std::uint32_t Number(std::u16string_view path, bool in_tree);

  struct Folder {
    std::u16string path;
    LONGLONG changed = 0;  // its change time when it was read; 0: not read
    bool in_tree = false;
  };
  // False when there are fewer folders.
  bool At(std::uint32_t number, Folder& folder);

  // Takes the place of what was remembered of the folder; changed: 0 when it has to be read again.
  void Remember(std::uint32_t number, const FolderListing& listing, LONGLONG changed);

 private:
  static constexpr std::size_t kMaxFolders = 16384;
  static constexpr std::size_t kMaxNames = 131072;
  static constexpr std::size_t kMaxUnits = 4u << 20;  // of all names
  static constexpr std::size_t kChains = 8192;

  // Records with the same hash, each leading to the one before it.
  using Chains = std::vector<std::uint32_t>;
  struct FolderRecord : Folder {
    std::uint32_t before;
    std::uint32_t reading = 0;  // how often it was read: names of an earlier reading are gone
    std::uint32_t names = 0;
  };
  struct Name {
    LONGLONG id;
    std::uint32_t before;
    std::uint32_t folder;
    std::uint32_t reading;
    std::uint32_t at, units;  // in text_
    bool believed = false;
  };

  static std::uint32_t& Chain(Chains& chains, std::uint64_t hash);
  bool IsCurrent(const Name& name) const { return name.reading == folders_[name.folder].reading; }
  void Forget();

  CriticalSection lock_;
  std::vector<FolderRecord> folders_;
  std::vector<Name> names_;
  std::u16string text_;
  Chains folder_chains_, name_chains_;
  std::size_t current_ = 0;  // names that are not gone
};

}  // namespace VornCore::platform::wine
