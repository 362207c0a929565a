#include "pkcs11/reader.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <tuple>

#include "pkcs11/token_variables.h"
#include "runtime/product.h"
#include "tests/support/fake_card.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

using namespace std::string_literals;
using Helper = pkcs11::CHelperPkcs11;

std::string Named(const std::string& name) {
  return Recipe{.subject = Part("cn", name)}.Build();
}

FakeObject VariableObject(const std::string& value) {
  return {{CKA_CLASS, Raw(CKO_DATA)},   {CKA_TOKEN, Raw(CK_TRUE)}, {CKA_PRIVATE, Raw(CK_FALSE)},
          {CKA_APPLICATION, "Tessaly"}, {CKA_LABEL, ""},           {CKA_VALUE, value}};
}

class ReaderTest : public ::testing::Test {
 protected:
  ReaderTest() {
    runtime::InitProductIdentity();
    EXPECT_TRUE(pkcs11::Pkcs11().Load(QIXX_FAKE_PLAIN));
  }
  ~ReaderTest() override { pkcs11::Pkcs11().Release(); }

  void Insert(CK_SLOT_ID slot, const std::vector<std::string>& certificates) {
    card_.slots.push_back({.id = slot});
    for (const std::string& value : certificates) {
      card_.slots.back().objects.push_back(CertificateObject(value));
    }
  }
  /// The names of what is collected, those of superseded ones in brackets.
  static std::string Collect(const pkcs11::CertificateFilter& filter = {}) {
    std::string names;
    for (const auto& holder : Helper::CollectCertificates(filter, true)) {
      const std::string_view text = holder->certificate.GetSubjectText();
      const std::string name(text.substr(text.rfind('=') + 1));
      names += (holder->superseded ? "[" + name + "]" : name) + " ";
    }
    return names;
  }

  FakeCard card_;
  const FakeModule module_{QIXX_FAKE_PLAIN, CKR_OK, &card_.List()};
};

TEST_F(ReaderTest, FindsWatchSlot) {
  const FakeSlot software{.id = 7, .description = "Virtual Slot 1", .flags = CKF_TOKEN_PRESENT};
  const std::tuple<const char*, std::vector<FakeSlot>, CK_SLOT_ID> rows[] = {
      {"virtual first", {software, {.id = 4}}, 4},
      {"virtual by its flags", {{.id = 8, .flags = 0x80000004}}, 0},
      {"hardware in spite of its name", {{.id = 4, .description = "Virtual Slot"}}, 4},
      {"above 99", {{.id = 100}, {.id = 99}}, 99}};
  for (const auto& [name, slots, found] : rows) {
    card_.slots = slots;
    EXPECT_EQ(Helper::FindWatchSlot(true), found) << name;
  }
}

TEST_F(ReaderTest, FindsOneCertificate) {
  const std::string text = Named("Ann");
  Insert(1, {Named("Bob")});
  Insert(4, {Named("Bob"), text});
  EXPECT_TRUE(Helper::IsCertificatePresent(0, BytesOf(text)));
  EXPECT_FALSE(Helper::IsCertificatePresent(1, BytesOf(text)));
  EXPECT_EQ(pkcs11::Pkcs11().Finalize(nullptr), CKR_OK) << "initialised by the first question";
}

TEST(TokenVariables, AreFoundInTheirStore) {
  const std::pair<std::string, const char*> rows[] = {{"\0n \0user  \0"s, "user"},
                                                      {"\0other\0\0n\0user\0\0"s, "user"},
                                                      {"\0n   "s, ""},
                                                      {"\0n\0as long"s, "as long"}};
  for (const auto& [stored, value] : rows) {
    EXPECT_EQ(pkcs11::FindTokenVariable(BytesOf(stored), "n"), value);
  }
  for (const std::string& stored : {"\0n\0b"s, "\0x\0n\0a\0b\0"s, "\0a\0b\0\0n\0user\0"s,
                                    "\0  \0b\0n\0user\0"s, "n\0user\0"s, "\0n"s, ""s}) {
    EXPECT_EQ(pkcs11::FindTokenVariable(BytesOf(stored), "n"), std::nullopt) << stored.c_str() + 1;
  }
}

TEST_F(ReaderTest, ReadsVariables) {
  Insert(1, {});
  card_.slots[0].objects = {VariableObject("\0name\0value\0"s)};
  EXPECT_EQ(Helper::GetTokenVariable(1, false, "name"), "value");
  EXPECT_EQ(Helper::GetTokenVariable(1, false, "name", 4), std::nullopt) << "one less";
  EXPECT_EQ(Helper::GetTokenVariable(1, true, "name"), std::nullopt) << "that one is public";
  card_.claimedTooMuch = 1;
  EXPECT_EQ(Helper::GetTokenVariable(1, false, "name"), std::nullopt) << "longer than its place";
  card_.claimedTooMuch = 0;
  const std::string endless(pkcs11::kMaxStoredBytes, ' ');
  card_.slots[0].objects = {VariableObject("\0name\0value\0"s + endless)};
  EXPECT_EQ(Helper::GetTokenVariable(1, false, "name"), std::nullopt) << "longer than 1 MiB";
}

