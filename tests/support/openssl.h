// Certificates made, and read, by the openssl program.
#pragma once

#include <cstdio>
#include <string>

namespace qixx::testing {

/// Runs a shell command and returns what it printed; empty when it failed.
inline std::string OutputOf(const std::string& command) {
  FILE* const pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return {};
  std::string output;
  char block[4096];
  while (const std::size_t got = std::fread(block, 1, sizeof block, pipe))
    output.append(block, got);
  return ::pclose(pipe) == 0 ? output : std::string();
}

/// What a certificate made here says; an empty text leaves its part out.
struct CertificateText {
  std::string subject = "/O=Example Org/CN=Ann Lee";
  std::string upn = "ann@tessaly.example";
  std::string serial = "0x0a01";
  /// Further arguments of "openssl req".
  std::string more = "-addext extendedKeyUsage=1.3.6.1.4.1.311.20.2.2";
};

/// Writes a self-signed certificate in DER to `file`; false when openssl does not make it.
inline bool MakeCertificate(const std::string& file, const CertificateText& text = {}) {
  const std::string upn = "subjectAltName=otherName:1.3.6.1.4.1.311.20.2.3;UTF8:" + text.upn;
  const std::string made = OutputOf(
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 30 "
      "-outform DER -multivalue-rdn -utf8 -keyout /dev/null -out '" +
      file + "' -subj '" + text.subject + "' -set_serial " + text.serial + " " + text.more +
      (text.upn.empty() ? "" : " -addext '" + upn + "'") + " 2>&1 && echo made");
  return !made.empty();
}

}  // namespace qixx::testing
