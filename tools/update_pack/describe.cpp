#include "describe.h"

#include <string.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "tool_io.h"
#include "verify/signature_normal.h"
#include "verify/signature_verify_public.h"
#include "x509_io.h"

namespace {

/// Names of the regular files of `directory` that end in `suffix`.
std::vector<std::string> FilesEndingIn(const std::string& directory, const std::string& suffix) {
  std::vector<std::string> names;
  std::error_code fault;  // an unreadable directory has no files
  for (const auto& entry : std::filesystem::directory_iterator(directory, fault)) {
    const std::string name = entry.path().filename().string();
    if (name.ends_with(suffix) && entry.is_regular_file(fault)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool FindNames(PackageDescription& out, const std::string& list, std::string& error) {
  std::string chosen = list;
  if (chosen.empty()) {
    const std::vector<std::string> signatures = FilesEndingIn(out.directory, ".cms");
    if (signatures.size() != 1) {
      error = out.directory +
              (signatures.empty() ? " holds no signature (.cms)" : " holds several signatures") +
              "; name the file list with --list";
      return false;
    }
    chosen = signatures[0].substr(0, signatures[0].size() - 4) + ".txt";
  }
  out.names = NamesOf(chosen);
  const std::vector<std::string> archives = FilesEndingIn(out.directory, ".tar.gz");
  if (archives.size() != 1) {
    error = out.directory +
            (archives.empty() ? " holds no package (.tar.gz)" : " holds several packages (.tar.gz)");
    return false;
  }
  out.package = archives[0];
  out.hasCrl = IsRegularFile(out.directory + "/" + out.names.crl);
  return true;
}

std::string StateOf(const std::string& path, const std::string& digest) {
  char text[kDigestText];
  if (CalcFileHashStr(path.c_str(), text, sizeof(text)) != 0) return "missing";
  return digest == text ? "matches" : "differs";
}

void ReadList(PackageDescription& out) {
  const std::string path = out.directory + "/" + out.names.list;
  const base::FilePtr file(OpenFileList(path.c_str()));
  uint32_t count = 0;
  if (!file) {
    out.troubles.push_back("the file list " + path + " cannot be read");
  } else if (GetFileNumFromList(file.get(), count) != 0) {
    out.troubles.push_back("the file list has no FileNum=");
  }
  for (uint32_t i = 0; i < count; ++i) {
    FILE_LIST_ENTRY_S entry;
    if (GetKeyValueFromFile(file.get(), "FileName=", entry.name, sizeof(entry.name)) != kKeyFound ||
        GetKeyValueFromFile(file.get(), "SHA256-Digest=", entry.digest, sizeof(entry.digest)) != kKeyFound) {
      out.troubles.push_back("the file list ends before its count of " + std::to_string(count));
      return;
    }
    out.files.push_back({entry.name, entry.digest, StateOf(out.directory + "/" + entry.name, entry.digest)});
  }
}

CertDescription DescribeCert(X509* cert) {
  return {NameText(X509_get_subject_name(cert)), NameText(X509_get_issuer_name(cert)),
          SerialText(X509_get0_serialNumber(cert)), TimeText(X509_get0_notBefore(cert)),
          TimeText(X509_get0_notAfter(cert))};
}

bool IsRevoked(const std::vector<cms::CrlPtr>& crls, X509* cert) {
  return std::any_of(crls.begin(), crls.end(), [cert](const cms::CrlPtr& crl) {
    X509_REVOKED* entry = nullptr;
    return X509_CRL_get0_by_cert(crl.get(), &entry, cert) == 1;
  });
}

SignerDescription DescribeSigner(CMS_SignerInfo* info, const cms::CertStackPtr& certs,
                                 const std::vector<cms::CrlPtr>& crls) {
  SignerDescription signer;
  X509_ALGOR* digest = nullptr;
  CMS_SignerInfo_get0_algs(info, nullptr, nullptr, &digest, nullptr);
  const ASN1_OBJECT* object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, digest);
  char name[80] = {};
  (void)OBJ_obj2txt(name, sizeof(name), object, 0);
  signer.digest = name;
  for (int i = 0; certs && i < sk_X509_num(certs.get()); ++i) {
    X509* cert = sk_X509_value(certs.get(), i);
    if (CMS_SignerInfo_cert_cmp(info, cert) != 0) continue;
    signer.cert = DescribeCert(cert);
    signer.certFound = true;
    signer.revoked = IsRevoked(crls, cert);
  }
  return signer;
}

void ReadSignature(PackageDescription& out, const std::vector<cms::CrlPtr>& crls) {
  std::string bytes, error;
  if (!ReadSmallFile(out.directory + "/" + out.names.signature, bytes, error)) {
    out.troubles.push_back(error);
    return;
  }
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  cms::CmsPtr signature(d2i_CMS_ContentInfo(nullptr, &data, static_cast<long>(bytes.size())));
  if (!signature) {
    const cms::BioPtr pem(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    signature.reset(PEM_read_bio_CMS(pem.get(), nullptr, nullptr, nullptr));
  }
  STACK_OF(CMS_SignerInfo)* infos = signature ? CMS_get0_SignerInfos(signature.get()) : nullptr;
  if (infos == nullptr) {
    out.troubles.push_back(out.names.signature + " is no CMS signature: " + CryptoError());
    return;
  }
  const cms::CertStackPtr certs(CMS_get1_certs(signature.get()));
  for (int i = 0; i < sk_CMS_SignerInfo_num(infos); ++i) {
    out.signers.push_back(DescribeSigner(sk_CMS_SignerInfo_value(infos, i), certs, crls));
  }
  for (int i = 0; certs && i < sk_X509_num(certs.get()); ++i) {
    const CertDescription cert = DescribeCert(sk_X509_value(certs.get(), i));
    const bool isSigner =
        std::any_of(out.signers.begin(), out.signers.end(), [&](const SignerDescription& signer) {
          return signer.cert.serial == cert.serial && signer.cert.issuer == cert.issuer;
        });
    if (!isSigner) out.chain.push_back(cert);
  }
}

std::vector<cms::CrlPtr> ReadCrls(PackageDescription& out) {
  std::string error;
  std::vector<cms::CrlPtr> crls = LoadCrls(out.directory + "/" + out.names.crl, error);
  if (crls.empty()) out.troubles.push_back(error);
  for (const cms::CrlPtr& crl : crls) {
    out.crls.push_back({NameText(X509_CRL_get_issuer(crl.get())), CrlNumberText(crl.get()),
                        TimeText(X509_CRL_get0_lastUpdate(crl.get())),
                        TimeText(X509_CRL_get0_nextUpdate(crl.get())),
                        std::max(0, sk_X509_REVOKED_num(X509_CRL_get_REVOKED(crl.get())))});
  }
  return crls;
}

void ReadArchive(PackageDescription& out) {
  constexpr size_t kRightsWidth = 10;
  bool foreign = false;
  const auto keep = [&](std::string_view line) {
    out.entries.emplace_back(line);
    foreign = foreign || line.find(" 0/0 ") != kRightsWidth;
  };
  std::string fault;
  if (!RunProgram({"tar", "--list", "--verbose", "--numeric-owner", "--gzip", "--utc", "--file",
                   out.directory + "/" + out.package},
                  keep, fault)) {
    out.troubles.push_back(fault);
  }
  if (foreign) {
    out.troubles.emplace_back(
        "a member does not belong to root; on the board its owner can change it before the script runs");
  }
}

}  // namespace

bool Describe(const std::string& directory, const std::string& list, bool withContents,
              PackageDescription& out, std::string& error) {
  out.directory = directory;
  if (!FindNames(out, list, error)) return false;
  if (!withContents) return true;
  std::vector<cms::CrlPtr> crls;
  if (out.hasCrl) crls = ReadCrls(out);
  ReadSignature(out, crls);
  ReadList(out);
  ReadArchive(out);
  return true;
}
