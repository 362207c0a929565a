#include "pkcs11/reader.h"

#include <gmock/gmock.h>

#include <optional>
#include <tuple>
#include <utility>

#include "runtime/files.h"
#include "tests/support/fake_card.h"
#include "tests/support/recipes.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;
using Helper = CHelperPkcs11;

class ReaderTest : public ::testing::Test {
 protected:
  ReaderTest() {
    InitProductIdentity();
    EXPECT_TRUE(Pkcs11().Load(QIXX_FAKE_PLAIN));
  }
  ~ReaderTest() override {
    while (Pkcs11().InitializeCount() != 0) Pkcs11().Finalize(nullptr);
    Pkcs11().Release();
  }

  static FakeObject VariableObject(const std::string& value) {
    return {{CKA_CLASS, Raw(CKO_DATA)},   {CKA_TOKEN, Raw(CK_TRUE)}, {CKA_PRIVATE, Raw(CK_TRUE)},
            {CKA_APPLICATION, "Tessaly"}, {CKA_LABEL, ""},           {CKA_VALUE, value}};
  }
  static std::string Named(const std::string& name) {
    return Recipe{.subject = Part("cn", name)}.Build();
  }
  void Insert(CK_SLOT_ID slot, const std::vector<std::string>& certificates) {
    card_.slots.push_back({.id = slot});
    for (const std::string& value : certificates) {
      card_.slots.back().objects.push_back(CertificateObject(value));
    }
  }
  /// The subjects of what is collected into that many places, those of superseded ones in brackets.
  static std::string Collect(std::size_t places = 9, std::uint8_t mask = kAnyKeyUsage,
                             const char* subject = nullptr, const char* issuer = nullptr) {
    std::vector<CertificatePtr> list(places + 1);
    const bool any = Helper::CollectCertificates(list, mask, subject, issuer, true);
    std::string subjects;
    for (auto holder = list.begin(); *holder != nullptr; ++holder) {
      const std::string text(GetSubjectText(**holder));
      subjects += ((*holder)->superseded ? "[" + text + "]" : text) + " ";
    }
    EXPECT_EQ(any, !subjects.empty());
    return subjects;
  }

  FakeCard card_;
  const FakeModule module_{QIXX_FAKE_PLAIN, CKR_OK, &card_.List()};
  const TraceCapture trace_;
};

TEST(Slots, NormalizeToGroups) {
  const CK_SLOT_ID rows[][2] = {{0, 0}, {1, 1}, {3, 1}, {4, 4}, {96, 94}, {97, 97}, {98, 98}};
  for (const auto& row : rows) EXPECT_EQ(Helper::NormalizeSlotId(row[0]), row[1]);
}

TEST_F(ReaderTest, FindsWatchSlot) {
  const FakeSlot reader{.id = 4};
  const FakeSlot software{.id = 7, .description = "Virtual Slot 1", .flags = CKF_TOKEN_PRESENT};
  const std::tuple<const char*, std::vector<FakeSlot>, CK_SLOT_ID, CK_SLOT_ID> rows[] = {
      {"virtual first", {software, reader}, 4, 4},
      {"virtual alone, the last one", {{.id = 8, .flags = 0x80000004}, software}, 0, 7},
      {"virtual by its flags", {software, {.id = 8, .flags = 0x80000004}}, 0, 8},
      {"hardware in spite of its name", {{.id = 4, .description = "Virtual Slot"}}, 4, 4},
      {"almost that name", {{.id = 4, .description = "Virtual slot", .flags = 1}}, 4, 4},
      {"above 99", {{.id = 100}, {.id = 99}}, 99, 100},
      {"unreadable", {{.id = 2, .description = ""}, reader}, 4, 4},
  };
  for (const auto& [name, slots, amongReaders, amongAll] : rows) {
    card_.slots = slots;
    EXPECT_EQ(Helper::FindWatchSlot(true), amongReaders) << name;
    EXPECT_EQ(Helper::FindWatchSlot(false), amongAll) << name;
  }
}

TEST_F(ReaderTest, FindsOneCertificate) {
  const std::string text = Named("Ann");
  const Bytes value = BytesOf(text);
  Insert(1, {Named("Bob")});
  Insert(4, {Named("Bob"), text});
  Insert(7, {text});
  CK_SESSION_HANDLE session = 0;
  CK_OBJECT_HANDLE object = 0;
  EXPECT_TRUE(Helper::FindCertificateOnSlot(value, 4, &session, &object));
  EXPECT_EQ(card_.openSessions, 1) << "handed out";
  EXPECT_EQ(object, 2U);
  Pkcs11().CloseSession(session);
  const CK_SLOT_ID rows[][2] = {{0, 4}, {1, 4}, {7, 7}, {50, 4}};
  for (const auto& [preferred, found] : rows) {
    CK_SLOT_ID slot = preferred;
    EXPECT_TRUE(Helper::FindCertificateOnAnySlot(value, &slot, nullptr, nullptr));
    EXPECT_EQ(slot, found) << preferred;
  }
  EXPECT_TRUE(Helper::IsCertificatePresent(0, value));
  EXPECT_FALSE(Helper::IsCertificatePresent(1, value));
  EXPECT_EQ(Pkcs11().InitializeCount(), 1U);
}

