// The module as a program sees it: loaded by its path, called through its function list.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "tests/softcard/certificate_data.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

using Handles = std::vector<CK_OBJECT_HANDLE>;

class SoftCard : public ::testing::Test {
 protected:
  ~SoftCard() override {
    if (library_ == nullptr) return;
    if (list_ != nullptr) list_->C_Finalize(nullptr);
    ::dlclose(library_);
  }

  void Load(const char* module = SOFTCARD_SUITE) {
    library_ = ::dlopen(module, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library_, nullptr) << ::dlerror();
    const auto get = reinterpret_cast<CK_C_GetFunctionList>(::dlsym(library_, "C_GetFunctionList"));
    ASSERT_EQ(get(&list_), CKR_OK);
  }
  void Start(const char* module = SOFTCARD_SUITE) {
    Load(module);
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  }
  void Insert(const std::string& slot) { folder_.Write(slot + "/card/holder.pem", kHolderPem); }
  void Remove(const std::string& slot) {
    std::filesystem::remove_all(folder_.Path(slot + "/card"));
  }
  CK_SESSION_HANDLE Open(CK_SLOT_ID slot, CK_FLAGS flags = CKF_RW_SESSION) {
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(list_->C_OpenSession(slot, flags | CKF_SERIAL_SESSION, nullptr, nullptr, &session),
              CKR_OK);
    return session;
  }
  Handles Search(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> wanted = {}) {
    Handles found(8192);
    CK_ULONG count = 0;
    EXPECT_EQ(list_->C_FindObjectsInit(session, wanted.data(), wanted.size()), CKR_OK);
    EXPECT_EQ(list_->C_FindObjects(session, found.data(), found.size(), &count), CKR_OK);
    EXPECT_EQ(list_->C_FindObjectsFinal(session), CKR_OK);
    found.resize(count);
    return found;
  }
  std::string Read(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
    std::string value(65536, '\0');
    CK_ATTRIBUTE attribute{type, value.data(), value.size()};
    const CK_RV result = list_->C_GetAttributeValue(session, object, &attribute, 1);
    EXPECT_EQ(result, CKR_OK) << type;
    value.resize(result == CKR_OK ? attribute.ulValueLen : 0);
    return value;
  }
  /// The slot of the next event, -1 for none.
  long Poll() {
    CK_SLOT_ID slot = 0;
    const CK_RV result = list_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
    EXPECT_TRUE(result == CKR_OK || result == CKR_NO_EVENT) << result;
    return result == CKR_OK ? static_cast<long>(slot) : -1;
  }

  const TemporaryFolder folder_;
  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path().c_str()};
  void* library_ = nullptr;
  CK_FUNCTION_LIST* list_ = nullptr;
};

TEST_F(SoftCard, VariantsDifferInTheirExtension) {
  const struct {
    const char* module;
    bool has_extension;
    bool has_variables;
  } rows[] = {{SOFTCARD_SUITE, true, true},
              {SOFTCARD_PARTIAL, true, false},
              {SOFTCARD_PLAIN, false, false}};
  Insert("1");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.module);
    Start(row.module);
    const auto has = [&](const char* name) { return ::dlsym(library_, name) != nullptr; };
    for (const char* const name :
         {"C_Reinitialize", "C_ResetToken", "C_UnlockPIN", "C_SetPINEx", "C_SetTraceFile",
          "C_SetTraceCallback", "C_GenerateChallenge", "C_SetTokenTimeout", "C_ListCards",
          "C_AddExternalSlot", "C_RemoveExternalSlot"}) {
      EXPECT_EQ(has(name), row.has_extension) << name;
    }
    EXPECT_EQ(has("C_SetVariable"), row.has_variables);
    EXPECT_EQ(has("C_GetVariable"), row.has_variables);
    EXPECT_FALSE(has("C_GetInfo")) << "would be called for another module's";
#define HAS_ENTRY(name, parameters, arguments) EXPECT_NE(list_->C_##name, nullptr) << #name;
    QIXX_CK_FUNCTIONS(HAS_ENTRY)
