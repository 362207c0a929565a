#include "pkcs11/reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <utility>

#include "runtime/files.h"
#include "tests/der/recipes.h"
#include "tests/pkcs11/fake_card.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

using ::testing::ElementsAre;

class ReaderTest : public ::testing::Test {
 protected:
  ReaderTest() {
    InitProductIdentity();
    Pkcs11().SetLibraryPath(QIXX_FAKE_SUITE);
    Pkcs11().Load(QIXX_FAKE_SUITE);
    trace_.Clear();
  }
  ~ReaderTest() override {
    while (Pkcs11().InitializeCount() != 0) Pkcs11().Finalize(nullptr);
    Pkcs11().Release();
  }

  static FakeObject CertificateObject(const std::string& value) {
    return {{CKA_CLASS, Raw(CKO_CERTIFICATE)},
            {CKA_CERTIFICATE_TYPE, Raw(CKC_X_509)},
            {CKA_TOKEN, Raw(CK_TRUE)},
            {CKA_MODIFIABLE, Raw(CK_TRUE)},
            {CKA_LABEL, "label"},
            {CKA_ID, "id"},
            {CKA_VALUE, value},
            {kSuiteAttribute, std::string(8, '\0')}};
  }
  static FakeObject VariableObject(const std::string& value, CK_BBOOL isPrivate = CK_FALSE) {
    return {{CKA_CLASS, Raw(CKO_DATA)},   {CKA_TOKEN, Raw(CK_TRUE)}, {CKA_PRIVATE, Raw(isPrivate)},
            {CKA_APPLICATION, "Tessaly"}, {CKA_LABEL, ""},           {CKA_VALUE, value}};
  }
  static std::string Named(const std::string& name) {
    return Recipe{.subject = Part("cn", name)}.Build();
  }
  void Insert(CK_SLOT_ID slot, const std::vector<std::string>& certificates) {
    FakeSlot inserted{.id = slot};
    for (const std::string& value : certificates) {
      inserted.objects.push_back(CertificateObject(value));
    }
    card_.slots.push_back(inserted);
  }
  /// Subjects, those of superseded ones in brackets.
  static std::vector<std::string> Subjects(std::span<const CertificatePtr> list) {
    std::vector<std::string> subjects;
    for (std::size_t i = 0; list[i] != nullptr; ++i) {
      const std::string subject(GetSubjectText(*list[i]));
      subjects.push_back(list[i]->superseded ? "[" + subject + "]" : subject);
    }
    return subjects;
  }

  FakeCard card_;
  FakeModule module_{QIXX_FAKE_SUITE, CKR_OK, &card_.List()};
  TraceCapture trace_;
};

TEST(Slots, TellsVirtualOnes) {
  const struct {
    const char* description;
    CK_FLAGS flags;
    bool isVirtual;
  } rows[] = {
      {"Virtual Slot 1", 0, true},
      {"Virtual Slo", 0, false},
      {"virtual slot", 0, false},
      {"Virtual Slot", CKF_HW_SLOT, false},
      {"Reader", 0x80000000 | CKF_HW_SLOT, true},
      {"Reader", CK_FLAGS{1} << 63, false},
  };
  for (const auto& row : rows) {
    const Bytes description = BytesOf(row.description);
    EXPECT_EQ(CHelperPkcs11::IsVirtualSlot(description, row.flags), row.isVirtual)
        << row.description << " " << row.flags;
  }
}

TEST(Slots, NormalizesToGroups) {
  const CK_SLOT_ID rows[][2] = {{0, 0},   {1, 1},   {2, 1},   {3, 1},   {4, 4},      {6, 4},
                                {94, 94}, {96, 94}, {97, 97}, {98, 98}, {~0UL, ~0UL}};
  for (const auto& row : rows) EXPECT_EQ(CHelperPkcs11::NormalizeSlotId(row[0]), row[1]);
}

