// The PKCS#11 2.40 interface ("Cryptoki") under its published names.
//
// Written for this product from the OASIS standard: the types, the structures, the list of the 68
// functions and the constants that a watcher, a soft token and a bridge between modules need. All
// names stand in the global namespace, as the standard has them; the constants are typed values
// instead of macros. Structures have the platform's natural alignment, which is what modules for
// Linux are built with. Texts inside structures are padded with blanks and never zero-terminated.
#pragma once

// --- plain types -------------------------------------------------------------------------------

inline constexpr unsigned char CRYPTOKI_VERSION_MAJOR = 2;
inline constexpr unsigned char CRYPTOKI_VERSION_MINOR = 40;

using CK_BYTE = unsigned char;
using CK_CHAR = CK_BYTE;
using CK_UTF8CHAR = CK_BYTE;
using CK_BBOOL = CK_BYTE;
using CK_ULONG = unsigned long;
using CK_LONG = long;
using CK_FLAGS = CK_ULONG;
using CK_RV = CK_ULONG;

using CK_SLOT_ID = CK_ULONG;
using CK_SESSION_HANDLE = CK_ULONG;
using CK_OBJECT_HANDLE = CK_ULONG;
using CK_NOTIFICATION = CK_ULONG;
using CK_USER_TYPE = CK_ULONG;
using CK_STATE = CK_ULONG;
using CK_OBJECT_CLASS = CK_ULONG;
using CK_HW_FEATURE_TYPE = CK_ULONG;
using CK_KEY_TYPE = CK_ULONG;
using CK_CERTIFICATE_TYPE = CK_ULONG;
using CK_CERTIFICATE_CATEGORY = CK_ULONG;
using CK_ATTRIBUTE_TYPE = CK_ULONG;
using CK_MECHANISM_TYPE = CK_ULONG;

using CK_VOID_PTR = void*;
using CK_VOID_PTR_PTR = CK_VOID_PTR*;
using CK_BYTE_PTR = CK_BYTE*;
using CK_CHAR_PTR = CK_CHAR*;
using CK_UTF8CHAR_PTR = CK_UTF8CHAR*;
using CK_ULONG_PTR = CK_ULONG*;
using CK_SLOT_ID_PTR = CK_SLOT_ID*;
using CK_SESSION_HANDLE_PTR = CK_SESSION_HANDLE*;
using CK_OBJECT_HANDLE_PTR = CK_OBJECT_HANDLE*;
using CK_OBJECT_CLASS_PTR = CK_OBJECT_CLASS*;
using CK_MECHANISM_TYPE_PTR = CK_MECHANISM_TYPE*;

inline constexpr CK_BBOOL CK_FALSE = 0;
inline constexpr CK_BBOOL CK_TRUE = 1;
/// A length or count that cannot be told.
inline constexpr CK_ULONG CK_UNAVAILABLE_INFORMATION = ~CK_ULONG{0};
inline constexpr CK_ULONG CK_EFFECTIVELY_INFINITE = 0;
/// No session or object has this handle.
inline constexpr CK_ULONG CK_INVALID_HANDLE = 0;

// --- structures --------------------------------------------------------------------------------

struct CK_VERSION {
  CK_BYTE major;
  CK_BYTE minor;
};
using CK_VERSION_PTR = CK_VERSION*;

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

