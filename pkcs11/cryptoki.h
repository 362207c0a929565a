// The PKCS#11 2.40 interface ("Cryptoki") under its published names.
//
// Written for this product from the OASIS standard: the list of the 68 functions, the types and
// structures that they take, and of the constants those that something here uses; others are added
// when they are needed. All names stand in the global namespace, as the standard has them; the
// constants are typed values instead of macros. Structures have the platform's natural alignment,
// which is what modules for Linux are built with. Texts inside structures are padded with blanks
// and never zero-terminated.
#pragma once

// --- plain types -------------------------------------------------------------------------------

inline constexpr unsigned char CRYPTOKI_VERSION_MAJOR = 2;
inline constexpr unsigned char CRYPTOKI_VERSION_MINOR = 40;

using CK_BYTE = unsigned char;
using CK_CHAR = CK_BYTE;
using CK_UTF8CHAR = CK_BYTE;
using CK_BBOOL = CK_BYTE;
using CK_ULONG = unsigned long;
using CK_FLAGS = CK_ULONG;
using CK_RV = CK_ULONG;

using CK_SLOT_ID = CK_ULONG;
using CK_SESSION_HANDLE = CK_ULONG;
using CK_OBJECT_HANDLE = CK_ULONG;
using CK_NOTIFICATION = CK_ULONG;
using CK_USER_TYPE = CK_ULONG;
using CK_STATE = CK_ULONG;
using CK_OBJECT_CLASS = CK_ULONG;
using CK_CERTIFICATE_TYPE = CK_ULONG;
using CK_ATTRIBUTE_TYPE = CK_ULONG;
using CK_MECHANISM_TYPE = CK_ULONG;

using CK_VOID_PTR = void*;
using CK_VOID_PTR_PTR = CK_VOID_PTR*;
using CK_BYTE_PTR = CK_BYTE*;
using CK_UTF8CHAR_PTR = CK_UTF8CHAR*;
using CK_ULONG_PTR = CK_ULONG*;
using CK_SLOT_ID_PTR = CK_SLOT_ID*;
using CK_SESSION_HANDLE_PTR = CK_SESSION_HANDLE*;
using CK_OBJECT_HANDLE_PTR = CK_OBJECT_HANDLE*;
using CK_MECHANISM_TYPE_PTR = CK_MECHANISM_TYPE*;

inline constexpr CK_BBOOL CK_FALSE = 0;
inline constexpr CK_BBOOL CK_TRUE = 1;
/// A length or count that cannot be told.
inline constexpr CK_ULONG CK_UNAVAILABLE_INFORMATION = ~CK_ULONG{0};
/// No session or object has this handle.
inline constexpr CK_ULONG CK_INVALID_HANDLE = 0;

// --- structures --------------------------------------------------------------------------------

struct CK_VERSION {
  CK_BYTE major;
  CK_BYTE minor;
};

struct CK_INFO {
  CK_VERSION cryptokiVersion;
  CK_UTF8CHAR manufacturerID[32];
  CK_FLAGS flags;
  CK_UTF8CHAR libraryDescription[32];
  CK_VERSION libraryVersion;
};
using CK_INFO_PTR = CK_INFO*;

struct CK_SLOT_INFO {
  CK_UTF8CHAR slotDescription[64];
  CK_UTF8CHAR manufacturerID[32];
  CK_FLAGS flags;
  CK_VERSION hardwareVersion;
  CK_VERSION firmwareVersion;
};
using CK_SLOT_INFO_PTR = CK_SLOT_INFO*;

struct CK_TOKEN_INFO {
  CK_UTF8CHAR label[32];
  CK_UTF8CHAR manufacturerID[32];
  CK_UTF8CHAR model[16];
  CK_CHAR serialNumber[16];
  CK_FLAGS flags;
  CK_ULONG ulMaxSessionCount;
  CK_ULONG ulSessionCount;
  CK_ULONG ulMaxRwSessionCount;
  CK_ULONG ulRwSessionCount;
  CK_ULONG ulMaxPinLen;
  CK_ULONG ulMinPinLen;
  CK_ULONG ulTotalPublicMemory;
  CK_ULONG ulFreePublicMemory;
  CK_ULONG ulTotalPrivateMemory;
  CK_ULONG ulFreePrivateMemory;
  CK_VERSION hardwareVersion;
  CK_VERSION firmwareVersion;
  CK_CHAR utcTime[16];
};
using CK_TOKEN_INFO_PTR = CK_TOKEN_INFO*;

