#include <cstdio>
#include <optional>

#include "der/certificate.h"
#include "pkcs11/result_names.h"
#include "runtime/text.h"
#include "watch/card_text.h"
#include "watch/list.h"
#include "watch/list_names.h"

namespace qixx::watch {
namespace {

constexpr std::size_t kLineWidth = 79;
/// Where lines begin that begin something, and those with a name and its value.
constexpr std::size_t kHeadColumn = 2;
constexpr std::size_t kNameColumn = 4;
/// Where values begin, and whatever goes on in another line: no text of a card, or of somebody
/// else's file, may look like a line of its own.
constexpr std::size_t kValueColumn = 20;

/// The characters of a text as they are shown, each by itself.
std::vector<std::string> Shown(std::string_view text) {
  std::vector<std::string> shown;
  while (!text.empty()) {
    const std::string_view before = text;
    const std::optional<char32_t> character = runtime::TakeUtf8(text);
    if (character && !Misleads(*character)) {
      shown.emplace_back(before.substr(0, before.size() - text.size()));
      continue;
    }
    const unsigned code = character ? *character : static_cast<unsigned char>(before[0]);
    char escape[16];
    std::snprintf(escape, sizeof escape, code < 0x100 ? "\\x%02x" : "\\u%04x", code);
    shown.emplace_back(escape);
  }
  return shown;
}

/// The most columns that a terminal gives to what is shown of one character. Beyond ASCII that
/// depends on terminal and language, but none gives more than two.
std::size_t MostColumns(const std::string& shown) {
  return runtime::IsAscii(shown[0]) ? shown.size() : 2;
}

class TextWriter {
 public:
  void Title(std::string_view title) {
    if (!text_.empty()) text_ += '\n';
    text_.append(title).append(1, '\n');
  }
  /// A line that begins something within a title.
  void Head(std::string_view head) {
    Begin(kHeadColumn);
    Add(head);
    text_ += '\n';
  }
  /// Left out when the value is empty.
  void Line(std::string_view name, std::string_view value) {
    if (value.empty()) return;
    Begin(kNameColumn);
    Add(name);
    Add(std::string(column_ < kValueColumn ? kValueColumn - column_ : 1, ' '));
    Add(value);
    text_ += '\n';
  }
  [[nodiscard]] std::string Take() { return std::move(text_); }

 private:
  void Begin(std::size_t column) {
    text_.append(column, ' ');
    column_ = column;
  }
  void Add(std::string_view text) {
    for (const std::string& character : Shown(text)) {
      const std::size_t columns = MostColumns(character);
      if (column_ + columns > kLineWidth) {
        text_ += '\n';
        Begin(kValueColumn);
      }
      text_ += character;
      column_ += columns;
    }
  }

  std::string text_;
  std::size_t column_ = 0;  ///< at most
};

// --- parts --------------------------------------------------------------------------------------

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) joined.append(joined.empty() ? "" : ", ").append(text);
  return joined;
}

std::string UsagesOf(const ListedCertificate& certificate) {
  std::vector<std::string> names = KeyUsageNames(certificate.usages);
  for (const std::string& purpose : certificate.purposes) {
    const std::string_view name = PurposeName(purpose);
    names.emplace_back(name.empty() ? std::string_view(purpose) : name);
  }
  return Joined(names);
}

std::string SlotText(CK_SLOT_ID slot) {
  return "slot " + std::to_string(slot);
}

void WriteConfiguration(TextWriter& out, const Listing& listing) {
  out.Title("Configuration files");
  for (const ListedFile& file : listing.files) {
    out.Head(file.path);
    out.Line("file", std::string(file.role.words).append(", ").append(file.reason.words));
    out.Line("state", file.state.name);
    out.Line("because", file.fault);
  }
  out.Title("Watch command");
  if (!listing.command) {
    out.Head("none is configured");
    return;
  }
  out.Head(listing.command->text);
  out.Line("from", listing.command->source.words);
  out.Line("match", listing.command->match);
}

