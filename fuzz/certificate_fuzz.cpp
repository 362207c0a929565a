// A certificate: loading it, its logon values, its names and every comparison.
#include <array>
#include <string>

#include "der/certificate.h"
#include "der/names.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  const der::Bytes bytes(data, size);
  std::array<char, 257> upn{};
  std::array<char, 256> subject{};
  std::array<char, 256> serial{};
  for (const bool logon : {true, false}) {
    static_cast<void>(der::GetLogonValues(bytes, logon, !logon, upn.data(), 256, subject.data(),
                                          256, serial.data(), 256));
  }
  const der::CertificatePtr holder = der::LoadCertificate(bytes);
  if (holder == nullptr) return 0;
  std::string_view rest = der::GetSubjectText(*holder);
  std::string key;
  std::string value;
  while (der::NextNameComponent(rest, key, value)) {
    key.append("=").append(value);
    static_cast<void>(holder->certificate.MatchNames(true, key));
  }
  static_cast<void>(der::MatchNames(holder->certificate, false, "subject|cn=a;o=b"));
  static_cast<void>(der::MatchCertificate(bytes, holder->certificate.SerialNumber(), "o=x", "cn=y",
                                          holder->certificate.KeyUsage()));
  std::uint8_t bits = 0;
  static_cast<void>(der::GetKeyUsageBits(holder->certificate, bits));
  std::array<char, 24> before{};
  std::array<char, 24> after{};
  holder->certificate.CopyValidity(before, after);
  static_cast<void>(der::AreDuplicates(*holder, *holder));
  static_cast<void>(der::RanksHigher(*holder, *holder));
  return 0;
}