TEST_F(ReaderTest, FindsWatchSlot) {
  const FakeSlot reader{.id = 4};
  const FakeSlot software{.id = 7, .description = "Virtual Slot", .flags = CKF_TOKEN_PRESENT};
  const FakeSlot later{.id = 8, .description = "Virtual Slot", .flags = CKF_TOKEN_PRESENT};
  const FakeSlot high{.id = 100};
  const FakeSlot last{.id = 99};
  const FakeSlot broken{.id = 2, .description = ""};
  const struct {
    const char* name;
    std::vector<FakeSlot> slots;
    CK_SLOT_ID withReadersOnly;
    CK_SLOT_ID withAll;
  } rows[] = {
      {"none", {}, 0, 0},
      {"virtual first", {software, reader}, 4, 4},
      {"virtual last", {reader, software}, 4, 4},
      {"virtual alone", {software, later}, 0, 8},
      {"above 99", {high, last}, 99, 100},
      {"unreadable", {broken, reader}, 4, 4},
  };
  for (const auto& row : rows) {
    card_.slots = row.slots;
    EXPECT_EQ(CHelperPkcs11::FindWatchSlot(true), row.withReadersOnly) << row.name;
    EXPECT_EQ(CHelperPkcs11::FindWatchSlot(false), row.withAll) << row.name;
  }
}

TEST_F(ReaderTest, FindsOneCertificate) {
  const std::string value = Named("Ann");
  Insert(1, {Named("Bob")});
  Insert(4, {Named("Bob"), value});
  Insert(7, {value});
  CK_SESSION_HANDLE session = 0;
  CK_OBJECT_HANDLE object = 0;
  EXPECT_FALSE(CHelperPkcs11::FindCertificateOnSlot(BytesOf(value), 1, &session, &object));
  EXPECT_FALSE(CHelperPkcs11::FindCertificateOnSlot(BytesOf(value), 2, &session, &object));
  EXPECT_TRUE(CHelperPkcs11::FindCertificateOnSlot(BytesOf(value), 4, &session, &object));
  EXPECT_EQ(card_.openSessions, 1) << "handed out";
  EXPECT_EQ(object, 2U);
  Pkcs11().CloseSession(session);

  const CK_SLOT_ID rows[][2] = {{0, 4}, {1, 4}, {7, 7}, {4, 4}, {50, 4}};
  for (const auto& [preferred, found] : rows) {
    CK_SLOT_ID slot = preferred;
    EXPECT_TRUE(CHelperPkcs11::FindCertificateOnAnySlot(BytesOf(value), &slot, nullptr, nullptr));
    EXPECT_EQ(slot, found) << preferred;
  }
  EXPECT_TRUE(CHelperPkcs11::IsCertificatePresent(0, BytesOf(value)));
  EXPECT_TRUE(CHelperPkcs11::IsCertificatePresent(4, BytesOf(value)));
  EXPECT_FALSE(CHelperPkcs11::IsCertificatePresent(1, BytesOf(value)));
  EXPECT_EQ(Pkcs11().InitializeCount(), 1U);
}

TEST_F(ReaderTest, ReadsTokenVariables) {
  using namespace std::string_literals;
  const struct {
    const char* name;
    std::string store;
    const char* value;  // of ActiveLogonUPN, null for none
  } rows[] = {
      {"padded", "\0ActiveLogonUPN \0user  \0"s, "user"},
      {"second", "\0other\0x\0ActiveLogonUPN\0user\0\0"s, "user"},
      {"behind an empty value", "\0other\0\0ActiveLogonUPN\0user\0"s, "user"},
      {"first of two", "\0ActiveLogonUPN\0a\0ActiveLogonUPN\0b\0"s, "a"},
      {"among the values", "\0x\0ActiveLogonUPN\0user\0x\0"s, nullptr},
      {"behind the end", "\0a\0b\0\0ActiveLogonUPN\0user\0"s, nullptr},
      {"another case", "\0activelogonupn\0user\0"s, nullptr},
      {"value without terminator", "\0ActiveLogonUPN\0user"s, "user"},
      {"name without terminator", "\0ActiveLogonUPN"s, ""},
      {"no zero in front", "ActiveLogonUPN\0user\0"s, nullptr},
      {"two bytes", "\0\0"s, nullptr},
      {"empty", ""s, nullptr},
  };
  for (const auto& row : rows) {
    card_.slots = {{.id = 1, .objects = {VariableObject(row.store)}}};
    char value[8] = "before";
    EXPECT_EQ(CHelperPkcs11::GetTokenVariable(1, false, "ActiveLogonUPN", value),
              row.value != nullptr)
        << row.name;
    EXPECT_STREQ(value, row.value == nullptr ? "before" : row.value) << row.name;
  }

  card_.slots = {{.id = 1, .objects = {VariableObject("\0name\0user\0a\0\0"s, CK_TRUE)}}};
  char large[5];
  EXPECT_TRUE(CHelperPkcs11::GetTokenVariable(1, true, "name", large));
  EXPECT_FALSE(CHelperPkcs11::GetTokenVariable(1, true, "name", std::span(large).first(4)));
  EXPECT_FALSE(CHelperPkcs11::GetTokenVariable(1, false, "name", large)) << "private";
  EXPECT_FALSE(CHelperPkcs11::GetTokenVariable(1, true, "a", large)) << "three bytes are no pair";
  EXPECT_FALSE(CHelperPkcs11::GetTokenVariable(0, true, "name", large)) << "no slot";
}

