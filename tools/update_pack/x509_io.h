/// Keys, certificates and revocation lists: loading them from PEM or DER files, and telling what they are.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "cms/openssl_owners.h"

[[nodiscard]] cms::KeyPtr LoadKey(const std::string& path, std::string& error);
/// All certificates of a PEM file, or the one of a DER file; empty with `error` on failure.
[[nodiscard]] std::vector<cms::CertPtr> LoadCerts(const std::string& path, std::string& error);
[[nodiscard]] std::vector<cms::CertPtr> DecodeCerts(const std::string& bytes);
[[nodiscard]] std::vector<cms::CrlPtr> LoadCrls(const std::string& path, std::string& error);

/// "CN=..., O=..." as one line.
[[nodiscard]] std::string NameText(const X509_NAME* name);
/// "2026-01-31 12:00:00 UTC", or "(no time)".
[[nodiscard]] std::string TimeText(const ASN1_TIME* time);
/// Hexadecimal digits.
[[nodiscard]] std::string SerialText(const ASN1_INTEGER* serial);
/// Number of a revocation list, decimal; "" without one.
[[nodiscard]] std::string CrlNumberText(X509_CRL* crl);
/// True when `time` lies before now.
[[nodiscard]] bool IsOver(const ASN1_TIME* time);

/// Reads a time into seconds since 1970: "now", "+30d" or "-1d" from `now`, "2026-01-31",
/// "2026-01-31T12:00:00Z" or "20260131120000Z".
[[nodiscard]] bool ParseTime(const std::string& text, int64_t now, int64_t& seconds, std::string& error);
/// Sets `time` from seconds since 1970, without libcrypto's time_t, which may have another width than ours.
[[nodiscard]] bool SetTime(ASN1_TIME* time, int64_t seconds);

/// The last complaint of libcrypto, or "unknown reason"; empties its list.
[[nodiscard]] std::string CryptoError();
