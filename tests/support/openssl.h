// Certificates made, and read, by the openssl program.
#pragma once

#include <array>
#include <cstdio>
#include <memory>
#include <string>

namespace qixx::testing {

/// Runs a shell command and returns what it printed; empty when it failed.
inline std::string OutputOf(const std::string& command) {
  const auto close = [](FILE* pipe) {
    if (pipe != nullptr) ::pclose(pipe);
  };
  std::unique_ptr<FILE, decltype(close)> pipe(::popen(command.c_str(), "r"), close);
  if (pipe == nullptr) return {};
  std::string output;
  std::array<char, 4096> block{};
  while (const std::size_t got = std::fread(block.data(), 1, block.size(), pipe.get())) {
    output.append(block.data(), got);
  }
  return ::pclose(pipe.release()) == 0 ? output : std::string();
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
  std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 30 "
      "-outform DER -multivalue-rdn -utf8 -keyout /dev/null -out '" +
      file + "' -subj '" + text.subject + "' -set_serial " + text.serial + " " + text.more;
  if (!text.upn.empty()) {
    command += " -addext 'subjectAltName=otherName:1.3.6.1.4.1.311.20.2.3;UTF8:" + text.upn + "'";
  }
  command += " 2>&1 && echo made";
  return OutputOf(command).ends_with("made\n");
}

}  // namespace qixx::testing