struct CK_SESSION_INFO {
  CK_SLOT_ID slotID;
  CK_STATE state;
  CK_FLAGS flags;
  CK_ULONG ulDeviceError;
};
using CK_SESSION_INFO_PTR = CK_SESSION_INFO*;

struct CK_ATTRIBUTE {
  CK_ATTRIBUTE_TYPE type;
  CK_VOID_PTR pValue;
  CK_ULONG ulValueLen;  ///< bytes
};
using CK_ATTRIBUTE_PTR = CK_ATTRIBUTE*;

struct CK_MECHANISM {
  CK_MECHANISM_TYPE mechanism;
  CK_VOID_PTR pParameter;
  CK_ULONG ulParameterLen;  ///< bytes
};
using CK_MECHANISM_PTR = CK_MECHANISM*;

struct CK_MECHANISM_INFO {
  CK_ULONG ulMinKeySize;
  CK_ULONG ulMaxKeySize;
  CK_FLAGS flags;
};
using CK_MECHANISM_INFO_PTR = CK_MECHANISM_INFO*;

struct CK_FUNCTION_LIST;
using CK_FUNCTION_LIST_PTR = CK_FUNCTION_LIST*;
using CK_FUNCTION_LIST_PTR_PTR = CK_FUNCTION_LIST_PTR*;

extern "C" {
using CK_NOTIFY = CK_RV (*)(CK_SESSION_HANDLE session, CK_NOTIFICATION event,
                            CK_VOID_PTR application);
using CK_CREATEMUTEX = CK_RV (*)(CK_VOID_PTR_PTR mutex);
using CK_DESTROYMUTEX = CK_RV (*)(CK_VOID_PTR mutex);
using CK_LOCKMUTEX = CK_RV (*)(CK_VOID_PTR mutex);
using CK_UNLOCKMUTEX = CK_RV (*)(CK_VOID_PTR mutex);
}

struct CK_C_INITIALIZE_ARGS {
  CK_CREATEMUTEX CreateMutex;
  CK_DESTROYMUTEX DestroyMutex;
  CK_LOCKMUTEX LockMutex;
  CK_UNLOCKMUTEX UnlockMutex;
  CK_FLAGS flags;
  CK_VOID_PTR pReserved;
};

// --- functions ---------------------------------------------------------------------------------