#undef HAS_ENTRY
    const CK_SESSION_HANDLE session = Open(1);
    CK_ATTRIBUTE vendor{0xFFFF0008, nullptr, 0};
    EXPECT_EQ(list_->C_GetAttributeValue(session, Search(session).at(0), &vendor, 1),
              row.has_extension ? CKR_OK : CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(vendor.ulValueLen, row.has_extension ? 8 : CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(list_->C_Finalize(nullptr), CKR_OK);
    ::dlclose(library_);
    library_ = nullptr;
  }
}

TEST_F(SoftCard, SlotsAreTheFoldersWithAPlainNumber) {
  for (const char* const name : {"97/x", "4/slot", "01/x", "x/x", "4294967295/x", "-1/x", "5"}) {
    folder_.Write(name, "description=Virtual Slot\nmanufacturer=M\nflags=0x80000001\n");
  }
  Insert("10");
  Start();
  std::vector<CK_SLOT_ID> slots(3);
  CK_ULONG count = 0;
  EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, slots.data(), &count), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, slots.data(), &count), CKR_OK);
  EXPECT_EQ(slots, (std::vector<CK_SLOT_ID>{4, 10, 97}));
  EXPECT_EQ(list_->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
  EXPECT_EQ(count, 1U);

  CK_SLOT_INFO info;
  ASSERT_EQ(list_->C_GetSlotInfo(4, &info), CKR_OK);
  EXPECT_EQ(std::string(info.slotDescription, info.slotDescription + 64),
            "Virtual Slot" + std::string(52, ' '));
  EXPECT_EQ(info.flags, 0x80000000U) << "presence is the card's matter";
  ASSERT_EQ(list_->C_GetSlotInfo(10, &info), CKR_OK);
  EXPECT_EQ(info.flags, CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT);
  CK_TOKEN_INFO token;
  EXPECT_EQ(list_->C_GetTokenInfo(4, &token), CKR_TOKEN_NOT_PRESENT);
  EXPECT_EQ(list_->C_GetTokenInfo(1, &token), CKR_SLOT_ID_INVALID);
}

TEST_F(SoftCard, EachChangeIsReportedOnce) {
  Insert("1");
  Start();
  EXPECT_EQ(Poll(), -1) << "a card found at the start is no change";
  Insert("10");
  Insert("4");
  Remove("1");
  EXPECT_EQ(Poll(), 1);
  EXPECT_EQ(Poll(), 4);
  EXPECT_EQ(Poll(), 10);
  EXPECT_EQ(Poll(), -1);
  Remove("4");
  Insert("4");
  EXPECT_EQ(Poll(), 4) << "another card";
  EXPECT_EQ(Poll(), -1);
  folder_.Write("4/card/variables", "");
  EXPECT_EQ(Poll(), -1) << "the same card";
  std::filesystem::remove_all(folder_.Path("10"));
  EXPECT_EQ(Poll(), 10) << "card and reader together";
}

