#include "watch/list_json.h"

#include <cstdio>
#include <optional>

#include "pkcs11/result_names.h"
#include "runtime/text.h"
#include "watch/card_text.h"
#include "watch/list_names.h"

namespace qixx::watch {
namespace {

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  while (!text.empty()) {
    const std::optional<char32_t> character = runtime::TakeUtf8(text);
    const char32_t shown = character.value_or(U'\uFFFD');
    if (shown == U'"' || shown == U'\\') {
      quoted += '\\';
      quoted += static_cast<char>(shown);
    } else if (Misleads(shown)) {
      char escape[16];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(shown));
      quoted += escape;
    } else {
      runtime::AppendUtf8(quoted, shown);
    }
  }
  return quoted + '"';
}

/// Writes values one after the other; in an object each of them has a name.
class JsonWriter {
 public:
  template <typename Content>
  void Object(std::string_view name, const Content& content) {
    Nest(name, '{', '}', content);
  }
  template <typename Elements, typename Content>
  void Array(std::string_view name, const Elements& elements, const Content& content) {
    Nest(name, '[', ']', [&elements, &content] {
      for (const auto& element : elements) content(element);
    });
  }
  void Text(std::string_view name, std::string_view text) { Value(name, Quoted(text)); }
  /// An empty text is none.
  void TextOrNull(std::string_view name, std::string_view text) {
    text.empty() ? Null(name) : Text(name, text);
  }
  void Number(std::string_view name, std::uint64_t number) { Value(name, std::to_string(number)); }
  void Bool(std::string_view name, bool value) { Value(name, value ? "true" : "false"); }
  void Null(std::string_view name) { Value(name, "null"); }

  [[nodiscard]] std::string Take() { return std::move(text_) + '\n'; }

 private:
  template <typename Content>
  void Nest(std::string_view name, char open, char close, const Content& content) {
    Value(name, std::string(1, open));
    ++depth_;
    isFirst_ = true;
    content();
    --depth_;
    if (!isFirst_) BreakLine();
    text_ += close;
    isFirst_ = false;
  }
  void Value(std::string_view name, std::string_view value) {
    if (!isFirst_) text_ += ',';
    if (depth_ != 0) BreakLine();
    if (!name.empty()) text_.append(Quoted(name)).append(": ");
    text_ += value;
    isFirst_ = false;
  }
  void BreakLine() { text_.append(1, '\n').append(2 * depth_, ' '); }

  std::string text_;
  std::size_t depth_ = 0;
  bool isFirst_ = true;
};

/// The name of what stands in an array.
constexpr std::string_view kUnnamed;

class ListingWriter {
 public:
  explicit ListingWriter(const Listing& listing) : listing_(listing) {}

  std::string Write(std::string_view version) {
    json_.Object(kUnnamed, [this, version] {
      json_.Text("version", version);
      WriteFiles();
      WriteCommand();
      WriteLibrary();
      WriteReaders();
      WriteCards();
      WriteCertificates();
      json_.Bool("matchingCard", listing_.hasMatchingCard);
      WritePlaceholders();
      WriteFailures();
    });
    return json_.Take();
  }