TEST(Variables, AreFoundInTheirStore) {
  const std::pair<std::string, const char*> rows[] = {
      {"\0n \0user  \0"s, "user"},
      {"\0other\0\0n\0user\0\0"s, "user"},
      {"\0n\0user"s, "user"},
      {"\0n\0a\0n\0b\0"s, "a"},
      {"\0n   "s, ""},
      {"\0n\0as long\0"s, "as long"},
      {"\0n\0too long\0"s, nullptr},
      {"\0x\0n\0a\0b\0"s, nullptr},
      {"\0a\0b\0\0n\0user\0"s, nullptr},
      {"\0a\0b\0n\0b"s, nullptr},
      {"\0N\0user\0"s, nullptr},
      {"n\0user\0"s, nullptr},
      {"\0\0"s, nullptr},
  };
  for (const auto& [store, expected] : rows) {
    char value[8] = "before";
    EXPECT_EQ(Helper::FindVariable(BytesOf(store), "n", value), expected != nullptr);
    EXPECT_STREQ(value, expected == nullptr ? "before" : expected) << store.c_str() + 1;
  }
}

TEST_F(ReaderTest, KeepsVariablesInOneObject) {
  Insert(1, {});
  std::vector<FakeObject>& objects = card_.slots[0].objects;
  CK_SESSION_HANDLE session = 0;
  CK_OBJECT_HANDLE object = 0;
  EXPECT_FALSE(Helper::FindVariableObject(1, true, false, session, object));
  EXPECT_TRUE(Helper::FindVariableObject(1, true, true, session, object));
  Pkcs11().CloseSession(session);
  EXPECT_THAT(objects, ElementsAre(VariableObject("\0"s)));
  objects[0] = VariableObject("\0name\0user\0"s);
  char value[5];
  EXPECT_TRUE(Helper::GetTokenVariable(1, true, "name", value));
  EXPECT_FALSE(Helper::GetTokenVariable(1, false, "name", value)) << "private";
  card_.List().C_FindObjects = [](auto...) -> CK_RV { return CKR_DEVICE_ERROR; };
  EXPECT_FALSE(Helper::FindVariableObject(1, false, true, session, object));
  EXPECT_EQ(objects.size(), 1U) << "a failed search does not say that there is none";
}

TEST_F(ReaderTest, SurvivesHostileLibraries) {
  const std::pair<const char*, void (*)(CK_FUNCTION_LIST&)> rows[] = {
      {"endless slots",
       [](auto& list) {
         list.C_GetSlotList = [](auto, auto, auto n) { return *n = ~0UL, CKR_OK; };
         list.C_OpenSession = [](auto...) { return CKR_SLOT_ID_INVALID; };
       }},
      {"slots that come between two calls",
       [](auto& list) {
         list.C_GetSlotList = [](auto, auto ids, auto n) { return *n = ids ? 2 : 1, CKR_OK; };
       }},
      {"a slot that looks like a free entry",
       [](auto&) { FakeCard::current->slots[0].id = kFreeSlot; }},
      {"the same object without end",
       [](auto& list) {
         list.C_FindObjects = [](auto, auto id, auto, auto n) { return *id = 2, *n = 1, CKR_OK; };
       }},
      {"lengths of all ones",
       [](auto& list) {
         list.C_GetAttributeValue = [](auto, auto, auto attributes, CK_ULONG count) {
           while (count-- != 0) attributes[count].ulValueLen = ~0UL;
           return CKR_OK;
         };
       }},
      {"nothing but null pointers", [](auto& list) { list = {}; }},
  };
  const CK_FUNCTION_LIST sound = card_.List();
  for (const auto& [name, spoil] : rows) {
    SCOPED_TRACE(name);
    card_.slots = {{.objects = {CertificateObject(Named("Ann")), VariableObject("")}}};
    card_.List() = sound;
    spoil(card_.List());
    EXPECT_EQ(Collect(), "");
    char value[16];
    EXPECT_FALSE(Helper::GetTokenVariable(1, true, "name", value));
    EXPECT_EQ(card_.openSessions + card_.openSearches, 0);
  }
}

