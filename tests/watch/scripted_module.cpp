// A PKCS#11 module whose slot events follow a script in the environment: one word for each poll,
// made of the event's slot ('-' for none), ':' and the slots that show a token from then on. The
// tokens of the first word are there from the start, those of the last one stay.
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "pkcs11/cryptoki.h"

namespace {

std::vector<std::string> g_script;
std::size_t g_polls;
std::vector<CK_SLOT_ID> g_tokens;

void ReadTokens(const std::string& word) {
  g_tokens.clear();
  std::istringstream slots(word.substr(word.find(':') + 1));
  for (std::string slot; std::getline(slots, slot, ',');) g_tokens.push_back(std::stoul(slot));
}

CK_RV Initialize(CK_VOID_PTR) {
  const char* const script = std::getenv("SCRIPTED_EVENTS");
  std::istringstream words(script == nullptr ? "" : script);
  g_script.clear();
  for (std::string word; words >> word;) g_script.push_back(word);
  g_polls = 0;
  if (!g_script.empty()) ReadTokens(g_script.front());
  return CKR_OK;
}
CK_RV Finalize(CK_VOID_PTR) {
  return CKR_OK;
}

CK_RV WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved) {
  if (flags != CKF_DONT_BLOCK || reserved != nullptr) return CKR_ARGUMENTS_BAD;
  if (g_polls == g_script.size()) return CKR_NO_EVENT;
  const std::string& word = g_script[g_polls++];
  ReadTokens(word);
  if (word.front() == '-') return CKR_NO_EVENT;
  *slot = std::stoul(word);
  return CKR_OK;
}
CK_RV GetSlotList(CK_BBOOL, CK_SLOT_ID_PTR slots, CK_ULONG_PTR count) {
  for (std::size_t i = 0; slots != nullptr && i < g_tokens.size(); ++i) slots[i] = g_tokens[i];
  *count = g_tokens.size();
  return CKR_OK;
}
CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info) {
  *info = {};
  info->flags = CKF_HW_SLOT;
  for (const CK_SLOT_ID token : g_tokens) {
    if (token == slot) info->flags |= CKF_TOKEN_PRESENT;
  }
  return CKR_OK;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(
    CK_FUNCTION_LIST_PTR_PTR list) {
  static CK_FUNCTION_LIST functions = {};
  functions.C_Initialize = Initialize;
  functions.C_Finalize = Finalize;
  functions.C_WaitForSlotEvent = WaitForSlotEvent;
  functions.C_GetSlotList = GetSlotList;
  functions.C_GetSlotInfo = GetSlotInfo;
  *list = &functions;
  return CKR_OK;
}