struct CK_DATE {
  CK_CHAR year[4];
  CK_CHAR month[2];
  CK_CHAR day[2];
};

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
using CK_C_INITIALIZE_ARGS_PTR = CK_C_INITIALIZE_ARGS*;

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
inline constexpr CK_RV CKR_CANCEL = 0x001;
inline constexpr CK_RV CKR_HOST_MEMORY = 0x002;
inline constexpr CK_RV CKR_SLOT_ID_INVALID = 0x003;
inline constexpr CK_RV CKR_GENERAL_ERROR = 0x005;
inline constexpr CK_RV CKR_FUNCTION_FAILED = 0x006;
inline constexpr CK_RV CKR_ARGUMENTS_BAD = 0x007;
inline constexpr CK_RV CKR_NO_EVENT = 0x008;
inline constexpr CK_RV CKR_NEED_TO_CREATE_THREADS = 0x009;
inline constexpr CK_RV CKR_CANT_LOCK = 0x00A;
inline constexpr CK_RV CKR_ATTRIBUTE_READ_ONLY = 0x010;
inline constexpr CK_RV CKR_ATTRIBUTE_SENSITIVE = 0x011;
inline constexpr CK_RV CKR_ATTRIBUTE_TYPE_INVALID = 0x012;
inline constexpr CK_RV CKR_ATTRIBUTE_VALUE_INVALID = 0x013;
inline constexpr CK_RV CKR_ACTION_PROHIBITED = 0x01B;
inline constexpr CK_RV CKR_DATA_INVALID = 0x020;
inline constexpr CK_RV CKR_DATA_LEN_RANGE = 0x021;
inline constexpr CK_RV CKR_DEVICE_ERROR = 0x030;
inline constexpr CK_RV CKR_DEVICE_MEMORY = 0x031;
inline constexpr CK_RV CKR_DEVICE_REMOVED = 0x032;
inline constexpr CK_RV CKR_ENCRYPTED_DATA_INVALID = 0x040;
inline constexpr CK_RV CKR_ENCRYPTED_DATA_LEN_RANGE = 0x041;
inline constexpr CK_RV CKR_FUNCTION_CANCELED = 0x050;
inline constexpr CK_RV CKR_FUNCTION_NOT_PARALLEL = 0x051;
inline constexpr CK_RV CKR_FUNCTION_NOT_SUPPORTED = 0x054;
inline constexpr CK_RV CKR_KEY_HANDLE_INVALID = 0x060;
inline constexpr CK_RV CKR_KEY_SIZE_RANGE = 0x062;
inline constexpr CK_RV CKR_KEY_TYPE_INCONSISTENT = 0x063;
inline constexpr CK_RV CKR_KEY_NOT_NEEDED = 0x064;
inline constexpr CK_RV CKR_KEY_CHANGED = 0x065;
inline constexpr CK_RV CKR_KEY_NEEDED = 0x066;
inline constexpr CK_RV CKR_KEY_INDIGESTIBLE = 0x067;
inline constexpr CK_RV CKR_KEY_FUNCTION_NOT_PERMITTED = 0x068;
inline constexpr CK_RV CKR_KEY_NOT_WRAPPABLE = 0x069;
inline constexpr CK_RV CKR_KEY_UNEXTRACTABLE = 0x06A;
inline constexpr CK_RV CKR_MECHANISM_INVALID = 0x070;
inline constexpr CK_RV CKR_MECHANISM_PARAM_INVALID = 0x071;
inline constexpr CK_RV CKR_OBJECT_HANDLE_INVALID = 0x082;
inline constexpr CK_RV CKR_OPERATION_ACTIVE = 0x090;
inline constexpr CK_RV CKR_OPERATION_NOT_INITIALIZED = 0x091;
inline constexpr CK_RV CKR_PIN_INCORRECT = 0x0A0;
inline constexpr CK_RV CKR_PIN_INVALID = 0x0A1;
inline constexpr CK_RV CKR_PIN_LEN_RANGE = 0x0A2;
inline constexpr CK_RV CKR_PIN_EXPIRED = 0x0A3;
inline constexpr CK_RV CKR_PIN_LOCKED = 0x0A4;
inline constexpr CK_RV CKR_SESSION_CLOSED = 0x0B0;
inline constexpr CK_RV CKR_SESSION_COUNT = 0x0B1;
inline constexpr CK_RV CKR_SESSION_HANDLE_INVALID = 0x0B3;
inline constexpr CK_RV CKR_SESSION_PARALLEL_NOT_SUPPORTED = 0x0B4;
inline constexpr CK_RV CKR_SESSION_READ_ONLY = 0x0B5;
inline constexpr CK_RV CKR_SESSION_EXISTS = 0x0B6;
inline constexpr CK_RV CKR_SESSION_READ_ONLY_EXISTS = 0x0B7;
inline constexpr CK_RV CKR_SESSION_READ_WRITE_SO_EXISTS = 0x0B8;
inline constexpr CK_RV CKR_SIGNATURE_INVALID = 0x0C0;
inline constexpr CK_RV CKR_SIGNATURE_LEN_RANGE = 0x0C1;
inline constexpr CK_RV CKR_TEMPLATE_INCOMPLETE = 0x0D0;
inline constexpr CK_RV CKR_TEMPLATE_INCONSISTENT = 0x0D1;
inline constexpr CK_RV CKR_TOKEN_NOT_PRESENT = 0x0E0;
inline constexpr CK_RV CKR_TOKEN_NOT_RECOGNIZED = 0x0E1;
inline constexpr CK_RV CKR_TOKEN_WRITE_PROTECTED = 0x0E2;
inline constexpr CK_RV CKR_UNWRAPPING_KEY_HANDLE_INVALID = 0x0F0;
inline constexpr CK_RV CKR_UNWRAPPING_KEY_SIZE_RANGE = 0x0F1;
inline constexpr CK_RV CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT = 0x0F2;
inline constexpr CK_RV CKR_USER_ALREADY_LOGGED_IN = 0x100;
inline constexpr CK_RV CKR_USER_NOT_LOGGED_IN = 0x101;
inline constexpr CK_RV CKR_USER_PIN_NOT_INITIALIZED = 0x102;
inline constexpr CK_RV CKR_USER_TYPE_INVALID = 0x103;
inline constexpr CK_RV CKR_USER_ANOTHER_ALREADY_LOGGED_IN = 0x104;
inline constexpr CK_RV CKR_USER_TOO_MANY_TYPES = 0x105;
inline constexpr CK_RV CKR_WRAPPED_KEY_INVALID = 0x110;
inline constexpr CK_RV CKR_WRAPPED_KEY_LEN_RANGE = 0x112;
inline constexpr CK_RV CKR_WRAPPING_KEY_HANDLE_INVALID = 0x113;
inline constexpr CK_RV CKR_WRAPPING_KEY_SIZE_RANGE = 0x114;
inline constexpr CK_RV CKR_WRAPPING_KEY_TYPE_INCONSISTENT = 0x115;
inline constexpr CK_RV CKR_RANDOM_SEED_NOT_SUPPORTED = 0x120;
inline constexpr CK_RV CKR_RANDOM_NO_RNG = 0x121;
inline constexpr CK_RV CKR_DOMAIN_PARAMS_INVALID = 0x130;
inline constexpr CK_RV CKR_CURVE_NOT_SUPPORTED = 0x140;
inline constexpr CK_RV CKR_BUFFER_TOO_SMALL = 0x150;
inline constexpr CK_RV CKR_SAVED_STATE_INVALID = 0x160;
inline constexpr CK_RV CKR_INFORMATION_SENSITIVE = 0x170;
inline constexpr CK_RV CKR_STATE_UNSAVEABLE = 0x180;
inline constexpr CK_RV CKR_CRYPTOKI_NOT_INITIALIZED = 0x190;
inline constexpr CK_RV CKR_CRYPTOKI_ALREADY_INITIALIZED = 0x191;
inline constexpr CK_RV CKR_MUTEX_BAD = 0x1A0;
inline constexpr CK_RV CKR_MUTEX_NOT_LOCKED = 0x1A1;
inline constexpr CK_RV CKR_NEW_PIN_MODE = 0x1B0;
inline constexpr CK_RV CKR_NEXT_OTP = 0x1B1;
inline constexpr CK_RV CKR_EXCEEDED_MAX_ITERATIONS = 0x1B5;
inline constexpr CK_RV CKR_FIPS_SELF_TEST_FAILED = 0x1B6;
inline constexpr CK_RV CKR_LIBRARY_LOAD_FAILED = 0x1B7;
inline constexpr CK_RV CKR_PIN_TOO_WEAK = 0x1B8;
inline constexpr CK_RV CKR_PUBLIC_KEY_INVALID = 0x1B9;
inline constexpr CK_RV CKR_FUNCTION_REJECTED = 0x200;
inline constexpr CK_RV CKR_VENDOR_DEFINED = 0x80000000;

