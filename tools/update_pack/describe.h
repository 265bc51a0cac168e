/// What is in a package directory, read without judging it.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "file_names.h"

struct ListedFile {
  std::string name;
  std::string digest;
  std::string state;  ///< "matches", "differs" or "missing"
};

struct CertDescription {
  std::string subject;
  std::string issuer;
  std::string serial;
  std::string notBefore;
  std::string notAfter;
};

struct SignerDescription {
  CertDescription cert;
  std::string digest;
  bool certFound = false;  ///< the signature brings the signer's certificate
  bool revoked = false;    ///< by the list beside the package
};

struct CrlDescription {
  std::string issuer;
  std::string number;  ///< "" for none
  std::string thisUpdate;
  std::string nextUpdate;
  int revokedCount = 0;
};

struct PackageDescription {
  std::string directory;
  SignatureNames names;
  bool hasCrl = false;
  std::string package;               ///< name of the archive
  std::vector<std::string> entries;  ///< lines of its listing
  std::vector<ListedFile> files;
  std::vector<SignerDescription> signers;
  std::vector<CertDescription> chain;  ///< certificates of the signature that are no signer's
  std::vector<CrlDescription> crls;
  std::vector<std::string> troubles;  ///< what could not be read
};

/// Finds the file list (`list`, or the only .txt beside a .cms) and the archive and, with
/// `withContents`, reads everything. False
/// with `error` only when there is no package to be found in `directory`.
[[nodiscard]] bool Describe(const std::string& directory, const std::string& list, bool withContents,
                            PackageDescription& out, std::string& error);
