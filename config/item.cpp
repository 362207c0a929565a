#include "config/item.h"

namespace qixx::config {

ConfigResult CConfigItem::LoadText(const char* /*data*/, std::size_t /*length*/) {
  return kConfigFailed;
}

ConfigResult CConfigItem::Open(bool /*writable*/, const char* /*path*/, bool /*quiet*/) {
  return kConfigFailed;
}

ConfigResult CConfigItem::Close(bool /*release*/) {
  return kConfigFailed;
}

std::uint32_t CConfigItem::GetKind() const {
  return static_cast<std::uint32_t>(ConfigResult::kFailed);
}

const char* CConfigItem::GetPath() const {
  return path_;
}

bool CConfigItem::IsProductFile() const {
  return false;
}

ConfigResult CConfigItem::EnumEntries(std::span<char> section, std::span<char> entry,
                                      std::size_t& /*index*/) {
  runtime::CopyTextCut(section, {});
  runtime::CopyTextCut(entry, {});
  return kConfigFailed;
}

ConfigResult CConfigItem::EnumSectionEntries(const char* /*section*/, std::span<char> entry,
                                             std::size_t& /*index*/) {
  runtime::CopyTextCut(entry, {});
  return kConfigFailed;
}

ConfigResult CConfigItem::EnumBlocks(std::span<char> name, std::size_t& /*index*/) {
  runtime::CopyTextCut(name, {});
  return kConfigFailed;
}

ConfigResult CConfigItem::GetText(char* buffer, std::size_t& size) const {
  if (buffer != nullptr) runtime::CopyTextCut({buffer, size}, {});
  size = 0;
  return kConfigFailed;
}

ConfigResult CConfigItem::GetValue(const char* /*section*/, const char* /*entry*/,
                                   std::span<char> buffer, bool /*convert*/) {
  runtime::CopyTextCut(buffer, {});
  return kConfigFailed;
}

ConfigResult CConfigItem::GetBlock(const char* /*name*/, std::uint8_t*& data, std::size_t& length) {
  data = nullptr;
  length = 0;
  return kConfigFailed;
}

ConfigResult CConfigItem::SetValue(const char* /*section*/, const char* /*entry*/,
                                   const char* /*value*/, bool /*convert*/) {
  return kConfigFailed;
}

ConfigResult CConfigItem::SetBlock(const char* /*name*/, std::span<const std::uint8_t> /*data*/) {
  return kConfigFailed;
}

ConfigResult CConfigItem::AddValue(const char* /*section*/, const char* /*entry*/,
                                   const char* /*value*/) {
  return kConfigFailed;
}

ConfigResult CConfigItem::Delete(const char* /*section*/, const char* /*entry*/) {
  return kConfigFailed;
}

ConfigResult CConfigItem::DeleteBlock(const char* /*name*/) {
  return kConfigFailed;
}

bool CConfigItem::SectionExists(const char* /*section*/) {
  return false;
}

void CConfigItem::Sort() {}

void CConfigItem::Migrate(bool /*force*/) {}

}  // namespace qixx::config
