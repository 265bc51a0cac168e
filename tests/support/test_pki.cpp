#include "support/test_pki.h"

#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "cms/root_ca.h"
#include "cms/verify_time.h"

namespace testpki {

namespace {

void Require(bool good, const char* what) {
  if (good) return;
  (void)fprintf(stderr, "test_pki: %s\n", what);
  ERR_print_errors_fp(stderr);
  abort();
}

/// An i2d function's output.
template <class T, auto Encode>
Bytes DerOf(T* object) {
  uint8_t* der = nullptr;
  const int length = Encode(object, &der);
  Require(length > 0, "encoding");
  Bytes bytes(der, der + length);
  OPENSSL_free(der);
  return bytes;
}

std::shared_ptr<EVP_PKEY> NewKey(KeyKind kind) {
  Require(cms::InitCrypto(), "libcrypto");
  EVP_PKEY* key = nullptr;
  switch (kind) {
    case KeyKind::kEcP256:
    case KeyKind::kEcP384:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", kind == KeyKind::kEcP256 ? "P-256" : "P-384");
      break;
    case KeyKind::kRsa1024:
    case KeyKind::kRsa2048:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{kind == KeyKind::kRsa1024 ? 1024u : 2048u});
      break;
    case KeyKind::kRsaPss2048: {
      const cms::KeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA_PSS, nullptr));
      Require(EVP_PKEY_keygen_init(ctx.get()) == 1 && EVP_PKEY_generate(ctx.get(), &key) == 1, "RSA-PSS key");
    }
  }
  Require(key != nullptr, "key");
  return {key, EVP_PKEY_free};
}

using TimePtr = base::UniqueC<ASN1_TIME, ASN1_TIME_free>;
using IntegerPtr = base::UniqueC<ASN1_INTEGER, ASN1_INTEGER_free>;

/// By way of a text: libcrypto's own time_t may have 32 bits.
TimePtr TimeOf(int64_t seconds) {
  const time_t time = seconds;
  tm calendar;
  char text[32];
  TimePtr result(ASN1_TIME_new());
  Require(gmtime_r(&time, &calendar) != nullptr &&
              strftime(text, sizeof(text), "%Y%m%d%H%M%SZ", &calendar) != 0 &&
              ASN1_TIME_set_string_X509(result.get(), text) == 1,
          "time");
  return result;
}

IntegerPtr IntegerOf(uint64_t value) {
  IntegerPtr integer(ASN1_INTEGER_new());
  Require(ASN1_INTEGER_set_uint64(integer.get(), value) == 1, "number");
  return integer;
}

const EVP_MD* DigestOf(const std::string& name) {
  const EVP_MD* digest = EVP_get_digestbyname(name.c_str());
  Require(digest != nullptr, "digest");
  return digest;
}

/// To a certificate or a list, with that type's own function.
template <class T>
void AddExtension(T* object, int (*add)(T*, X509_EXTENSION*, int), X509* issuer, X509* subject, int nid,
                  const std::string& value) {
  if (value.empty()) return;
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, subject, nullptr, nullptr, 0);
  const base::UniqueC<X509_EXTENSION, X509_EXTENSION_free> extension(
      X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
  Require(extension != nullptr && add(object, extension.get(), -1) == 1, "extension");
}

/// `issuer` is null for a self-signed certificate.
std::shared_ptr<X509> MakeCert(const CertSpec& spec, EVP_PKEY* key, const Identity* issuer) {
  static uint64_t serial = 1000;
  std::shared_ptr<X509> owned(X509_new(), X509_free);
  X509* cert = owned.get();
  X509* issuerCert = issuer == nullptr ? cert : issuer->cert.get();
  X509_NAME* name = X509_get_subject_name(cert);
  Require(
      X509_set_version(cert, X509_VERSION_3) == 1 &&
          X509_set_serialNumber(cert, IntegerOf(++serial).get()) == 1 &&
          X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const uint8_t*>(spec.name.c_str()), -1, -1, 0) == 1 &&
          X509_set_issuer_name(cert, X509_get_subject_name(issuerCert)) == 1 &&
          X509_set_pubkey(cert, key) == 1 &&
          X509_set1_notBefore(cert, TimeOf(spec.notBefore.value_or(Now() - kDay)).get()) == 1 &&
          X509_set1_notAfter(cert, TimeOf(spec.notAfter.value_or(Now() + 365 * kDay)).get()) == 1,
      "certificate");

  std::string constraints = spec.isCa ? "critical,CA:TRUE" : "critical,CA:FALSE";
  if (spec.pathLength) constraints += ",pathlen:" + std::to_string(*spec.pathLength);
  const char* usage = spec.isCa ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature";
  const std::pair<int, std::string> extensions[] = {
      {NID_basic_constraints, constraints},
      {NID_key_usage, spec.keyUsage.value_or(usage)},
      {NID_ext_key_usage, spec.extendedKeyUsage.value_or(spec.isCa ? "" : "codeSigning")},
      {NID_subject_key_identifier, "hash"},
      {NID_authority_key_identifier, "keyid:always"}};
  for (const auto& [nid, value] : extensions) AddExtension(cert, X509_add_ext, issuerCert, cert, nid, value);
  EVP_PKEY* issuerKey = issuer == nullptr ? key : issuer->key.get();
  Require(X509_sign(cert, issuerKey, DigestOf(spec.digest)) > 0, "certificate signature");
  return owned;
}

