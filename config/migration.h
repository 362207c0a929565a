// Bringing the section names of older product versions up to date.
//
// These are the steps as transformations of a text; each one works in one pass. The configuration
// file puts them together.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qixx::config {

struct SectionAlias {
  std::string_view oldName;
  std::string_view newName;
};
/// All renamed sections in the order of their renaming.
inline constexpr SectionAlias kSectionAliases[] = {
    {"Soft Tokens", "SoftToken"},
    {"Admin Utility", "General"},
    {"CallTrace", "Trace Call"},
    {"CardBitmap", "Dialog Image"},
    {"Compress", "SmartCard Compress"},
    {"Custom Links", "Links Custom"},
    {"Dynamic Strings", "DynamicStrings"},
    {"Default Certificate", "DefaultCertificate"},
    {"File Extensions", "Encryption FileExtension"},
    {"InstallOptions", "Install Option"},
    {"PCSC", "SmartCardReader PCSC"},
    {"Credential Provider", "CredentialProvider"},
    {"Certificate Provider", "CredentialProvider Certificate"},
    {"Enroll Provider", "CredentialProvider Enroll"},
    {"PIN Provider", "CredentialProvider Pin"},
    {"Unlock Provider", "CredentialProvider Unlock"},
    {"Password Provider", "CredentialProvider Password"},
    {"Change Credential Provider", "CredentialProvider Change"},
    {"Packages", "Install Packages"},
    {"Shortcuts", "Install Shortcuts"},
    {"Smart Card", "SmartCard"},
    {"Smart Card Reader", "SmartCardReader"},
    {"InitProfiles", "SmartCardProfile"},
};

inline constexpr std::string_view kProfileSection = "SmartCardProfile";

/// The old names that tell an old text; each holds a blank.
inline constexpr std::string_view kOldSoftToken = "Soft Tokens";
inline constexpr std::string_view kOldGeneral = "Admin Utility";

/// True when a text has one of them, anywhere, and nothing of what replaced it.
[[nodiscard]] bool LooksOld(std::string_view text);

/// Sets every entry of section `newName` in the section `oldName` that is about to take its name,
/// the first one in any letter case, and deletes a section `newName` as Delete does. Nothing when
/// there is nothing to merge: no such entry, no header that will be rewritten, or names that differ
/// in letter case only.
[[nodiscard]] std::optional<std::string> MergeBeforeRename(std::string_view text,
                                                           std::string_view oldName,
                                                           std::string_view newName);
/// Puts the new name into every header of the old one. The letter case of the old name counts here,
/// unlike everywhere else.
[[nodiscard]] std::string RewriteHeaders(std::string_view text, std::string_view oldName,
                                         std::string_view newName);

/// Moves the images of all sections "CredentialProvider" to section "Dialog Presentation"; an image
/// that is there already with another value stays in both. Nothing without a change.
[[nodiscard]] std::optional<std::string> MoveImages(std::string_view text);

}  // namespace qixx::config