// --- flags -------------------------------------------------------------------------------------

// Slots.
inline constexpr CK_FLAGS CKF_TOKEN_PRESENT = 0x00000001;
inline constexpr CK_FLAGS CKF_REMOVABLE_DEVICE = 0x00000002;
inline constexpr CK_FLAGS CKF_HW_SLOT = 0x00000004;
// Tokens.
inline constexpr CK_FLAGS CKF_RNG = 0x00000001;
inline constexpr CK_FLAGS CKF_WRITE_PROTECTED = 0x00000002;
inline constexpr CK_FLAGS CKF_LOGIN_REQUIRED = 0x00000004;
inline constexpr CK_FLAGS CKF_USER_PIN_INITIALIZED = 0x00000008;
inline constexpr CK_FLAGS CKF_RESTORE_KEY_NOT_NEEDED = 0x00000020;
inline constexpr CK_FLAGS CKF_CLOCK_ON_TOKEN = 0x00000040;
inline constexpr CK_FLAGS CKF_PROTECTED_AUTHENTICATION_PATH = 0x00000100;
inline constexpr CK_FLAGS CKF_DUAL_CRYPTO_OPERATIONS = 0x00000200;
inline constexpr CK_FLAGS CKF_TOKEN_INITIALIZED = 0x00000400;
inline constexpr CK_FLAGS CKF_SECONDARY_AUTHENTICATION = 0x00000800;
inline constexpr CK_FLAGS CKF_USER_PIN_COUNT_LOW = 0x00010000;
inline constexpr CK_FLAGS CKF_USER_PIN_FINAL_TRY = 0x00020000;
inline constexpr CK_FLAGS CKF_USER_PIN_LOCKED = 0x00040000;
inline constexpr CK_FLAGS CKF_USER_PIN_TO_BE_CHANGED = 0x00080000;
inline constexpr CK_FLAGS CKF_SO_PIN_COUNT_LOW = 0x00100000;
inline constexpr CK_FLAGS CKF_SO_PIN_FINAL_TRY = 0x00200000;
inline constexpr CK_FLAGS CKF_SO_PIN_LOCKED = 0x00400000;
inline constexpr CK_FLAGS CKF_SO_PIN_TO_BE_CHANGED = 0x00800000;
inline constexpr CK_FLAGS CKF_ERROR_STATE = 0x01000000;
// Sessions.
inline constexpr CK_FLAGS CKF_RW_SESSION = 0x00000002;
inline constexpr CK_FLAGS CKF_SERIAL_SESSION = 0x00000004;
// Attribute types that hold an array of attributes.
inline constexpr CK_FLAGS CKF_ARRAY_ATTRIBUTE = 0x40000000;
// Mechanisms.
inline constexpr CK_FLAGS CKF_HW = 0x00000001;
inline constexpr CK_FLAGS CKF_ENCRYPT = 0x00000100;
inline constexpr CK_FLAGS CKF_DECRYPT = 0x00000200;
inline constexpr CK_FLAGS CKF_DIGEST = 0x00000400;
inline constexpr CK_FLAGS CKF_SIGN = 0x00000800;
inline constexpr CK_FLAGS CKF_SIGN_RECOVER = 0x00001000;
inline constexpr CK_FLAGS CKF_VERIFY = 0x00002000;
inline constexpr CK_FLAGS CKF_VERIFY_RECOVER = 0x00004000;
inline constexpr CK_FLAGS CKF_GENERATE = 0x00008000;
inline constexpr CK_FLAGS CKF_GENERATE_KEY_PAIR = 0x00010000;
inline constexpr CK_FLAGS CKF_WRAP = 0x00020000;
inline constexpr CK_FLAGS CKF_UNWRAP = 0x00040000;
inline constexpr CK_FLAGS CKF_DERIVE = 0x00080000;
inline constexpr CK_FLAGS CKF_EC_F_P = 0x00100000;
inline constexpr CK_FLAGS CKF_EC_F_2M = 0x00200000;
inline constexpr CK_FLAGS CKF_EC_ECPARAMETERS = 0x00400000;
inline constexpr CK_FLAGS CKF_EC_NAMEDCURVE = 0x00800000;
inline constexpr CK_FLAGS CKF_EC_UNCOMPRESS = 0x01000000;
inline constexpr CK_FLAGS CKF_EC_COMPRESS = 0x02000000;
inline constexpr CK_FLAGS CKF_EXTENSION = 0x80000000;
// One-time passwords.
inline constexpr CK_FLAGS CKF_NEXT_OTP = 0x00000001;
inline constexpr CK_FLAGS CKF_EXCLUDE_TIME = 0x00000002;
inline constexpr CK_FLAGS CKF_EXCLUDE_COUNTER = 0x00000004;
inline constexpr CK_FLAGS CKF_EXCLUDE_CHALLENGE = 0x00000008;
inline constexpr CK_FLAGS CKF_EXCLUDE_PIN = 0x00000010;
inline constexpr CK_FLAGS CKF_USER_FRIENDLY_OTP = 0x00000020;
// C_Initialize.
inline constexpr CK_FLAGS CKF_LIBRARY_CANT_CREATE_OS_THREADS = 0x00000001;
inline constexpr CK_FLAGS CKF_OS_LOCKING_OK = 0x00000002;
// C_WaitForSlotEvent.
inline constexpr CK_FLAGS CKF_DONT_BLOCK = 0x00000001;