/// The 68 functions in the standard's order, each as X(name, parameters, arguments): the name
/// without its "C_", the parameter list, and the parameter names to pass it on with. Types,
/// prototypes and the function list below, and every forwarder, come from this one list.
#define QIXX_CK_FUNCTIONS(X)                                                                       \
  X(Initialize, (CK_VOID_PTR initArgs), (initArgs))                                                \
  X(Finalize, (CK_VOID_PTR reserved), (reserved))                                                  \
  X(GetInfo, (CK_INFO_PTR info), (info))                                                           \
  X(GetFunctionList, (CK_FUNCTION_LIST_PTR_PTR list), (list))                                      \
  X(GetSlotList, (CK_BBOOL tokenPresent, CK_SLOT_ID_PTR slots, CK_ULONG_PTR count),                \
    (tokenPresent, slots, count))                                                                  \
  X(GetSlotInfo, (CK_SLOT_ID slot, CK_SLOT_INFO_PTR info), (slot, info))                           \
  X(GetTokenInfo, (CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info), (slot, info))                         \
  X(GetMechanismList, (CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR mechanisms, CK_ULONG_PTR count),     \
    (slot, mechanisms, count))                                                                     \
  X(GetMechanismInfo, (CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info),       \
    (slot, type, info))                                                                            \
  X(InitToken, (CK_SLOT_ID slot, CK_UTF8CHAR_PTR pin, CK_ULONG pinLength, CK_UTF8CHAR_PTR label),  \
    (slot, pin, pinLength, label))                                                                 \
  X(InitPIN, (CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLength),                 \
    (session, pin, pinLength))                                                                     \
  X(SetPIN,                                                                                        \
    (CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldPinLength,                     \
     CK_UTF8CHAR_PTR newPin, CK_ULONG newPinLength),                                               \
    (session, oldPin, oldPinLength, newPin, newPinLength))                                         \
  X(OpenSession,                                                                                   \
    (CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,                   \
     CK_SESSION_HANDLE_PTR session),                                                               \
    (slot, flags, application, notify, session))                                                   \
  X(CloseSession, (CK_SESSION_HANDLE session), (session))                                          \
  X(CloseAllSessions, (CK_SLOT_ID slot), (slot))                                                   \
  X(GetSessionInfo, (CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info), (session, info))        \
  X(GetOperationState, (CK_SESSION_HANDLE session, CK_BYTE_PTR state, CK_ULONG_PTR stateLength),   \
    (session, state, stateLength))                                                                 \
  X(SetOperationState,                                                                             \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR state, CK_ULONG stateLength,                           \
     CK_OBJECT_HANDLE encryptionKey, CK_OBJECT_HANDLE authenticationKey),                          \
    (session, state, stateLength, encryptionKey, authenticationKey))                               \
  X(Login,                                                                                         \
    (CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG pinLength),       \
    (session, user, pin, pinLength))                                                               \
  X(Logout, (CK_SESSION_HANDLE session), (session))                                                \
  X(CreateObject,                                                                                  \
    (CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,                       \
     CK_OBJECT_HANDLE_PTR object),                                                                 \
    (session, attributes, count, object))                                                          \
  X(CopyObject,                                                                                    \
    (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,              \
     CK_ULONG count, CK_OBJECT_HANDLE_PTR copy),                                                   \
    (session, object, attributes, count, copy))                                                    \
  X(DestroyObject, (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object), (session, object))        \
  X(GetObjectSize, (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG_PTR size),        \
    (session, object, size))                                                                       \
  X(GetAttributeValue,                                                                             \
    (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,              \
     CK_ULONG count),                                                                              \
    (session, object, attributes, count))                                                          \
  X(SetAttributeValue,                                                                             \
    (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,              \
     CK_ULONG count),                                                                              \
    (session, object, attributes, count))                                                          \
  X(FindObjectsInit, (CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count),     \
    (session, attributes, count))                                                                  \
  X(FindObjects,                                                                                   \
    (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG maximum,                    \
     CK_ULONG_PTR count),                                                                          \
    (session, objects, maximum, count))                                                            \
  X(FindObjectsFinal, (CK_SESSION_HANDLE session), (session))                                      \
  X(EncryptInit, (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key),    \
    (session, mechanism, key))                                                                     \
  X(Encrypt,                                                                                       \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength, CK_BYTE_PTR encrypted,      \
     CK_ULONG_PTR encryptedLength),                                                                \
    (session, data, dataLength, encrypted, encryptedLength))                                       \
  X(EncryptUpdate,                                                                                 \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLength, CK_BYTE_PTR encrypted,      \
     CK_ULONG_PTR encryptedLength),                                                                \
    (session, part, partLength, encrypted, encryptedLength))                                       \
  X(EncryptFinal,                                                                                  \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG_PTR encryptedLength),              \
    (session, encrypted, encryptedLength))                                                         \
  X(DecryptInit, (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key),    \
    (session, mechanism, key))                                                                     \
  X(Decrypt,                                                                                       \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encryptedLength, CK_BYTE_PTR data, \
     CK_ULONG_PTR dataLength),                                                                     \
    (session, encrypted, encryptedLength, data, dataLength))                                       \
  X(DecryptUpdate,                                                                                 \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encryptedLength, CK_BYTE_PTR part, \
     CK_ULONG_PTR partLength),                                                                     \
    (session, encrypted, encryptedLength, part, partLength))                                       \
  X(DecryptFinal, (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG_PTR partLength),          \
    (session, part, partLength))                                                                   \
  X(DigestInit, (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism), (session, mechanism))     \
  X(Digest,                                                                                        \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength, CK_BYTE_PTR digest,         \
     CK_ULONG_PTR digestLength),                                                                   \
    (session, data, dataLength, digest, digestLength))                                             \
  X(DigestUpdate, (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLength),              \
    (session, part, partLength))                                                                   \
  X(DigestKey, (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key), (session, key))                  \
  X(DigestFinal, (CK_SESSION_HANDLE session, CK_BYTE_PTR digest, CK_ULONG_PTR digestLength),       \
    (session, digest, digestLength))                                                               \
  X(SignInit, (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key),       \
    (session, mechanism, key))                                                                     \
  X(Sign,                                                                                          \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength, CK_BYTE_PTR signature,      \
     CK_ULONG_PTR signatureLength),                                                                \
    (session, data, dataLength, signature, signatureLength))                                       \
  X(SignUpdate, (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLength),                \
    (session, part, partLength))                                                                   \
  X(SignFinal, (CK_SESSION_HANDLE session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLength),   \
    (session, signature, signatureLength))                                                         \
  X(SignRecoverInit,                                                                               \
    (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key),                 \
    (session, mechanism, key))                                                                     \
  X(SignRecover,                                                                                   \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength, CK_BYTE_PTR signature,      \
     CK_ULONG_PTR signatureLength),                                                                \
    (session, data, dataLength, signature, signatureLength))                                       \
  X(VerifyInit, (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key),     \
    (session, mechanism, key))                                                                     \
  X(Verify,                                                                                        \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength, CK_BYTE_PTR signature,      \
     CK_ULONG signatureLength),                                                                    \
    (session, data, dataLength, signature, signatureLength))                                       \
  X(VerifyUpdate, (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLength),              \
    (session, part, partLength))                                                                   \
  X(VerifyFinal, (CK_SESSION_HANDLE session, CK_BYTE_PTR signature, CK_ULONG signatureLength),     \
    (session, signature, signatureLength))                                                         \
  X(VerifyRecoverInit,                                                                             \
    (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key),                 \
    (session, mechanism, key))                                                                     \
  X(VerifyRecover,                                                                                 \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR signature, CK_ULONG signatureLength, CK_BYTE_PTR data, \
     CK_ULONG_PTR dataLength),                                                                     \
    (session, signature, signatureLength, data, dataLength))                                       \
  X(DigestEncryptUpdate,                                                                           \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLength, CK_BYTE_PTR encrypted,      \
     CK_ULONG_PTR encryptedLength),                                                                \
    (session, part, partLength, encrypted, encryptedLength))                                       \
  X(DecryptDigestUpdate,                                                                           \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encryptedLength, CK_BYTE_PTR part, \
     CK_ULONG_PTR partLength),                                                                     \
    (session, encrypted, encryptedLength, part, partLength))                                       \
  X(SignEncryptUpdate,                                                                             \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLength, CK_BYTE_PTR encrypted,      \
     CK_ULONG_PTR encryptedLength),                                                                \
    (session, part, partLength, encrypted, encryptedLength))                                       \
  X(DecryptVerifyUpdate,                                                                           \
    (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encryptedLength, CK_BYTE_PTR part, \
     CK_ULONG_PTR partLength),                                                                     \
    (session, encrypted, encryptedLength, part, partLength))                                       \
  X(GenerateKey,                                                                                   \
    (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR attributes,           \
     CK_ULONG count, CK_OBJECT_HANDLE_PTR key),                                                    \
    (session, mechanism, attributes, count, key))                                                  \
  X(GenerateKeyPair,                                                                               \
    (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR publicAttributes,     \
     CK_ULONG publicCount, CK_ATTRIBUTE_PTR privateAttributes, CK_ULONG privateCount,              \
     CK_OBJECT_HANDLE_PTR publicKey, CK_OBJECT_HANDLE_PTR privateKey),                             \
    (session, mechanism, publicAttributes, publicCount, privateAttributes, privateCount,           \
     publicKey, privateKey))                                                                       \
  X(WrapKey,                                                                                       \
    (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE wrappingKey,          \
     CK_OBJECT_HANDLE key, CK_BYTE_PTR wrapped, CK_ULONG_PTR wrappedLength),                       \
    (session, mechanism, wrappingKey, key, wrapped, wrappedLength))                                \
  X(UnwrapKey,                                                                                     \
    (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE unwrappingKey,        \
     CK_BYTE_PTR wrapped, CK_ULONG wrappedLength, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,     \
     CK_OBJECT_HANDLE_PTR key),                                                                    \
    (session, mechanism, unwrappingKey, wrapped, wrappedLength, attributes, count, key))           \
  X(DeriveKey,                                                                                     \
    (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE baseKey,              \
     CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_OBJECT_HANDLE_PTR key),                       \
    (session, mechanism, baseKey, attributes, count, key))                                         \
  X(SeedRandom, (CK_SESSION_HANDLE session, CK_BYTE_PTR seed, CK_ULONG seedLength),                \
    (session, seed, seedLength))                                                                   \
  X(GenerateRandom, (CK_SESSION_HANDLE session, CK_BYTE_PTR random, CK_ULONG randomLength),        \
    (session, random, randomLength))                                                               \
  X(GetFunctionStatus, (CK_SESSION_HANDLE session), (session))                                     \
  X(CancelFunction, (CK_SESSION_HANDLE session), (session))                                        \
  X(WaitForSlotEvent, (CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved),                 \
    (flags, slot, reserved))

