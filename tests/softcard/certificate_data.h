// One certificate: serial number 0x1234, issuer and subject "O=Example, CN=Soft Card Holder".
#pragma once

namespace qixx::testing {

inline constexpr const char* kHolderPem =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBnTCCAUOgAwIBAgICEjQwCgYIKoZIzj0EAwIwLTEQMA4GA1UECgwHRXhhbXBs\n"
    "ZTEZMBcGA1UEAwwQU29mdCBDYXJkIEhvbGRlcjAeFw0yNjExMjEwNzMzNDRaFw00\n"
    "NjExMTYwNzMzNDRaMC0xEDAOBgNVBAoMB0V4YW1wbGUxGTAXBgNVBAMMEFNvZnQg\n"
    "Q2FyZCBIb2xkZXIwWTATBgcqhkjOPQIBBggqhkjOPQMBBwNCAATTVYA/OGRO0PDb\n"
    "O7BWhOCMPFgqNcCrU2hRfBM2BPjb3eKPWUOFMO6dKniZbWIM3X5aJNaARP5PoItF\n"
    "/R06qZ30o1MwUTAdBgNVHQ4EFgQUVeQtW3qKaVK5cN5ccnvMnm1mHPEwHwYDVR0j\n"
    "BBgwFoAUVeQtW3qKaVK5cN5ccnvMnm1mHPEwDwYDVR0TAQH/BAUwAwEB/zAKBggq\n"
    "hkjOPQQDAgNIADBFAiEAsd6bl5lR8jxIi2XbBq3a/Rh+t3LvvVAN2CNwCN0HoiYC\n"
    "IEMG0d4QmZLTXCQ0ZTtd0w1TE9IKsbbdr+JL6yknW7wA\n"
    "-----END CERTIFICATE-----\n";

}  // namespace qixx::testing
