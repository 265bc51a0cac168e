#include "issue.h"

#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <span>

namespace {

using ExtensionPtr = base::UniqueC<X509_EXTENSION, X509_EXTENSION_free>;
using IntegerPtr = base::UniqueC<ASN1_INTEGER, ASN1_INTEGER_free>;
using TimePtr = base::UniqueC<ASN1_TIME, ASN1_TIME_free>;
using NumberPtr = base::UniqueC<BIGNUM, BN_free>;

struct ExtensionPlan {
  int id;
  const char* value;
};
constexpr ExtensionPlan kAuthorityExtensions[] = {
    {NID_basic_constraints, "critical,CA:TRUE"},
    {NID_key_usage, "critical,keyCertSign,cRLSign"},
    {NID_subject_key_identifier, "hash"},
};
constexpr ExtensionPlan kSignerExtensions[] = {
    {NID_basic_constraints, "critical,CA:FALSE"}, {NID_key_usage, "critical,digitalSignature"},
    {NID_ext_key_usage, "codeSigning"},           {NID_subject_key_identifier, "hash"},
    {NID_authority_key_identifier, "keyid"},
};

bool AddExtension(X509* cert, X509* issuer, const ExtensionPlan& plan) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
  const ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, plan.id, plan.value));
  return extension && X509_add_ext(cert, extension.get(), -1) == 1;
}

/// 64 random bits, positive.
bool SetRandomSerial(X509* cert) {
  uint64_t serial = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) != 1) return false;
  return ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert), serial >> 1 | 1) == 1;
}

bool SetCommonName(X509* cert, const std::string& name) {
  const auto* text = reinterpret_cast<const unsigned char*>(name.c_str());
  return X509_NAME_add_entry_by_NID(X509_get_subject_name(cert), NID_commonName, MBSTRING_UTF8, text,
                                    static_cast<int>(name.size()), -1, 0) == 1;
}

bool AddRevoked(X509_CRL* crl, const RevokedCert& plan) {
  base::UniqueC<X509_REVOKED, X509_REVOKED_free> entry(X509_REVOKED_new());
  const TimePtr date(ASN1_TIME_new());
  BIGNUM* parsed = nullptr;
  const int digits = BN_hex2bn(&parsed, plan.serial.c_str());
  const NumberPtr number(parsed);
  const IntegerPtr serial(digits > 0 ? BN_to_ASN1_INTEGER(number.get(), nullptr) : nullptr);
  if (!entry || !date || !serial || !SetTime(date.get(), plan.date) ||
      X509_REVOKED_set_serialNumber(entry.get(), serial.get()) != 1 ||
      X509_REVOKED_set_revocationDate(entry.get(), date.get()) != 1 ||
      X509_CRL_add0_revoked(crl, entry.get()) != 1) {
    return false;
  }
  (void)entry.release();  // the list's now
  return true;
}

bool AddCrlExtensions(X509_CRL* crl, const std::string& number, X509* issuer) {
  BIGNUM* parsed = nullptr;
  const int digits = BN_dec2bn(&parsed, number.c_str());
  const NumberPtr value(parsed);
  const IntegerPtr integer(digits > 0 ? BN_to_ASN1_INTEGER(value.get(), nullptr) : nullptr);
  if (!integer || X509_CRL_add1_ext_i2d(crl, NID_crl_number, integer.get(), 0, 0) != 1) return false;
  if (X509_get0_subject_key_id(issuer) == nullptr) return true;
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, nullptr, nullptr, crl, 0);
  const ExtensionPtr keyId(X509V3_EXT_conf_nid(nullptr, &context, NID_authority_key_identifier, "keyid"));
  return keyId && X509_CRL_add_ext(crl, keyId.get(), -1) == 1;
}

std::string Drain(BIO* bio) {
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio, &text);
  return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
}

}  // namespace

cms::CertPtr IssueCert(const CertPlan& plan, EVP_PKEY* key, const Authority* issuer) {
  cms::CertPtr cert(X509_new());
  if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1 || !SetRandomSerial(cert.get()) ||
      !SetCommonName(cert.get(), plan.commonName) || X509_set_pubkey(cert.get(), key) != 1 ||
      !SetTime(X509_getm_notBefore(cert.get()), plan.notBefore) ||
      !SetTime(X509_getm_notAfter(cert.get()), plan.notAfter)) {
    return nullptr;
  }
  X509* issuerCert = issuer == nullptr ? cert.get() : issuer->cert.get();
  EVP_PKEY* issuerKey = issuer == nullptr ? key : issuer->key.get();
  if (X509_set_issuer_name(cert.get(), X509_get_subject_name(issuerCert)) != 1) return nullptr;
  const std::span<const ExtensionPlan> extensions =
      plan.isAuthority ? std::span<const ExtensionPlan>(kAuthorityExtensions) : kSignerExtensions;
  for (const ExtensionPlan& extension : extensions) {
    const bool needsKeyId = extension.id == NID_authority_key_identifier;
    if (needsKeyId && X509_get0_subject_key_id(issuerCert) == nullptr) continue;  // nothing to point at
    if (!AddExtension(cert.get(), issuerCert, extension)) return nullptr;
  }
  if (X509_sign(cert.get(), issuerKey, EVP_sha256()) <= 0) return nullptr;
  return cert;
}

cms::CrlPtr IssueCrl(const CrlPlan& plan, const Authority& issuer) {
  cms::CrlPtr crl(X509_CRL_new());
  const TimePtr from(ASN1_TIME_new());
  const TimePtr until(ASN1_TIME_new());
  if (!crl || !from || !until || !SetTime(from.get(), plan.thisUpdate) ||
      !SetTime(until.get(), plan.nextUpdate) || X509_CRL_set_version(crl.get(), X509_CRL_VERSION_2) != 1 ||
      X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer.cert.get())) != 1 ||
      X509_CRL_set1_lastUpdate(crl.get(), from.get()) != 1 ||
      X509_CRL_set1_nextUpdate(crl.get(), until.get()) != 1) {
    return nullptr;
  }
  for (const RevokedCert& revoked : plan.revoked) {
    if (!AddRevoked(crl.get(), revoked)) return nullptr;
  }
  if (X509_CRL_sort(crl.get()) != 1 || !AddCrlExtensions(crl.get(), plan.number, issuer.cert.get()) ||
      X509_CRL_sign(crl.get(), issuer.key.get(), EVP_sha256()) <= 0) {
    return nullptr;
  }
  return crl;
}

cms::KeyPtr NewRsaKey(unsigned bits) {
  return cms::KeyPtr(EVP_RSA_gen(bits));
}

std::string CertPem(X509* cert) {
  const cms::BioPtr bio(BIO_new(BIO_s_mem()));
  return bio && PEM_write_bio_X509(bio.get(), cert) == 1 ? Drain(bio.get()) : std::string();
}

std::string CrlDer(X509_CRL* crl) {
  const cms::BioPtr bio(BIO_new(BIO_s_mem()));
  return bio && i2d_X509_CRL_bio(bio.get(), crl) == 1 ? Drain(bio.get()) : std::string();
}

std::string KeyPem(EVP_PKEY* key) {
  const cms::BioPtr bio(BIO_new(BIO_s_secmem()));  // wiped when freed, secure heap or not
  const bool written =
      bio && PEM_write_bio_PKCS8PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  return written ? Drain(bio.get()) : std::string();
}