void WriteLibrary(TextWriter& out, const ListedLibrary& library) {
  out.Title("Library");
  out.Head(library.file.empty() ? library.name : library.file);
  for (const std::string& module : library.modules) out.Line("module", module);
  out.Line("state", library.file.empty() ? "not found"
                    : library.Answers()  ? "answers"
                                         : pkcs11::ResultName(library.result));
  out.Line("because", library.fault);
  for (const runtime::FailedOpen& failed : library.tried) out.Line("tried", failed.path);
  if (library.version.empty()) return;
  out.Line("manufacturer", library.manufacturer);
  out.Line("description", library.description);
  out.Line("version", library.version + ", PKCS#11 " + library.cryptoki);
}

void WriteReaders(TextWriter& out, const Listing& listing) {
  out.Title("Readers");
  if (listing.readers.empty()) out.Head("none");
  for (const ListedReader& reader : listing.readers) {
    out.Head(SlotText(reader.slot) + ": " +
             (reader.isKnown ? reader.description : "could not be asked"));
    if (reader.isKnown) {
      out.Line("kind", reader.isRemovable ? "removable" : "not removable");
      out.Line("card", reader.hasCard ? "in" : "none");
    }
    out.Line("polling", reader.counting.words);
  }
  out.Title("Cards");
  if (listing.cards.empty()) out.Head("none");
  for (const ListedCard& card : listing.cards) {
    out.Head(SlotText(card.slot) + ": " + card.label);
    out.Line("manufacturer", card.manufacturer);
    out.Line("model", card.model);
    out.Line("serial", card.serial);
    out.Line("flags", Joined(TokenFlagNames(card.flags)));
  }
}

void WriteCertificate(TextWriter& out, const ListedCertificate& certificate) {
  out.Head(SlotText(certificate.slot) + ": " + certificate.label);
  out.Line("verdict", WordingOf(certificate.verdict).words);
  out.Line("subject", certificate.subject);
  out.Line("issuer", certificate.issuer);
  out.Line("principal", certificate.upn.empty() ? "none" : certificate.upn);
  out.Line("e-mail", certificate.email.empty() ? "none" : certificate.email);
  out.Line("serial", certificate.serial);
  out.Line("usages", UsagesOf(certificate));
  out.Line("valid from", der::TimeText(certificate.notBefore));
  out.Line("valid to",
           der::TimeText(certificate.notAfter) +
               (certificate.isExpired ? ": expired, which the service does not mind" : ""));
}

void WriteCertificates(TextWriter& out, const Listing& listing) {
  out.Title("Certificates, in the service's order");
  if (listing.certificates.empty()) out.Head("none");
  for (const ListedCertificate& certificate : listing.certificates) {
    WriteCertificate(out, certificate);
  }
  for (const OmittedObject& object : listing.omitted) {
    out.Head(SlotText(object.slot) + ": " + object.label);
    out.Line("not seen", object.reason.words);
  }
}

void WritePlaceholders(TextWriter& out, const Listing& listing) {
  out.Title("Placeholders, as an insert command gets them");
  if (!listing.hasMatchingCard) out.Head("No card has the name of the match: no command runs.");
  for (const ListedPlaceholder& held : listing.placeholders) {
    out.Line(held.name, held.isFilled ? "'" + held.value + "'" : "stays as it is");
  }
}

void WriteFailures(TextWriter& out, const Listing& listing) {
  if (listing.failures.empty()) return;
  out.Title("Calls that failed");
  for (const FailedCall& failed : listing.failures) {
    const std::string slot = failed.slot ? ", " + SlotText(*failed.slot) : "";
    out.Head(failed.call + slot + (failed.result ? ": " + pkcs11::ResultName(*failed.result) : ""));
  }
}

}  // namespace

std::string TextOf(const Listing& listing) {
  TextWriter out;
  WriteConfiguration(out, listing);
  WriteLibrary(out, listing.library);
  if (listing.library.Answers()) {
    WriteReaders(out, listing);
    WriteCertificates(out, listing);
    WritePlaceholders(out, listing);
  }
  WriteFailures(out, listing);
  return out.Take();
}

}  // namespace qixx::watch