 private:
  void WriteFiles() {
    json_.Array("files", listing_.files, [this](const ListedFile& file) {
      json_.Object(kUnnamed, [this, &file] {
        json_.Text("role", NameOf(file.role));
        json_.Text("path", file.path);
        json_.Text("reason", NameOf(file.reason));
        json_.Text("state", NameOf(file.state));
        json_.TextOrNull("fault", file.fault);
      });
    });
  }
  void WriteCommand() {
    if (!listing_.command) return json_.Null("watch");
    json_.Object("watch", [this] {
      json_.Text("command", listing_.command->text);
      json_.Text("source", NameOf(listing_.command->source));
      json_.Text("match", listing_.command->match);
    });
  }
  void WriteLibrary() {
    json_.Object("library", [this] {
      const ListedLibrary& library = listing_.library;
      json_.Text("name", library.name);
      json_.TextOrNull("file", library.file);
      WriteTexts("modules", library.modules);
      json_.Bool("answers", library.Answers());
      if (library.file.empty()) {
        json_.Null("result");
      } else {
        json_.Text("result", pkcs11::ResultName(library.result));
      }
      json_.TextOrNull("fault", library.fault);
      const ListedVersion version = library.version.value_or(ListedVersion{});
      json_.TextOrNull("manufacturer", version.manufacturer);
      json_.TextOrNull("description", version.description);
      json_.TextOrNull("version", library.version ? VersionText(version.version) : "");
      json_.TextOrNull("cryptoki", library.version ? VersionText(version.cryptoki) : "");
      json_.Array("tried", library.tried, [this](const runtime::FailedOpen& failed) {
        json_.Object(kUnnamed, [this, &failed] {
          json_.Text("path", failed.path);
          json_.Text("reason", failed.reason);
        });
      });
    });
  }
  void WriteReaders() {
    json_.Array("readers", listing_.readers, [this](const ListedReader& reader) {
      json_.Object(kUnnamed, [this, &reader] {
        json_.Number("slot", reader.slot);
        json_.TextOrNull("description", reader.description);
        json_.TextOrNull("manufacturer", reader.manufacturer);
        WriteKnown("removable", reader.isKnown, reader.isRemovable);
        WriteKnown("card", reader.isKnown, reader.hasCard);
        json_.Bool("counts", reader.counting == Counting::kYes);
        json_.TextOrNull("reason", NameOf(reader.counting));
      });
    });
  }
  void WriteCards() {
    json_.Array("cards", listing_.cards, [this](const ListedCard& card) {
      json_.Object(kUnnamed, [this, &card] {
        json_.Number("slot", card.slot);
        json_.TextOrNull("label", card.label);
        json_.TextOrNull("manufacturer", card.manufacturer);
        json_.TextOrNull("model", card.model);
        json_.TextOrNull("serial", card.serial);
        json_.Number("flags", card.flags);
        WriteTexts("flagNames", TokenFlagNames(card.flags));
      });
    });
  }
  void WriteCertificates() {
    json_.Array("certificates", listing_.certificates, [this](const ListedCertificate& found) {
      json_.Object(kUnnamed, [this, &found] { WriteCertificate(found); });
    });
    json_.Array("omitted", listing_.omitted, [this](const OmittedObject& object) {
      json_.Object(kUnnamed, [this, &object] {
        json_.Number("slot", object.slot);
        json_.TextOrNull("label", object.label);
        json_.Text("reason", NameOf(object.reason));
      });
    });
  }
  void WriteCertificate(const ListedCertificate& certificate) {
    json_.Number("slot", certificate.slot);
    json_.TextOrNull("label", certificate.label);
    json_.Text("subject", certificate.subject);
    json_.Text("issuer", certificate.issuer);
    json_.TextOrNull("principalName", certificate.upn);
    json_.TextOrNull("email", certificate.email);
    json_.Text("serial", certificate.serial);
    json_.Array("keyUsage", certificate.usages,
                [this](unsigned bit) { json_.Text(kUnnamed, KeyUsageName(bit)); });
    json_.Array("extendedKeyUsage", certificate.purposes, [this](const std::string& purpose) {
      json_.Object(kUnnamed, [this, &purpose] {
        json_.Text("identifier", purpose);
        json_.TextOrNull("name", PurposeName(purpose));
      });
    });
    json_.TextOrNull("notBefore", TimeText(certificate.notBefore));
    json_.TextOrNull("notAfter", TimeText(certificate.notAfter));
    json_.Bool("expired", certificate.isExpired);
    json_.Bool("superseded", certificate.verdict == Verdict::kSuperseded);
    json_.Bool("taken", certificate.verdict == Verdict::kTaken);
    json_.Text("verdict", NameOf(certificate.verdict));
  }
  void WritePlaceholders() {
    json_.Array("placeholders", listing_.placeholders, [this](const ListedPlaceholder& held) {
      json_.Object(kUnnamed, [this, &held] {
        json_.Text("name", held.name);
        json_.Text("value", held.value);
        json_.Bool("filled", held.isFilled);
      });
    });
  }
  void WriteFailures() {
    json_.Array("failures", listing_.failures, [this](const FailedCall& failed) {
      json_.Object(kUnnamed, [this, &failed] {
        json_.Text("call", failed.call);
        failed.slot ? json_.Number("slot", *failed.slot) : json_.Null("slot");
        json_.TextOrNull("result", failed.result ? pkcs11::ResultName(*failed.result) : "");
      });
    });
  }

  void WriteTexts(std::string_view name, const std::vector<std::string>& texts) {
    json_.Array(name, texts, [this](const std::string& text) { json_.Text(kUnnamed, text); });
  }
  void WriteKnown(std::string_view name, bool isKnown, bool value) {
    isKnown ? json_.Bool(name, value) : json_.Null(name);
  }

  const Listing& listing_;
  JsonWriter json_;
};

}  // namespace

std::string JsonOf(const Listing& listing, std::string_view version) {
  return ListingWriter(listing).Write(version);
}

}  // namespace qixx::watch
