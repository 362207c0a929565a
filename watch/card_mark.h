// What a watcher remembers beyond its process: that a card is connected.
#pragma once

#include <string>
#include <string_view>

namespace qixx::watch {

/// An empty file in the first folder of $RUNTIME_DIRECTORY, one for each watcher. It is there from
/// an insertion to the removal, and stays when the process ends in between, however it does.
/// Without the variable, which a service manager sets, there is none. The folder belongs to the
/// manager's service; nothing in it is followed or opened but a regular file of the right name.
class CardMark {
 public:
  /// `command` tells watchers of one section apart; empty where the section alone does.
  CardMark(std::string_view section, std::string_view command);

  /// A failure is traced: the watch goes on without the mark.
  void Set() const;
  void Clear() const;
  [[nodiscard]] bool IsSet() const;

 private:
  std::string folder_;  ///< empty for none
  std::string name_;
};

}  // namespace qixx::watch