TEST_F(ReaderTest, CreatesVariableObject) {
  card_.slots = {{.id = 1}};
  CK_SESSION_HANDLE session = 0;
  CK_OBJECT_HANDLE object = 0;
  EXPECT_FALSE(CHelperPkcs11::FindVariableObject(1, true, false, session, object));
  EXPECT_TRUE(CHelperPkcs11::FindVariableObject(1, true, true, session, object));
  Pkcs11().CloseSession(session);
  EXPECT_THAT(card_.slots[0].objects, ElementsAre(VariableObject(std::string(1, '\0'), CK_TRUE)));
  EXPECT_TRUE(CHelperPkcs11::FindVariableObject(1, true, true, session, object));
  Pkcs11().CloseSession(session);
  EXPECT_EQ(card_.slots[0].objects.size(), 1U) << "found, not made again";

  card_.List().C_FindObjects = [](auto...) -> CK_RV { return CKR_DEVICE_ERROR; };
  EXPECT_FALSE(CHelperPkcs11::FindVariableObject(1, false, true, session, object));
  EXPECT_EQ(card_.slots[0].objects.size(), 1U) << "a failed search does not say that there is none";
}

TEST_F(ReaderTest, SurvivesHostileLibraries) {
  using List = CK_FUNCTION_LIST;
  using Ids = CK_SLOT_ID*;
  using Count = CK_ULONG*;
  using Attributes = CK_ATTRIBUTE*;
  const struct {
    const char* name;
    void (*spoil)(List& list);
  } rows[] = {
      {"endless slots",
       [](List& list) {
         list.C_GetSlotList = [](auto, Ids, Count count) { return *count = ~0UL, CKR_OK; };
         list.C_OpenSession = [](auto...) { return CKR_SLOT_ID_INVALID; };
       }},
      {"slots that come between two calls",
       [](List& list) {
         list.C_GetSlotList = [](auto, Ids ids, Count count) {
           return *count = ids == nullptr ? 1 : 2, CKR_OK;
         };
       }},
      {"a slot that looks like a free entry",
       [](List&) { FakeCard::current->slots[0].id = kFreeSlot; }},
      {"more objects than asked for",
       [](List& list) {
         list.C_FindObjects = [](auto, auto, auto, Count count) { return *count = 2, CKR_OK; };
       }},
      {"lengths of all ones",
       [](List& list) {
         list.C_GetAttributeValue = [](auto, auto, Attributes attributes, CK_ULONG count) {
           while (count-- != 0) attributes[count].ulValueLen = ~0UL;
           return CKR_OK;
         };
       }},
      {"values that grow between two calls",
       [](List& list) {
         list.C_GetAttributeValue = [](auto, auto, Attributes attributes, CK_ULONG count) {
           while (count-- != 0) {
             const CK_ULONG length = std::exchange(attributes[count].ulValueLen, 99);
             if (attributes[count].pValue != nullptr) {
               std::memset(attributes[count].pValue, 'x', length);
               *static_cast<char*>(attributes[count].pValue) = '\0';
             }
             if (length >= 99) attributes[count].ulValueLen = length + 1;
           }
           return CKR_OK;
         };
       }},
      {"searches that cannot be started",
       [](List& list) { list.C_FindObjectsInit = [](auto...) { return CKR_OPERATION_ACTIVE; }; }},
      {"nothing but null pointers", [](List& list) { list = {}; }},
  };
  const CK_FUNCTION_LIST sound = card_.List();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    card_.slots = {{.id = 1, .objects = {CertificateObject(Named("Ann")), VariableObject("")}}};
    card_.List() = sound;
    row.spoil(card_.List());
    std::array<CertificatePtr, 3> list;
    char text[16];
    EXPECT_FALSE(CHelperPkcs11::CollectCertificates(list, kAnyKeyUsage, nullptr, nullptr, true));
    EXPECT_FALSE(CHelperPkcs11::GetTokenVariable(1, false, "name", text));
    EXPECT_EQ(card_.openSessions, 0);
    EXPECT_EQ(card_.openSearches, 0);
  }
}