/// Linkage of a function that a module exports.
#define QIXX_CK_EXPORT extern "C" __attribute__((visibility("default")))

// The pointer types, CK_C_Initialize to CK_C_WaitForSlotEvent.
extern "C" {
#define QIXX_CK_POINTER_TYPE(name, parameters, arguments) \
  using CK_C_##name = CK_RV(*) parameters;  // NOLINT(bugprone-macro-parentheses)
QIXX_CK_FUNCTIONS(QIXX_CK_POINTER_TYPE)
#undef QIXX_CK_POINTER_TYPE
}

// The prototypes, C_Initialize to C_WaitForSlotEvent, for a module that defines them.
#define QIXX_CK_PROTOTYPE(name, parameters, arguments) QIXX_CK_EXPORT CK_RV C_##name parameters;
QIXX_CK_FUNCTIONS(QIXX_CK_PROTOTYPE)
#undef QIXX_CK_PROTOTYPE

struct CK_FUNCTION_LIST {
  CK_VERSION version;
#define QIXX_CK_MEMBER(name, parameters, arguments) CK_C_##name C_##name;
  QIXX_CK_FUNCTIONS(QIXX_CK_MEMBER)
#undef QIXX_CK_MEMBER
};

// --- return values -----------------------------------------------------------------------------