TEST_F(ReaderTest, SurvivesHostileLibraries) {
  card_.slots = {{.objects = {CertificateObject(Named("Ann")), VariableObject("")}}};
  CK_FUNCTION_LIST& list = card_.List();
  const auto survives = [this, sound = list](const char* what) {
    EXPECT_FALSE(Helper::GetTokenVariable(1, false, "name")) << what;
    EXPECT_EQ(Collect(), "") << what;
    EXPECT_EQ(card_.openSessions + card_.openSearches, 0) << what;
    card_.List() = sound;
  };
  list.C_GetSlotList = [](auto, auto, auto n) { return *n = ~0UL, CKR_OK; };
  survives("endless slots");
  list.C_GetSlotList = [](auto, auto ids, auto n) -> CK_RV {
    EXPECT_EQ(std::exchange(*n, 2), ids == nullptr ? 0U : 2U) << "as many places as slots";
    return ids == nullptr ? CKR_OK : CKR_BUFFER_TOO_SMALL;
  };
  survives("a slot more between the two questions");
  list.C_FindObjects = [](auto, auto id, auto, auto n) { return *id = 2, *n = 1, CKR_OK; };
  survives("the same object without end");
  list.C_GetAttributeValue = [](auto, auto, auto attributes, CK_ULONG count) {
    while (count-- != 0) attributes[count].ulValueLen = ~0UL;
    return CKR_OK;
  };
  survives("lengths of all ones");
  card_.slots[0].id = pkcs11::kFreeSlot;
  survives("a slot that looks like a free entry");
}

TEST_F(ReaderTest, FiltersCertificates) {
  Insert(94, {Recipe{.notAfter = Der(0x17, "210101000000Z")}.Build(), Named("Ann")});
  Insert(96, {Named("Bob")});
  Insert(97, {Named("Cid")});
  EXPECT_EQ(Collect(), "Ann Bob Cid Ann Lee ") << "the expired one last";
  EXPECT_EQ(Collect({.subject = "cn=bob;cn=cid"}), "Bob Cid ");
  const auto has = [](CK_SLOT_ID slot, const char* subject) {
    std::array<pkcs11::CertificateEntry, 1> entries;
    return Helper::GetCertificates(slot, {.subject = subject}, entries);
  };
  EXPECT_TRUE(has(95, "cn=bob")) << "slots 94 to 96 are one reader";
  EXPECT_FALSE(has(95, "cn=cid"));
  EXPECT_FALSE(has(97, "cn=bob"));
}

TEST_F(ReaderTest, PassesUnreadableObjectsOver) {
  FakeObject sound = CertificateObject(Named("Ann"));
  sound.erase(pkcs11::kSuiteAttribute);
  const auto ofSize = [](std::size_t size) { return CertificateObject(std::string(size, '0')); };
  card_.slots = {{.id = 99, .objects = {sound, ofSize(100), ofSize(101), ofSize(16385)}},
                 {.id = 100, .objects = {sound}}};
  std::vector<pkcs11::CertificateEntry> entries(3);
  EXPECT_TRUE(Helper::GetCertificates({}, {}, entries));
  EXPECT_EQ(entries[0].value.size(), 101U) << "no certificate, but nothing was asked for";
  EXPECT_EQ(entries[1].slot, 100U) << "where the suite's attribute is not asked for";
  EXPECT_EQ(entries[1].label, "label");
  EXPECT_TRUE(entries[2].IsFree());
}

TEST_F(ReaderTest, NeedsNoValueOfTheSuitesOwnAttribute) {
  Insert(1, {Named("Ann")});
  card_.List().C_GetAttributeValue = [](auto, auto, auto attributes, CK_ULONG count) {
    const std::string value = FakeCard::current->slots[0].objects[0].at(CKA_VALUE);
    for (CK_ATTRIBUTE& wanted : std::span(attributes, count)) wanted.ulValueLen = 0;
    attributes[0].ulValueLen = value.copy(static_cast<char*>(attributes[0].pValue), value.size());
    attributes[count - 1].ulValueLen = CK_UNAVAILABLE_INFORMATION;
    return CKR_OK;
  };
  EXPECT_EQ(Collect(), "Ann ");
}

TEST_F(ReaderTest, BelievesNoLengthBeyondItsBuffer) {
  const std::pair<CK_ATTRIBUTE_TYPE, std::size_t> rows[] = {
      {CKA_VALUE, pkcs11::kMaxCertificateBytes},
      {CKA_LABEL, pkcs11::kMaxLabel},
      {CKA_ID, der::kMaxKeyIdentifier},
      {pkcs11::kSuiteAttribute, 8}};
  for (const auto& [type, room] : rows) {
    FakeObject object = CertificateObject(std::string(101, '0'));
    // Empty, one byte more is none too many.
    object[CKA_MODIFIABLE] = object[pkcs11::kSuiteAttribute] = "";
    object[type] = std::string(room, '0');
    card_.slots = {{.objects = {object}}};
    for (const CK_ULONG tooMuch : {0U, 1U}) {
      card_.claimedTooMuch = tooMuch;
      std::array<pkcs11::CertificateEntry, 1> entries;
      EXPECT_EQ(Helper::GetCertificates({}, {}, entries), tooMuch == 0) << type;
    }
  }
}

TEST_F(ReaderTest, MarksDuplicates) {
  const auto issued = [](const char* serial, const char* notAfter) {
    return Recipe{.serial = serial, .notAfter = Der(0x17, notAfter)}.Build();
  };
  const std::string old = issued("1", "480101000000Z");
  const std::string renewed = issued("2", "490101000000Z");
  Insert(1, {old, renewed, renewed});
  Insert(2, {old, issued("3", "470101000000Z")});
  Insert(4, {old, issued("4", "460101000000Z")});
  EXPECT_EQ(Collect(), "[Ann Lee] Ann Lee [Ann Lee] Ann Lee ");
}

}  // namespace
}  // namespace qixx::testing