TEST_F(SoftCard, AWaitEndsWithAChangeAndWithTheModule) {
  Start();
  CK_SLOT_ID slot = 0;
  const auto wait = [&] { return list_->C_WaitForSlotEvent(0, &slot, nullptr); };
  std::future<CK_RV> waiting = std::async(std::launch::async, wait);
  Insert("7");
  EXPECT_EQ(waiting.get(), CKR_OK);
  EXPECT_EQ(slot, 7U);
  waiting = std::async(std::launch::async, wait);
  EXPECT_EQ(list_->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(waiting.get(), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(SoftCard, CertificatesCarryTheirFields) {
  Insert("1");
  folder_.Write("1/card/two.pem", std::string("text\n") + kHolderPem + kHolderPem);
  Start();
  const CK_SESSION_HANDLE session = Open(1);
  const Handles objects = Search(session);
  ASSERT_EQ(objects.size(), 3U);
  std::string value = Read(session, objects[0], CKA_VALUE);
  ASSERT_EQ(value.size(), 417U);
  EXPECT_EQ(Read(session, objects[0], CKA_SERIAL_NUMBER), "\x02\x02\x12\x34");
  EXPECT_EQ(Read(session, objects[0], CKA_ISSUER), value.substr(29, 47));
  EXPECT_EQ(Read(session, objects[0], CKA_SUBJECT), value.substr(108, 47));
  EXPECT_EQ(Read(session, objects[2], CKA_LABEL), "two");
  EXPECT_EQ(Search(Open(1)), objects) << "handles hold from session to session";

  CK_OBJECT_CLASS kind = CKO_CERTIFICATE;
  const CK_ATTRIBUTE by_class{CKA_CLASS, &kind, sizeof kind};
  EXPECT_EQ(Search(session, {by_class, {CKA_VALUE, value.data(), value.size()}}).size(), 3U);
  EXPECT_TRUE(Search(session, {by_class, {CKA_VALUE, value.data(), value.size() - 1}}).empty());
  EXPECT_TRUE(Search(session, {{CKA_MODULUS, nullptr, 0}}).empty());

  // Each attribute is answered by itself, behind failing ones too.
  char small[4];
  char label[16];
  CK_ATTRIBUTE mixed[] = {{CKA_VALUE, small, sizeof small},
                          {CKA_MODULUS, nullptr, 0},
                          {CKA_VALUE, nullptr, 0},
                          {CKA_LABEL, label, sizeof label}};
  EXPECT_NE(list_->C_GetAttributeValue(session, objects[0], mixed, 4), CKR_OK);
  EXPECT_EQ(mixed[0].ulValueLen, CK_UNAVAILABLE_INFORMATION);
  EXPECT_EQ(mixed[1].ulValueLen, CK_UNAVAILABLE_INFORMATION);
  EXPECT_EQ(mixed[2].ulValueLen, 417U);
  EXPECT_EQ(std::string(label, mixed[3].ulValueLen), "holder");
}

TEST_F(SoftCard, HostileFilesAreBoundedAndPassedOver) {
  const std::string block = "-----BEGIN CERTIFICATE-----AAAA-----END CERTIFICATE-----";
  std::string many;
  for (int i = 0; i < 1000; ++i) many += block;
  const struct {
    const char* name;
    std::string content;
    std::size_t objects;
  } rows[] = {{"empty.der", "", 1},
              {"endless length.der", "\x30\x84\xFF\xFF\xFF\xFF\x30\x84", 1},
              {"stray byte.pem", "-----BEGIN CERTIFICATE-----A*A-----END CERTIFICATE-----", 0},
              {"no end.pem", "-----BEGIN CERTIFICATE-----AAAA", 0},
              {"largest.der", std::string(65536, '\x30'), 1},
              {"too large.der", std::string(65537, '\x30'), 0},
              {"many.pem", many, 1000},
              {"other.txt", kHolderPem, 0}};
  Start();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Remove("1");
    folder_.Write(std::string("1/card/") + row.name, row.content);
    const CK_SESSION_HANDLE session = Open(1);
    const Handles objects = Search(session);
    ASSERT_EQ(objects.size(), row.objects);
    if (row.objects == 1) {
      EXPECT_EQ(Read(session, objects[0], CKA_SUBJECT), "");
    }
  }
  for (const char* const name : {"a", "b", "c", "d", "e"}) {
    folder_.Write(std::string("1/card/") + name + ".pem", many);
  }
  ASSERT_EQ(::mkfifo(folder_.Path("1/card/pipe.der").c_str(), 0600), 0);
  std::filesystem::create_directories(folder_.Path("1/card/folder.der"));
  EXPECT_EQ(Search(Open(1)).size(), 4096U);
}

TEST_F(SoftCard, VariablesAreOneDataObject) {
  Insert("1");
  Start();
  CK_OBJECT_CLASS kind = CKO_DATA;
  CK_BBOOL yes = CK_TRUE;
  CK_BBOOL no = CK_FALSE;
  std::string application = "Tessaly";
  std::string value(1, '\0');
  const std::vector<CK_ATTRIBUTE> store = {{CKA_CLASS, &kind, sizeof kind},
                                           {CKA_TOKEN, &yes, sizeof yes},
                                           {CKA_PRIVATE, &no, sizeof no},
                                           {CKA_APPLICATION, application.data(), 7},
                                           {CKA_LABEL, nullptr, 0}};
  std::vector<CK_ATTRIBUTE> made = store;
  made.push_back({CKA_VALUE, value.data(), value.size()});
  const CK_SESSION_HANDLE session = Open(1);
  EXPECT_TRUE(Search(session, store).empty());

  CK_OBJECT_HANDLE object = 0;
  const auto create = [&](CK_SESSION_HANDLE in, CK_ULONG count) {
    return list_->C_CreateObject(in, made.data(), count, &object);
  };
  EXPECT_EQ(create(Open(1, 0), 6), CKR_SESSION_READ_ONLY);
  EXPECT_EQ(create(session, 3), CKR_TEMPLATE_INCOMPLETE);
  made[2].pValue = &yes;
  EXPECT_EQ(create(session, 6), CKR_USER_NOT_LOGGED_IN) << "private";
  made[2].pValue = &no;
  EXPECT_EQ(create(session, 6), CKR_OK);
  EXPECT_EQ(create(session, 6), CKR_DEVICE_MEMORY);
  EXPECT_EQ(Search(session, store), Handles{object});
  EXPECT_EQ(Read(session, object, CKA_VALUE), value);
  EXPECT_EQ(Poll(), -1) << "writing leaves the card in";

  folder_.Write("1/card/variables", "# note\nActiveLogonUPN=user  \nempty=\r\n=no name\n");
  const std::string held("\0ActiveLogonUPN\0user  \0empty\0\0", 30);
  EXPECT_EQ(Read(Open(1), object, CKA_VALUE), held);

  const auto set = [&](std::string bytes) {
    CK_ATTRIBUTE attribute{CKA_VALUE, bytes.data(), bytes.size()};
    return list_->C_SetAttributeValue(session, object, &attribute, 1);
  };
  EXPECT_EQ(set(std::string("\0a\0b = c\0", 9)), CKR_OK);
  EXPECT_EQ(folder_.Read("1/card/variables"), "a=b = c\n");
  for (const std::string& refused :
       {std::string("a\0b\0", 4), std::string("\0a=\0b\0", 6), std::string("\0a\0b\nc=d\0", 9),
        std::string("\0#a\0b\0", 6)}) {
    EXPECT_EQ(set(refused), CKR_ATTRIBUTE_VALUE_INVALID);
  }
  folder_.Write("1/card/variables.raw", "\x01\n");
  EXPECT_EQ(Read(Open(1), object, CKA_VALUE), "\x01\n");
  EXPECT_EQ(set(value), CKR_ATTRIBUTE_READ_ONLY);
}

TEST_F(SoftCard, SessionsEndWithTheirCard) {
  Insert("1");
  Start();
  const CK_SESSION_HANDLE first = Open(1);
  const CK_SESSION_HANDLE second = Open(1);
  Remove("1");
  Insert("1");
  const CK_SESSION_HANDLE third = Open(1);
  CK_SESSION_INFO info;
  EXPECT_EQ(list_->C_GetSessionInfo(first, &info), CKR_DEVICE_REMOVED);
  EXPECT_EQ(list_->C_GetSessionInfo(first, &info), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(list_->C_GetSessionInfo(second, &info), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(list_->C_GetSessionInfo(third, &info), CKR_OK);
  EXPECT_EQ(info.state, CKS_RW_PUBLIC_SESSION);
  EXPECT_EQ(list_->C_Login(third, CKU_USER, nullptr, 0), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(list_->C_CloseAllSessions(1), CKR_OK);
  EXPECT_EQ(list_->C_CloseSession(third), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(SoftCard, FaultsAreMadeOnRequest) {
  folder_.Write("module", "omit=C_Digest\nfail=C_Initialize:0x191\nlog=1\n");
  Load();
  EXPECT_EQ(list_->C_Digest, nullptr);
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  CK_INFO info;
  EXPECT_EQ(list_->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(folder_.Read("calls"), "C_GetFunctionList\nC_Initialize\nC_GetInfo\n");

  folder_.Write("module", "omit=C_GetFunctionList\nfail=C_SetVariable:0\nfail=C_GetInfo:oops\n");
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  EXPECT_EQ(list_->C_GetInfo(&info), CKR_OK);
  CK_FUNCTION_LIST* none = list_;
  EXPECT_EQ(list_->C_GetFunctionList(&none), CKR_OK);
  EXPECT_EQ(none, nullptr);
  using Extension = CK_RV (*)(void*, void*);
  EXPECT_EQ(reinterpret_cast<Extension>(::dlsym(library_, "C_SetVariable"))(nullptr, nullptr),
            CKR_OK);
}

}  // namespace
}  // namespace qixx::testing
