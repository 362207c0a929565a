#include "runtime/spare_library.h"

#include <utility>

#include "runtime/product.h"
#include "runtime/trace.h"

namespace qixx::runtime {

CLibrary::~CLibrary() {
  CLibrary::Unload();
}

bool CLibrary::Open(const std::string& name) {
  std::optional<FoundLibrary> found = LoadLibrarySearch(name);
  failed_ = !found;
  if (failed_) return false;
  found_ = std::move(*found);
  TraceWrite("Helper - Loaded '%s'", found_.path.c_str());
  return true;
}

bool CLibrary::Load(const std::string& name) {
  if (CLibrary::IsLoaded()) return found_.library.IsOpen();
  if (Open(name)) return true;
  TraceWrite("Helper - Failed to load '%s'", name.c_str());
  return false;
}

bool CLibrary::LoadComponent(std::string_view component) {
  if (CLibrary::IsLoaded()) return found_.library.IsOpen();
  const std::string shown(component);
  if (Open(std::string(Product().prefix) + "x" + shown + ".so")) return true;
  TraceWrite("Helper - Component '%s' not available", shown.c_str());
  return false;
}

void CLibrary::Unload() {
  if (found_.library.IsOpen()) {
    found_.library.Close();
    TraceWrite("Helper - Unloaded '%s'", found_.path.c_str());
  }
  failed_ = false;
}

bool CLibrary::IsLoaded() const {
  return failed_ || found_.library.IsOpen();
}

void* CLibrary::GetProc(const std::string& symbol) const {
  return found_.library.FindSymbol<void*>(symbol);
}

CLibrary& ProcessLibrary() {
  static CLibrary library;
  return library;
}

}  // namespace qixx::runtime