// --- objects -----------------------------------------------------------------------------------

inline constexpr CK_OBJECT_CLASS CKO_DATA = 0x0;
inline constexpr CK_OBJECT_CLASS CKO_CERTIFICATE = 0x1;
inline constexpr CK_OBJECT_CLASS CKO_PUBLIC_KEY = 0x2;
inline constexpr CK_OBJECT_CLASS CKO_PRIVATE_KEY = 0x3;
inline constexpr CK_OBJECT_CLASS CKO_SECRET_KEY = 0x4;
inline constexpr CK_OBJECT_CLASS CKO_HW_FEATURE = 0x5;
inline constexpr CK_OBJECT_CLASS CKO_DOMAIN_PARAMETERS = 0x6;
inline constexpr CK_OBJECT_CLASS CKO_MECHANISM = 0x7;
inline constexpr CK_OBJECT_CLASS CKO_OTP_KEY = 0x8;
inline constexpr CK_OBJECT_CLASS CKO_VENDOR_DEFINED = 0x80000000;

inline constexpr CK_HW_FEATURE_TYPE CKH_MONOTONIC_COUNTER = 0x1;
inline constexpr CK_HW_FEATURE_TYPE CKH_CLOCK = 0x2;
inline constexpr CK_HW_FEATURE_TYPE CKH_USER_INTERFACE = 0x3;
inline constexpr CK_HW_FEATURE_TYPE CKH_VENDOR_DEFINED = 0x80000000;

