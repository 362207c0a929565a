// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program.
//
// A library that is loaded at most once between two unloads. An object belongs to one thread at a
// time; only std::bad_alloc is thrown.
#pragma once

#include <string>
#include <string_view>

#include "runtime/loader.h"

namespace qixx::runtime {

class CLibrary {
 public:
  CLibrary() = default;
  virtual ~CLibrary();
  CLibrary(const CLibrary&) = delete;
  CLibrary& operator=(const CLibrary&) = delete;

  /// Tries once; after a failure returns false without another try until Unload. True while a
  /// library is open.
  virtual bool Load(const std::string& name);
  /// The same for a part of the product: "adm" stands for "qixxadm.so".
  virtual bool LoadComponent(std::string_view component);
  virtual void Unload();
  /// True as soon as a load was tried, also after a failed one. Intended: callers of the suite ask
  /// it whether to try at all.
  [[nodiscard]] virtual bool IsLoaded() const;
  /// Null when no library is open, or it has no such symbol.
  [[nodiscard]] virtual void* GetProc(const std::string& symbol) const;

 private:
  bool Open(const std::string& name);

  FoundLibrary found_;
  bool failed_ = false;
};

/// The one library object of the process itself; nothing is loaded at start, and what is loaded at
/// the exit of the program is unloaded there.
[[nodiscard]] CLibrary& ProcessLibrary();

}  // namespace qixx::runtime
