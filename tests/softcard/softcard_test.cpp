// The module as a program sees it: loaded by its path, called through its function list; then other
// people's programs and the script for the cards, run as a user would run them.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "tests/support/environment.h"
#include "tests/support/eventually.h"
#include "tests/support/openssl.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

using namespace std::string_literals;
using Handles = std::vector<CK_OBJECT_HANDLE>;

/// A certificate up to its subject "s": serial number 0x1234, issuer "i".
constexpr const char* kHolderPem =
    "-----BEGIN CERTIFICATE-----\nMBUwE6ADAgECAgISNDAAMAFpMAAwAXM=\n-----END CERTIFICATE-----\n";

class SoftCard : public ::testing::Test {
 protected:
  ~SoftCard() override {
    if (list_ == nullptr) return;
    list_->C_Finalize(nullptr);
    ::dlclose(library_);
  }

  void Start(const char* module = SOFTCARD_SUITE) {
    library_ = ::dlopen(module, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library_, nullptr) << ::dlerror();
    const auto get = reinterpret_cast<CK_C_GetFunctionList>(::dlsym(library_, "C_GetFunctionList"));
    ASSERT_EQ(get(&list_), CKR_OK);
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  }
  void Insert(const std::string& slot) { folder_.Write(slot + "/card/holder.pem", kHolderPem); }
  void Remove(const std::string& folder) { std::filesystem::remove_all(folder_.Path(folder)); }
  CK_SESSION_HANDLE Open(CK_SLOT_ID slot) {
    CK_SESSION_HANDLE session = 0;
    const CK_FLAGS flags = CKF_RW_SESSION | CKF_SERIAL_SESSION;
    EXPECT_EQ(list_->C_OpenSession(slot, flags, nullptr, nullptr, &session), CKR_OK);
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
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, &attribute, 1), CKR_OK) << type;
    return value.substr(0, attribute.ulValueLen);
  }
  /// The slot of the next event, -1 for none.
  long Poll() {
    CK_SLOT_ID slot = 0;
    const CK_RV result = list_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
    return result == CKR_OK ? static_cast<long>(slot) : -1;
  }
  /// What a command prints, behind its status unless that is 0.
  std::string Run(const std::string& command) {
    const int status = std::system((command + " >" + folder_.Path("output") + " 2>&1").c_str());
    return (status == 0 ? "" : std::to_string(status / 256) + " ") + folder_.Read("output");
  }

  const TemporaryFolder folder_;
  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path().c_str()};
  void* library_ = nullptr;
  CK_FUNCTION_LIST* list_ = nullptr;
};

TEST_F(SoftCard, PlainModuleExportsNothingButItsList) {
  Insert("1");
  Start(SOFTCARD_PLAIN);
  for (const char* const name : {"C_GetInfo", "C_ResetToken", "C_ListCards", "C_GetVariable"}) {
    EXPECT_EQ(::dlsym(library_, name), nullptr) << name;
  }
  const CK_SESSION_HANDLE session = Open(1);
  CK_ATTRIBUTE vendor{0xFFFF0008, nullptr, 0};
  EXPECT_EQ(list_->C_GetAttributeValue(session, Search(session).at(0), &vendor, 1),
            CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(SoftCard, SlotsAreTheFoldersWithAPlainNumber) {
  for (const char* const name : {"97/x", "4/slot", "010/x", "x/x", "4294967295/x", "-1/x", "5"}) {
    folder_.Write(name, "description=Virtual Slot\nmanufacturer=M\nflags=0x80000001\n");
  }
  Insert("10");
  Start();
  std::vector<CK_SLOT_ID> slots(3);
  CK_ULONG count = 0;
  EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, slots.data(), &count), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, slots.data(), &count), CKR_OK);
  EXPECT_EQ(slots, (std::vector<CK_SLOT_ID>{4, 10, 97}));
  CK_SLOT_INFO info;
  EXPECT_EQ(list_->C_GetSlotInfo(4, &info), CKR_OK);
  EXPECT_EQ(std::string(info.slotDescription, info.slotDescription + 64),
            "Virtual Slot" + std::string(52, ' '));
  EXPECT_EQ(info.flags, 0x80000000U) << "presence is the card's matter";
}

TEST_F(SoftCard, EachChangeIsReportedOnce) {
  Insert("1");
  Start();
  EXPECT_EQ(Poll(), -1) << "a card found at the start is no change";
  Insert("10");
  Insert("4");
  Remove("1/card");
  for (const long slot : {1, 4, 10, -1}) EXPECT_EQ(Poll(), slot);
  Remove("4");
  Insert("4");
  EXPECT_EQ(Poll(), 4) << "another card";
  folder_.Write("4/card/variables", "");
  EXPECT_EQ(Poll(), -1) << "the same card";
}