inline constexpr CK_CERTIFICATE_TYPE CKC_X_509 = 0x0;
inline constexpr CK_CERTIFICATE_TYPE CKC_X_509_ATTR_CERT = 0x1;
inline constexpr CK_CERTIFICATE_TYPE CKC_WTLS = 0x2;
inline constexpr CK_CERTIFICATE_TYPE CKC_VENDOR_DEFINED = 0x80000000;

inline constexpr CK_CERTIFICATE_CATEGORY CK_CERTIFICATE_CATEGORY_UNSPECIFIED = 0;
inline constexpr CK_CERTIFICATE_CATEGORY CK_CERTIFICATE_CATEGORY_TOKEN_USER = 1;
inline constexpr CK_CERTIFICATE_CATEGORY CK_CERTIFICATE_CATEGORY_AUTHORITY = 2;
inline constexpr CK_CERTIFICATE_CATEGORY CK_CERTIFICATE_CATEGORY_OTHER_ENTITY = 3;

inline constexpr CK_KEY_TYPE CKK_RSA = 0x00;
inline constexpr CK_KEY_TYPE CKK_DSA = 0x01;
inline constexpr CK_KEY_TYPE CKK_DH = 0x02;
inline constexpr CK_KEY_TYPE CKK_EC = 0x03;
inline constexpr CK_KEY_TYPE CKK_X9_42_DH = 0x04;
inline constexpr CK_KEY_TYPE CKK_GENERIC_SECRET = 0x10;
inline constexpr CK_KEY_TYPE CKK_RC2 = 0x11;
inline constexpr CK_KEY_TYPE CKK_RC4 = 0x12;
inline constexpr CK_KEY_TYPE CKK_DES = 0x13;
inline constexpr CK_KEY_TYPE CKK_DES2 = 0x14;
inline constexpr CK_KEY_TYPE CKK_DES3 = 0x15;
inline constexpr CK_KEY_TYPE CKK_AES = 0x1F;
inline constexpr CK_KEY_TYPE CKK_BLOWFISH = 0x20;
inline constexpr CK_KEY_TYPE CKK_TWOFISH = 0x21;
inline constexpr CK_KEY_TYPE CKK_SECURID = 0x22;
inline constexpr CK_KEY_TYPE CKK_HOTP = 0x23;
inline constexpr CK_KEY_TYPE CKK_ACTI = 0x24;
inline constexpr CK_KEY_TYPE CKK_CAMELLIA = 0x25;
inline constexpr CK_KEY_TYPE CKK_ARIA = 0x26;
inline constexpr CK_KEY_TYPE CKK_VENDOR_DEFINED = 0x80000000;

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
inline constexpr CK_ATTRIBUTE_TYPE CKA_AC_ISSUER = 0x083;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OWNER = 0x084;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ATTR_TYPES = 0x085;
inline constexpr CK_ATTRIBUTE_TYPE CKA_TRUSTED = 0x086;
inline constexpr CK_ATTRIBUTE_TYPE CKA_CERTIFICATE_CATEGORY = 0x087;
inline constexpr CK_ATTRIBUTE_TYPE CKA_JAVA_MIDP_SECURITY_DOMAIN = 0x088;
inline constexpr CK_ATTRIBUTE_TYPE CKA_URL = 0x089;
inline constexpr CK_ATTRIBUTE_TYPE CKA_HASH_OF_SUBJECT_PUBLIC_KEY = 0x08A;
inline constexpr CK_ATTRIBUTE_TYPE CKA_HASH_OF_ISSUER_PUBLIC_KEY = 0x08B;
inline constexpr CK_ATTRIBUTE_TYPE CKA_NAME_HASH_ALGORITHM = 0x08C;
inline constexpr CK_ATTRIBUTE_TYPE CKA_CHECK_VALUE = 0x090;
inline constexpr CK_ATTRIBUTE_TYPE CKA_KEY_TYPE = 0x100;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SUBJECT = 0x101;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ID = 0x102;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SENSITIVE = 0x103;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ENCRYPT = 0x104;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DECRYPT = 0x105;
inline constexpr CK_ATTRIBUTE_TYPE CKA_WRAP = 0x106;
inline constexpr CK_ATTRIBUTE_TYPE CKA_UNWRAP = 0x107;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SIGN = 0x108;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SIGN_RECOVER = 0x109;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VERIFY = 0x10A;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VERIFY_RECOVER = 0x10B;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DERIVE = 0x10C;
inline constexpr CK_ATTRIBUTE_TYPE CKA_START_DATE = 0x110;
inline constexpr CK_ATTRIBUTE_TYPE CKA_END_DATE = 0x111;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODULUS = 0x120;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODULUS_BITS = 0x121;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PUBLIC_EXPONENT = 0x122;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIVATE_EXPONENT = 0x123;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIME_1 = 0x124;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIME_2 = 0x125;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EXPONENT_1 = 0x126;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EXPONENT_2 = 0x127;
inline constexpr CK_ATTRIBUTE_TYPE CKA_COEFFICIENT = 0x128;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PUBLIC_KEY_INFO = 0x129;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIME = 0x130;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SUBPRIME = 0x131;
inline constexpr CK_ATTRIBUTE_TYPE CKA_BASE = 0x132;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIME_BITS = 0x133;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SUBPRIME_BITS = 0x134;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SUB_PRIME_BITS = CKA_SUBPRIME_BITS;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VALUE_BITS = 0x160;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VALUE_LEN = 0x161;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EXTRACTABLE = 0x162;
inline constexpr CK_ATTRIBUTE_TYPE CKA_LOCAL = 0x163;
inline constexpr CK_ATTRIBUTE_TYPE CKA_NEVER_EXTRACTABLE = 0x164;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ALWAYS_SENSITIVE = 0x165;
inline constexpr CK_ATTRIBUTE_TYPE CKA_KEY_GEN_MECHANISM = 0x166;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODIFIABLE = 0x170;
inline constexpr CK_ATTRIBUTE_TYPE CKA_COPYABLE = 0x171;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DESTROYABLE = 0x172;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EC_PARAMS = 0x180;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EC_POINT = 0x181;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SECONDARY_AUTH = 0x200;
inline constexpr CK_ATTRIBUTE_TYPE CKA_AUTH_PIN_FLAGS = 0x201;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ALWAYS_AUTHENTICATE = 0x202;
inline constexpr CK_ATTRIBUTE_TYPE CKA_WRAP_WITH_TRUSTED = 0x210;
inline constexpr CK_ATTRIBUTE_TYPE CKA_WRAP_TEMPLATE = CKF_ARRAY_ATTRIBUTE | 0x211;
inline constexpr CK_ATTRIBUTE_TYPE CKA_UNWRAP_TEMPLATE = CKF_ARRAY_ATTRIBUTE | 0x212;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DERIVE_TEMPLATE = CKF_ARRAY_ATTRIBUTE | 0x213;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_FORMAT = 0x220;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_LENGTH = 0x221;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_TIME_INTERVAL = 0x222;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_USER_FRIENDLY_MODE = 0x223;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_CHALLENGE_REQUIREMENT = 0x224;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_TIME_REQUIREMENT = 0x225;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_COUNTER_REQUIREMENT = 0x226;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_PIN_REQUIREMENT = 0x227;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_USER_IDENTIFIER = 0x22A;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_SERVICE_IDENTIFIER = 0x22B;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_SERVICE_LOGO = 0x22C;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_SERVICE_LOGO_TYPE = 0x22D;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_COUNTER = 0x22E;
inline constexpr CK_ATTRIBUTE_TYPE CKA_OTP_TIME = 0x22F;
inline constexpr CK_ATTRIBUTE_TYPE CKA_GOSTR3410_PARAMS = 0x250;
inline constexpr CK_ATTRIBUTE_TYPE CKA_GOSTR3411_PARAMS = 0x251;
inline constexpr CK_ATTRIBUTE_TYPE CKA_GOST28147_PARAMS = 0x252;
inline constexpr CK_ATTRIBUTE_TYPE CKA_HW_FEATURE_TYPE = 0x300;
inline constexpr CK_ATTRIBUTE_TYPE CKA_RESET_ON_INIT = 0x301;
inline constexpr CK_ATTRIBUTE_TYPE CKA_HAS_RESET = 0x302;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PIXEL_X = 0x400;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PIXEL_Y = 0x401;
inline constexpr CK_ATTRIBUTE_TYPE CKA_RESOLUTION = 0x402;
inline constexpr CK_ATTRIBUTE_TYPE CKA_CHAR_ROWS = 0x403;
inline constexpr CK_ATTRIBUTE_TYPE CKA_CHAR_COLUMNS = 0x404;
inline constexpr CK_ATTRIBUTE_TYPE CKA_COLOR = 0x405;
inline constexpr CK_ATTRIBUTE_TYPE CKA_BITS_PER_PIXEL = 0x406;
inline constexpr CK_ATTRIBUTE_TYPE CKA_CHAR_SETS = 0x480;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ENCODING_METHODS = 0x481;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MIME_TYPES = 0x482;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MECHANISM_TYPE = 0x500;
inline constexpr CK_ATTRIBUTE_TYPE CKA_REQUIRED_CMS_ATTRIBUTES = 0x501;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DEFAULT_CMS_ATTRIBUTES = 0x502;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SUPPORTED_CMS_ATTRIBUTES = 0x503;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ALLOWED_MECHANISMS = CKF_ARRAY_ATTRIBUTE | 0x600;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VENDOR_DEFINED = 0x80000000;

