#include "bridge/pcsc.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstddef>
#include <type_traits>

#include "pkcs11/cryptoki.h"
#include "runtime/loader.h"
#include "runtime/text.h"

namespace qixx::bridge {
namespace {

constexpr PcscWord kScopeSystem = 2;
constexpr std::size_t kInitialNames = 2048;
constexpr std::size_t kMaxNames = std::size_t{64} * 1024;

using PcscNumber = long;

struct PcscLibrary {
  PcscNumber (*establish)(PcscWord scope, const void*, const void*, long* context) = nullptr;
  PcscNumber (*release)(long context) = nullptr;
  PcscNumber (*list)(long context, const char* groups, char* names, PcscWord* size) = nullptr;
  PcscNumber (*wait)(long context, PcscWord timeout, PcscReaderState*, PcscWord count) = nullptr;
  PcscNumber (*cancel)(long context) = nullptr;
};

/// All functions, or none.
PcscLibrary LoadPcsc() {
  runtime::SharedLibrary library(::dlopen("libpcsclite.so.1", RTLD_NOW | RTLD_LOCAL));
  if (!library.IsOpen()) return {};
  PcscLibrary functions;
  const auto find = [&library](auto& function, const char* name) {
    function = library.FindSymbol<std::remove_reference_t<decltype(function)>>(name);
    return function != nullptr;
  };
  const bool isComplete =
      find(functions.establish, "SCardEstablishContext") &&
      find(functions.release, "SCardReleaseContext") && find(functions.list, "SCardListReaders") &&
      find(functions.wait, "SCardGetStatusChange") && find(functions.cancel, "SCardCancel");
  static_cast<void>(library.Release());  // for the life of the process
  return isComplete ? functions : PcscLibrary();
}

const PcscLibrary& Pcsc() {
  static const PcscLibrary library = LoadPcsc();
  return library;
}

/// The codes have 32 bits, whatever the sign that a machine word gives them.
PcscResult ResultOf(PcscNumber number) {
  return static_cast<PcscResult>(static_cast<std::uint32_t>(number));
}

}  // namespace

bool HasPcsc() {
  return Pcsc().establish != nullptr;
}

bool PcscConnection::Open() {
  if (isOpen_) return true;
  isOpen_ = HasPcsc() && ResultOf(Pcsc().establish(kScopeSystem, nullptr, nullptr, &context_)) ==
                             PcscResult::kSuccess;
  return isOpen_;
}

void PcscConnection::Close() {
  if (isOpen_) Pcsc().release(context_);  // NOLINT: what is open has the functions
  isOpen_ = false;
}

std::optional<std::string_view> PcscConnection::ReadNames() {
  names_.resize(std::max(names_.capacity(), kInitialNames));
  for (;;) {
    PcscWord size = names_.size();
    // NOLINTNEXTLINE: what is open has the functions
    const PcscResult result = ResultOf(Pcsc().list(context_, nullptr, names_.data(), &size));
    if (result == PcscResult::kInsufficientBuffer && size > names_.size() && size <= kMaxNames) {
      names_.resize(size);
      continue;
    }
    if (result != PcscResult::kSuccess || size < 2 || size > names_.size()) {
      // Anything else says that the service is away, or that it is another one.
      if (result != PcscResult::kSuccess && result != PcscResult::kNoReaders) return std::nullopt;
      return kNoNames;
    }
    names_.resize(size);
    // Two zero bytes end the list, also that of a service that does not write them.
    names_[size - 2] = names_[size - 1] = '\0';
    return std::string_view(names_.data(), names_.size());
  }
}

PcscResult PcscConnection::WaitForChange(PcscWord timeout, std::span<PcscReaderState> readers) {
  // NOLINTNEXTLINE: what is open has the functions
  return ResultOf(Pcsc().wait(context_, timeout, readers.data(), readers.size()));
}

void PcscConnection::Cancel() {
  Pcsc().cancel(context_);  // NOLINT: what is open has the functions
}

std::string_view CutReaderName(std::string_view name) {
  return runtime::DropTrailingBlanks(name.substr(0, sizeof CK_SLOT_INFO::slotDescription));
}

}  // namespace qixx::bridge
