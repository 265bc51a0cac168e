/// Signing a file list: the signer's key and certificate, what belongs to them, and the detached CMS
/// signature.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "x509_io.h"

struct SigningMaterial {
  cms::KeyPtr key;
  cms::CertPtr cert;
  std::vector<cms::CertPtr> chain;  ///< intermediate certificates, nearest first or in any order
  std::vector<cms::CrlPtr> crls;
};

/// Loads the four files (`chainPath` and `crlPath` may be "") and checks that key and certificate match and
/// that the lists come from an authority that issued one of the certificates. What is only unwise is noted on
/// standard error.
[[nodiscard]] bool LoadSigningMaterial(const std::string& keyPath, const std::string& certPath,
                                       const std::string& chainPath, const std::string& crlPath,
                                       SigningMaterial& material, std::string& error);

/// The detached signature of `content` as DER: signed attributes, the bytes as they are, certificate and
/// chain included. `digest` is sha256, sha384 or sha512.
[[nodiscard]] bool SignDetached(const SigningMaterial& material, std::string_view content,
                                const std::string& digest, std::string& signature, std::string& error);
