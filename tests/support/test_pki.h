/// A small certification authority for tests: keys, certificates, revocation lists and detached CMS
/// signatures with chosen properties, good and bad ones.
///
/// Everything is made in memory; what cannot be made ends the test program with a line that says what. Times
/// are seconds since 1970. Keys are P-256 by default, because those are made in no time; RSA where sizes
/// matter.
#pragma once

#include <stdint.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cms/openssl_owners.h"

namespace testpki {

using Bytes = std::vector<uint8_t>;

inline constexpr int64_t kDay = 86400;

/// The time by which the engine judges right now; default validities lie around it.
int64_t Now();

enum class KeyKind { kEcP256, kEcP384, kRsa1024, kRsa2048, kRsaPss2048 };

struct CertSpec {
  std::string name = "signer";  ///< common name
  bool isCa = false;
  /// As in OpenSSL configuration files; empty leaves the extension out. A CA's default is "critical,
  /// keyCertSign, cRLSign", a signer's "critical, digitalSignature" and "codeSigning".
  std::optional<std::string> keyUsage = {};
  std::optional<std::string> extendedKeyUsage = {};
  std::optional<int64_t> notBefore = {};  ///< default: a day before Now()
  std::optional<int64_t> notAfter = {};   ///< default: a year after Now()
  KeyKind keyKind = KeyKind::kEcP256;
  std::string digest = "SHA256";       ///< of the issuer's signature
  std::optional<int> pathLength = {};  ///< of a CA
};

/// A certificate with its key.
struct Identity {
  std::shared_ptr<X509> cert;
  std::shared_ptr<EVP_PKEY> key;

  [[nodiscard]] Bytes Der() const;
  [[nodiscard]] std::string Pem() const;
  [[nodiscard]] uint64_t Serial() const;
};

/// A self-signed CA certificate.
Identity MakeRoot(CertSpec spec = {});
/// A CA certificate issued by `issuer`.
Identity MakeIntermediate(const Identity& issuer, CertSpec spec = {});
/// A certificate for signing updates issued by `issuer`.
Identity MakeSigner(const Identity& issuer, const CertSpec& spec = {});
/// Issues `spec` for a key that is there already, so that one key has two certificates.
Identity MakeCertForKey(const Identity& issuer, const CertSpec& spec, const std::shared_ptr<EVP_PKEY>& key);

struct CrlSpec {
  std::optional<int64_t> thisUpdate = {};  ///< default: an hour before Now()
  std::optional<int64_t> nextUpdate = {};  ///< default: 30 days after Now(); 0 leaves it out
  std::optional<int64_t> number = {};      ///< none: no number extension
  std::vector<uint64_t> revoked = {};      ///< serial numbers
  std::vector<uint64_t> released = {};     ///< from a hold, told in front of `revoked`
  std::string digest = "SHA256";
  std::optional<int64_t> deltaBase = {};  ///< makes it a delta list
  std::string scope = {};                 ///< as in OpenSSL configuration files, the certificates it is for
  bool keyId = false;                     ///< names the issuer's key
};

/// A revocation list as DER, signed by `issuer`.
Bytes MakeCrl(const Identity& issuer, const CrlSpec& spec = {});

struct SignerSpec {
  const Identity* identity = nullptr;
  bool signedAttributes = true;
  std::string digest = "SHA256";
  bool pss = false;       ///< RSA-PSS padding
  bool useKeyId = false;  ///< name the signer by subject key identifier
};

struct SignSpec {
  std::vector<SignerSpec> signers = {};
  std::vector<const Identity*> extraCerts = {};  ///< added to the signature's certificates
  bool withSignerCerts = true;
  bool embedContent = false;  ///< not detached
};

/// A CMS signature of `content` as DER.
Bytes Sign(std::string_view content, const SignSpec& spec);
/// The usual case: one signer, signed attributes, SHA-256, his certificate and `chain` included.
Bytes Sign(std::string_view content, const Identity& signer, const std::vector<const Identity*>& chain = {});

std::string PemOf(const std::string& type, const Bytes& der);  ///< type: "X509 CRL", "CMS", "CERTIFICATE"
std::string CrlPem(const Bytes& der);
void WriteFile(const std::string& path, std::string_view bytes);
void WriteFile(const std::string& path, const Bytes& bytes);

/// Puts `root` into the root table as an enabled entry of `caType`; its bytes live as long as the program.
void InstallRoot(const Identity& root, uint16_t caType = 0);
/// Empties the root table.
void ClearRoots();

/// A root with a signer and a list, as most tests want one.
struct SmallPki {
  Identity root = MakeRoot({.name = "test root"});
  Identity signer = MakeSigner(root);
  Bytes crl = MakeCrl(root, {.number = 1});
};

}  // namespace testpki