Identity Issue(const CertSpec& spec, const Identity* issuer) {
  const std::shared_ptr<EVP_PKEY> key = NewKey(spec.keyKind);
  return {MakeCert(spec, key.get(), issuer), key};
}

void AddCrlNumber(X509_CRL* crl, int nid, const std::optional<int64_t>& value, bool isCritical) {
  if (!value) return;
  const IntegerPtr number = IntegerOf(static_cast<uint64_t>(*value));
  Require(X509_CRL_add1_ext_i2d(crl, nid, number.get(), isCritical ? 1 : 0, 0) == 1, "list number");
}

void AddRevoked(X509_CRL* crl, uint64_t serial, ASN1_TIME* when, bool released = false) {
  base::UniqueC<X509_REVOKED, X509_REVOKED_free> revoked(X509_REVOKED_new());
  const base::UniqueC<ASN1_ENUMERATED, ASN1_ENUMERATED_free> reason(ASN1_ENUMERATED_new());
  Require(
      X509_REVOKED_set_serialNumber(revoked.get(), IntegerOf(serial).get()) == 1 &&
          X509_REVOKED_set_revocationDate(revoked.get(), when) == 1 &&
          ASN1_ENUMERATED_set(reason.get(), CRL_REASON_REMOVE_FROM_CRL) == 1 &&
          (!released || X509_REVOKED_add1_ext_i2d(revoked.get(), NID_crl_reason, reason.get(), 0, 0) == 1) &&
          X509_CRL_add0_revoked(crl, revoked.get()) == 1,
      "revoked entry");
  (void)revoked.release();  // the list's now
}

}  // namespace

int64_t Now() {
  return cms::CurrentVerifyTime().now;
}

Bytes Identity::Der() const {
  return DerOf<X509, i2d_X509>(cert.get());
}
std::string Identity::Pem() const {
  return PemOf("CERTIFICATE", Der());
}

uint64_t Identity::Serial() const {
  uint64_t serial = 0;
  Require(ASN1_INTEGER_get_uint64(&serial, X509_get0_serialNumber(cert.get())) == 1, "serial number");
  return serial;
}

Identity MakeRoot(CertSpec spec) {
  spec.isCa = true;
  return Issue(spec, nullptr);
}

Identity MakeIntermediate(const Identity& issuer, CertSpec spec) {
  spec.isCa = true;
  return Issue(spec, &issuer);
}

Identity MakeSigner(const Identity& issuer, const CertSpec& spec) {
  return Issue(spec, &issuer);
}

Identity MakeCertForKey(const Identity& issuer, const CertSpec& spec, const std::shared_ptr<EVP_PKEY>& key) {
  return {MakeCert(spec, key.get(), &issuer), key};
}

