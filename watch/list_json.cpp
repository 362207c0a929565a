#include <algorithm>
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

std::string JsonString(std::string_view text) {
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
  void Object(std::string_view name, const auto& writeMembers) { Nest(name, "{}", writeMembers); }
  void Array(std::string_view name, const auto& elements, const auto& write) {
    Nest(name, "[]", [&] { std::ranges::for_each(elements, write); });
  }
  void Objects(std::string_view name, const auto& elements, const auto& writeMembers) {
    Array(name, elements,
          [&](const auto& element) { Object(kUnnamed, [&] { writeMembers(element); }); });
  }
  void Texts(std::string_view name, const std::vector<std::string>& texts) {
    Array(name, texts, [this](std::string_view text) { Text(kUnnamed, text); });
  }
  void Text(std::string_view name, std::string_view text) { Value(name, JsonString(text)); }
  /// An empty text is none.
  void TextOrNull(std::string_view name, std::string_view text) {
    text.empty() ? Null(name) : Text(name, text);
  }
  void Number(std::string_view name, std::uint64_t number) { Value(name, std::to_string(number)); }
  void Bool(std::string_view name, bool value) { Value(name, value ? "true" : "false"); }
  void Null(std::string_view name) { Value(name, "null"); }

  [[nodiscard]] std::string Take() { return std::move(text_) + '\n'; }

 private:
  /// The name of what stands in an array.
  static constexpr std::string_view kUnnamed{};

  void Nest(std::string_view name, std::string_view brackets, const auto& writeContent) {
    Value(name, brackets.substr(0, 1));
    ++depth_;
    isFirst_ = true;
    writeContent();
    --depth_;
    if (!isFirst_) BreakLine();
    text_ += brackets[1];
    isFirst_ = false;
  }
  void Value(std::string_view name, std::string_view value) {
    if (!isFirst_) text_ += ',';
    if (depth_ != 0) BreakLine();
    if (!name.empty()) text_.append(JsonString(name)).append(": ");
    text_ += value;
    isFirst_ = false;
  }
  void BreakLine() { text_.append(1, '\n').append(2 * depth_, ' '); }

  std::string text_;
  std::size_t depth_ = 0;
  bool isFirst_ = true;
};

void WriteConfiguration(JsonWriter& json, const Listing& listing) {
  json.Objects("files", listing.files, [&](const ListedFile& file) {
    json.Text("role", file.role.name);
    json.Text("path", file.path);
    json.Text("reason", file.reason.name);
    json.Text("state", file.state.name);
    json.TextOrNull("fault", file.fault);
  });
  if (!listing.command) return json.Null("watch");
  json.Object("watch", [&] {
    json.Text("command", listing.command->text);
    json.Text("source", listing.command->source.name);
    json.Text("match", listing.command->match);
  });
}

void WriteLibrary(JsonWriter& json, const ListedLibrary& library) {
  json.Object("library", [&] {
    json.Text("name", library.name);
    json.TextOrNull("file", library.file);
    json.Texts("modules", library.modules);
    json.Bool("answers", library.Answers());
    json.TextOrNull("result", library.file.empty() ? "" : pkcs11::ResultName(library.result));
    json.TextOrNull("fault", library.fault);
    json.TextOrNull("manufacturer", library.manufacturer);
    json.TextOrNull("description", library.description);
    json.TextOrNull("version", library.version);
    json.TextOrNull("cryptoki", library.cryptoki);
    json.Objects("tried", library.tried, [&](const runtime::FailedOpen& failed) {
      json.Text("path", failed.path);
      json.Text("reason", failed.reason);
    });
  });
}

void WriteReaders(JsonWriter& json, const Listing& listing) {
  json.Objects("readers", listing.readers, [&](const ListedReader& reader) {
    json.Number("slot", reader.slot);
    json.TextOrNull("description", reader.description);
    json.TextOrNull("manufacturer", reader.manufacturer);
    reader.isKnown ? json.Bool("removable", reader.isRemovable) : json.Null("removable");
    reader.isKnown ? json.Bool("card", reader.hasCard) : json.Null("card");
    json.Bool("counts", reader.counting == Counting::kYes);
    json.TextOrNull("reason", reader.counting.name);
  });
  json.Objects("cards", listing.cards, [&](const ListedCard& card) {
    json.Number("slot", card.slot);
    json.TextOrNull("label", card.label);
    json.TextOrNull("manufacturer", card.manufacturer);
    json.TextOrNull("model", card.model);
    json.TextOrNull("serial", card.serial);
    json.Number("flags", card.flags);
    json.Texts("flagNames", TokenFlagNames(card.flags));
  });
}

void WriteCertificates(JsonWriter& json, const Listing& listing) {
  json.Objects("certificates", listing.certificates, [&](const ListedCertificate& certificate) {
    json.Number("slot", certificate.slot);
    json.TextOrNull("label", certificate.label);
    json.Text("subject", certificate.subject);
    json.Text("issuer", certificate.issuer);
    json.TextOrNull("principalName", certificate.upn);
    json.TextOrNull("email", certificate.email);
    json.Text("serial", certificate.serial);
    json.Texts("keyUsage", KeyUsageNames(certificate.usages));
    json.Objects("extendedKeyUsage", certificate.purposes, [&](const std::string& purpose) {
      json.Text("identifier", purpose);
      json.TextOrNull("name", PurposeName(purpose));
    });
    json.TextOrNull("notBefore", der::TimeText(certificate.notBefore));
    json.TextOrNull("notAfter", der::TimeText(certificate.notAfter));
    json.Bool("expired", certificate.isExpired);
    json.Bool("superseded", certificate.verdict == Verdict::kSuperseded);
    json.Bool("taken", certificate.verdict == Verdict::kTaken);
    json.Text("verdict", WordingOf(certificate.verdict).name);
  });
  json.Objects("omitted", listing.omitted, [&](const OmittedObject& object) {
    json.Number("slot", object.slot);
    json.TextOrNull("label", object.label);
    json.Text("reason", object.reason.name);
  });
}

void WritePlaceholders(JsonWriter& json, const Listing& listing) {
  json.Bool("matchingCard", listing.hasMatchingCard);
  json.Objects("placeholders", listing.placeholders, [&](const ListedPlaceholder& held) {
    json.Text("name", held.name);
    json.Text("value", held.value);
    json.Bool("filled", held.isFilled);
  });
}

void WriteFailures(JsonWriter& json, const Listing& listing) {
  json.Objects("failures", listing.failures, [&](const FailedCall& failed) {
    json.Text("call", failed.call);
    failed.slot ? json.Number("slot", *failed.slot) : json.Null("slot");
    json.TextOrNull("result", failed.result ? pkcs11::ResultName(*failed.result) : "");
  });
}

}  // namespace

std::string JsonOf(const Listing& listing, std::string_view version) {
  JsonWriter json;
  json.Object("", [&] {
    json.Text("version", version);
    WriteConfiguration(json, listing);
    WriteLibrary(json, listing.library);
    WriteReaders(json, listing);
    WriteCertificates(json, listing);
    WritePlaceholders(json, listing);
    WriteFailures(json, listing);
  });
  return json.Take();
}

}  // namespace qixx::watch
