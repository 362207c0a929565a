// What --list tells: the configuration files in use, the library, the readers, the cards, their
// certificates as the service sees them, and what a command would get of them.
//
// All of it is collected into the structs below first; list_text and list_json print them. The
// texts are those of the library, the cards and the files: they may hold any byte, and it is the
// printing that makes them harmless. Values of placeholders are as a command gets them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "runtime/loader.h"
#include "watch/certificate_selection.h"

namespace qixx::watch {

/// One of a few answers: its name for programs, which does not change, and words for people.
struct Wording {
  std::string_view name;
  std::string_view words = {};
  bool operator==(const Wording&) const = default;
};

// --- configuration ------------------------------------------------------------------------------

struct FileRole {
  static constexpr Wording kSystem{"system", "the system's"};
  static constexpr Wording kUser{"user", "the user's"};
  static constexpr Wording kProgram{"program", "the program's own"};
};
/// Why a file is looked for where it is.
struct FileReason {
  static constexpr Wording kEnvironment{"environment", "an environment variable names it"};
  static constexpr Wording kHome{"home", "its usual place in the home directory"};
  static constexpr Wording kPerUserInstall{"per-user-installation",
                                           "a per-user installation: ~/.qix/lib exists"};
  static constexpr Wording kDefault{"default", "its usual place"};
  static constexpr Wording kCurrentDirectory{"current-directory",
                                             "the last resort, in the current directory"};
  static constexpr Wording kBesideProgram{"beside-program", "beside the program"};
};
/// Without a text a file says nothing, as one that is missing.
struct FileState {
  static constexpr Wording kRead{"read"};
  static constexpr Wording kEmpty{"empty"};
  static constexpr Wording kMissing{"missing"};
  static constexpr Wording kUnreadable{"unreadable"};
};

struct ListedFile {
  Wording role = FileRole::kSystem;
  std::string path;
  Wording reason = FileReason::kDefault;
  Wording state = FileState::kRead;
  std::string fault;  ///< why it cannot be read, in the system's words
};

struct CommandSource {
  static constexpr Wording kProgramFile{"program-file", "the program's own file"};
  static constexpr Wording kSystemFile{"system-file", "the system's file"};
  static constexpr Wording kEnvironment{"environment", "the environment"};
};

/// The configured watch command.
struct ListedCommand {
  std::string text;  ///< with its secrets masked
  Wording source = CommandSource::kSystemFile;
  std::string match;
};

// --- library ------------------------------------------------------------------------------------

struct ListedLibrary {
  std::string name;                        ///< that is looked for
  std::string file;                        ///< that was loaded, empty for none
  std::vector<std::string> modules;        ///< other PKCS#11 libraries that it loaded
  std::vector<runtime::FailedOpen> tried;  ///< when nothing could be loaded
  CK_RV result = CKR_GENERAL_ERROR;        ///< of the initialisation
  std::string fault;                       ///< why it has no module, in its own words
  // All empty when it does not tell them:
  std::string manufacturer;
  std::string description;
  std::string version;   ///< "2.40"
  std::string cryptoki;  ///< the version of PKCS#11

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

/// Whether the service listens to events of a slot; the one that it listens to has no name.
struct Counting {
  static constexpr Wording kYes{"", "its events count"};
  static constexpr Wording kNoSlot{"slot-zero", "does not count: 0 stands for no slot"};
  static constexpr Wording kSecondary{"secondary-slot",
                                      "does not count: another slot of the same reader"};
  static constexpr Wording kWithheld{"withheld-by-library",
                                     "does not count: left out by the library"};
};

struct ListedReader {
  CK_SLOT_ID slot = 0;
  bool isKnown = false;  ///< the library described it; without that the next four say nothing
  std::string description;
  std::string manufacturer;
  bool isRemovable = false;
  bool hasCard = false;
  Wording counting = Counting::kYes;
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
struct Omission {
  static constexpr Wording kWithheld{"withheld-by-library", "left out by the library"};
  /// Or too long.
  static constexpr Wording kUnreadable{"unreadable",
                                       "not all attributes can be read that the service asks for"};
  static constexpr Wording kNoCertificate{"no-certificate",
                                          "it is no certificate, or one too many"};
  static constexpr Wording kSameAsAnother{"same-as-another",
                                          "a card in another slot holds the same one"};
};

struct OmittedObject {
  CK_SLOT_ID slot = 0;
  std::string label;
  Wording reason = Omission::kUnreadable;
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

/// For people, in lines that take at most 79 columns of a terminal. What is longer goes on in the
/// next line, behind the column where any other line begins, so that no value looks like a line of
/// its own. Bytes that are not UTF-8, and characters that control a terminal or turn the direction
/// of writing, are shown as "\x9b" and "\u202e".
[[nodiscard]] std::string TextOf(const Listing& listing);
/// For programs, as one JSON object (RFC 8259), which qixxwatch(1) describes, with a line end. It
/// is UTF-8 whatever the texts hold: bytes that are not become U+FFFD. Characters that control a
/// terminal or turn the direction of writing are escaped.
[[nodiscard]] std::string JsonOf(const Listing& listing, std::string_view version);

}  // namespace qixx::watch