TEST_F(SoftCard, AWaitEndsWithAChangeAndWithTheModule) {
  Start();
  CK_SLOT_ID slot = 0;
  const auto wait = [&] { return list_->C_WaitForSlotEvent(0, &slot, nullptr); };
  std::future<CK_RV> waiting = std::async(std::launch::async, wait);
  Insert("7");
  EXPECT_EQ(waiting.get(), CKR_OK);
  folder_.Write("module", "log=1\n");
  waiting = std::async(std::launch::async, wait);
  EXPECT_TRUE(Eventually([&] { return folder_.Read("calls") == "C_WaitForSlotEvent\n"; }));
  EXPECT_EQ(list_->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(waiting.get(), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(SoftCard, CertificatesCarryTheirFields) {
  Insert("1");
  folder_.Write("1/card/two.pem", "text\n"s + kHolderPem + kHolderPem);
  Start();
  const CK_SESSION_HANDLE session = Open(1);
  const Handles objects = Search(session);
  ASSERT_EQ(objects.size(), 3U);
  std::string value = Read(session, objects[0], CKA_VALUE);
  EXPECT_EQ(Read(session, objects[0], CKA_SERIAL_NUMBER), "\x02\x02\x12\x34");
  EXPECT_EQ(Read(session, objects[0], CKA_ISSUER), "\x30\x01i");
  EXPECT_EQ(Search(Open(1)), objects) << "handles hold from session to session";
  EXPECT_EQ(Search(session, {{CKA_VALUE, value.data(), value.size()}}).size(), 3U);

  // Each attribute is answered by itself, behind failing ones too.
  char area[8];
  CK_ATTRIBUTE mixed[] = {
      {CKA_VALUE, area, 8}, {CKA_MODULUS, area, 8}, {CKA_VALUE, nullptr, 0}, {CKA_LABEL, area, 8}};
  EXPECT_NE(list_->C_GetAttributeValue(session, objects[0], mixed, 4), CKR_OK);
  EXPECT_EQ(mixed[0].ulValueLen, CK_UNAVAILABLE_INFORMATION);
  EXPECT_EQ(mixed[2].ulValueLen, value.size());
  EXPECT_EQ(std::string(area, mixed[3].ulValueLen), "holder");
}

TEST_F(SoftCard, HostileFilesAreBoundedAndPassedOver) {
  const std::string begin = "-----BEGIN CERTIFICATE-----";
  std::string many;
  while (many.size() < 60000) many += begin + "AAAA-----END CERTIFICATE-----";
  const struct {
    const char* name;
    std::string content;
    std::size_t objects;
  } rows[] = {{"endless length.der", "\x30\x08\x30\x06\xA0\x84\xFF\xFF\xFF\xFF", 1},
              {"stray byte.pem", begin + "A*A-----END CERTIFICATE-----", 0},
              {"largest.der", std::string(65536, '\x30'), 1},
              {"too large.der", std::string(65537, '\x30'), 0}};
  Start();
  for (const auto& row : rows) {
    Remove("1/card");
    folder_.Write("1/card/"s + row.name, row.content);
    EXPECT_EQ(Search(Open(1)).size(), row.objects) << row.name;
  }
  for (const char* const name : {"a", "b", "c", "d", "e"}) {
    folder_.Write("1/card/"s + name + ".pem", many);
  }
  ASSERT_EQ(::mkfifo(folder_.Path("1/card/pipe.der").c_str(), 0600), 0);
  EXPECT_EQ(Search(Open(1)).size(), 4096U);
}

TEST_F(SoftCard, VariablesAreOneDataObject) {
  Insert("1");
  Start();
  CK_OBJECT_CLASS kind = CKO_DATA;
  CK_BBOOL yes = CK_TRUE;
  std::string application = "Tessaly";
  CK_ATTRIBUTE made[] = {{CKA_CLASS, &kind, sizeof kind},
                         {CKA_TOKEN, &yes, sizeof yes},
                         {CKA_APPLICATION, application.data(), 7},
                         {CKA_PRIVATE, &yes, sizeof yes}};
  const CK_SESSION_HANDLE session = Open(1);
  CK_OBJECT_HANDLE object = 0;
  EXPECT_EQ(list_->C_CreateObject(session, made, 4, &object), CKR_USER_NOT_LOGGED_IN) << "private";
  EXPECT_EQ(list_->C_CreateObject(session, made, 3, &object), CKR_OK);
  EXPECT_EQ(list_->C_CreateObject(session, made, 3, &object), CKR_DEVICE_MEMORY);
  EXPECT_EQ(Search(session, {made, made + 3}), Handles{object});
  EXPECT_EQ(Read(session, object, CKA_VALUE), "\0"s);
  folder_.Write("1/card/variables", "# note\nActiveLogonUPN=user  \nempty=\r\n=no name\n");
  EXPECT_EQ(Read(Open(1), object, CKA_VALUE), "\0ActiveLogonUPN\0user  \0empty\0\0"s);

  const auto set = [&](std::string bytes) {
    CK_ATTRIBUTE attribute{CKA_VALUE, bytes.data(), bytes.size()};
    return list_->C_SetAttributeValue(session, object, &attribute, 1);
  };
  EXPECT_EQ(set("\0a\0b = c\0"s), CKR_OK);
  EXPECT_EQ(folder_.Read("1/card/variables"), "a=b = c\n");
  for (const auto& refused : {"a\0b\0"s, "\0a=\0b\0"s, "\0a\0b\nc=d\0"s, "\0#a\0b\0"s}) {
    EXPECT_EQ(set(refused), CKR_ATTRIBUTE_VALUE_INVALID);
  }
  folder_.Write("1/card/variables.raw", "\x01\n");
  EXPECT_EQ(Read(Open(1), object, CKA_VALUE), "\x01\n");
  EXPECT_EQ(set("\0"s), CKR_ATTRIBUTE_READ_ONLY);
}

TEST_F(SoftCard, SessionsEndWithTheirCard) {
  Insert("1");
  Start();
  const CK_SESSION_HANDLE first = Open(1);
  Remove("1/card");
  Insert("1");
  const CK_SESSION_HANDLE third = Open(1);
  CK_SESSION_INFO info;
  EXPECT_EQ(list_->C_GetSessionInfo(first, &info), CKR_DEVICE_REMOVED);
  EXPECT_EQ(list_->C_GetSessionInfo(third, &info), CKR_OK);
}

TEST_F(SoftCard, Pkcs11ToolListsSlotsAndObjects) {
  if (*SOFTCARD_SANITIZER != '\0') {
    GTEST_SKIP() << "a program without the sanitizer cannot load a module with it";
  }
  if (!Run("command -v pkcs11-tool").starts_with("/")) {
    GTEST_SKIP() << "NOT TESTED: pkcs11-tool is not installed (package opensc)";
  }
  folder_.Write("1/card/variables", "name=value\n");
  ASSERT_TRUE(MakeCertificate(folder_.Path("1/card/holder.der")));
  const std::string told = Run("pkcs11-tool --module " SOFTCARD_PLAIN " -L -O");
  for (const char* const text : {"(0x1): Soft reader 1", "label:      holder", "CN=Ann Lee",
                                 "serial:     0A01", "application:    'Tessaly'"}) {
    EXPECT_NE(told.find(text), std::string::npos) << text << " in\n" << told;
  }
}

TEST_F(SoftCard, ScriptInsertsAndRemoves) {
  const std::string script = CARD_SCRIPT " ";
  const std::string crt = folder_.Write("files/holder.crt", kHolderPem);
  const std::string cer = folder_.Write("files/a b.cer", "\x30\x01x");
  EXPECT_EQ(Run(script + "insert 1 " + crt + " '" + cer + "'"), "");
  EXPECT_EQ(folder_.Read("1/card/holder.pem"), kHolderPem);
  EXPECT_EQ(folder_.Read("1/card/a b.der"), "\x30\x01x");
  EXPECT_EQ(Run(script + "insert 1"), "") << "a card changed for another one";
  EXPECT_EQ(Run("ls -A " + folder_.Path("1/card")), "");
  EXPECT_EQ(Run(script + "remove 1"), "");

  const std::pair<std::string, std::string> rows[] = {
      {"insert ../x", "2 card: usage: "},
      {"remove 1", "1 card: there is no card in slot 1"},
      {"insert 1 " + crt + "x", "1 card: cannot read the file "},
      {"insert 1 " + crt + " " + crt, "1 card: two files would have the name "}};
  for (const auto& [arguments, answer] : rows) {
    const std::string told = Run(script + arguments);
    EXPECT_TRUE(told.starts_with(answer)) << arguments << ": " << told;
  }
  EXPECT_EQ(Run("ls -A " + folder_.Path("1")), "") << "nothing is left behind";
}

}  // namespace
}  // namespace qixx::testing