inline constexpr CK_RV CKR_OK = 0x000;
inline constexpr CK_RV CKR_HOST_MEMORY = 0x002;
inline constexpr CK_RV CKR_SLOT_ID_INVALID = 0x003;
inline constexpr CK_RV CKR_GENERAL_ERROR = 0x005;
inline constexpr CK_RV CKR_FUNCTION_FAILED = 0x006;
inline constexpr CK_RV CKR_ARGUMENTS_BAD = 0x007;
inline constexpr CK_RV CKR_NO_EVENT = 0x008;
inline constexpr CK_RV CKR_CANT_LOCK = 0x00A;
inline constexpr CK_RV CKR_ATTRIBUTE_READ_ONLY = 0x010;
inline constexpr CK_RV CKR_ATTRIBUTE_TYPE_INVALID = 0x012;
inline constexpr CK_RV CKR_ATTRIBUTE_VALUE_INVALID = 0x013;
inline constexpr CK_RV CKR_DATA_INVALID = 0x020;
inline constexpr CK_RV CKR_DATA_LEN_RANGE = 0x021;
inline constexpr CK_RV CKR_DEVICE_ERROR = 0x030;
inline constexpr CK_RV CKR_DEVICE_MEMORY = 0x031;
inline constexpr CK_RV CKR_DEVICE_REMOVED = 0x032;
inline constexpr CK_RV CKR_FUNCTION_NOT_PARALLEL = 0x051;
inline constexpr CK_RV CKR_FUNCTION_NOT_SUPPORTED = 0x054;
inline constexpr CK_RV CKR_MECHANISM_INVALID = 0x070;
inline constexpr CK_RV CKR_OBJECT_HANDLE_INVALID = 0x082;
inline constexpr CK_RV CKR_OPERATION_ACTIVE = 0x090;
inline constexpr CK_RV CKR_OPERATION_NOT_INITIALIZED = 0x091;
inline constexpr CK_RV CKR_SESSION_COUNT = 0x0B1;
inline constexpr CK_RV CKR_SESSION_HANDLE_INVALID = 0x0B3;
inline constexpr CK_RV CKR_SESSION_PARALLEL_NOT_SUPPORTED = 0x0B4;
inline constexpr CK_RV CKR_SESSION_READ_ONLY = 0x0B5;
inline constexpr CK_RV CKR_TEMPLATE_INCOMPLETE = 0x0D0;
inline constexpr CK_RV CKR_TEMPLATE_INCONSISTENT = 0x0D1;
inline constexpr CK_RV CKR_TOKEN_NOT_PRESENT = 0x0E0;
inline constexpr CK_RV CKR_TOKEN_WRITE_PROTECTED = 0x0E2;
inline constexpr CK_RV CKR_USER_NOT_LOGGED_IN = 0x101;
inline constexpr CK_RV CKR_BUFFER_TOO_SMALL = 0x150;
inline constexpr CK_RV CKR_CRYPTOKI_NOT_INITIALIZED = 0x190;
inline constexpr CK_RV CKR_CRYPTOKI_ALREADY_INITIALIZED = 0x191;

