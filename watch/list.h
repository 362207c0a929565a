// What --list tells: the configuration files in use, the library, the readers, the cards, their
// certificates as the service sees them, and what a command would get of them.
//
// All of it is collected into the structs below first; list_text and list_json print them. The
// texts are those of the library, the cards and the files: they may hold any byte, and it is the
// printing that makes them harmless. Values of placeholders are as a command gets them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "runtime/loader.h"
#include "watch/certificate_selection.h"

namespace qixx::watch {

// --- configuration ------------------------------------------------------------------------------

enum class FileRole : std::uint8_t { kSystem, kUser, kProgram };
/// Why a file is looked for where it is.
enum class FileReason : std::uint8_t {
  kEnvironment,
  kHome,
  kPerUserInstall,
  kDefault,
  kCurrentDirectory,
  kBesideProgram,
};
/// Without a text a file says nothing, as one that is missing.
enum class FileState : std::uint8_t { kRead, kEmpty, kMissing, kUnreadable };

struct ListedFile {
  FileRole role = FileRole::kSystem;
  std::string path;
  FileReason reason = FileReason::kDefault;
  FileState state = FileState::kRead;
  std::string fault;  ///< why it cannot be read, in the system's words
};

enum class CommandSource : std::uint8_t { kProgramFile, kSystemFile, kEnvironment };

/// The configured watch command.
struct ListedCommand {
  std::string text;  ///< with its secrets masked
  CommandSource source = CommandSource::kSystemFile;
  std::string match;
};

// --- library ------------------------------------------------------------------------------------

struct ListedVersion {
  std::string manufacturer;
  std::string description;
  CK_VERSION version = {};
  CK_VERSION cryptoki = {};
};

struct ListedLibrary {
  std::string name;                        ///< that is looked for
  std::string file;                        ///< that was loaded, empty for none
  std::vector<std::string> modules;        ///< other PKCS#11 libraries that it loaded
  std::vector<runtime::FailedOpen> tried;  ///< when nothing could be loaded
  CK_RV result = CKR_GENERAL_ERROR;        ///< of the initialisation
  std::string fault;                       ///< why it has no module, in its own words
  std::optional<ListedVersion> version;

  /// Whether it could be asked for anything.
  [[nodiscard]] bool Answers() const { return result == CKR_OK; }
};

/// A call of the library that failed.
struct FailedCall {
  std::string call;
  std::optional<CK_SLOT_ID> slot;
  std::optional<CK_RV> result;  ///< nothing when it is not known
};

// --- readers and cards --------------------------------------------------------------------------

/// Whether the service listens to events of a slot.
enum class Counting : std::uint8_t {
  kYes,
  kNoSlot,     ///< 0 stands for no slot
  kSecondary,  ///< another slot of a reader's group of three
  kWithheld,   ///< the library tells no events of it
};

struct ListedReader {
  CK_SLOT_ID slot = 0;
  bool isKnown = false;  ///< the library described it; without that the next four say nothing
  std::string description;
  std::string manufacturer;
  bool isRemovable = false;
  bool hasCard = false;
  Counting counting = Counting::kYes;
};

struct ListedCard {
  CK_SLOT_ID slot = 0;
  std::string label;
  std::string manufacturer;
  std::string model;
  std::string serial;
  CK_FLAGS flags = 0;
};

struct ListedCertificate {
  CK_SLOT_ID slot = 0;
  std::string label;
  std::string subject;
  std::string issuer;
  std::string upn;
  std::string email;
  std::string serial;
  std::vector<unsigned> usages;       ///< bits, as der::GetKeyUsages gives them
  std::vector<std::string> purposes;  ///< dotted
  std::string notBefore;              ///< as the certificate writes it
  std::string notAfter;
  bool isExpired = false;
  Verdict verdict = Verdict::kTaken;
};

/// Why the service does not see a certificate object.
enum class Omission : std::uint8_t {
  kWithheld,       ///< the library does not list the card
  kUnreadable,     ///< an attribute that it asks for cannot be read, or is too long
  kNoCertificate,  ///< it is none, or there are too many
  kSameAsAnother,  ///< a card in another slot holds the same one
};

struct OmittedObject {
  CK_SLOT_ID slot = 0;
  std::string label;
  Omission reason = Omission::kUnreadable;
};

// --- all of it ----------------------------------------------------------------------------------

struct ListedPlaceholder {
  std::string name;
  std::string value;      ///< what stands in its place
  bool isFilled = false;  ///< else it stays as it is
};

struct Listing {
  std::vector<ListedFile> files;
  std::optional<ListedCommand> command;
  ListedLibrary library;
  std::vector<ListedReader> readers;
  std::vector<ListedCard> cards;
  std::vector<ListedCertificate> certificates;
  std::vector<OmittedObject> omitted;
  /// Whether a card has the name that the match asks for: without it no insert command runs.
  bool hasMatchingCard = false;
  std::vector<ListedPlaceholder> placeholders;
  std::vector<FailedCall> failures;
};

/// Looks at everything. The library is initialised for this and finalised; it is not polled, so no
/// event is taken from anybody. Nothing is written, made or traced, no PIN is asked for, and what
/// fails is noted and passed over. To be called once, before there are other threads: the
/// environment is changed so that the library, too, makes no directory and no trace.
[[nodiscard]] Listing CollectListing();

}  // namespace qixx::watch