// --- users, sessions, notifications ------------------------------------------------------------

inline constexpr CK_USER_TYPE CKU_SO = 0;
inline constexpr CK_USER_TYPE CKU_USER = 1;
inline constexpr CK_USER_TYPE CKU_CONTEXT_SPECIFIC = 2;

inline constexpr CK_STATE CKS_RO_PUBLIC_SESSION = 0;
inline constexpr CK_STATE CKS_RO_USER_FUNCTIONS = 1;
inline constexpr CK_STATE CKS_RW_PUBLIC_SESSION = 2;
inline constexpr CK_STATE CKS_RW_USER_FUNCTIONS = 3;
inline constexpr CK_STATE CKS_RW_SO_FUNCTIONS = 4;

inline constexpr CK_NOTIFICATION CKN_SURRENDER = 0;
inline constexpr CK_NOTIFICATION CKN_OTP_CHANGED = 1;

// --- mechanisms, those that cards commonly offer -----------------------------------------------

inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS_KEY_PAIR_GEN = 0x0000;
inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS = 0x0001;
inline constexpr CK_MECHANISM_TYPE CKM_RSA_X_509 = 0x0003;
inline constexpr CK_MECHANISM_TYPE CKM_SHA1_RSA_PKCS = 0x0006;
inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS_OAEP = 0x0009;
inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS_PSS = 0x000D;
inline constexpr CK_MECHANISM_TYPE CKM_SHA1_RSA_PKCS_PSS = 0x000E;
inline constexpr CK_MECHANISM_TYPE CKM_SHA256_RSA_PKCS = 0x0040;
inline constexpr CK_MECHANISM_TYPE CKM_SHA384_RSA_PKCS = 0x0041;
inline constexpr CK_MECHANISM_TYPE CKM_SHA512_RSA_PKCS = 0x0042;
inline constexpr CK_MECHANISM_TYPE CKM_SHA256_RSA_PKCS_PSS = 0x0043;
inline constexpr CK_MECHANISM_TYPE CKM_SHA384_RSA_PKCS_PSS = 0x0044;
inline constexpr CK_MECHANISM_TYPE CKM_SHA512_RSA_PKCS_PSS = 0x0045;
inline constexpr CK_MECHANISM_TYPE CKM_DES3_CBC = 0x0133;
inline constexpr CK_MECHANISM_TYPE CKM_MD5 = 0x0210;
inline constexpr CK_MECHANISM_TYPE CKM_SHA_1 = 0x0220;
inline constexpr CK_MECHANISM_TYPE CKM_SHA_1_HMAC = 0x0221;
inline constexpr CK_MECHANISM_TYPE CKM_SHA256 = 0x0250;
inline constexpr CK_MECHANISM_TYPE CKM_SHA256_HMAC = 0x0251;
inline constexpr CK_MECHANISM_TYPE CKM_SHA224 = 0x0255;
inline constexpr CK_MECHANISM_TYPE CKM_SHA384 = 0x0260;
inline constexpr CK_MECHANISM_TYPE CKM_SHA512 = 0x0270;
inline constexpr CK_MECHANISM_TYPE CKM_GENERIC_SECRET_KEY_GEN = 0x0350;
inline constexpr CK_MECHANISM_TYPE CKM_EC_KEY_PAIR_GEN = 0x1040;
inline constexpr CK_MECHANISM_TYPE CKM_ECDSA = 0x1041;
inline constexpr CK_MECHANISM_TYPE CKM_ECDSA_SHA1 = 0x1042;
inline constexpr CK_MECHANISM_TYPE CKM_ECDH1_DERIVE = 0x1050;
inline constexpr CK_MECHANISM_TYPE CKM_AES_KEY_GEN = 0x1080;
inline constexpr CK_MECHANISM_TYPE CKM_AES_ECB = 0x1081;
inline constexpr CK_MECHANISM_TYPE CKM_AES_CBC = 0x1082;
inline constexpr CK_MECHANISM_TYPE CKM_AES_CBC_PAD = 0x1085;
inline constexpr CK_MECHANISM_TYPE CKM_AES_GCM = 0x1087;
inline constexpr CK_MECHANISM_TYPE CKM_VENDOR_DEFINED = 0x80000000;
