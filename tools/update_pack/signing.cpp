#include "signing.h"

#include <algorithm>

#include "commands.h"

namespace {

/// The certificate of `material` that issued the list; null when it is not there, as a root usually is not.
X509* IssuerIn(const SigningMaterial& material, X509_CRL* crl) {
  for (const cms::CertPtr& cert : material.chain) {
    if (X509_NAME_cmp(X509_get_subject_name(cert.get()), X509_CRL_get_issuer(crl)) == 0) return cert.get();
  }
  return nullptr;
}

bool IsIssuerOfAny(const SigningMaterial& material, X509_CRL* crl) {
  const X509_NAME* issuer = X509_CRL_get_issuer(crl);
  const auto issuedBy = [issuer](const cms::CertPtr& cert) {
    return X509_NAME_cmp(X509_get_issuer_name(cert.get()), issuer) == 0;
  };
  return issuedBy(material.cert) || std::any_of(material.chain.begin(), material.chain.end(), issuedBy);
}

bool CheckCrls(const SigningMaterial& material, const std::string& path, std::string& error) {
  for (const cms::CrlPtr& crl : material.crls) {
    if (!IsIssuerOfAny(material, crl.get())) {
      error = path + ": the list of '" + NameText(X509_CRL_get_issuer(crl.get())) +
              "' is not from an issuer of the signer, which is '" +
              NameText(X509_get_issuer_name(material.cert.get())) + "'; give that issuer's list";
      return false;
    }
    X509* issuer = IssuerIn(material, crl.get());
    if (issuer != nullptr && X509_CRL_verify(crl.get(), X509_get0_pubkey(issuer)) != 1) {
      error = path + ": the list names the issuer of the signer but is signed with another key";
      return false;
    }
    if (IsOver(X509_CRL_get0_nextUpdate(crl.get()))) {
      Note("the revocation list expired at " + TimeText(X509_CRL_get0_nextUpdate(crl.get())));
    }
    X509_REVOKED* entry = nullptr;
    if (X509_CRL_get0_by_cert(crl.get(), &entry, material.cert.get()) == 1) {
      Note("the revocation list revokes the signer; devices will refuse the package");
    }
  }
  return true;
}

}  // namespace

bool LoadSigningMaterial(const std::string& keyPath, const std::string& certPath,
                         const std::string& chainPath, const std::string& crlPath, SigningMaterial& material,
                         std::string& error) {
  material.key = LoadKey(keyPath, error);
  if (!material.key) return false;
  std::vector<cms::CertPtr> certs = LoadCerts(certPath, error);
  if (certs.empty()) return false;
  material.cert = std::move(certs.front());
  certs.erase(certs.begin());
  material.chain = std::move(certs);  // a certificate file may bring the chain along
  if (X509_check_private_key(material.cert.get(), material.key.get()) != 1) {
    error = "the key " + keyPath + " does not belong to the first certificate of " + certPath +
            "; give the key that goes with '" + NameText(X509_get_subject_name(material.cert.get())) + "'";
    return false;
  }
  if (!chainPath.empty()) {
    std::vector<cms::CertPtr> more = LoadCerts(chainPath, error);
    if (more.empty()) return false;
    for (cms::CertPtr& cert : more) material.chain.push_back(std::move(cert));
  }
  if (IsOver(X509_get0_notAfter(material.cert.get()))) {
    Note("the signer's certificate expired at " + TimeText(X509_get0_notAfter(material.cert.get())));
  }
  if (crlPath.empty()) {
    Note("no revocation list: only a device that stores one already will accept the package");
    return true;
  }
  material.crls = LoadCrls(crlPath, error);
  return !material.crls.empty() && CheckCrls(material, crlPath, error);
}

bool SignDetached(const SigningMaterial& material, std::string_view content, const std::string& digest,
                  std::string& signature, std::string& error) {
  const cms::CertListPtr chain(sk_X509_new_null());
  const cms::BioPtr input(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  bool made = chain && input;
  for (const cms::CertPtr& cert : material.chain) made = made && sk_X509_push(chain.get(), cert.get()) > 0;
  constexpr unsigned kFlags = CMS_DETACHED | CMS_BINARY | CMS_PARTIAL;
  cms::CmsPtr cms(made ? CMS_sign(nullptr, nullptr, chain.get(), nullptr, kFlags) : nullptr);
  const cms::DigestPtr algorithm(EVP_MD_fetch(nullptr, digest.c_str(), nullptr));
  const cms::BioPtr output(BIO_new(BIO_s_mem()));
  made = cms && algorithm && output &&
         CMS_add1_signer(cms.get(), material.cert.get(), material.key.get(), algorithm.get(),
                         CMS_BINARY | CMS_NOSMIMECAP) != nullptr &&
         CMS_final(cms.get(), input.get(), nullptr, kFlags & ~static_cast<unsigned>(CMS_PARTIAL)) == 1 &&
         i2d_CMS_bio(output.get(), cms.get()) == 1;
  if (!made) {
    error = "cannot sign: " + CryptoError();
    return false;
  }
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(output.get(), &bytes);
  signature.assign(bytes, static_cast<size_t>(length));
  return true;
}
