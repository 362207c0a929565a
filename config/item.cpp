#include "config/item.h"

namespace qixx::config {

ConfigResult CConfigItem::LoadText(std::string_view /*data*/) {
  return ConfigResult::kFailed;
}

ConfigResult CConfigItem::Open(bool /*writable*/, const std::string& /*path*/, bool /*quiet*/) {
  return ConfigResult::kFailed;
}

ConfigResult CConfigItem::Close(bool /*release*/) {
  return ConfigResult::kFailed;
}

ConfigKind CConfigItem::GetKind() const {
  return ConfigKind::kNone;
}

const std::string& CConfigItem::GetPath() const {
  return path_;
}

bool CConfigItem::IsProductFile() const {
  return false;
}

std::optional<ConfigEntry> CConfigItem::EnumEntries(std::size_t& /*index*/) {
  return std::nullopt;
}

std::optional<std::string> CConfigItem::EnumSectionEntries(std::string_view /*section*/,
                                                           std::size_t& /*index*/) {
  return std::nullopt;
}

std::optional<std::string> CConfigItem::EnumBlocks(std::size_t& /*index*/) {
  return std::nullopt;
}

std::optional<std::string_view> CConfigItem::GetText() const {
  return std::nullopt;
}

FoundValue CConfigItem::GetValue(std::string_view /*section*/,
                                 std::optional<std::string_view> /*entry*/) {
  return {};
}

std::optional<std::vector<std::uint8_t>> CConfigItem::GetBlock(std::string_view /*name*/) {
  return std::nullopt;
}

ConfigResult CConfigItem::SetValue(std::string_view /*section*/, std::string_view /*entry*/,
                                   std::string_view /*value*/) {
  return ConfigResult::kFailed;
}

ConfigResult CConfigItem::SetBlock(std::optional<std::string_view> /*name*/,
                                   std::span<const std::uint8_t> /*data*/) {
  return ConfigResult::kFailed;
}

ConfigResult CConfigItem::AddValue(std::string_view /*section*/, std::string_view /*entry*/,
                                   std::string_view /*value*/) {
  return ConfigResult::kFailed;
}

ConfigResult CConfigItem::Delete(std::string_view /*section*/,
                                 std::optional<std::string_view> /*entry*/) {
  return ConfigResult::kFailed;
}

ConfigResult CConfigItem::DeleteBlock(std::string_view /*name*/) {
  return ConfigResult::kFailed;
}

bool CConfigItem::SectionExists(std::string_view /*section*/) {
  return false;
}

void CConfigItem::Sort() {}

void CConfigItem::Migrate(bool /*force*/) {}

}  // namespace qixx::config