// --- flags -------------------------------------------------------------------------------------

// Slots.
inline constexpr CK_FLAGS CKF_TOKEN_PRESENT = 0x00000001;
inline constexpr CK_FLAGS CKF_REMOVABLE_DEVICE = 0x00000002;
inline constexpr CK_FLAGS CKF_HW_SLOT = 0x00000004;
// Tokens.
inline constexpr CK_FLAGS CKF_TOKEN_INITIALIZED = 0x00000400;
// Sessions.
inline constexpr CK_FLAGS CKF_RW_SESSION = 0x00000002;
inline constexpr CK_FLAGS CKF_SERIAL_SESSION = 0x00000004;
// C_Initialize.
inline constexpr CK_FLAGS CKF_OS_LOCKING_OK = 0x00000002;
// C_WaitForSlotEvent.
inline constexpr CK_FLAGS CKF_DONT_BLOCK = 0x00000001;

// --- objects -----------------------------------------------------------------------------------

inline constexpr CK_OBJECT_CLASS CKO_DATA = 0x0;
inline constexpr CK_OBJECT_CLASS CKO_CERTIFICATE = 0x1;

inline constexpr CK_CERTIFICATE_TYPE CKC_X_509 = 0x0;

inline constexpr CK_ATTRIBUTE_TYPE CKA_CLASS = 0x000;
inline constexpr CK_ATTRIBUTE_TYPE CKA_TOKEN = 0x001;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIVATE = 0x002;
inline constexpr CK_ATTRIBUTE_TYPE CKA_LABEL = 0x003;
inline constexpr CK_ATTRIBUTE_TYPE CKA_APPLICATION = 0x010;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VALUE = 0x011;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OBJECT_ID = 0x012;
inline constexpr CK_ATTRIBUTE_TYPE CKA_CERTIFICATE_TYPE = 0x080;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ISSUER = 0x081;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SERIAL_NUMBER = 0x082;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SUBJECT = 0x101;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ID = 0x102;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODULUS = 0x120;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODIFIABLE = 0x170;

// --- sessions ----------------------------------------------------------------------------------

inline constexpr CK_STATE CKS_RO_PUBLIC_SESSION = 0;
inline constexpr CK_STATE CKS_RW_PUBLIC_SESSION = 2;