TEST_F(ReaderTest, FiltersCertificates) {
  const auto named = [](const char* name, const char* usage, const char* issuer = "CA") {
    return Recipe{.issuer = Part("cn", issuer),
                  .subject = Part("cn", name),
                  .extensions = *usage == '\0' ? "" : Extension(kKeyUsage, FromHex(usage))}
        .Build();
  };
  Insert(1, {named("Sign", "03020780"), named("Seal", "03020520", "Other CA"), named("Any", ""),
             named("Bits", "0303008000")});
  EXPECT_EQ(Collect(), "cn=Sign cn=Seal cn=Any cn=Bits ");
  EXPECT_EQ(Collect(9, 0x80), "cn=Sign cn=Any ") << "the last byte of the bits counts";
  EXPECT_EQ(Collect(9, 255, "cn=sign;cn=any"), "cn=Sign cn=Any ");
  EXPECT_EQ(Collect(9, 255, nullptr, "cn=other ca"), "cn=Seal ");
  EXPECT_EQ(Collect(9, 255, "", ""), "cn=Sign cn=Seal cn=Any ");
  EXPECT_EQ(Collect(9, 0x80, "cn=seal"), "");
  EXPECT_TRUE(trace_.Has("HelperPkcs11 - Get certificates: 0x80 '[null]' 'cn=seal'"));
}

TEST_F(ReaderTest, PassesUnreadableObjectsOver) {
  const auto altered = [](CK_ATTRIBUTE_TYPE type, std::size_t length) {
    FakeObject object = CertificateObject(Named("Ann"));
    object[type] = std::string(length, '0');
    return object;
  };
  FakeObject withoutSuiteValue = CertificateObject(Named("Ann"));
  withoutSuiteValue.erase(kSuiteAttribute);
  card_.slots = {
      {.id = 99,
       .objects = {altered(CKA_LABEL, 256), altered(CKA_ID, 65), withoutSuiteValue,
                   altered(CKA_VALUE, 100), altered(CKA_VALUE, 101), altered(CKA_LABEL, 255)}},
      {.id = 100, .objects = {withoutSuiteValue}}};
  std::vector<CertificateEntry> entries(4);
  EXPECT_TRUE(Helper::GetCertificates(std::nullopt, kAnyKeyUsage, nullptr, nullptr, entries));
  EXPECT_EQ(entries[0].valueLength, 101U) << "no certificate, but nothing was asked for";
  EXPECT_EQ(entries[1].label.get(), std::string(255, '0'));
  EXPECT_STREQ(entries[1].notAfter, "491231235959Z");
  EXPECT_EQ(entries[2].slot, 100U);
  EXPECT_TRUE(entries[3].IsFree());
}

TEST_F(ReaderTest, MarksDuplicates) {
  const auto issued = [](const char* serial, const char* notAfter) {
    return Recipe{.serial = serial, .notAfter = Der(0x17, notAfter), .subject = Part("cn", "Ann")}
        .Build();
  };
  const std::string old = issued("1", "480101000000Z");
  const std::string renewed = issued("2", "490101000000Z");
  Insert(1, {old, renewed, renewed});
  Insert(2, {old, issued("3", "470101000000Z")});
  Insert(4, {old, issued("4", "460101000000Z")});
  EXPECT_EQ(Collect(), "[cn=Ann] cn=Ann [cn=Ann] cn=Ann ");
  EXPECT_EQ(Collect(3), "[cn=Ann] cn=Ann ") << "the third place went to a copy in slot 2";
}

TEST_F(ReaderTest, AddsWhereThereIsRoom) {
  const std::string ann = Named("Ann");
  const std::string bob = Named("Bob");
  std::vector<CertificatePtr> list(2);
  EXPECT_TRUE(Helper::AddCertificate(list, BytesOf(ann), 0, {}, false));
  EXPECT_FALSE(Helper::AddCertificate(list, BytesOf(bob), 1, {}, false)) << "full";
  list.emplace_back();
  EXPECT_FALSE(Helper::AddCertificate(list, BytesOf(ann), 5, {}, false)) << "the same";
  EXPECT_EQ(list[0]->rawSlot, 5U) << "unknown before";
}

TEST_F(ReaderTest, KeepsEntriesUpToDate) {
  const std::string expired = Recipe{.notAfter = Der(0x17, "210101000000Z")}.Build();
  Insert(1, {expired, Named("Ann")});
  Insert(3, {Named("Bob")});
  Insert(4, {Named("Cid")});
  std::vector<CertificateEntry> entries(5);
  bool changed = false;
  /// The slots of the entries, with "-" for a free one.
  const auto collect = [&](std::optional<CK_SLOT_ID> slot) {
    changed = Helper::GetCertificates(slot, kAnyKeyUsage, nullptr, nullptr, entries);
    std::string slots;
    for (const auto& entry : entries) slots += entry.IsFree() ? "-" : std::to_string(entry.slot);
    return slots;
  };
  EXPECT_EQ(collect(2), "131--") << "the group of slots 1 to 3, the expired one last";
  EXPECT_EQ(collect(2), "131--");
  EXPECT_FALSE(changed);
  EXPECT_EQ(collect(std::nullopt), "1341-");
  card_.slots = {card_.slots[1]};
  EXPECT_EQ(collect(std::nullopt), "-341-") << "1 and 4 went, but the walk stopped at slot 3";
  card_.slots.clear();
  EXPECT_EQ(collect(std::nullopt), "-341-") << "without a token nothing is looked at";
  EXPECT_FALSE(changed);
}

}  // namespace
}  // namespace qixx::testing