Bytes MakeCrl(const Identity& issuer, const CrlSpec& spec) {
  const cms::CrlPtr crl(X509_CRL_new());
  const auto from = TimeOf(spec.thisUpdate.value_or(Now() - 3600));
  const int64_t next = spec.nextUpdate.value_or(Now() + 30 * kDay);
  Require(X509_CRL_set_version(crl.get(), X509_CRL_VERSION_2) == 1 &&
              X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer.cert.get())) == 1 &&
              X509_CRL_set1_lastUpdate(crl.get(), from.get()) == 1 &&
              (next == 0 || X509_CRL_set1_nextUpdate(crl.get(), TimeOf(next).get()) == 1),
          "revocation list");
  for (const uint64_t serial : spec.released) AddRevoked(crl.get(), serial, from.get(), true);
  for (const uint64_t serial : spec.revoked) AddRevoked(crl.get(), serial, from.get());
  AddCrlNumber(crl.get(), NID_crl_number, spec.number, false);
  AddCrlNumber(crl.get(), NID_delta_crl, spec.deltaBase, true);
  AddExtension(crl.get(), X509_CRL_add_ext, issuer.cert.get(), static_cast<X509*>(nullptr),
               NID_authority_key_identifier, spec.keyId ? "keyid:always" : "");
  AddExtension(crl.get(), X509_CRL_add_ext, issuer.cert.get(), static_cast<X509*>(nullptr),
               NID_issuing_distribution_point, spec.scope);
  Require(
      X509_CRL_sort(crl.get()) == 1 && X509_CRL_sign(crl.get(), issuer.key.get(), DigestOf(spec.digest)) > 0,
      "revocation list signature");
  return DerOf<X509_CRL, i2d_X509_CRL>(crl.get());
}

Bytes Sign(std::string_view content, const SignSpec& spec) {
  Require(cms::InitCrypto(), "libcrypto");
  unsigned flags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
  if (!spec.embedContent) flags |= CMS_DETACHED;
  const cms::CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
  Require(cms != nullptr, "signature");
  for (const SignerSpec& signer : spec.signers) {
    unsigned signerFlags = flags;
    if (!signer.signedAttributes) signerFlags |= CMS_NOATTR;
    if (!spec.withSignerCerts) signerFlags |= CMS_NOCERTS;
    if (signer.useKeyId) signerFlags |= CMS_USE_KEYID;
    if (signer.pss) signerFlags |= CMS_KEY_PARAM;
    CMS_SignerInfo* info = CMS_add1_signer(cms.get(), signer.identity->cert.get(), signer.identity->key.get(),
                                           DigestOf(signer.digest), signerFlags);
    Require(info != nullptr, "signer");
    if (signer.pss) {
      Require(EVP_PKEY_CTX_set_rsa_padding(CMS_SignerInfo_get0_pkey_ctx(info), RSA_PKCS1_PSS_PADDING) == 1,
              "PSS");
    }
  }
  for (const Identity* extra : spec.extraCerts) {
    Require(CMS_add1_cert(cms.get(), extra->cert.get()) == 1, "certificate in the signature");
  }
  const cms::BioPtr bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  // Without signers there is nothing to compute.
  Require(spec.signers.empty() || CMS_final(cms.get(), bio.get(), nullptr, flags) == 1, "signing");
  return DerOf<CMS_ContentInfo, i2d_CMS_ContentInfo>(cms.get());
}

Bytes Sign(std::string_view content, const Identity& signer, const std::vector<const Identity*>& chain) {
  return Sign(content, {.signers = {{.identity = &signer}}, .extraCerts = chain});
}

std::string PemOf(const std::string& type, const Bytes& der) {
  const cms::BioPtr bio(BIO_new(BIO_s_mem()));
  Require(PEM_write_bio(bio.get(), type.c_str(), "", der.data(), static_cast<long>(der.size())) > 0, "PEM");
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<size_t>(length)};
}

std::string CrlPem(const Bytes& der) {
  return PemOf(PEM_STRING_X509_CRL, der);
}

void WriteFile(const std::string& path, std::string_view bytes) {
  FILE* file = fopen(path.c_str(), "wbe");
  Require(file != nullptr && (bytes.empty() || fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size()),
          path.c_str());
  Require(fclose(file) == 0, path.c_str());
}

void WriteFile(const std::string& path, const Bytes& bytes) {
  WriteFile(path, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

void InstallRoot(const Identity& root, uint16_t caType) {
  static std::vector<std::unique_ptr<Bytes>> kept;
  kept.push_back(std::make_unique<Bytes>(root.Der()));
  const TOLA_ROOT_CA_S entry = {.caType = caType,
                                .certificate = kept.back()->data(),
                                .length = static_cast<uint16_t>(kept.back()->size()),
                                .isEnable = 1};
  Require(TOLA_SignatureVerificationAddRootCA(entry) == 0, "root table");
}

void ClearRoots() {
  std::fill(std::begin(g_rootCAList), std::end(g_rootCAList), TOLA_ROOT_CA_S{});
}

}  // namespace testpki