TEST_F(ReaderTest, EndsEndlessSearches) {
  static int taken;
  taken = 0;
  Insert(1, {"short"});
  card_.List().C_FindObjects = [](auto, CK_ULONG* object, auto, CK_ULONG* count) {
    return ++taken, *object = 1, *count = 1, CKR_OK;
  };
  std::array<CertificatePtr, 3> list;
  EXPECT_FALSE(CHelperPkcs11::CollectCertificates(list, kAnyKeyUsage, nullptr, nullptr, true));
  EXPECT_EQ(taken, 4096);

  card_.List().C_FindObjects = [](auto...) { return CKR_DEVICE_REMOVED; };
  EXPECT_FALSE(CHelperPkcs11::CollectCertificates(list, kAnyKeyUsage, nullptr, nullptr, true));
  EXPECT_EQ(std::exchange(card_.openSearches, 0), 1) << "a failed search is not ended";
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
  const struct {
    std::uint8_t mask;
    const char* subject;
    const char* issuer;
    std::vector<std::string> found;
  } rows[] = {
      {255, nullptr, nullptr, {"cn=Sign", "cn=Seal", "cn=Any", "cn=Bits"}},
      {0x80, nullptr, nullptr, {"cn=Sign", "cn=Any"}},
      {0x20, nullptr, nullptr, {"cn=Seal", "cn=Any"}},
      {255, "cn=sign;cn=any", nullptr, {"cn=Sign", "cn=Any"}},
      {255, nullptr, "cn=other ca", {"cn=Seal"}},
      {255, "issuer|cn=other ca", nullptr, {"cn=Seal"}},
      {255, "", "", {"cn=Sign", "cn=Seal", "cn=Any"}},
      {0x80, "cn=seal", nullptr, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    std::array<CertificatePtr, 10> list;
    EXPECT_EQ(CHelperPkcs11::CollectCertificates(list, row.mask, row.subject, row.issuer, true),
              !row.found.empty());
    EXPECT_EQ(Subjects(list), row.found);
  }
  EXPECT_TRUE(trace_.Has("HelperPkcs11 - Get certificates: 0xFF '[null]' '[null]'"));
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
  card_.slots = {{.id = 99,
                  .objects = {altered(CKA_LABEL, 256), altered(CKA_ID, 65), withoutSuiteValue,
                              altered(CKA_VALUE, 100), altered(CKA_VALUE, 101),
                              altered(CKA_LABEL, 255), altered(CKA_LABEL, 1)}},
                 {.id = 100, .objects = {withoutSuiteValue}}};
  std::array<CertificateEntry, 4> entries;
  EXPECT_TRUE(
      CHelperPkcs11::GetCertificates(std::nullopt, kAnyKeyUsage, nullptr, nullptr, entries));
  EXPECT_EQ(entries[0].valueLength, 101U) << "no certificate, but nothing was asked for";
  EXPECT_EQ(entries[1].label.get(), std::string(255, '0'));
  EXPECT_EQ(entries[1].KeyIdentifier().size(), 2U);
  EXPECT_STREQ(entries[1].notBefore, "200101000000Z");
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
  std::array<CertificatePtr, 9> list;
  EXPECT_TRUE(CHelperPkcs11::CollectCertificates(list, kAnyKeyUsage, nullptr, nullptr, true));
  EXPECT_THAT(Subjects(list), ElementsAre("[cn=Ann]", "cn=Ann", "[cn=Ann]", "cn=Ann"));
  EXPECT_EQ(list[2]->slot, 1U);
  EXPECT_EQ(list[2]->rawSlot, 2U);
  EXPECT_EQ(list[0]->keyIdentifierLength, 2U);

  std::array<CertificatePtr, 4> unmarked;
  EXPECT_TRUE(CHelperPkcs11::CollectCertificates(unmarked, kAnyKeyUsage, nullptr, nullptr, false));
  EXPECT_THAT(Subjects(unmarked), ElementsAre("cn=Ann", "cn=Ann"))
      << "three places hold two certificates";
}

TEST_F(ReaderTest, AddsToHolderList) {
  const std::string ann = Named("Ann");
  std::array<CertificatePtr, 2> list;
  EXPECT_FALSE(CHelperPkcs11::AddCertificate(list, {}, 1, {}, false));
  EXPECT_FALSE(CHelperPkcs11::AddCertificate(list, BytesOf("no certificate"), 1, {}, false));
  EXPECT_TRUE(CHelperPkcs11::AddCertificate(list, BytesOf(ann), 0, {}, false));
  EXPECT_FALSE(CHelperPkcs11::AddCertificate(list, BytesOf(Named("Bob")), 1, {}, false)) << "full";

  std::array<CertificatePtr, 3> larger = {std::move(list[0])};
  EXPECT_FALSE(CHelperPkcs11::AddCertificate(larger, BytesOf(ann), 5, {}, false)) << "the same";
  EXPECT_FALSE(CHelperPkcs11::AddCertificate(larger, BytesOf(ann), 9, {}, false));
  EXPECT_EQ(larger[0]->slot, 4U) << "an unknown slot is filled in once";
  EXPECT_EQ(larger[0]->rawSlot, 5U);
}

TEST_F(ReaderTest, KeepsEntriesUpToDate) {
  const std::string expired =
      Recipe{.notAfter = Der(0x17, "210101000000Z"), .subject = Part("cn", "Old")}.Build();
  Insert(1, {expired, Named("Ann")});
  Insert(3, {Named("Bob")});
  Insert(4, {Named("Cid")});
  std::array<CertificateEntry, 6> entries;
  const auto collect = [&entries](std::optional<CK_SLOT_ID> slot) {
    return CHelperPkcs11::GetCertificates(slot, kAnyKeyUsage, nullptr, nullptr, entries);
  };
  const auto slots = [&entries] {
    std::vector<CK_SLOT_ID> ids(entries.size());
    std::transform(entries.begin(), entries.end(), ids.begin(),
                   [](const CertificateEntry& entry) { return entry.slot; });
    return ids;
  };
  constexpr CK_SLOT_ID none = kFreeSlot;
  EXPECT_TRUE(collect(2));  // the group of slots 1 to 3
  EXPECT_THAT(slots(), ElementsAre(1, 3, 1, none, none, none)) << "the expired one last";
  EXPECT_TRUE(entries[2].expired);
  EXPECT_FALSE(collect(2)) << "nothing new";
  EXPECT_TRUE(collect(std::nullopt));
  EXPECT_THAT(slots(), ElementsAre(1, 3, 4, 1, none, none));
  EXPECT_EQ(CHelperPkcs11::OrderCertificates(entries), 4U);

  // Slots 1 and 4 go: the first entry is freed, the walk stops at slot 3.
  card_.slots = {card_.slots[1]};
  EXPECT_TRUE(collect(std::nullopt));
  EXPECT_THAT(slots(), ElementsAre(none, 3, 4, 1, none, none));
  card_.slots.clear();
  EXPECT_FALSE(collect(std::nullopt)) << "without a token nothing is looked at";
}

}  // namespace
}  // namespace qixx::testing
